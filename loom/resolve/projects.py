"""Which folders a project imports from."""

from __future__ import annotations

import os
from typing import Final

from loom.resolve.folders import Folders

__all__ = ["Projects", "has_mark", "project_top"]

# A folder with one of these is the top of a project.
_MARKERS: Final = ("pyproject.toml", "setup.py", "setup.cfg", ".git")


def project_top(folder: str) -> str | None:
    """The innermost folder that holds `folder`, or is it, and is the top of a project."""
    return Projects(Folders()).top_of(folder)


def has_mark(folder: str) -> bool:
    """Whether a folder shows by what is in it that it is the top of a project."""
    return any(os.path.lexists(os.path.join(folder, marker)) for marker in _MARKERS)


class Projects:
    """Finds the project that a folder belongs to. What was found is remembered."""

    def __init__(self, folders: Folders) -> None:
        self._folders = folders
        self._tops: dict[str, str | None] = {}

    def forget(self) -> None:
        """Look again the next time."""
        self._tops.clear()

    def marked(self) -> dict[str, bool]:
        """The folders in which marks of a project were looked for, and whether there were any."""
        return {folder: top == folder for folder, top in self._tops.items()}

    def roots_of(self, folder: str) -> tuple[str, ...]:
        """The folders that modules of the project around `folder` are imported from, or nothing."""
        top = self.top_of(folder)
        return () if top is None else self.roots_below(top)

    def roots_below(self, top: str) -> tuple[str, ...]:
        """The folders that modules of the project at `top` are imported from."""
        source = os.path.join(top, "src")
        if os.path.isdir(source) and not self._folders.is_package(source):
            return source, top
        return (top,)

    def package_root_of(self, folder: str) -> str:
        """The folder in which the outermost package around `folder` stands, or `folder` itself."""
        while self._folders.is_package(folder) and folder != os.path.dirname(folder):
            folder = os.path.dirname(folder)
        return folder

    def top_of(self, folder: str) -> str | None:
        """The innermost top of a project around `folder`, which may be itself, or none."""
        way: list[str] = []
        while folder not in self._tops:
            way.append(folder)
            parent = os.path.dirname(folder)
            if has_mark(folder):
                self._tops[folder] = folder
            elif parent == folder:
                self._tops[folder] = None
            else:
                folder = parent
        top = self._tops[folder]
        self._tops.update(dict.fromkeys(way, top))
        return top
