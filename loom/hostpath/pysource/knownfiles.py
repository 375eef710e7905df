"""What the info cache knows of whole files: which there are, and whether what is stored holds."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterable, Mapping, Sequence
from typing import Final, TypeVar

from loombase.destroyable import CDestroyable
from loombase.inspection import CFileKind, StateOf
from loombase.location import CLocalFileLocation, CLocation

from loom import freshness
from loom.store.lookup import Lookup
from loom.store.records import FileState
from loom.store.writer import Writer

__all__ = ["CFollowing", "CKnownFiles", "SecondsOf"]

_T = TypeVar("_T")

# A double holds seconds since the epoch to a quarter of a microsecond.
_kSameTimeSeconds: Final = 1e-6

# Modification times, in nanoseconds, whose seconds mean something else: no such file, and a buffer
# with unsaved changes.
_kReservedTimes: Final = (0, -2_000_000_000)


def SecondsOf(mtime_ns: int) -> float:
    """A modification time as the rest of the system knows it, always the same way."""
    if mtime_ns <= 0 and mtime_ns in _kReservedTimes:
        mtime_ns += 1
    return mtime_ns / 1e9


# A file's time as it was told, in seconds, and its time and size to the last digit.
_DiskState = tuple[float, int, int]


class CFollowing:
    """Which files' imports were followed in an earlier session, to where they lead today, too.

    `number` is the one that such files bear as `files.followed`; 0 is that of no file. `others` are
    the URLs of local files that hold and don't bear it.
    """

    def __init__(self, number: int) -> None:
        self.number = number
        self.others: dict[str, None] = {}
        self._fNoted: set[CLocation] = set()

    def Note(self, loc: CLocation, state: FileState) -> None:
        """The file holds."""
        if state.followed and state.followed == self.number:
            self._fNoted.add(loc)
        elif isinstance(loc, CLocalFileLocation):
            self.others[loc.fUrl] = None

    def NoteScan(self, loc: CLocation) -> None:
        """The file was scanned."""
        self._fNoted.discard(loc)
        if isinstance(loc, CLocalFileLocation):
            self.others[loc.fUrl] = None

    def ToFollow(self, locs: Sequence[CLocation]) -> Sequence[CLocation]:
        """The files whose imports must be followed. Those that were noted are asked for once."""
        if not self._fNoted:
            return locs
        noted, self._fNoted = self._fNoted, set()
        return [loc for loc in locs if loc not in noted]


class CKnownFiles(CDestroyable):
    """The part of the info cache that answers for whole files. What waits counts as stored."""

    _fWriter: Writer
    _fLookup: Lookup
    _fDiskStates: dict[CLocation, _DiskState]

    # None while every import is followed, and nobody wants to know which.
    fFollowing: CFollowing | None = None

    def _Ask(self, question: Callable[[], _T], unknown: _T) -> _T:
        """The answer of the database; `unknown` if it turns out to be damaged."""
        raise NotImplementedError

    def _NoticeOtherWriters(self) -> None:
        raise NotImplementedError

    def ForgetFile(self, loc: CLocation) -> None:
        """Drop all that is known of a file."""
        raise NotImplementedError

    def GetDiskMTime(self, loc: CLocation) -> float:
        """The file's modification time in seconds, 0.0 if there is no such file.

        A file that is gone is forgotten. The time of a remote file is what its inspection found,
        and -1.0, the time of no results, if it isn't inspected.
        """
        if not isinstance(loc, CLocalFileLocation):
            return self._InspectedMTime(loc)
        try:
            status = os.stat(loc.path)
        except (FileNotFoundError, NotADirectoryError):
            self.ForgetFile(loc)
            return 0.0
        except OSError:
            return 0.0
        mtime_ns = freshness.mtime_ns_of(status)
        mtime = SecondsOf(mtime_ns)
        self._fDiskStates[loc] = mtime, mtime_ns, status.st_size
        return mtime

    def _InspectedMTime(self, loc: CLocation) -> float:
        state = StateOf(loc)
        if state is None:
            return -1.0 if loc.fAsyncInspect else 0.0
        if state.kind is CFileKind.ABSENT:
            self.ForgetFile(loc)
        if state.kind in (CFileKind.ABSENT, CFileKind.CLOSED):
            return 0.0
        mtime = SecondsOf(state.mtime_ns)
        self._fDiskStates[loc] = mtime, state.mtime_ns, state.size
        return mtime

    def GetScansDoneForMultipleFiles(
        self, modtimes: Mapping[CLocation, float]
    ) -> dict[CLocation, str]:
        """For each file whose results are of the given time, the names of the scans done.

        The text holds each name between blanks. Files that aren't known, that were scanned at
        another time or by another version of the scanner, or whose time can't be trusted, are
        missing. Where `GetDiskMTime` found the time, the size must be the same as well.
        """
        self._NoticeOtherWriters()
        urls = [loc.fUrl for loc in modtimes]
        states = self._States(urls)
        following = self.fFollowing
        result: dict[CLocation, str] = {}
        for url, (loc, modtime) in zip(urls, modtimes.items(), strict=True):
            disk = self._fDiskStates.pop(loc, None)
            state = states.get(url)
            if state is None:
                continue
            if disk is not None and disk[0] == modtime:
                valid = freshness.is_fresh(state, disk[1], disk[2])
            elif abs(SecondsOf(state.mtime_ns) - modtime) < _kSameTimeSeconds:
                valid = freshness.is_fresh(state, state.mtime_ns, state.size)
            else:
                valid = False
            if valid and state.scans:
                result[loc] = state.scans
                if following is not None:
                    following.Note(loc, state)
        return result

    def StatesOf(self, locs: Iterable[CLocation]) -> dict[CLocation, FileState]:
        """For which state of the files there are results, without files that aren't known."""
        by_url = {loc.fUrl: loc for loc in locs}
        return {by_url[url]: state for url, state in self._States(by_url).items()}

    def _States(self, urls: Iterable[str]) -> dict[str, FileState]:
        """For which state of the files results are stored or wait, without unknown files."""
        writer = self._fWriter
        states: dict[str, FileState] = {}
        to_ask: list[str] = []
        if writer.rows_written:
            to_ask += urls
        else:
            for url in urls:
                record = writer.pending_file(url)
                if record is not None:
                    states[url] = record.state()
                elif not writer.pending_deletion(url):
                    to_ask.append(url)
        if to_ask:
            stored: dict[str, FileState] = {}
            stored = self._Ask(lambda: self._fLookup.states(to_ask), stored)
            if writer.rows_written:
                return stored
            for url, state in stored.items():
                times = writer.pending_times(url)
                states[url] = state if times is None else state._replace(**times._asdict())
        derived = writer.derived
        if not derived.empty:
            for url, state in states.items():
                states[url] = state._replace(scans=derived.scans_of(url, state))
        return states

    def GetAllImports(self, locs: Sequence[CLocation]) -> list[tuple[CLocation, None, bytes]]:
        """(file, none, its import equivalents joined by ";") of each file that imports anything.

        Files that were just found to hold are left out if nothing can come of following them.
        """
        if self.fFollowing is not None:
            locs = self.fFollowing.ToFollow(locs)
        urls = [loc.fUrl for loc in locs]
        found: dict[str, bytes] = {}
        to_ask: list[str] = []
        for url in urls:
            record = self._fWriter.pending_file(url)
            if record is not None:
                found[url] = record.imports
            elif not self._fWriter.pending_deletion(url):
                to_ask.append(url)
        if to_ask:
            unknown: dict[str, bytes] = {}
            found.update(self._Ask(lambda: self._fLookup.imports(to_ask), unknown))
        return [
            (loc, None, found[url]) for url, loc in zip(urls, locs, strict=True) if found.get(url)
        ]

    def IsKnown(self, loc: CLocation) -> bool:
        """Whether anything is stored of the file, were it a failure."""
        return loc.fUrl in self._States([loc.fUrl])

    def HasResultsOf(self, loc: CLocalFileLocation) -> bool:
        """Whether what is stored of a file is of its present time and size, however young."""
        state = self._States([loc.fUrl]).get(loc.fUrl)
        if state is None or not state.scans:
            return False
        try:
            status = os.stat(loc.path)
        except OSError:
            return False
        return state.mtime_ns == freshness.mtime_ns_of(status) and state.size == status.st_size

    def IsDoneFor(self, loc: CLocation, digest: bytes, scan_name: str) -> bool:
        """Whether what a scan finds in bytes with this digest is stored."""
        state = self._States([loc.fUrl]).get(loc.fUrl)
        return state is not None and freshness.was_scanned(state, digest, scan_name)

    def GetDigest(self, loc: CLocation) -> bytes:
        """The digest of the bytes that the results of a file are of; empty for none."""
        state = self._States([loc.fUrl]).get(loc.fUrl)
        return b"" if state is None or not state.scans else state.digest
