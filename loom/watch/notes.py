"""What is still to be looked at, noted as events come."""

from __future__ import annotations

import os
from typing import Final

from loom.ignore import tells_about_folder
from loom.watch.events import Change, Event
from loom.watch.folders import FolderTree
from loom.watch.lostroots import LostRoots

__all__ = ["Notes"]

# More noted files than this, and the trees are walked again instead.
_kMostFiles: Final = 50_000


class Notes:
    """`files` that may have changed, folders that are `gone`, folders for new `walks`.

    What is noted twice is there once. The rules aren't asked, for there may be thousands of events.
    """

    def __init__(self, tree: FolderTree, lost_roots: LostRoots) -> None:
        self._tree = tree
        self._lost_roots = lost_roots
        self.files: dict[str, None] = {}  # in order of the first event
        self.gone: set[str] = set()
        self.walks: set[str] = set()

    def __bool__(self) -> bool:
        return bool(self.files or self.gone or self.walks)

    def add(self, event: Event) -> None:
        """Note what the event says."""
        path = event.path
        if event.change is Change.LOST:
            self.add_everything()
        elif event.change is Change.FOLDER_GONE:
            self.gone.add(path)
        elif event.is_folder:
            if event.change is Change.GONE:
                if path in self._tree:
                    self.gone.add(path)
            elif event.folder in self._tree:
                self.walks.add(path)
        elif self._tree.may_take_file(event.folder, event.name):
            self.files[path] = None
            if len(self.files) > _kMostFiles:
                self.files.clear()
                self.add_everything()
        self.walks.update(self._lost_roots.found_by(event))
        folder = self._tree.get(event.folder)
        if folder is not None and folder.walked:
            if tells_about_folder(os.path.basename(folder.path), event.name):
                self.walks.add(folder.path)

    def add_everything(self) -> None:
        """Note that everything is to be walked again."""
        self.walks.update(self._tree.roots)
        self.files.update(dict.fromkeys(self._tree.named_files))

    def take_files(self) -> dict[str, None]:
        """The files, which aren't noted any more."""
        taken, self.files = self.files, {}
        return taken

    def take_gone(self) -> set[str]:
        """The folders that are gone, which aren't noted any more."""
        taken, self.gone = self.gone, set()
        return taken

    def take_walks(self) -> set[str]:
        """The folders to be walked, which aren't noted any more."""
        taken, self.walks = self.walks, set()
        return taken
