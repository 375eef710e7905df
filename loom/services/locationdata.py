"""Which locations can be asked without waiting."""

from __future__ import annotations

from loombase.destroyable import CDestroyable
from loombase.location import CLocation

__all__ = ["CLocationDataCache"]


class CLocationDataCache(CDestroyable):
    """Which locations have been inspected. Local ones always are.

    Signals: "now-tree-branch-ready" (cache, set of locations), "inspect-failed" (cache, set of
    locations), "cleared" (cache).
    """

    def __init__(self) -> None:
        super().__init__(("now-tree-branch-ready", "inspect-failed", "cleared"))

    def TreeBranchReady(self, loc: CLocation, inspect: bool) -> bool:
        """Whether everything down to `loc` can be asked without waiting."""
        return loc.IsReady()
