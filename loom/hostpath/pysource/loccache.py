"""What is known of locations as such."""

from __future__ import annotations

import os
from collections.abc import Iterable

from loombase.location import CLocalFileLocation, CLocation

from loom.resolve import typeshed

__all__ = ["CLocCache"]


class CLocCache:
    """What is known of locations as such.

    Derived information is wanted for the local Python files at and below the paths that the user
    asked for, and for no others: nobody asks who the standard library refers to.
    """

    def __init__(self) -> None:
        self._fDerivedPaths: frozenset[str] = frozenset()

    def GetBuiltinLoc(self) -> CLocation | None:
        """The location of the builtins' stub, or none if it isn't installed."""
        path = typeshed.builtins_path()
        return None if path is None else CLocalFileLocation(path)

    def WantDerivedBelow(self, paths: Iterable[str]) -> None:
        """Have derived information for the files at and below these paths; for none without any."""
        self._fDerivedPaths = frozenset(os.path.abspath(path) for path in paths)

    def WantDerivedInfo(self, loc: CLocation) -> bool:
        """Whether secondary scans are wanted for the file."""
        if not self._fDerivedPaths or not isinstance(loc, CLocalFileLocation):
            return False
        path = loc.path
        while path not in self._fDerivedPaths:
            path, last = os.path.dirname(path), path
            if path == last:
                return False
        return True
