"""Putting a whole host together, and taking it apart again."""

from __future__ import annotations

import gc
from pathlib import Path

from guiutils import lgtk
from loombase.destroyable import CDestroyable
from singleton import GetSingletons

from loom.followed import FollowingCoordinator
from loom.mainloop.base import MainLoop
from loom.services.engine import CAnalysisMgr
from loom.services.gui import CGuiMgr
from loom.services.managers import CCacheMgr, CFileAttribMgr, CPrefMgr, CSavableMgr

__all__ = ["App", "spare_full_collections"]


def spare_full_collections() -> None:
    """Keep full garbage collections out of the slices of a process that is this host's own.

    A host holds some hundred thousand objects for good (a location for each file, what is queued),
    and a full collection walks them all: 10 to 30 ms at once. What stands now is left alone for the
    life of the process, and full collections become rare.
    """
    gc.collect()
    gc.freeze()
    # The young ones that have survived once are some 40,000 at most when they are walked.
    gc.set_threshold(10_000, 4, 5_000)


class App(CDestroyable):
    """The stand-alone host over one database, on one main loop. One at a time in a process.

    Raises `loom.store.errors.StoreError` if the database can't be used. `destroy` saves what isn't
    written yet; the main loop stays its maker's.
    """

    def __init__(self, db_path: Path, main_loop: MainLoop) -> None:
        super().__init__()
        table = GetSingletons()
        if table.fAnalysisMgr is not None:
            raise RuntimeError("another host runs in this process already")
        self.main_loop = main_loop
        lgtk.SetMainLoop(main_loop)
        try:
            table.fPrefMgr = CPrefMgr()
            self.attribs = table.fFileAttribMgr = CFileAttribMgr()
            table.fCacheMgr = CCacheMgr(self.attribs)
            table.fSavableMgr = CSavableMgr()
            table.fGuiMgr = CGuiMgr()
            self.ana_mgr = CAnalysisMgr(db_path, FollowingCoordinator)
        except BaseException:
            self._clear_table()
            raise
        table.fAnalysisMgr = self.ana_mgr
        self.info_cache = self.ana_mgr.fInfoCache
        coordinator = self.ana_mgr.fScanCoordinator
        assert isinstance(coordinator, FollowingCoordinator)
        self.coordinator = coordinator

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
