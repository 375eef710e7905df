"""The engine's parts around the scheduler, put together by the analysis manager."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path
from typing import Final

from loombase.destroyable import CDestroyable
from loombase.location import CLocation

from loom.mainloop.base import LOW_IDLE_PRIORITY
from loom.services.locationdata import CLocationDataCache
from loom.services.modules import CAnalysisFactory, CPyConfig
from pysource.inferenceengine import CInferenceEngine
from pysource.scancoordinator import CScanCoordinator
from pysource.scopeinfo import CInfoCache

__all__ = ["CAnalysisMgr", "kDerivedScanName", "kPrimaryScanName"]

# Neither occurs inside the other: the info cache reports several of them in one text.
kPrimaryScanName: Final = "primary"
kDerivedScanName: Final = "derived"

_kWholeFile: Final = "*"

_kScansToOrder: Final = {kPrimaryScanName: 0, kDerivedScanName: 1}


class CAnalysisMgr(CDestroyable):
    """Owner of the engine's parts, the scheduler `fScanCoordinator` among them.

    `coordinator_class` makes the scheduler, with the arguments of `CScanCoordinator`. The managers
    of the service table must be set before, and this object must be in it before a scan runs.

    Signals: "files-followed" (list of locations) when files are queued, or held, that nobody asked
    for, by a coordinator that knows.

    Raises what opening the database `db_path` raises.
    """

    def __init__(
        self, db_path: Path, coordinator_class: type[CScanCoordinator] = CScanCoordinator
    ) -> None:
        super().__init__(("files-followed",))
        self.fPrimaryScanName = kPrimaryScanName
        self.fDerivedScanName = kDerivedScanName
        self.fHelperProcessProxy: object | None = None
        self._fHelperProcessSupport: CDestroyable | None = None
        self.fPyConfig = CPyConfig()
        self.fLocationDataCache = CLocationDataCache()
        self.fAnalysisFactory = CAnalysisFactory(self.fPyConfig)
        self.fInfoCache = CInfoCache(db_path)
        self.fInferenceEngine = CInferenceEngine(self.fInfoCache)
        self.fScanCoordinator = coordinator_class(LOW_IDLE_PRIORITY, self)
        self.fScanCoordinator._fScanQueue.SetScansToOrder(_kScansToOrder)
        self.fScanCoordinator.connect_while_alive("end", self.fInfoCache.ForgetAskedScans, self)
        self.fInfoCache.connect_while_alive("derived-stale", self._CB_DerivedStale, self)

    def SetHelperProxy(self, proxy: object | None) -> None:
        """A helper process has come, or with none, the last one has gone: the work moves."""
        self.fHelperProcessProxy = proxy
        self.fScanCoordinator._UpdateForHelperProcess()

    def _CB_DerivedStale(self, info_cache: CInfoCache, locs: Sequence[CLocation]) -> None:
        """What files were drawn from has changed: derive them anew."""
        wanted = [loc for loc in locs if info_cache.fLocCache.WantDerivedInfo(loc)]
        if wanted:
            self.fScanCoordinator.ClearLastScanInfo(wanted)
            info_cache.AddNeedsScan({(loc, _kWholeFile, self.fDerivedScanName) for loc in wanted})

    def _destroy_impl(self) -> None:
        if self._fHelperProcessSupport is not None:
            self._fHelperProcessSupport.destroy()
        self.fScanCoordinator.destroy()
        self.fInferenceEngine.destroy()
        self.fInfoCache.destroy()
        self.fAnalysisFactory.destroy()
        self.fLocationDataCache.destroy()
