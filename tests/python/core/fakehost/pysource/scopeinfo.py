"""Info cache and scope records. The cache is scripted by its public mappings."""

from collections import defaultdict
from typing import Any, NamedTuple

import hostlog
from loombase.destroyable import CDestroyable


class CScopeInfoKey(NamedTuple):
    """Key of a scope record."""

    loc: Any
    scope_name: str
    scan_name: str
    source_loc: Any
    source_scope_name: str


class CScopeInfo:
    """Record of one scope."""

    def __init__(
        self,
        key: Any,
        data: bytes = b"",
        disk_mtime: float = 0.0,
        incomplete: bool = False,
        does_not_exist: bool = False,
        type_equivs: Any = None,
    ) -> None:
        self.key = key
        self.data = data
        self.disk_mtime = disk_mtime
        self.incomplete = incomplete
        self.does_not_exist = does_not_exist
        self.type_equivs = {} if type_equivs is None else type_equivs


class CLocCache:
    """Location cache of the info cache."""

    def __init__(self) -> None:
        self.builtin_loc: Any = None
        self.derived_wanted: dict[Any, bool] = defaultdict(lambda: True)

    def GetBuiltinLoc(self) -> Any:
        """The builtins' location or none."""
        hostlog.note("GetBuiltinLoc")
        return self.builtin_loc

    def WantDerivedInfo(self, loc: Any) -> bool:
        """Whether secondary scans are wanted."""
        hostlog.note("WantDerivedInfo", loc)
        return self.derived_wanted[loc]


class CInfoCache(CDestroyable):
    """Emits "needs-scan-added" with itself, the set and a priority."""

    def __init__(self) -> None:
        super().__init__(("needs-scan-added",))
        self.fLocCache = CLocCache()
        self.scans_done: dict[Any, str] = {}
        self.imports: dict[Any, list[str]] = {}
        self.infos: dict[tuple[Any, str], Any] = {}
        self.disk_mtimes: dict[Any, float] = {}
        self.added_infos: list[Any] = []

    def Trim(self) -> None:
        """Only noted."""
        hostlog.note("Trim")

    def FinishedWithScans(self, loc: Any, scope_name: str, scan_name: str) -> None:
        """Only noted."""
        hostlog.note("FinishedWithScans", loc, scope_name, scan_name)

    def GetScansDoneForMultipleFiles(self, modtimes: dict[Any, float]) -> dict[Any, str]:
        """What `scans_done` holds for the locations."""
        hostlog.note("GetScansDoneForMultipleFiles", modtimes)
        return {loc: self.scans_done[loc] for loc in modtimes if loc in self.scans_done}

    def GetAllImports(self, locs: Any) -> list[tuple[Any, Any, str]]:
        """A record for each entry of `imports` of the locations."""
        hostlog.note("GetAllImports", locs)
        return [(loc, None, text) for loc in locs for text in self.imports.get(loc, ())]

    def GetScopeInfo(self, loc: Any, scope_name: str) -> Any:
        """What `infos` holds, or none."""
        hostlog.note("GetScopeInfo", loc, scope_name)
        return self.infos.get((loc, scope_name))

    def AddScopeInfo(self, info: Any) -> None:
        """Kept in `added_infos`."""
        hostlog.note("AddScopeInfo", info)
        self.added_infos.append(info)

    def GetDiskMTime(self, loc: Any) -> float:
        """What `disk_mtimes` holds, else 0."""
        hostlog.note("GetDiskMTime", loc)
        return self.disk_mtimes.get(loc, 0.0)

    def WriteToDatabase(self) -> None:
        """Only noted."""
        hostlog.note("WriteToDatabase")
