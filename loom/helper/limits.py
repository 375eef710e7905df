"""How much a helper may take, and how the two sides are kept from drowning each other."""

from __future__ import annotations

import logging
import os
import resource
import signal
import sys
from typing import Final

__all__ = ["kMostUnsentBytes", "kMemoryBytes", "set_limits"]

_log = logging.getLogger("loom.helper")

# A helper that has this much to send stops scanning until it is sent.
kMostUnsentBytes: Final = 1024 * 1024

# Memory that a helper may have for its data. The biggest file that is read, of 20 MiB, takes some
# 400 MiB at its worst.
kMemoryBytes: Final = 1024 * 1024 * 1024

# Behind what the user is doing.
_kNice: Final = 5

_kPrSetPdeathsig: Final = 1


def set_limits() -> None:
    """Make this process a modest one that dies with its parent. What can't be had is logged."""
    try:
        os.nice(_kNice)
    except OSError as error:
        _log.warning("can't lower the priority: %s", error)
    try:
        _, hard = resource.getrlimit(resource.RLIMIT_DATA)
        limit = kMemoryBytes if hard == resource.RLIM_INFINITY else min(kMemoryBytes, hard)
        resource.setrlimit(resource.RLIMIT_DATA, (limit, limit))
    except (OSError, ValueError) as error:
        _log.warning("can't limit the memory: %s", error)
    if sys.platform == "linux":
        _die_with_parent()


def _die_with_parent() -> None:
    """Have the kernel end this process with its parent, also while a scan hangs."""
    import ctypes  # not before the greeting: it takes some milliseconds

    parent = os.getppid()
    if ctypes.CDLL(None).prctl(_kPrSetPdeathsig, signal.SIGKILL, 0, 0, 0) != 0:
        _log.warning("can't be ended together with the parent process")
    elif os.getppid() != parent:  # it went in between
        os.kill(os.getpid(), signal.SIGKILL)
