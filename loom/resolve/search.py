"""Looking for a module in a sequence of folders, as an import does, and for its stub."""

from __future__ import annotations

import os
from collections.abc import Iterable, Iterator
from typing import Final, NamedTuple

from loombase.location import CLocalFileLocation

from loom.resolve import typeshed
from loom.resolve.environment import PythonEnvironment
from loom.resolve.folders import FOLDER, SOURCE, STUB, Folders

__all__ = ["STUB_PACKAGE_SUFFIX", "Module", "SearchPath"]

# The folder of a package that holds only the stubs of another one ends so.
STUB_PACKAGE_SUFFIX: Final = "-stubs"

_INIT: Final = "__init__"


class Module(NamedTuple):
    """A module that was found.

    `stub` and `source` are its files; an extension module has no source, a namespace package has
    neither. `folders` are those of a package in which its submodules stand, several for a namespace
    package. `stub_folders` are those of the stub package or of the standard library's stubs that
    go with it; unless they are `partial`, no stub is taken from `folders`.
    """

    stub: CLocalFileLocation | None
    source: CLocalFileLocation | None
    folders: tuple[str, ...] = ()
    stub_folders: tuple[str, ...] = ()
    partial: bool = True

    @property
    def files(self) -> list[CLocalFileLocation]:
        """Stub first, then source."""
        return [loc for loc in (self.stub, self.source) if loc is not None]


class SearchPath:
    """The folders `roots` and, behind them, an environment; answers are remembered.

    `late_roots` come behind the standard library. Without an environment there are only the roots.
    """

    def __init__(
        self,
        folders: Folders,
        environment: PythonEnvironment | None,
        roots: tuple[str, ...] = (),
        late_roots: tuple[str, ...] = (),
    ) -> None:
        self._folders = folders
        self.roots = roots
        self._stubs = None if environment is None else typeshed.stubs_folder()
        self._version = (0, 0) if environment is None else environment.version
        self._stdlib = () if environment is None else environment.stdlib
        path = () if environment is None else environment.path
        site = (folder for folder in path if folder not in self._stdlib)
        behind = dict.fromkeys((*self._stdlib, *late_roots, *site))
        self._behind = tuple(folder for folder in behind if folder not in roots)
        self._mapped = {} if environment is None else environment.mapped
        self._modules: dict[str, Module | None] = {}

    def find(self, name: str) -> Module | None:
        """The module of an absolute dotted name, or none."""
        modules = self._modules
        if name in modules:
            return modules[name]
        found = modules[name] = self._find(name)
        return found

    def find_in(self, folder: str, name: str) -> Module | None:
        """The module of a dotted name that begins in a folder; of "", the folder's own package."""
        found: Module | None = self._package((folder,))
        for part in name.split(".") if name else ():
            if found is None or not part:
                return None
            found = self._look(found.folders, part)
        return found if found is None or name or found.files else None

    def has_root(self, folder: str) -> bool:
        """Whether a folder is among those that are searched."""
        return folder in self.roots or folder in self._behind

    def is_standard(self, name: str) -> bool:
        """Whether the standard library has a top-level module of this name."""
        return self._has_stub(name) or any(
            self._folders.kinds(folder, name) for folder in self._stdlib
        )

    # --- from a name to a module

    def _find(self, name: str) -> Module | None:
        if not name or "/" in name or "\0" in name:
            return None
        parent, dot, leaf = name.rpartition(".")
        if not dot:
            return self._find_top(name)
        package = self.find(parent)
        own = None
        if package is not None and package.folders:
            own = self._look(package.folders, leaf)
        if self._mapped and (own is None or _is_namespace(own)):
            own = self._find_mapped(name) or own
        if package is None:
            return own
        stub = None
        if package.stub_folders:
            stub = self._look(self._typed_folders(package, name), leaf)
        return _joined(stub, own, package.partial)

    def _find_mapped(self, name: str) -> Module | None:
        path = self._mapped.get(name)
        if path is None:
            return None
        return self._look((os.path.dirname(path),), os.path.basename(path))

    def _typed_folders(self, package: Module, name: str) -> Iterable[str]:
        """The folders of stubs in which a submodule may stand."""
        stubs = self._stubs
        if stubs is None or not _is_below(package.stub_folders[0], stubs) or self._has_stub(name):
            return package.stub_folders
        return ()

    def _find_top(self, name: str) -> Module | None:
        own = self._look(self.roots, name)
        if own is None or _is_namespace(own):
            if self._stubs is not None and self._has_stub(name):
                stub = self._look((self._stubs,), name)
                return _joined(stub, self._look(self._behind, name), False)
            own = self._look((*self.roots, *self._behind), name)
            if own is None or _is_namespace(own):
                own = self._find_mapped(name) or own
        stubs = self._stub_packages(name)
        if not stubs:
            return own
        stub = self._package(stubs)
        return _joined(stub, own, any(map(self._is_partial, stubs)))

    def _has_stub(self, name: str) -> bool:
        """Whether the standard library's stubs have the module in the environment's version."""
        versions = typeshed.stub_versions()
        top = name
        while top:
            if (span := versions.get(top)) is not None:
                first, last = span
                return first <= self._version and (last is None or self._version <= last)
            top = top.rpartition(".")[0]
        return False

    def _stub_packages(self, name: str) -> tuple[str, ...]:
        folder_name = name + STUB_PACKAGE_SUFFIX
        return tuple(
            f"{root}/{folder_name}"
            for root in (*self.roots, *self._behind)
            if self._folders.kinds(root, folder_name) & FOLDER
        )

    @staticmethod
    def _is_partial(stubs: str) -> bool:
        try:
            with open(f"{stubs}/py.typed", encoding="utf-8", errors="replace") as marker:
                return "partial" in marker.read(4096).split()
        except OSError:
            return False

    def _look(self, folders: Iterable[str], name: str) -> Module | None:
        """The first module or package of the name; else the namespace package of all folders."""
        portions: list[str] = []
        for folder in folders:
            kinds = self._folders.kinds(folder, name)
            if not kinds:
                continue
            path = f"{folder}/{name}"
            if kinds & FOLDER:
                if self._folders.is_package(path):
                    return self._package((path,))
                if kinds == FOLDER:
                    portions.append(path)
                    continue
            return Module(
                CLocalFileLocation(f"{path}.pyi") if kinds & STUB else None,
                CLocalFileLocation(f"{path}.py") if kinds & SOURCE else None,
            )
        return Module(None, None, tuple(portions)) if portions else None

    def _package(self, folders: tuple[str, ...]) -> Module:
        for folder in folders:
            if kinds := self._folders.kinds(folder, _INIT):
                path = os.path.join(folder, _INIT)
                return Module(
                    CLocalFileLocation(f"{path}.pyi") if kinds & STUB else None,
                    CLocalFileLocation(f"{path}.py") if kinds & SOURCE else None,
                    folders,
                )
        return Module(None, None, folders)

    # --- from a file to its module

    def name_of_file(self, path: str) -> str | None:
        """The name under which the module of a file is imported, or none if it can't be."""
        folder, base = os.path.split(path)
        stem, suffix = os.path.splitext(base)
        if suffix not in (".py", ".pyi"):
            return None
        for name in self._names_below(folder if stem == _INIT else os.path.join(folder, stem)):
            found = self.find(name)
            if found is not None and any(loc.path == path for loc in found.files):
                return name
        return None

    def name_of_folder(self, path: str) -> str | None:
        """The name of the package whose submodules stand in a folder, or none."""
        for name in self._names_below(path):
            found = self.find(name)
            if found is not None and (path in found.folders or path in found.stub_folders):
                return name
        return None

    def _names_below(self, path: str) -> Iterator[str]:
        """The names that a path has seen from the folders that are searched."""
        stubs = () if self._stubs is None else (self._stubs,)
        for root in (*self.roots, *stubs, *self._behind):
            if _is_below(path, root) and path != root:
                parts = os.path.relpath(path, root).split("/")
                parts[0] = parts[0].removesuffix(STUB_PACKAGE_SUFFIX)
                if all(part.isidentifier() for part in parts):
                    yield ".".join(parts)
        for name, top in self._mapped.items():
            if _is_below(path, top):
                parts = os.path.relpath(path, top).split("/") if path != top else []
                if all(part.isidentifier() for part in parts):
                    yield ".".join((name, *parts))


def _is_namespace(module: Module) -> bool:
    return module.stub is None and module.source is None and bool(module.folders)


def _joined(stub: Module | None, own: Module | None, partial: bool) -> Module | None:
    """A module of its stub and of what stands in the folders of its own package."""
    if stub is None:
        if own is None:
            return None
        # Where stubs are complete, a module that has none is one whose types aren't told.
        return own if partial else own._replace(stub=None, partial=False)
    if own is None:
        return Module(stub.stub, None, (), stub.folders, partial)
    found = stub.stub or (own.stub if partial else None)
    return Module(found, own.source, own.folders, stub.folders, partial)


def _is_below(path: str, folder: str) -> bool:
    return path == folder or path.startswith(folder.rstrip("/") + "/")
