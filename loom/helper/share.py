"""The first process's own share of the scans that helpers could do.

With one helper on two cores the first process would wait for results half of its time. It scans a
file of the list instead, in slices that are much shorter than the scheduler's, so that whoever it
works for isn't kept waiting either.
"""

from __future__ import annotations

from typing import Final

from guiutils import lgtk
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation
from loomutils.reflect import ReportCurrentException
from pysource import _fastaccess, scopescanner
from pysource.utils import IsPythonSource

from loom.helper.backlog import Task
from loom.helper.followup import Engine
from loom.helper.pool import CHelperPool
from loom.mainloop.base import LOW_IDLE_PRIORITY

__all__ = ["LocalShare"]

# Seconds of one idle call, and those in which its writing has to be over.
_kSliceSeconds: Final = 0.006
_kWriteSeconds: Final = 0.012

# Behind the storing of results, which frees the helpers, and behind the search for files.
_kPriority: Final = LOW_IDLE_PRIORITY + 10


class LocalShare(CDestroyable):
    """Scans files from the pool's list while there are any and nothing better is to be done."""

    def __init__(self, engine: Engine, pool: CHelperPool) -> None:
        super().__init__()
        self._engine = engine
        self._cache = engine.fInfoCache
        self._coordinator = engine.fScanCoordinator
        self._pool = pool
        self._idle: int | None = None
        self._task: Task | None = None
        self._scanner: scopescanner.CWholeFilePrimaryScanner | None = None
        pool.connect_while_alive("work-came", self._note_work, self)

    def _note_work(self, pool: object) -> None:
        if self._idle is None:
            self._idle = lgtk.idle_add_while_alive(self._work, self, priority=_kPriority)

    def _work(self) -> bool:
        now = _fastaccess.GetNowTime()
        self._cache.NoteSliceEnd(now + _kWriteSeconds)
        self._cache.Trim()
        end = now + _kSliceSeconds
        while not _fastaccess.OutOfTime(end):
            if not self._is_allowed() or (self._task is None and not self._take()):
                self._idle = None
                return False
            self._go_on(end)
        self._pool.slice_over()
        return True

    def _is_allowed(self) -> bool:
        return self._coordinator._fIdleScanSuspendCount == 0

    def _take(self) -> bool:
        tasks = self._pool.backlog.take(1)
        if not tasks:
            return False
        self._task = self._pool.local_task = tasks[0]
        self._task.again = False
        return True

    def _go_on(self, end: float) -> None:
        task = self._task
        assert task is not None
        try:
            if not self._scan(task, end):
                return
        except Exception:
            ReportCurrentException()
        self._drop_scanner()
        self._task = self._pool.local_task = None
        self._pool.finish(task)

    def _scan(self, task: Task, end: float) -> bool:
        """Carry the file's scan on; true if it is over."""
        loc, scan_name = task.loc, self._engine.fPrimaryScanName
        assert isinstance(loc, CLocalFileLocation)
        if self._scanner is None:
            if not IsPythonSource(loc):
                return True
            modtime = self._cache.GetDiskMTime(loc)
            if modtime == 0:
                self._pool.follow_up.gone(loc)
                return True
            if scan_name in self._cache.GetScansDoneForMultipleFiles({loc: modtime}).get(loc, ""):
                self._pool.follow_up.unchanged([loc])
                return True
            self._scanner = scopescanner.CWholeFilePrimaryScanner(
                loc,
                scan_name,
                incomplete_scope_set=self._coordinator._fIncompleteScansByLoc[loc],
                log=self._coordinator.fLog,
            )
        state = self._scanner.Scan(end)
        if state is not scopescanner.kFinishedScanning and state is not scopescanner.kScanAbandoned:
            return False
        if not self._coordinator._fIncompleteScansByLoc[loc]:
            del self._coordinator._fIncompleteScansByLoc[loc]
        self._pool.follow_up.scanned(loc, state is scopescanner.kFinishedScanning)
        return True

    def _drop_scanner(self) -> None:
        if self._scanner is not None:
            self._scanner.destroy()
            self._scanner = None

    def _destroy_impl(self) -> None:
        self._drop_scanner()
