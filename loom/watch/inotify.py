"""Events from the Linux kernel, all through one descriptor."""

from __future__ import annotations

import contextlib
import errno
import os
from collections.abc import Iterator
from typing import Final

from inotify_simple import INotify, flags, parse_events

from loom.watch.events import Change, Event, NoMoreWatchesError

__all__ = ["InotifySource"]

# Single writes don't count, only that the file is closed after them: a log that grows would wake us
# each time. Attributes count for a file that becomes readable, and for a new modification time.
_kMask: Final = (
    flags.CREATE
    | flags.MOVED_TO
    | flags.CLOSE_WRITE
    | flags.ATTRIB
    | flags.DELETE
    | flags.MOVED_FROM
    | flags.DELETE_SELF
    | flags.MOVE_SELF
    | flags.ONLYDIR
    | flags.EXCL_UNLINK
)

_kChanges: Final = (
    (flags.CREATE | flags.MOVED_TO, Change.APPEARED),
    (flags.DELETE | flags.MOVED_FROM, Change.GONE),
    (flags.CLOSE_WRITE | flags.ATTRIB, Change.WRITTEN),
)
_kSelfGone: Final = flags.DELETE_SELF | flags.MOVE_SELF | flags.UNMOUNT

# Bytes taken at a time: some five hundred events, a few milliseconds' work.
_kReadBytes: Final = 16 * 1024


class InotifySource:
    """One inotify descriptor, whatever the number of folders.

    Raises `NoMoreWatchesError` if the system has none.

    The kernel follows a folder and not its path. When a folder was moved, and its new path is
    followed before the old one is given up, both have the same watch; it then belongs to the new
    path.
    """

    def __init__(self) -> None:
        try:
            self._inotify = INotify(nonblocking=True)
        except (OSError, AttributeError) as error:  # a C library without it has no such function
            raise NoMoreWatchesError(_reason(error)) from error
        self._paths: dict[int, str] = {}
        self._watches: dict[str, int] = {}

    def watch(self, folder: str) -> None:
        try:
            watch = self._inotify.add_watch(folder, _kMask)
        except OSError as error:
            if error.errno in (errno.ENOSPC, errno.ENOMEM):
                raise NoMoreWatchesError(_reason(error)) from error
            raise
        old_watch = self._watches.get(folder)
        if old_watch == watch:
            return
        old_path = self._paths.get(watch)
        if old_path is not None and _is_same_folder(old_path, folder):
            return  # mounted twice
        if old_watch is not None:
            self.unwatch(folder)  # another folder was there before
        if old_path is not None:
            del self._watches[old_path]
        self._paths[watch] = folder
        self._watches[folder] = watch

    def unwatch(self, folder: str) -> None:
        watch = self._watches.pop(folder, None)
        if watch is not None:
            del self._paths[watch]
            with contextlib.suppress(OSError):  # the folder is gone, and the watch with it
                self._inotify.rm_watch(watch)

    def fileno(self) -> int:
        return int(self._inotify.fileno())

    def read(self) -> Iterator[Event]:
        try:
            data = os.read(self.fileno(), _kReadBytes)
        except BlockingIOError:
            return
        for watch, mask, _, name in parse_events(data):
            if mask & flags.Q_OVERFLOW:
                yield Event(Change.LOST)
                continue
            folder = self._paths.get(watch)
            if folder is None:
                continue  # given up since
            if mask & flags.IGNORED:
                del self._paths[watch]
                del self._watches[folder]
            elif mask & _kSelfGone:
                yield Event(Change.FOLDER_GONE, folder)
            elif name:
                for bits, change in _kChanges:
                    if mask & bits:
                        yield Event(change, folder, name, bool(mask & flags.ISDIR))

    def close(self) -> None:
        self._inotify.close()


def _is_same_folder(path: str, other: str) -> bool:
    try:
        return os.path.samefile(path, other)
    except OSError:
        return False


def _reason(error: Exception) -> str:
    """What a user can act on."""
    code = error.errno if isinstance(error, OSError) else None
    if code == errno.ENOSPC:
        return "the limit fs.inotify.max_user_watches is reached"
    if code == errno.EMFILE:
        return "the limit fs.inotify.max_user_instances is reached"
    return f"inotify can't be used: {getattr(error, 'strerror', None) or error}"
