"""Names as they stand in a file, to modules."""

from __future__ import annotations

import os
from collections.abc import Iterable
from typing import Final

from loombase.location import CLocalFileLocation

from loom.resolve import typeshed
from loom.resolve.environment import PythonEnvironment
from loom.resolve.folders import SOURCE, Folders, stamp
from loom.resolve.projects import Projects, has_mark
from loom.resolve.search import STUB_PACKAGE_SUFFIX, Module, SearchPath

__all__ = ["Module", "Resolver", "is_as_it_was"]

# Where installed packages stand, in whatever environment.
_SITE_FOLDERS: Final = frozenset({"site-packages", "dist-packages"})


# In place of an inode: there is no such one.
_MARK: Final = -1


def is_as_it_was(folder: str, known: tuple[int, int] | None) -> bool:
    """Whether answers that depend on a folder still hold; `known` is from `folder_stamps`."""
    if known is not None and known[0] == _MARK:
        return has_mark(folder) == bool(known[1])
    return stamp(folder) == known


class _Place:
    """What the names in the files of one folder mean."""

    def __init__(self, folder: str, path: SearchPath, beside: SearchPath | None) -> None:
        self._folder = folder
        self._path = path
        self._beside = beside  # the folder itself, if it is no package
        self._package: str | None = None
        self._package_known = False

    def find(self, name: str) -> Module | None:
        if name.startswith("."):
            return self._find_relative(name)
        if self._beside is not None:
            found = self._beside.find(name)
            if found is not None and found.files and not self._is_standard(name):
                return found
        return self._path.find(name)

    def _is_standard(self, name: str) -> bool:
        return self._path.is_standard(name.partition(".")[0])

    def _find_relative(self, name: str) -> Module | None:
        rest = name.lstrip(".")
        ups = len(name) - len(rest) - 1
        # By the package's name, for a package may have several folders.
        package = self._package_name()
        if package is not None and package.count(".") >= ups:
            if ups:
                package = package.rsplit(".", ups)[0]
            return self._path.find(f"{package}.{rest}" if rest else package)
        folder = self._folder
        for _ in range(ups):
            folder = os.path.dirname(folder)
        return self._path.find_in(folder, rest)

    def _package_name(self) -> str | None:
        if not self._package_known:
            self._package = self._path.name_of_folder(self._folder)
            self._package_known = True
        return self._package


class Resolver:
    """Finds modules for files of projects and of an environment.

    Answers are remembered; `recheck` and `forget` tell that they may have changed. Paths of folders
    are absolute and normal.
    """

    def __init__(self, environment: PythonEnvironment) -> None:
        self._folders = Folders()
        self._projects = Projects(self._folders)
        self._environment = environment
        self._scanned: tuple[str, ...] = ()
        self._forget_paths()

    def _forget_paths(self) -> None:
        self._paths: dict[tuple[tuple[str, ...], tuple[str, ...]], SearchPath] = {}
        self._places: dict[str, _Place] = {}
        self._environment_path = self._path((), ())

    @property
    def environment(self) -> PythonEnvironment:
        return self._environment

    @environment.setter
    def environment(self, environment: PythonEnvironment) -> None:
        self._environment = environment
        self._forget_paths()

    def set_scanned(self, folders: Iterable[str]) -> None:
        """The folders that the user has scanned: their projects are seen from everywhere."""
        self._scanned = tuple(folders)
        self.recheck()

    def recheck(self) -> None:
        """Folders may have changed: look at each once more when it is next asked for."""
        self._folders.recheck()
        self._projects.forget()
        self._forget_paths()

    def forget(self, path: str) -> None:
        """Something has come to the folder `path` or gone from it, or from folders below."""
        self._folders.forget(path)
        self.recheck()

    # --- questions

    def folder_stamps(self) -> dict[str, tuple[int, int] | None]:
        """What `is_as_it_was` takes, for each folder that answers depend on.

        Stamps are from before the folder was looked into. A folder in which only the marks of a
        project were looked for, such as one of temporary files, has whether there was one.
        """
        marked = self._projects.marked()
        stamps = {folder: (_MARK, int(has)) for folder, has in marked.items()}
        return stamps | self._folders.stamps()

    def find(self, name: str, folder: str | None) -> Module | None:
        """The module that `name` means in a file of `folder`; none: in the environment alone."""
        if folder is None:
            return self._environment_path.find(name)
        place = self._places.get(folder)
        if place is None:
            place = self._places[folder] = self._place(folder)
        return place.find(name)

    def find_standard(self, name: str) -> Module | None:
        """The module of the standard library that `name` means anywhere, or none."""
        top = name.partition(".")[0]
        if not top or not self._environment_path.is_standard(top):
            return None
        return self._environment_path.find(name)

    def name_of_file(self, path: str) -> str | None:
        """The name under which a file is imported from beside itself, or none if it can't be."""
        folder = os.path.dirname(path)
        name = self._path_for(folder).name_of_file(path)
        if name is None and not self._folders.is_package(folder):
            name = self._path((folder,), ()).name_of_file(path)
        return name

    def source_of_stub(self, path: str) -> CLocalFileLocation | None:
        """The source that goes with a stub: beside it, or in the package of its stub package.

        None for a stub of the standard library.
        """
        folder = os.path.dirname(path)
        stem, suffix = os.path.splitext(os.path.basename(path))
        if suffix != ".pyi" or typeshed.is_stub(path):
            return None
        if self._folders.kinds(folder, stem) & SOURCE:
            return CLocalFileLocation(path[:-1])
        if f"{STUB_PACKAGE_SUFFIX}/" not in folder + "/":
            return None
        name = self.name_of_file(path)
        module = None if name is None else self.find(name, folder)
        return None if module is None else module.source

    # --- from a folder to what is searched

    def _place(self, folder: str) -> _Place:
        path = self._path_for(folder)
        beside = None
        if not self._folders.is_package(folder) and not path.has_root(folder):
            beside = SearchPath(self._folders, None, (folder,))
        return _Place(folder, path, beside)

    def _path_for(self, folder: str) -> SearchPath:
        environment = self._environment
        for library in (typeshed.stubs_folder(), *environment.stdlib):
            if library is not None and _is_below(folder, library):
                if not _SITE_FOLDERS.intersection(folder[len(library) :].split("/")):
                    return self._environment_path
        site = _site_folder_above(folder)
        if site is not None:
            return self._path((), () if site in environment.path else (site,))
        roots = (
            self._projects.package_root_of(folder) if self._folders.is_package(folder) else None,
            *self._projects.roots_of(folder),
            *(root for scanned in self._scanned for root in self._roots_of_scanned(scanned)),
        )
        return self._path(tuple(dict.fromkeys(root for root in roots if root is not None)), ())

    def _roots_of_scanned(self, folder: str) -> tuple[str, ...]:
        if self._folders.is_package(folder):
            return (self._projects.package_root_of(folder),)
        return self._projects.roots_of(folder) or self._projects.roots_below(folder)

    def _path(self, roots: tuple[str, ...], late_roots: tuple[str, ...]) -> SearchPath:
        path = self._paths.get((roots, late_roots))
        if path is None:
            path = SearchPath(self._folders, self._environment, roots, late_roots)
            self._paths[roots, late_roots] = path
        return path


def _site_folder_above(folder: str) -> str | None:
    """The innermost folder of installed packages that holds `folder`, or is it."""
    while folder != os.path.dirname(folder):
        if os.path.basename(folder) in _SITE_FOLDERS:
            return folder
        folder = os.path.dirname(folder)
    return None


def _is_below(path: str, folder: str) -> bool:
    return path == folder or path.startswith(folder.rstrip("/") + "/")
