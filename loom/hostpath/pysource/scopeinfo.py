"""The info cache: what is known of every scope of every file, kept in a database.

Results of scans wait in memory until there are enough of them for a transaction, and are found
there by every question just as if they were written. The cache never scans.
"""

from __future__ import annotations

import logging
import os
import sqlite3
import stat
from collections import OrderedDict
from collections.abc import Callable, Container, Iterable, Iterator, Sequence
from functools import cached_property, partial
from pathlib import Path
from typing import Final, NamedTuple, TypeVar

from guiutils import lgtk
from loombase.location import CLocalFileLocation, CLocation, LocationFromUrl
from pysource import _fastaccess
from pysource.knownfiles import CFollowing, CKnownFiles, SecondsOf
from pysource.loccache import CLocCache

from loom import freshness
from loom._pyscan import unpack_info
from loom.mainloop.base import LOW_IDLE_PRIORITY
from loom.store import followed
from loom.store.checkpoint import Checkpointer
from loom.store.database import (
    kLockWaitSeconds,
    open_for_writing,
    set_aside,
    told,
    transaction,
)
from loom.store.derived import DerivedRecord
from loom.store.errors import StoreError, StoreLockedError, is_damage
from loom.store.lookup import Lookup
from loom.store.queries import path_of
from loom.store.records import (
    AddedScope,
    FileRecord,
    FileState,
    FileTimes,
    StoredScope,
    kUnsavedTime,
)
from loom.store.writer import Writer

__all__ = ["CFollowing", "CInfoCache", "CScopeInfo", "CScopeInfoKey", "SecondsOf"]

_log = logging.getLogger("loom.infocache")
_T = TypeVar("_T")

# (location, scope name, scan name)
_Triple = tuple[CLocation, str, str]

# Bytes of waiting results from which on `Trim` writes, and bytes from which on it does so whatever
# time is left. Twice the latter, and results that can't be written are an error.
_kWriteAtBytes: Final = 1024 * 1024
_kMustWriteAtBytes: Final = 16 * 1024 * 1024

# Bytes of scope records that are kept for the next question.
_kRecordBytes: Final = 8 * 1024 * 1024

# Seconds that one call may write: out of `Trim`, and as the work of an idle call of its own.
_kTrimSeconds: Final = 0.010
_kIdleWriteSeconds: Final = 0.040
# A transaction ends a little after its time is over: the last steps and the commit.
_kCommitSeconds: Final = 0.006
# What `Trim` takes when it must write and the slice is over.
_kForcedSeconds: Final = 0.005

# States of files that are kept between the question for their time and that for their scans.
_kMaxDiskStates: Final = 4096

# Behind the scheduler's slices.
_kGoOnPriority: Final = LOW_IDLE_PRIORITY + 100

# Seconds to wait before the next try when the database couldn't be written.
_kRetrySeconds: Final = 1.0

# Files that `ForgetVanishedBelow` looks at between two yields: a millisecond or so.
_kVanishedStep: Final = 200


class CScopeInfoKey(NamedTuple):
    """Names a scope record: which scope, what scan found it, and where its text stands."""

    loc: CLocation
    scope_name: str
    scan_name: str
    source_loc: CLocation
    source_scope_name: str


class CScopeInfo:
    """What one scope defines.

    `packed` are the names with their information as the native scanner packs them, or nothing.
    `disk_mtime` is the modification time, in seconds, of the file that they came from.
    `incomplete` tells that part of the scope couldn't be read; `does_not_exist` that the scope is
    known not to be there.
    """

    def __init__(
        self,
        key: CScopeInfoKey,
        packed: bytes,
        disk_mtime: float,
        incomplete: bool,
        does_not_exist: bool = False,
    ) -> None:
        self.key = key
        self.packed = packed
        self.disk_mtime = disk_mtime
        self.incomplete = incomplete
        self.does_not_exist = does_not_exist

    @cached_property
    def type_equivs(self) -> dict[str, bytes]:
        """Information by name, in order of first definition; unpacked when it is asked for."""
        return unpack_info(self.packed) if self.packed else {}

    def GetInfoBytes(
        self, name: str, default: bytes | None = None, inst: bool = False
    ) -> bytes | None:
        """The information of a name, or `default`.

        With `inst`, an attribute that a method gives to its instance is found, too: it stands in
        the method's record as "self." and the name.
        """
        found = self.type_equivs.get(name)
        if found is None and inst:
            found = self.type_equivs.get(f"self.{name}")
        return default if found is None else found

    def __repr__(self) -> str:
        return f"CScopeInfo({self.key.loc!r}, {self.key.scope_name!r}, {self.key.scan_name!r})"


class CInfoCache(CKnownFiles):
    """The store of all scan results, over the database at `path`.

    Signals: "needs-scan-added" (the cache, a set of triples of location, scope name and scan name,
    a priority or none); "file-stored" (the cache, a location, its `FileRecord`) when the result of
    a whole-file scan came in, a failure included; "file-reread" (the cache, a location) when the
    file's bytes turned out to be those that were scanned before; "derived-stale" (the cache, a list
    of locations) when the derived results of files hold no more, since what they were drawn from
    changed.

    A damaged database, or one of a newer version, is set aside and a new one begun, at the start
    or whenever the damage shows; `fMessages` then says so. Raises `StoreError` if there is no way
    to use the database. `Close`, or `destroy`, writes all that waits.
    """

    def __init__(self, path: str | os.PathLike[str]) -> None:
        super().__init__(("needs-scan-added", "file-stored", "file-reread", "derived-stale"))
        self.fPath = Path(path).absolute()
        self.fMessages: list[str] = []
        self.fLocCache = CLocCache()
        self._fConnection = self._Open()
        self._fWriter = Writer(self._fConnection)
        self._fLookup = Lookup(self._fConnection)
        self._fCheckpointer = Checkpointer(self.fPath)
        self._fDataVersion = self._fFollowedVersion = self._fLookup.data_version()
        # By location, least recently used first, so that a file's records go together.
        self._fRecords: OrderedDict[CLocation, dict[str, CScopeInfo]] = OrderedDict()
        self._fRecordBytes = 0
        # Scopes of unsaved text. They end with it, so the database doesn't get them.
        self._fUnsaved: dict[CLocation, dict[str, CScopeInfo]] = {}
        self._fDiskStates = {}
        self._fAskedScans: set[_Triple] = set()
        self._fSliceEnd: float | None = None
        self.fWriteSeconds = _kIdleWriteSeconds  # what an idle call of its own may take
        self._fRetryTime = float("-inf")
        self._fWritesFailed = False  # the last try of `Trim`
        self._fGoOnWritingIdle: int | None = None
        self._fClosed = False

    # --- questions

    def GetScopeInfo(self, loc: CLocation, scope_name: str) -> CScopeInfo | None:
        """What is stored of a scope, or none. Never scans."""
        unsaved = self._fUnsaved.get(loc)
        if unsaved is not None and scope_name in unsaved:
            return unsaved[scope_name]
        records = self._fRecords.get(loc)
        if records is not None:
            self._fRecords.move_to_end(loc)
            info = records.get(scope_name)
            if info is not None:
                return info
        stored = self._FindScope(loc.fUrl, scope_name)
        if stored is None:
            return None
        info = CScopeInfo(
            CScopeInfoKey(loc, scope_name, stored.scan_name, loc, scope_name),
            stored.info,
            stored.disk_mtime,
            stored.incomplete,
            stored.does_not_exist,
        )
        self._Remember(info)
        return info

    def _FindScope(self, url: str, scope_name: str) -> StoredScope | None:
        added = self._fWriter.pending_scope(url, scope_name)
        if added is not None:
            return added.stored
        record = self._fWriter.pending_file(url)
        if record is not None:
            for row in record.scopes:
                if row[0] == scope_name:
                    scan_name = record.scans.split()[0]
                    return StoredScope(scan_name, SecondsOf(record.mtime_ns), False, False, row[5])
            return None
        if self._fWriter.pending_deletion(url):
            return None
        times = self._fWriter.pending_times(url)
        if times is None:
            return self._Ask(lambda: self._fLookup.scope(url, scope_name), None)
        stored = self._Ask(lambda: self._fLookup.scope(url, scope_name, with_added=False), None)
        return stored and stored._replace(disk_mtime=SecondsOf(times.mtime_ns))

    def GetScopeLines(self, loc: CLocation) -> list[tuple[str, int, int]]:
        """(scope name, first line, last line) of all scopes of a file, parents before children.

        Empty for an unknown file.
        """
        record = self._fWriter.pending_file(loc.fUrl)
        if record is not None:
            return [(row[0], row[3], row[4]) for row in record.scopes]
        if self._fWriter.pending_deletion(loc.fUrl):
            return []
        return self._Ask(lambda: self._fLookup.scope_lines(loc.fUrl), [])

    def GetUnsavedNames(self, loc: CLocation) -> set[str]:
        """The names of the scopes of which something is known from a file's unsaved text."""
        return set(self._fUnsaved.get(loc, ()))

    # --- changes

    def AddFile(self, loc: CLocation, record: FileRecord) -> None:
        """Store what a whole-file scan found, in place of all that was known of the file."""
        self._fWriter.put_file(record)
        if self.fFollowing is not None:
            self.fFollowing.NoteScan(loc)
        self._NoteExports(loc, record.exports)
        self._Forget(loc)
        self.ForgetUnsaved(loc)
        self.emit("file-stored", self, loc, record)

    def RefreshFile(
        self, loc: CLocation, scan_name: str, digest: bytes, times: FileTimes
    ) -> bool:
        """Whether the scan was done already for bytes with this digest; `times` is then noted.

        An empty digest is that of no file.
        """
        state = self._States([loc.fUrl]).get(loc.fUrl)
        if state is None or not freshness.was_scanned(state, digest, scan_name):
            return False
        self._fWriter.put_times(loc.fUrl, digest, times)
        self._Forget(loc)  # records tell the time
        self.ForgetUnsaved(loc)
        if self.fFollowing is not None:
            self.fFollowing.Note(loc, state)
        self.emit("file-reread", self, loc)
        return True

    def AddDerived(self, record: DerivedRecord) -> None:
        """Store what a derived scan found, in place of what it found before."""
        self._fWriter.derived.put(record)

    @property
    def fDerivedGeneration(self) -> int:
        """A number that changes whenever what files show to others changes."""
        return self._fWriter.derived.generation

    def _NoteExports(self, loc: CLocation, exports: bytes | None) -> None:
        """Let go of derived results that depend on what others saw of the file."""
        stale = self._Ask(
            lambda: self._fWriter.derived.note_exports(loc.fUrl, exports), list[str]()
        )
        if stale:
            self.emit("derived-stale", self, [LocationFromUrl(url) for url in stale])

    def AddScopeInfo(self, info: CScopeInfo) -> None:
        """Store one scope, until its file is scanned again.

        One with the time of unsaved text is kept in memory only, ahead of what is stored, until
        `ForgetUnsaved` at the latest.
        """
        key = info.key
        if info.disk_mtime == SecondsOf(kUnsavedTime):
            self._fUnsaved.setdefault(key.loc, {})[key.scope_name] = info
            return
        self._fUnsaved.get(key.loc, {}).pop(key.scope_name, None)
        stored = StoredScope(
            key.scan_name, info.disk_mtime, info.incomplete, info.does_not_exist, info.packed
        )
        self._fWriter.put_scope(AddedScope(key.loc.fUrl, key.scope_name, stored))
        self._Remember(info)

    def ForgetFile(self, loc: CLocation) -> None:
        """Drop all that is known of a file."""
        self._fWriter.delete_file(loc.fUrl)
        self._NoteExports(loc, None)
        self._Forget(loc)
        self.ForgetUnsaved(loc)
        self._fDiskStates.pop(loc, None)

    def ForgetUnsaved(self, loc: CLocation) -> None:
        """Drop the scopes of a file's unsaved text, which is no more."""
        self._fUnsaved.pop(loc, None)

    def ForgetVanishedBelow(
        self,
        folder: CLocalFileLocation,
        is_left_out: Callable[[str], bool] | None = None,
        found: Container[str] = (),
    ) -> Iterator[list[CLocalFileLocation]]:
        """Drop the files below a folder that are there no more, some at a time.

        For the end of a scan of the folder: nobody asks for the times of files that aren't found.
        The URLs `found` aren't looked at. Of the others, yields those that are still there. With
        `is_left_out`, those for whose paths it is true are dropped, too.
        """
        for urls in self.StoredUrlsBelow(folder):
            others = []
            for url in urls:
                if url in found:
                    continue
                path = path_of(url)
                if path is not None:
                    loc = CLocalFileLocation(path)
                    if _IsGone(path) or (is_left_out and is_left_out(path)):
                        self.ForgetFile(loc)
                    else:
                        others.append(loc)
            yield others

    def StoredUrlsBelow(self, folder: CLocation) -> Iterator[list[str]]:
        """The URLs of all files below a folder of which anything is stored, some at a time.

        Files may be forgotten meanwhile; one may come twice.
        """
        waiting = self._fWriter.pending_urls_below(folder.fUrl)
        for start in range(0, len(waiting), _kVanishedStep):
            yield waiting[start : start + _kVanishedStep]
        after = ""
        while True:
            urls = self._Ask(
                partial(self._fLookup.urls_below, folder.fUrl, after, _kVanishedStep), list[str]()
            )
            if urls:
                yield urls
            if len(urls) < _kVanishedStep:
                return
            after = urls[-1]

    # --- where imports led to

    def LoadFollowed(self, key: bytes) -> followed.Followed | None:
        """What was saved under the key, or none. From now on other writers keep it from saving."""
        self._fFollowedVersion = self._Ask(self._fLookup.data_version, 0)
        try:
            return self._Ask(lambda: followed.load(self._fConnection, key), None)
        except ValueError:
            _log.warning("what was remembered of imports can't be read")
            return None

    def SaveFollowed(self, key: bytes, row: followed.Followed) -> bool:
        """Save something under a key; false if that couldn't be done, which does no harm."""
        return self._WriteFollowed(lambda: followed.save(self._fConnection, key, row))

    def MarkFollowed(self, number: int, urls: Sequence[str]) -> bool:
        """Have at most `kUrlsPerMark` files bear the number of what was saved; false if not."""
        return self._WriteFollowed(lambda: followed.mark(self._fConnection, number, urls))

    def _WriteFollowed(self, write: Callable[[], None]) -> bool:
        try:
            with told(self.fPath, 0.0), transaction(self._fConnection, 0.0):
                # Another process may have written files whose imports nobody has followed yet.
                if self._fLookup.data_version() != self._fFollowedVersion:
                    return False
                write()
        except StoreError as error:
            _log.info("where imports led to isn't remembered: %s", error)
            return False
        return True

    def AddNeedsScan(self, triples: Iterable[_Triple], priority: int | None = None) -> None:
        """Ask for scans. One that was asked for and hasn't finished since isn't asked for again."""
        added = set(triples) - self._fAskedScans
        if added:
            self._fAskedScans |= added
            self.emit("needs-scan-added", self, added, priority)

    def FinishedWithScans(self, loc: CLocation, scope_name: str, scan_name: str) -> None:
        """A scan is over, whatever came of it, and may be asked for again."""
        self._fAskedScans.discard((loc, scope_name, scan_name))

    def ForgetAskedScans(self) -> None:
        """Everything may be asked for again: the scheduler drops a scan without a word if the same
        one was over a moment ago, so at its end there may be some that never finished.
        """
        self._fAskedScans.clear()

    # --- writing

    def NoteSliceEnd(self, end_time: float) -> None:
        """Tell when the present slice ends, so that `Trim` doesn't carry it on."""
        self._fSliceEnd = end_time

    def Trim(self) -> None:
        """Bound the memory: write results if enough of them wait.

        Writes for at most 10 milliseconds, and not beyond the end of the slice unless very much
        waits. If the database can't be written, results wait for a later try; when they are too
        many, raises `StoreError`.
        """
        if len(self._fDiskStates) > _kMaxDiskStates:
            self._fDiskStates.clear()
        writer = self._fWriter
        if writer.pending_bytes < _kWriteAtBytes and not writer.merge_due:
            return
        now = _fastaccess.GetNowTime()
        if now < self._fRetryTime:
            return
        end = now + _kTrimSeconds
        if self._fSliceEnd is not None and self._fSliceEnd - _kCommitSeconds < end:
            end = self._fSliceEnd - _kCommitSeconds
            if end <= now:
                if writer.pending_bytes < _kMustWriteAtBytes:
                    return
                end = now + _kForcedSeconds
        try:
            self._Write(end, wait_seconds=0.0, index_all=False)
        except StoreError as error:
            if writer.pending_bytes >= 2 * _kMustWriteAtBytes:
                raise
            # Another process that writes at the moment is nothing to talk about, unless it lasts.
            passing = isinstance(error, StoreLockedError) and not self._fWritesFailed
            _log.log(
                logging.INFO if passing else logging.WARNING,
                "results wait to be written: %s",
                error,
            )
            self._fWritesFailed = True
            self._fRetryTime = now + _kRetrySeconds
        else:
            self._fWritesFailed = False

    def WriteToDatabase(self) -> None:
        """Write all that waits and bring the index of names up to date.

        What takes longer than a slice goes on in idle calls of its own; `HasUnwritten` tells.
        They come after all scanning: the index is best brought up to date for many files at once.
        Waits for another process's lock for a second at most. Raises `StoreError`; nothing is lost
        then, and a later call tries again.
        """
        self._WriteSlice(index_all=False)
        if self.HasUnwritten() and self._fGoOnWritingIdle is None:
            self._fGoOnWritingIdle = lgtk.idle_add_while_alive(
                self._CB_GoOnWriting, self, priority=_kGoOnPriority
            )

    def HasUnwritten(self) -> bool:
        """Whether results wait to be written or names to be indexed."""
        return not self._fWriter.idle

    def UnwrittenBytes(self) -> int:
        """Roughly the memory that waiting results take."""
        return self._fWriter.pending_bytes

    def WriteEverything(self) -> None:
        """As `WriteToDatabase`, and doesn't return before all is done."""
        while not self._WriteSlice():
            pass

    def Close(self) -> None:
        """Write everything and close the database. A second call does nothing.

        It is closed also if writing fails, which raises `StoreError`.
        """
        if self._fClosed:
            return
        self._fClosed = True
        try:
            self.WriteEverything()
        finally:
            self._fCheckpointer.join()
            self._fConnection.close()

    def _CB_GoOnWriting(self) -> bool:
        try:
            done = self._WriteSlice()
        except BaseException:
            self._fGoOnWritingIdle = None
            raise
        if done:
            self._fGoOnWritingIdle = None
        return not done

    def _WriteSlice(self, index_all: bool = True) -> bool:
        if self._fWriter.idle:
            return True
        end = _fastaccess.GetNowTime() + self.fWriteSeconds
        return self._Write(end, kLockWaitSeconds, index_all)

    def _Write(self, end_time: float, wait_seconds: float, index_all: bool) -> bool:
        """One transaction; true if all is written. Raises `StoreError`."""

        def out_of_time() -> bool:
            return _fastaccess.GetNowTime() >= end_time

        with told(self.fPath, wait_seconds):
            try:
                done = self._fWriter.write(out_of_time, wait_seconds, index_all)
            except sqlite3.DatabaseError as error:
                if not is_damage(error):
                    raise
                self._Rebuild(str(error))
                return False
        self._fCheckpointer.start_if_worthwhile()
        return done

    # --- the database

    def _Open(self) -> sqlite3.Connection:
        opened = open_for_writing(self.fPath)
        if opened.message:
            self.fMessages.append(opened.message)
        return opened.connection

    def _Ask(self, question: Callable[[], _T], unknown: _T) -> _T:
        """The answer of the database; `unknown` if it turns out to be damaged."""
        with told(self.fPath):
            try:
                return question()
            except sqlite3.DatabaseError as error:
                if not is_damage(error):
                    raise
                self._Rebuild(str(error))
                return unknown

    def _Rebuild(self, reason: str) -> None:
        """Go on with a new database. What was written is lost and will be scanned again."""
        self._fCheckpointer.join()
        self._fConnection.close()
        self.fMessages.append(set_aside(self.fPath, "damaged", reason))
        self._fConnection = self._Open()
        self._fWriter.reconnect(self._fConnection)
        self._fLookup = Lookup(self._fConnection)
        self._fRecords.clear()
        self._fRecordBytes = 0

    def _NoticeOtherWriters(self) -> None:
        version = self._Ask(self._fLookup.data_version, 0)
        if version != self._fDataVersion:
            self._fDataVersion = version
            self._fRecords.clear()
            self._fRecordBytes = 0

    def _destroy_impl(self) -> None:
        self.Close()

    # --- records in memory

    def _Remember(self, info: CScopeInfo) -> None:
        loc = info.key.loc
        records = self._fRecords.setdefault(loc, {})
        self._fRecords.move_to_end(loc)
        old = records.get(info.key.scope_name)
        if old is not None:
            self._fRecordBytes -= _RecordBytes(old)
        records[info.key.scope_name] = info
        self._fRecordBytes += _RecordBytes(info)
        while self._fRecordBytes > _kRecordBytes and len(self._fRecords) > 1:
            self._Forget(next(iter(self._fRecords)))

    def _Forget(self, loc: CLocation) -> None:
        for info in self._fRecords.pop(loc, {}).values():
            self._fRecordBytes -= _RecordBytes(info)


def _IsGone(path: str) -> bool:
    """Whether there is certainly no such file; a folder or pipe in its place is none."""
    try:
        return not stat.S_ISREG(os.stat(path).st_mode)
    except (FileNotFoundError, NotADirectoryError):
        return True
    except OSError:
        return False


def _RecordBytes(info: CScopeInfo) -> int:
    # Unpacked, the names and their information take a few times their packed length.
    return 500 + 4 * len(info.packed)
