"""Given folders that are gone, and how it is noticed that one is back."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator

from loom.watch.events import Change, Event

__all__ = ["LostRoots"]


class LostRoots:
    """Each lost folder waits for an entry of the nearest folder above it that there is."""

    def __init__(self) -> None:
        self._ancestors: dict[str, str] = {}

    def __contains__(self, root: str) -> bool:
        return root in self._ancestors

    def lose(self, root: str, watch: Callable[[str], None]) -> bool:
        """Wait for `root`. Returns true if it, or something on the way to it, is back already."""
        ancestor = _existing_above(root)
        self._ancestors[root] = ancestor
        watch(ancestor)
        return os.path.isdir(root) or _existing_above(root) != ancestor

    def find(self, root: str) -> str | None:
        """Wait no more. Returns the folder above it that nobody waits at any more, if any."""
        ancestor = self._ancestors.pop(root)
        return None if ancestor in self._ancestors.values() else ancestor

    def found_by(self, event: Event) -> Iterator[str]:
        """The folders that may be back when this has happened."""
        if self._ancestors and event.change is Change.APPEARED and event.is_folder:
            for root, ancestor in self._ancestors.items():
                if event.folder == ancestor and f"{root}/".startswith(f"{event.path}/"):
                    yield root


def _existing_above(path: str) -> str:
    path = os.path.dirname(path)
    while not os.path.isdir(path) and path != os.path.dirname(path):
        path = os.path.dirname(path)
    return path
