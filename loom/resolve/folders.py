"""What modules a folder holds, remembered."""

from __future__ import annotations

import os
import stat
import time
from typing import Final

__all__ = ["FOLDER", "NATIVE", "SOURCE", "STUB", "Folders", "stamp"]

# What a folder can hold under the name of a module.
STUB: Final = 1  # NAME.pyi
SOURCE: Final = 2  # NAME.py
NATIVE: Final = 4  # an extension module
FOLDER: Final = 8  # a folder, which may be a package

_SUFFIXES: Final = {".py": SOURCE, ".pyi": STUB}

# Extension modules are NAME.so, NAME.abi3.so, NAME.cpython-312-x86_64-linux-gnu.so and so on.
_NATIVE_SUFFIXES: Final = (".so", ".pyd", ".dylib")

# A folder with more entries isn't read to its end: that could take longer than a slice.
_MOST_ENTRIES: Final = 20_000

# A folder that was changed so shortly before it was read may have been changed once more within
# the same tick of the file system's clock.
_TICK_NS: Final = 2_000_000_000


class _Folder:
    """The modules of a folder as they were when it was read, by name; none if it can't be read."""

    __slots__ = ("_known", "_path", "_stamp", "epoch")

    def __init__(self, path: str, epoch: int) -> None:
        self.epoch = epoch
        self._path = path
        self._stamp = stamp(path)  # before the entries: a change meanwhile shows the next time
        self._known: dict[str, int] | None = _read(path) if self._stamp is not None else {}

    def kinds(self, name: str) -> int:
        if self._known is None:
            return _ask(self._path, name)
        return self._known.get(name, 0)

    def stamp(self) -> tuple[int, int] | None:
        """That of the folder as it was when it was read."""
        return self._stamp

    def is_as_read(self) -> bool:
        return self._known is not None and stamp(self._path) == self._stamp


def stamp(path: str) -> tuple[int, int] | None:
    """Tells states of a folder apart, or none if there is no such folder."""
    try:
        status = os.stat(path)
    except (OSError, ValueError):
        return None
    if not stat.S_ISDIR(status.st_mode):
        return None
    mtime_ns = status.st_mtime_ns
    now = time.time_ns()
    # A time that can't be trusted equals no other.
    return (status.st_ino, mtime_ns if mtime_ns < now - _TICK_NS else -now)


def _read(path: str) -> dict[str, int] | None:
    """What the folder holds under each name; none if that is too much."""
    known: dict[str, int] = {}
    try:
        with os.scandir(path) as entries:
            for count, entry in enumerate(entries):
                if count >= _MOST_ENTRIES:
                    return None
                name = entry.name
                stem, suffix = os.path.splitext(name)
                kind = _SUFFIXES.get(suffix, 0)
                if suffix in _NATIVE_SUFFIXES:
                    stem, kind = name.partition(".")[0], NATIVE
                if entry.is_dir():
                    stem, kind = name, FOLDER
                elif not kind or not entry.is_file():
                    continue
                known[stem] = known.get(stem, 0) | kind
    except OSError:
        return {}
    return known


def _ask(path: str, name: str) -> int:
    """As an entry of `_read`, without reading the folder."""
    found = 0
    base = os.path.join(path, name)
    for suffix, kind in (*_SUFFIXES.items(), (".so", NATIVE), (".abi3.so", NATIVE), ("", FOLDER)):
        try:
            mode = os.stat(base + suffix).st_mode
        except (OSError, ValueError):
            continue
        if stat.S_ISDIR(mode) == (kind == FOLDER):
            found |= kind
    return found


class Folders:
    """The folders that were asked for. Each is read once, and again when it may have changed.

    Paths are absolute and normal. Nothing is raised for a folder that isn't there or can't be read:
    it holds nothing.
    """

    def __init__(self) -> None:
        self._folders: dict[str, _Folder] = {}
        self._epoch = 0

    def kinds(self, folder: str, name: str) -> int:
        """What the folder holds under the name of a module: a sum of the constants above, or 0."""
        found = self._folders.get(folder)
        if found is None or found.epoch != self._epoch:
            found = self._renewed(folder, found)
        return found.kinds(name)

    def is_package(self, folder: str) -> bool:
        """Whether the folder has an `__init__`."""
        return self.kinds(folder, "__init__") & ~FOLDER != 0

    def _renewed(self, folder: str, old: _Folder | None) -> _Folder:
        if old is not None and old.is_as_read():
            old.epoch = self._epoch
            return old
        new = self._folders[folder] = _Folder(folder, self._epoch)
        return new

    def stamps(self) -> dict[str, tuple[int, int] | None]:
        """The stamps of all folders that were asked for, as they were when they were read."""
        return {path: folder.stamp() for path, folder in self._folders.items()}

    def recheck(self) -> None:
        """Look at the time of each folder once more when it is next asked for."""
        self._epoch += 1

    def forget(self, path: str) -> None:
        """Read a folder, and the one that holds it, again when they are next asked for."""
        self._folders.pop(os.path.dirname(path), None)
        self._folders.pop(path, None)
