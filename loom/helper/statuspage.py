"""What a helper is scanning, told through a page of shared memory.

The first process looks at it once a second and after a crash. A message for each file would wake it
up as often, and one that waits to be sent dies with the helper.
"""

from __future__ import annotations

import mmap
import os
import struct
from typing import Final, NamedTuple

__all__ = ["Scanning", "StatusPage"]

# Job number or 0; when the present slice began; how long the earlier slices of the job took.
_kLayout: Final = struct.Struct("=Qdd")

# The other process may be in the middle of writing.
_kTries: Final = 4


class Scanning(NamedTuple):
    """The job that is being scanned, and since when: times of the monotonic clock in seconds.

    `since` is moved on by what the scan had to wait between its slices.
    """

    number: int
    since: float


class StatusPage:
    """One side's view of the page behind the descriptor `fd`, which stays the caller's."""

    def __init__(self, fd: int) -> None:
        self._map = mmap.mmap(fd, mmap.PAGESIZE)
        self._number = 0
        self._began = 0.0
        self._spent = 0.0

    @staticmethod
    def make_fd() -> int:
        """A descriptor of a new page, which another process can inherit."""
        if hasattr(os, "memfd_create"):
            fd = os.memfd_create("loom-helper", os.MFD_CLOEXEC)
        else:
            import tempfile  # takes as long to load as all of this room

            fd, path = tempfile.mkstemp(prefix="loom-helper-")
            os.unlink(path)
        os.ftruncate(fd, mmap.PAGESIZE)
        return fd

    def close(self) -> None:
        self._map.close()

    # --- the helper's side

    def starts(self, number: int, now: float) -> None:
        """A slice of this job's scan begins."""
        if number != self._number:
            self._number, self._spent = number, 0.0
        self._began = now
        _kLayout.pack_into(self._map, 0, number, now, self._spent)

    def rests(self, now: float) -> None:
        """The slice is over. The job may go on in another one."""
        self._spent += now - self._began
        _kLayout.pack_into(self._map, 0, 0, 0.0, 0.0)

    # --- the first process's side

    def scanning(self) -> Scanning | None:
        """What is being scanned, or none between scans."""
        seen = _kLayout.unpack_from(self._map)
        for _ in range(_kTries):
            again = _kLayout.unpack_from(self._map)
            if again == seen:
                break
            seen = again
        number, began, spent = seen
        return Scanning(number, began - spent) if number else None
