"""Which modules there are: the Python path, and the locations of module names."""

from __future__ import annotations

from collections.abc import Collection, Iterable, Sequence
from typing import Final, NamedTuple

from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation

from loom.resolve.environment import PythonEnvironment, own_environment
from loom.resolve.resolver import Module, Resolver

__all__ = ["CAnalysisFactory", "CModFileCache", "CModRecord", "CPyConfig"]

_kBuiltins: Final = "builtins"

# What the builtins and annotations are written with.
_kTypingModules: Final = ("typing", "typing_extensions", "_typeshed")


class CPyConfig:
    """How Python is set up. `python_path_locs` are the folders that imports are looked for in.

    While it is empty, no scan is scheduled.
    """

    def __init__(self, environment: PythonEnvironment | None = None) -> None:
        self.SetEnvironment(own_environment() if environment is None else environment)

    def SetEnvironment(self, environment: PythonEnvironment) -> None:
        self.fEnvironment = environment
        self.python_path_locs: Collection[CLocation] = [
            CLocalFileLocation(folder) for folder in environment.path
        ]


class CModFileCache(CDestroyable):
    """Which folders hold which modules. It is never so much behind that scans must stop.

    Signals: "suspend" (cache) when scanning must stop for a time, "unsuspend" (cache) when it may
    go on.
    """

    def __init__(self, environment: PythonEnvironment) -> None:
        super().__init__(("suspend", "unsuspend"))
        self.fResolver = Resolver(environment)


class CModRecord(NamedTuple):
    """A module: `fLocalName` is the name that it is imported by."""

    fLocalName: str


class _CNamesInFolder(dict[str, CLocation | None]):
    """The location of each name as seen from a folder, found when it is first asked for."""

    def __init__(self, resolver: Resolver, dirloc: CLocation | None) -> None:
        super().__init__()
        self._fResolver = resolver
        self._fDirloc = dirloc

    def __missing__(self, name: str) -> CLocation | None:
        module = _FindFrom(self._fResolver, name, self._fDirloc)
        files = [] if module is None else module.files
        found = self[name] = files[0] if files else None
        return found


class CAnalysisFactory(CDestroyable):
    """Maps module names to locations.

    Names are dotted, and may begin with dots; they are seen from a folder, or from none: then only
    the environment is searched. Of a folder that isn't local no file can be looked for without
    waiting, and what is installed here needn't be there: names in it find modules of the standard
    library only.

    `fSourcesGoAlong` tells whether the sources of stubs are to be scanned along with these.

    Signals: "import-resolution-changed" (factory) when the Python path may have changed.
    """

    def __init__(self, config: CPyConfig | None = None) -> None:
        super().__init__(("import-resolution-changed",))
        self.fSourcesGoAlong = True
        self._fConfig = CPyConfig() if config is None else config
        self._fModFileCache = CModFileCache(self._fConfig.fEnvironment)
        self._fResolver = self._fModFileCache.fResolver
        self._fNames: dict[CLocation | None, _CNamesInFolder] = {}

    # --- what the scheduler asks

    def GetSecondaryLocations(self, loc: CLocation) -> Sequence[CLocation] | None:
        """Files to be scanned along with `loc`: the source that goes with a stub.

        A stub tells types, its source what they stand for. Stubs of the standard library go alone:
        what is asked of its modules while a file is scanned, their stubs tell.
        """
        if not self.fSourcesGoAlong or not loc.fUrl.endswith(".pyi"):
            return None
        if not isinstance(loc, CLocalFileLocation):
            return None
        source = self._fResolver.source_of_stub(loc.path)
        return None if source is None else [source]

    def _FindPrimaryLocsForNames(
        self, names: Iterable[str], dirloc: CLocation | None, follow: bool
    ) -> Sequence[CLocation | None]:
        """The first location of each dotted name as seen from the folder `dirloc`.

        None for what isn't a module, and for one without a file that can be read.
        """
        if follow:
            found = [self.GetAllLocsForName(name, dirloc, True) for name in names]
            return [locs[0] if locs else None for locs in found]
        known = self._fNames.get(dirloc)
        if known is None:
            known = self._fNames[dirloc] = _CNamesInFolder(self._fResolver, dirloc)
        return [known[name] for name in names]

    def FindBuiltinMod(self) -> CModRecord | None:
        """The record of the builtins, or none if their stub isn't there."""
        return CModRecord(_kBuiltins) if self.GetAllLocsForName(_kBuiltins, None, False) else None

    def GetAllLocsForName(
        self, name: str, dirloc: CLocation | None, follow: bool
    ) -> list[CLocation]:
        """All locations of a module, its stub before its source; empty if there is none.

        With `follow`, a name that isn't a module stands for the innermost module around it.
        """
        module = self._FindModule(name, dirloc)
        while follow and module is None and name.strip("."):
            name = _Parent(name)
            module = self._FindModule(name, dirloc) if name else None
        return [] if module is None else [*module.files]

    def GetTypingLocations(self) -> Sequence[CLocation]:
        """The stubs of the modules that annotations are made of."""
        found = [self.GetAllLocsForName(name, None, False) for name in _kTypingModules]
        return [locs[0] for locs in found if locs]

    # --- further questions

    def GetFolderStamps(self) -> dict[str, tuple[int, int] | None]:
        """Of each folder that answers depend on, what `resolver.is_as_it_was` takes.

        A negative second number can't be trusted.
        """
        return self._fResolver.folder_stamps()

    def GetModuleName(self, loc: CLocation) -> str | None:
        """The absolute name under which a file is imported, or none if it can't be."""
        if not isinstance(loc, CLocalFileLocation):
            return None
        return self._fResolver.name_of_file(loc.path)

    def _FindModule(self, name: str, dirloc: CLocation | None) -> Module | None:
        return _FindFrom(self._fResolver, name, dirloc)

    # --- changes

    def SetEnvironment(self, environment: PythonEnvironment) -> None:
        """Look for modules where another interpreter does."""
        self._fConfig.SetEnvironment(environment)
        self._fResolver.environment = environment
        self._NoteChange()

    def SetScannedFolders(self, folders: Iterable[str]) -> None:
        """The folders that the user has scanned: their projects are seen from everywhere.

        What was known of any folder may be out of date, and is looked at again.
        """
        self._fResolver.set_scanned(folders)
        self._NoteChange()

    def Recheck(self) -> None:
        """Files may have come or gone: look at the time of each folder before it is believed."""
        self._fResolver.recheck()
        self._fNames.clear()

    def ForgetBelow(self, folder: CLocalFileLocation) -> None:
        """Files have come to a folder or gone from it, or from those below.

        Cheap, so that each event may tell; what is asked next looks at times of folders again.
        """
        self._fResolver.forget(folder.path)
        self._fNames.clear()

    def _NoteChange(self) -> None:
        self._fNames.clear()
        self.emit("import-resolution-changed", self)

    def _destroy_impl(self) -> None:
        self._fModFileCache.destroy()


def _FindFrom(resolver: Resolver, name: str, dirloc: CLocation | None) -> Module | None:
    if dirloc is None:
        return resolver.find(name, None)
    if isinstance(dirloc, CLocalFileLocation):
        return resolver.find(name, dirloc.path)
    return resolver.find_standard(name)


def _Parent(name: str) -> str:
    """The dotted name without its last component; dots in front stay."""
    rest = name.lstrip(".")
    dots = name[: len(name) - len(rest)]
    return dots + rest.rpartition(".")[0]
