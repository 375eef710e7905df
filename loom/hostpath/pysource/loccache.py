"""What is known of locations as such."""

from __future__ import annotations

from loombase.location import CLocation

__all__ = ["CLocCache"]


class CLocCache:
    """What is known of locations as such.

    There is no derived scanner in this host, so no file wants derived information, and nobody asks
    for the builtins.
    """

    def GetBuiltinLoc(self) -> CLocation | None:
        """The location of the builtins, or none if it isn't known."""
        return None

    def WantDerivedInfo(self, loc: CLocation) -> bool:
        """Whether secondary scans are wanted for the file."""
        return False
