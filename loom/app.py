"""Putting a whole host together, and taking it apart again."""

from __future__ import annotations

import gc
from pathlib import Path
from typing import Final

from guiutils import lgtk
from loombase.destroyable import CDestroyable
from singleton import GetSingletons

from loom.followed import FollowingCoordinator
from loom.mainloop.base import MainLoop
from loom.services.engine import CAnalysisMgr
from loom.services.gui import CGuiMgr
from loom.services.managers import CCacheMgr, CFileAttribMgr, CPrefMgr, CSavableMgr

__all__ = ["App"]

# So many more objects than before, or so many slices, and a garbage collection is worth it. Slices
# count, because old objects that go, from a cache that is full, are set off against new ones. How
# often it is done costs nothing: each object that stays is walked once.
_kYoungObjects: Final = 5_000
_kSlicesPerCollection: Final = 4

# So many collections of young objects go with one of all objects.
_kYoungPerFull: Final = 1_000

# Before all other idle work.
_kFirstIdlePriority: Final = 0


class App(CDestroyable):
    """The stand-alone host over one database, on one main loop. One at a time in a process.

    `coordinator_class` makes the scheduler. Raises `loom.store.errors.StoreError` if the database can't be used. `destroy` saves what isn't
    written yet; the main loop stays its maker's.
    """

    def __init__(
        self,
        db_path: Path,
        main_loop: MainLoop,
        coordinator_class: type[FollowingCoordinator] = FollowingCoordinator,
    ) -> None:
        super().__init__()
        table = GetSingletons()
        if table.fAnalysisMgr is not None:
            raise RuntimeError("another host runs in this process already")
        self.main_loop = main_loop
        self._collections = 0
        self._slices = 0
        self._collect_idle: int | None = None
        lgtk.SetMainLoop(main_loop)
        try:
            table.fPrefMgr = CPrefMgr()
            self.attribs = table.fFileAttribMgr = CFileAttribMgr()
            table.fCacheMgr = CCacheMgr(self.attribs)
            table.fSavableMgr = CSavableMgr()
            table.fGuiMgr = CGuiMgr()
            self.ana_mgr = CAnalysisMgr(db_path, coordinator_class)
        except BaseException:
            self._clear_table()
            raise
        table.fAnalysisMgr = self.ana_mgr
        self.info_cache = self.ana_mgr.fInfoCache
        coordinator = self.ana_mgr.fScanCoordinator
        assert isinstance(coordinator, FollowingCoordinator)
        self.coordinator = coordinator

    def collect_between_slices(self) -> None:
        """Keep garbage collections out of slices, in a process that is this host's own.

        A collection can take half as long as a slice: results that were just found are many young
        objects, and a full one walks the hundred thousands that a host holds for good (a location
        for each file, what is queued). What stands now is left alone for the life of the process,
        and the rest is collected in idle calls of its own. When the app is destroyed, the collector
        stays off: the process ends.
        """
        gc.collect()
        gc.freeze()
        gc.disable()
        self.coordinator.on_slice_over = self._look_for_garbage

    def _look_for_garbage(self) -> None:
        self._slices += 1
        is_due = gc.get_count()[0] > _kYoungObjects or self._slices >= _kSlicesPerCollection
        if is_due and self._collect_idle is None:
            self._collect_idle = lgtk.idle_add_while_alive(
                self._collect, self, priority=_kFirstIdlePriority
            )

    def _collect(self) -> None:
        self._collect_idle = None
        self._slices = 0
        self._collections += 1
        # What outlives its slice mostly stays: a second look at the young is no use.
        gc.collect(1 if self._collections % _kYoungPerFull else 2)

    def _destroy_impl(self) -> None:
        self.coordinator.Quitting()
        try:
            self.ana_mgr.destroy()
        finally:
            self._clear_table()

    def _clear_table(self) -> None:
        table = GetSingletons()
        table.fAnalysisMgr = None  # first, so that nobody asks for scans any more
        if table.fCacheMgr is not None:
            table.fCacheMgr.destroy()
        table.fGuiMgr = None
        table.fCacheMgr = None
        table.fSavableMgr = None
        table.fFileAttribMgr = None
        table.fPrefMgr = None
        lgtk.SetMainLoop(None)
