"""Who inspects the locations that can't be asked anything at once.

A location whose class says `fAsyncInspect` knows nothing by itself. The host sets one inspector,
which finds out about such locations and remembers the answers.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable
from enum import Enum
from typing import NamedTuple, Protocol

from .locationbase import CLocation

__all__ = ["CFileKind", "CFileState", "CInspector", "GetInspector", "SetInspector", "StateOf"]


class CFileKind(Enum):
    """What an inspection found in a place."""

    FILE = "a regular file"
    FOLDER = "a folder"
    OTHER = "neither a file nor a folder"
    ABSENT = "nothing"
    CLOSED = "something that can't be looked at"


class CFileState(NamedTuple):
    """What an inspection found. The time is in nanoseconds, and means something for files only.

    `reason` tells why a closed place can't be looked at.
    """

    kind: CFileKind
    mtime_ns: int = 0
    size: int = 0
    reason: str = ""


class CInspector(Protocol):
    """Inspects locations, and knows what was found."""

    def StateOf(self, loc: CLocation) -> CFileState | None:
        """What was found, or none if the location isn't inspected."""

    def Inspect(
        self, loc_seq: Iterable[CLocation], callback: Callable[[bool], object], force: bool
    ) -> None:
        """Call `callback(abort)` once, when all the locations are inspected, perhaps later."""


_inspector: CInspector | None = None


def SetInspector(inspector: CInspector | None) -> None:
    """Set the inspector; none takes it away."""
    global _inspector
    _inspector = inspector


def GetInspector() -> CInspector | None:
    return _inspector


def StateOf(loc: CLocation) -> CFileState | None:
    """What was found of a location, or none if it isn't inspected or nobody inspects."""
    return None if _inspector is None else _inspector.StateOf(loc)
