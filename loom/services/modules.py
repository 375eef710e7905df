"""Which modules there are: the Python path, and the locations of module names."""

from __future__ import annotations

import sysconfig
from collections.abc import Collection, Iterable, Sequence

from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation

__all__ = ["CAnalysisFactory", "CModFileCache", "CPyConfig"]


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
