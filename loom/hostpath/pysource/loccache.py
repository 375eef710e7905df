"""What is known of locations as such."""

from __future__ import annotations

from loombase.location import CLocalFileLocation, CLocation

from loom.resolve import typeshed

__all__ = ["CLocCache"]


class CLocCache:
    """What is known of locations as such.

    There is no derived scanner in this host, so no file wants derived information.
    """

    def GetBuiltinLoc(self) -> CLocation | None:
        """The location of the builtins' stub, or none if it isn't installed."""
        path = typeshed.builtins_path()
        return None if path is None else CLocalFileLocation(path)

    def WantDerivedInfo(self, loc: CLocation) -> bool:
        """Whether secondary scans are wanted for the file."""
        return False
