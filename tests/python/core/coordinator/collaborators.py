"""Recording fakes of what the coordinator reaches through the analysis manager and the singletons.

Each notes its calls in `hostlog` and answers from public attributes that a test fills.
"""

from typing import Any

from loombase.destroyable import CDestroyable

import hostlog

kPrimary = "primary"
kDerived = "derived"


class PyConfig:
    """Python configuration; an empty path blocks all idle work."""

    def __init__(self, python_path_locs: Any) -> None:
        self.python_path_locs = python_path_locs


class ModFileCache(CDestroyable):
    """Emits "suspend" and "unsuspend"."""

    def __init__(self) -> None:
        super().__init__(("suspend", "unsuspend"))


class BuiltinMod:
    """Module record of the builtins."""

    fLocalName = "builtins"


class AnalysisFactory(CDestroyable):
    """Maps module names to locations as told in `found`, `locs_by_name` and so on."""

    def __init__(self) -> None:
        super().__init__(("import-resolution-changed",))
        self._fModFileCache = ModFileCache()
        self.secondary: dict[Any, Any] = {}
        self.found: dict[str, Any] = {}
        self.builtin_mod: Any = None
        self.locs_by_name: dict[str, Any] = {"builtins": []}
        self.typing_locs: Any = None

    def GetSecondaryLocations(self, loc: Any) -> Any:
        hostlog.note("GetSecondaryLocations", loc)
        return self.secondary.get(loc)

    def _FindPrimaryLocsForNames(self, *args: Any) -> list[Any]:
        hostlog.note("_FindPrimaryLocsForNames", *args)
        return [self.found.get(name) for name in sorted(args[0])]

    def FindBuiltinMod(self) -> Any:
        hostlog.note("FindBuiltinMod")
        return self.builtin_mod

    def GetAllLocsForName(self, *args: Any) -> Any:
        hostlog.note("GetAllLocsForName", *args)
        return self.locs_by_name.get(args[0])

    def GetTypingLocations(self) -> Any:
        hostlog.note("GetTypingLocations")
        return self.typing_locs


class InferContext:
    """Context of the inference engine; answers `OutOfTime` from `out_of_time`, in order."""

    def __init__(self, end_time: float) -> None:
        self.end_time = end_time
        self.out_of_time: list[bool] = []

    def OutOfTime(self) -> bool:
        hostlog.note("OutOfTime")
        return self.out_of_time.pop(0) if self.out_of_time else False


class InferenceEngine:
    """Answers from `infos`; `deadlines` are the answers of the next context."""

    def __init__(self) -> None:
        self.infos: dict[tuple[Any, str], Any] = {}
        self.deadlines: list[bool] = []
        self.context: Any = None

    def NewContext(self, end_time: float) -> InferContext:
        hostlog.note("NewContext", end_time)
        self.context = InferContext(end_time)
        self.context.out_of_time = self.deadlines
        return self.context

    def GetScopeInfo(self, *args: Any) -> Any:
        hostlog.note("engine.GetScopeInfo", *args)
        return self.infos.get(args[:2])


class LocationDataCache(CDestroyable):
    """A remote location is ready unless it is in `not_ready`."""

    def __init__(self) -> None:
        super().__init__(("now-tree-branch-ready", "inspect-failed", "cleared"))
        self.not_ready: set[Any] = set()

    def TreeBranchReady(self, *args: Any) -> bool:
        hostlog.note("TreeBranchReady", *args)
        return args[0] not in self.not_ready


class CacheManager:
    """Open buffers and analyses by location."""

    def __init__(self) -> None:
        self.analyses: dict[Any, Any] = {}
        self.buffers: dict[Any, Any] = {}

    def GetAnalysis(self, *args: Any) -> Any:
        hostlog.note("GetAnalysis", *args)
        return self.analyses.get(args[0])

    def DoesCacheBufferExist(self, *args: Any) -> Any:
        hostlog.note("DoesCacheBufferExist", *args)
        return self.buffers.get(args[0])

    def _ClearEOLBlindCacheAndScans(self) -> None:
        hostlog.note("_ClearEOLBlindCacheAndScans")


class Buffer:
    """An open buffer."""

    def __init__(self, modified: bool, mod_time: Any = 0.0) -> None:
        self.modified = modified
        self.mod_time = mod_time

    def IsModified(self) -> bool:
        hostlog.note("IsModified", self)
        return self.modified

    def _GetLastKnownModTime(self) -> Any:
        hostlog.note("_GetLastKnownModTime", self)
        return self.mod_time


class SavableManager(CDestroyable):
    """Emits "external-files-changed" with itself and a mapping keyed by location."""

    def __init__(self) -> None:
        super().__init__(("external-files-changed",))


class FileAttribManager:
    """Fills the mapping from `mime_types`."""

    def __init__(self) -> None:
        self.mime_types: dict[Any, str] = {}

    def GetMultipleProbableMimeTypes(self, mapping: dict[Any, Any]) -> None:
        hostlog.note("GetMultipleProbableMimeTypes", dict(mapping))
        for loc in mapping:
            mapping[loc] = self.mime_types.get(loc)


class HelperProxy:
    """One-way calls into the helper process."""

    def AddPairsToPrimaryQueue(self, *args: Any, **kwargs: Any) -> None:
        hostlog.note("proxy.AddPairsToPrimaryQueue", *args, **kwargs)

    def FlushQueue(self, *args: Any, **kwargs: Any) -> None:
        hostlog.note("proxy.FlushQueue", *args, **kwargs)


class HelperCallbackObj(CDestroyable):
    """Emits the helper process's reports, each with itself and a sequence of locations."""

    def __init__(self) -> None:
        super().__init__(("scan-queue-locs-added", "scan-queue-locs-removed"))


class HelperSupport:
    """Holds the callback object."""

    def __init__(self, callback_obj: Any) -> None:
        self.fHelperCallbackObj = callback_obj


class AnalysisManager:
    """Owner of the coordinator and of the engine's parts."""

    def __init__(self, info_cache: Any) -> None:
        self.fInfoCache = info_cache
        self.fInferenceEngine = InferenceEngine()
        self.fLocationDataCache = LocationDataCache()
        self.fAnalysisFactory = AnalysisFactory()
        self.fPyConfig = PyConfig([])
        self.fPrimaryScanName = kPrimary
        self.fDerivedScanName = kDerived
        self.fHelperProcessProxy: Any = None
        self._fHelperProcessSupport: Any = None
