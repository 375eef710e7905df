"""Which folders are followed, and by which rules."""

from __future__ import annotations

import os
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, field, replace

from pathspec import GitIgnoreSpec

from loom.ignore import IgnoreRules
from loom.walk import is_left_out, looks_like_python

__all__ = ["Folder", "FolderTree", "outermost"]


@dataclass(slots=True)
class Folder:
    """A followed folder. `rules` are those for what is in it, `children` the folders below it.

    One that isn't `kept` is followed for the sake of what may make it a folder of sources, one
    that isn't `walked` for files that were given by name alone.
    """

    path: str
    root: str
    rules: IgnoreRules | None = None
    kept: bool = False
    walked: bool = True
    children: set[str] = field(default_factory=set)

    def takes_file(self, path: str, exclude: GitIgnoreSpec | None) -> bool:
        """Whether a file in it, at `path`, is to be looked at, as far as its name tells."""
        return (
            self.kept
            and looks_like_python(os.path.basename(path))
            and not is_left_out(path, self.root, self.rules, exclude, is_folder=False)
        )


class FolderTree:
    """The followed folders below `roots`, and the files that were given by name.

    The folders of the named files are followed as well, for those files alone.
    """

    def __init__(
        self, roots: list[str], named_files: set[str], exclude: GitIgnoreSpec | None
    ) -> None:
        self.roots = roots
        self.named_files = named_files
        self._exclude = exclude
        self._folders: dict[str, Folder] = {}

    def __len__(self) -> int:
        return len(self._folders)

    def __contains__(self, path: str) -> bool:
        return path in self._folders

    def exclude_patterns(self) -> list[str]:
        """The user's patterns, as they were given."""
        patterns = () if self._exclude is None else self._exclude.patterns
        return [str(each.pattern) for each in patterns]

    def get(self, path: str) -> Folder | None:
        return self._folders.get(path)

    def add(self, path: str, root: str, *, walked: bool = True) -> None:
        """A walk came to a folder; it isn't known yet whether it is kept."""
        folder = self._folders.get(path)
        if folder is None:
            self._folders[path] = Folder(path, root, walked=walked)
            parent = self._folders.get(os.path.dirname(path))
            if parent is not None and path != root:
                parent.children.add(path)
        elif walked:
            folder.root = root
            folder.walked = True

    def settle(self, path: str, rules: IgnoreRules | None, kept: bool) -> None:
        """The walk has listed the folder."""
        folder = self._folders.get(path)
        if folder is not None:
            folder.rules = rules
            folder.kept = kept

    def remove(self, path: str) -> list[str]:
        """Take out a folder and all below it. Returns their paths."""
        parent = self._folders.get(os.path.dirname(path))
        if parent is not None:
            parent.children.discard(path)
        removed = list(self.below(path))
        for each in removed:
            del self._folders[each]
        return removed

    def below(self, path: str) -> Iterator[str]:
        """The followed folders at and below `path`."""
        pending = [path] if path in self._folders else []
        while pending:
            each = pending.pop()
            yield each
            pending += self._folders[each].children

    def copies_below(self, path: str) -> dict[str, Folder]:
        """The followed folders at and below `path` as they are now."""
        return {each: replace(self._folders[each]) for each in self.below(path)}

    def takes_folder(self, path: str) -> bool:
        """Whether a folder that appeared at `path` is to be walked, as far as its name tells."""
        parent = self._folders.get(os.path.dirname(path))
        return (
            parent is not None
            and parent.kept
            and not is_left_out(path, parent.root, parent.rules, self._exclude, is_folder=True)
        )

    def may_take_file(self, folder_path: str, name: str) -> bool:
        """Whether `takes_file` is worth asking: a quick answer, which doesn't know the rules."""
        folder = self._folders.get(folder_path)
        return folder is not None and (
            (folder.kept and looks_like_python(name))
            or os.path.join(folder_path, name) in self.named_files
        )

    def takes_file(self, path: str) -> bool:
        """Whether a file at `path` is to be looked at, as far as its name tells."""
        if path in self.named_files:
            return True
        folder = self._folders.get(os.path.dirname(path))
        return folder is not None and folder.takes_file(path, self._exclude)


def outermost(folders: Iterable[str]) -> Iterator[str]:
    """The folders that aren't below another one, in order of names."""
    outer: str | None = None
    for folder in sorted(folders, key=lambda path: path.split("/")):
        if outer is None or not folder.startswith(outer.rstrip("/") + "/"):
            outer = folder
            yield folder
