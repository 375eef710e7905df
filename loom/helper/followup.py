"""What comes after the scan of a file: its imports, its secondary scan, the memory that it is done.

The scheduler does this by itself for the scans that it runs, and for the files that its check finds
unchanged. Here it is done for those that a helper took.
"""

from __future__ import annotations

import os
from collections.abc import Callable
from typing import Final, Protocol

from guiutils import lgtk
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation
from pysource import _fastaccess
from pysource.scancoordinator import CScanCoordinator, kBackgroundPriority
from pysource.scopeinfo import CInfoCache

from loom.mainloop.base import LOW_IDLE_PRIORITY
from loom.store.records import FileRecord, FileTimes

__all__ = ["Engine", "FollowUp"]

_kWholeFile: Final = "*"

# Seconds of one idle call.
_kSliceSeconds: Final = 0.005

# Behind the search for files: what was asked for comes before what it imports.
_kPriority: Final = LOW_IDLE_PRIORITY + 5


class Engine(Protocol):
    """What is used of the analysis manager."""

    fPrimaryScanName: str
    fDerivedScanName: str
    fInfoCache: CInfoCache
    fScanCoordinator: CScanCoordinator


class FollowUp(CDestroyable):
    """Told of each file that is done. `on_rest` is called when all imports have been followed."""

    def __init__(self, engine: Engine, on_rest: Callable[[], object]) -> None:
        super().__init__()
        self._engine = engine
        self._cache = engine.fInfoCache
        self._coordinator = engine.fScanCoordinator
        self._on_rest = on_rest
        # What is done, with the time and size that it had, for files whose time can be trusted.
        self._done: dict[CLocation, tuple[int, int]] = {}
        # By folder, the imports to be followed, and those that were since the last rest. Most files
        # of a folder import the same modules.
        self._to_follow: dict[CLocation, set[bytes]] = {}
        self._followed: dict[CLocation, set[bytes]] = {}
        self._is_waiting = False

    def clear(self) -> None:
        """Forget all files, and the imports that aren't followed yet."""
        self._done.clear()
        self._to_follow.clear()
        self._followed.clear()

    @property
    def is_busy(self) -> bool:
        """Whether imports are still to be followed."""
        return bool(self._to_follow)

    def rest(self) -> None:
        """All work is done. What is imported may be looked at again from now on."""
        self._followed.clear()

    def is_as_done(self, loc: CLocation) -> bool:
        """Whether the file is as it was when it was done. Importers ask again and again."""
        done = self._done.get(loc)
        if done is None or not isinstance(loc, CLocalFileLocation):
            return False
        try:
            status = os.stat(loc.path)
        except OSError:
            return False
        return (status.st_mtime_ns, status.st_size) == done

    # --- what became of a file

    def stored(self, loc: CLocation, record: FileRecord) -> None:
        """The result of a helper was stored."""
        self._finished(loc)
        if record.settled:
            self._done[loc] = record.mtime_ns, record.size
        if record.error is not None and record.error_lineno == 0:
            return  # nothing was scanned
        if record.imports:
            self._follow(loc, record.imports)
        self._queue_secondary(loc)

    def scanned(self, loc: CLocation, finished: bool) -> None:
        """A scan of this process has stored its result, or why there is none."""
        self._finished(loc)
        state = self._cache.StatesOf([loc]).get(loc)
        if state is not None and state.settled:
            self._done[loc] = state.mtime_ns, state.size
        if finished:
            self._follow_stored([loc])
            self._queue_secondary(loc)

    def reread(self, loc: CLocation, times: FileTimes) -> None:
        """The bytes are those that were scanned before."""
        self._finished(loc)
        if times.settled:
            self._done[loc] = times.mtime_ns, times.size
        self._follow_stored([loc])
        self._queue_secondary(loc)

    def unchanged(self, locs: list[CLocation]) -> None:
        """The results of these files still hold."""
        if not locs:
            return
        for loc, state in self._cache.StatesOf(locs).items():
            self._done[loc] = state.mtime_ns, state.size
            if self._engine.fDerivedScanName not in state.scans:
                self._queue_secondary(loc)
        self._follow_stored(locs)

    def gone(self, loc: CLocation) -> None:
        """There is no such file. Listeners of the scheduler hear it as from its own check."""
        self._cache.ForgetFile(loc)
        self._coordinator.emit("modtimes-updated", {loc: 0.0})

    def _finished(self, loc: CLocation) -> None:
        self._cache.FinishedWithScans(loc, _kWholeFile, self._engine.fPrimaryScanName)

    def _queue_secondary(self, loc: CLocation) -> None:
        # The scheduler drops it if nobody wants it.
        self._coordinator.AddPairsToSecondaryQueue([(loc, _kWholeFile)], True, kBackgroundPriority)

    # --- imports

    def _follow_stored(self, locs: list[CLocation]) -> None:
        for loc, _, imports in self._cache.GetAllImports(locs):
            self._follow(loc, imports)

    def _follow(self, loc: CLocation, imports: bytes) -> None:
        if not self._coordinator._fAnalyzeFoundImports:
            return
        folder = loc.GetParentDir()
        new = {*imports.split(b";")} - self._followed.setdefault(folder, set())
        if not new:
            return
        self._followed[folder] |= new
        self._to_follow.setdefault(folder, set()).update(new)
        if not self._is_waiting:
            self._is_waiting = True
            lgtk.idle_add_while_alive(self._follow_some, self, priority=_kPriority)

    def _follow_some(self) -> bool:
        """Queue what the files of a folder or two import; once for all that came together."""
        end = _fastaccess.GetNowTime() + _kSliceSeconds
        add_imports = getattr(self._coordinator, "_CScanCoordinator__AddImportEquivsToQueue")
        while self._to_follow:
            folder = next(iter(self._to_follow))
            equivs = self._to_follow.pop(folder)
            add_imports(equivs, folder, kBackgroundPriority)
            if self._to_follow and _fastaccess.OutOfTime(end):
                return True
        self._is_waiting = False
        self._on_rest()
        return False
