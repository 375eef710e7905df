"""The engine's parts around the scheduler: configuration, modules, the analysis manager."""

from __future__ import annotations

import sysconfig
from collections.abc import Collection, Iterable, Sequence
from pathlib import Path
from typing import Final

from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation

from loom.mainloop.base import LOW_IDLE_PRIORITY
from pysource.inferenceengine import CInferenceEngine
from pysource.scancoordinator import CScanCoordinator
from pysource.scopeinfo import CInfoCache

__all__ = [
    "CAnalysisFactory",
    "CAnalysisMgr",
    "CLocationDataCache",
    "CModFileCache",
    "CPyConfig",
    "kDerivedScanName",
    "kPrimaryScanName",
]

# Neither occurs inside the other: the info cache reports several of them in one text.
kPrimaryScanName: Final = "primary"
kDerivedScanName: Final = "derived"

_kScansToOrder: Final = {kPrimaryScanName: 0, kDerivedScanName: 1}


class CPyConfig:
    """How Python is set up. `python_path_locs` are the folders that imports are looked for in.

    While it is empty, no scan is scheduled.
    """

    def __init__(self, python_path_locs: Collection[CLocation] | None = None) -> None:
        if python_path_locs is None:
            python_path_locs = _OwnPythonPath()
        self.python_path_locs = python_path_locs


def _OwnPythonPath() -> list[CLocation]:
    """The library folders of the interpreter that runs the host, each once."""
    keys = ("stdlib", "platstdlib", "purelib", "platlib")
    return list(dict.fromkeys(CLocalFileLocation(sysconfig.get_path(key)) for key in keys))


class CModFileCache(CDestroyable):
    """Which folders hold which modules. Nothing is cached here yet, so scans never have to stop.

    Signals: "suspend" (cache) when scanning must stop for a time, "unsuspend" (cache) when it may
    go on.
    """

    def __init__(self) -> None:
        super().__init__(("suspend", "unsuspend"))


class CAnalysisFactory(CDestroyable):
    """Maps module names to locations.

    This host does not resolve imports yet: no name has a location, so that exactly the files that
    are asked for are scanned.

    Signals: "import-resolution-changed" (factory) when the Python path may have changed.
    """

    def __init__(self) -> None:
        super().__init__(("import-resolution-changed",))
        self._fModFileCache = CModFileCache()

    def GetSecondaryLocations(self, loc: CLocation) -> Sequence[CLocation] | None:
        """Files to be scanned along with `loc`: none."""
        return None

    def _FindPrimaryLocsForNames(
        self, names: Iterable[str], dirloc: CLocation, follow: bool
    ) -> Sequence[CLocation | None]:
        """The location of each dotted name as seen from the folder `dirloc`, or none for it."""
        return [None for _ in names]

    def FindBuiltinMod(self) -> None:
        """The record of the builtins: not available."""
        return None

    def GetAllLocsForName(
        self, name: str, dirloc: CLocation | None, follow: bool
    ) -> Sequence[CLocation]:
        """All locations of a module: none known."""
        return []

    def GetTypingLocations(self) -> Sequence[CLocation] | None:
        """The locations of the typing modules: none known."""
        return None

    def _destroy_impl(self) -> None:
        self._fModFileCache.destroy()


class CLocationDataCache(CDestroyable):
    """Which locations have been inspected. Local ones always are.

    Signals: "now-tree-branch-ready" (cache, set of locations), "inspect-failed" (cache, set of
    locations), "cleared" (cache).
    """

    def __init__(self) -> None:
        super().__init__(("now-tree-branch-ready", "inspect-failed", "cleared"))

    def TreeBranchReady(self, loc: CLocation, inspect: bool) -> bool:
        """Whether everything down to `loc` can be asked without waiting."""
        return loc.IsReady()


class CAnalysisMgr(CDestroyable):
    """Owner of the engine's parts, the scheduler `fScanCoordinator` among them.

    `coordinator_class` makes the scheduler, with the arguments of `CScanCoordinator`. The managers
    of the service table must be set before, and this object must be in it before a scan runs.

    Raises what opening the database `db_path` raises.
    """

    def __init__(
        self, db_path: Path, coordinator_class: type[CScanCoordinator] = CScanCoordinator
    ) -> None:
        super().__init__()
        self.fPrimaryScanName = kPrimaryScanName
        self.fDerivedScanName = kDerivedScanName
        self.fHelperProcessProxy = None
        self._fHelperProcessSupport = None
        self.fPyConfig = CPyConfig()
        self.fLocationDataCache = CLocationDataCache()
        self.fAnalysisFactory = CAnalysisFactory()
        self.fInfoCache = CInfoCache(db_path)
        self.fInferenceEngine = CInferenceEngine(self.fInfoCache)
        self.fScanCoordinator = coordinator_class(LOW_IDLE_PRIORITY, self)
        self.fScanCoordinator._fScanQueue.SetScansToOrder(_kScansToOrder)

    def _destroy_impl(self) -> None:
        self.fScanCoordinator.destroy()
        self.fInfoCache.destroy()
        self.fAnalysisFactory.destroy()
        self.fLocationDataCache.destroy()
