"""The scheduler with a stopwatch, and with notes of scans that failed, run, or are over."""

from __future__ import annotations

from array import array
from collections.abc import Callable
from dataclasses import dataclass
from time import perf_counter
from typing import Any

from pysource.scancoordinator import CScanCoordinator, CScanItem

__all__ = ["MeasuredCoordinator", "SliceLengths"]


@dataclass(frozen=True, slots=True)
class SliceLengths:
    """How long the slices were, in seconds; zeros if there were none."""

    count: int
    median: float
    p99: float
    longest: float
    total: float

    @classmethod
    def of(cls, lengths: array[float]) -> SliceLengths:
        if not lengths:
            return cls(0, 0.0, 0.0, 0.0, 0.0)
        ordered = sorted(lengths)
        last = len(ordered) - 1
        return cls(
            len(ordered),
            ordered[last // 2],
            ordered[-(-last * 99 // 100)],
            ordered[-1],
            sum(ordered),
        )


class MeasuredCoordinator(CScanCoordinator):
    """Notes the length of each slice, and the scan in which the last failure happened.

    `failed_item` is for whoever handles a failure: it is the failed scan, or none if something
    else failed, and stays until that one clears it. `on_scan_over` is called with each scan that is
    over, in whatever way, inside of the slice; `on_slice_over` after each slice.
    """

    def __init__(self, idle_priority: int, ana_mgr: object) -> None:
        super().__init__(idle_priority, ana_mgr)
        self.slices = array("d")
        self.failed_item: CScanItem | None = None
        self.on_scan_over: Callable[[CScanItem], object] | None = None
        self.on_slice_over: Callable[[], object] | None = None

    def _CB_DoIdleAnalysis(self) -> bool | None:
        start = perf_counter()
        try:
            return super()._CB_DoIdleAnalysis()
        finally:
            self.slices.append(perf_counter() - start)
            if self.on_slice_over is not None:
                self.on_slice_over()

    def _DoSingleScan(self, scan_item: CScanItem, end_time: float) -> bool:
        goes_on = False
        try:
            goes_on = super()._DoSingleScan(scan_item, end_time)
            return goes_on
        except Exception:
            self.failed_item = scan_item
            raise
        finally:
            if not goes_on and self.on_scan_over is not None:
                self.on_scan_over(scan_item)

    def WholeFileScanBegun(self, loc: Any) -> bool:
        """Whether a whole-file scan of the file is under way, and may have read it already."""
        # By its full name: it is the base class's own.
        return loc in getattr(self, "_CScanCoordinator__fActivePrimaryWholeFileScanners")

    def ActiveLocation(self) -> Any:
        """The file whose scan ran out of time and goes on in the next slice, or none."""
        return getattr(self, "_CScanCoordinator__fActiveLoc")
