"""The scheduler, with an eye on the files that nobody asked for."""

from __future__ import annotations

from collections.abc import Callable, Hashable, Iterable
from typing import Final

from loombase.location import CLocation

from loom.measure import MeasuredCoordinator
from pysource.scancoordinator import kBackgroundPriority

__all__ = ["FollowingCoordinator"]

_Pair = tuple[Hashable, str]

_kWholeFile: Final = "*"


class FollowingCoordinator(MeasuredCoordinator):
    """Tells apart which files were asked for and which follow them: what those import, the
    builtins, stubs beside sources.

    Without `_fAnalyzeFoundImports`, no imports follow and no builtins.

    The analysis manager emits "files-followed" (list of locations) when files follow. While
    somebody holds them, those of background priority aren't queued, so that they come behind
    all that is asked for meanwhile.
    """

    def __init__(self, idle_priority: int, ana_mgr: object) -> None:
        super().__init__(idle_priority, ana_mgr)
        self._holders = 0
        self._held: dict[_Pair, None] = {}
        # Takes files that are scanned elsewhere, and returns the others.
        self.scan_elsewhere: Callable[[list[CLocation]], list[CLocation]] | None = None

    def ask_for(self, locs: Iterable[CLocation], priority: int = kBackgroundPriority) -> None:
        """Queue whole files that the user wants scanned."""
        locs = list(locs)
        if self.scan_elsewhere is not None:
            locs = self.scan_elsewhere(locs)
        pairs = [(loc, _kWholeFile) for loc in locs]
        for pair in pairs:
            self._held.pop(pair, None)
        super().AddPairsToPrimaryQueue(pairs, False, priority)

    def AddPairsToPrimaryQueue(
        self, pairs: Iterable[_Pair], first: bool = True, priority: int | None = None
    ) -> None:
        pairs = list(pairs)
        if pairs:
            self.fAnaMgr.emit("files-followed", [loc for loc, _ in pairs])
        if self._holders and priority == kBackgroundPriority:
            self._held.update(dict.fromkeys(pairs))
        else:
            super().AddPairsToPrimaryQueue(pairs, first, priority)

    @property
    def held_count(self) -> int:
        """How many files are held."""
        return len(self._held)

    def _QueueBasicModules(self, end_time: float) -> None:
        if self._fAnalyzeFoundImports:  # else exactly what is asked for is scanned
            super()._QueueBasicModules(end_time)

    def hold_followed(self) -> None:
        """Keep files that follow out of the queue until `release_followed` is called as often."""
        self._holders += 1

    def release_followed(self) -> None:
        """Queue what was held, unless somebody else holds it still."""
        self._holders -= 1
        if self._holders == 0 and self._held:
            held, self._held = self._held, {}
            super().AddPairsToPrimaryQueue(list(held), False, kBackgroundPriority)
