"""Whether what is stored of a file still holds.

Time and size tell it where the time can be trusted, the digest of the bytes where it can't. A time
can't be trusted if the file had it for less than two seconds when it was read, or if it lay in the
future: a write after the reading could have left the same time, on file systems that count in
whole seconds or two. A file with such a time is read again, and parsed only if its bytes differ.
"""

import os
import time
from typing import Final

from loom.store.records import FileState

__all__ = [
    "is_fresh",
    "is_settled",
    "kScannerVersion",
    "mtime_ns_of",
    "now_ns",
    "was_scanned",
]

# To be raised with every change of what the scanner of whole files finds: results of another
# version don't hold, whatever the file's time says.
kScannerVersion: Final = 2

# How old a time must be, in nanoseconds. The coarsest file systems count in two seconds.
_kSettledNs: Final = 2_000_000_000

# What the database can hold, the years 1677 to 2262. A time beyond stands at the limit, and isn't
# trusted.
_kMinNs: Final = -(1 << 63)
_kMaxNs: Final = (1 << 63) - 1


def now_ns() -> int:
    """The clock of the file system, in nanoseconds since the epoch. Tests replace it here."""
    return time.time_ns()


def mtime_ns_of(status: os.stat_result) -> int:
    """The modification time of a file as it is stored and compared."""
    mtime_ns = status.st_mtime_ns
    if _kMinNs <= mtime_ns <= _kMaxNs:
        return mtime_ns
    return _kMinNs if mtime_ns < _kMinNs else _kMaxNs


def is_settled(mtime_ns: int, read_ns: int) -> bool:
    """Whether no later write can leave the time `mtime_ns` on a file that is read at `read_ns`."""
    return _kMinNs < mtime_ns <= read_ns - _kSettledNs


def is_fresh(state: FileState, mtime_ns: int, size: int) -> bool:
    """Whether the results that are stored for `state` are those of a file as it is on disk."""
    return (
        state.mtime_ns == mtime_ns
        and state.size == size
        and state.settled
        and state.scanner == kScannerVersion
    )


def was_scanned(state: FileState, digest: bytes, scan_name: str) -> bool:
    """Whether the results that are stored for `state` are what a scan of these bytes finds."""
    return (
        state.digest == digest != b""
        and state.scanner == kScannerVersion
        and f" {scan_name} " in state.scans
    )
