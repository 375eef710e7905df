"""A host that tells a recorder what it does."""

from __future__ import annotations

from collections.abc import Callable, Hashable, Iterable
from typing import Any, Final

from loombase.location import CLocation

from loom.app import App
from loom.followed import FollowingCoordinator
from loom.helper.callback import CHelperCallbackObj
from loom.trace.recorder import TraceRecorder
from pysource.scancoordinator import CScanItem

__all__ = ["TracedCoordinator", "name_of", "trace_app"]

_Pair = tuple[Hashable, str]

# A call that takes less is no event of its own, in microseconds.
_kWorthTelling: Final = 200.0


class TracedCoordinator(FollowingCoordinator):
    """Tells `recorder` of slices, scans, checks, waits and writes, and of what came of what.

    A scan is told from its first slice to its last, with all the time in between that it was
    carried on or waited. `causes` has for each file that followed another one the file it followed,
    or none for those that the host itself brought in.
    """

    recorder: TraceRecorder | None = None

    def __init__(self, idle_priority: int, ana_mgr: object) -> None:
        super().__init__(idle_priority, ana_mgr)
        self.causes: dict[Hashable, Hashable | None] = {}
        self._scans: dict[CScanItem, int] = {}
        self._waits: dict[CScanItem, int] = {}

    def _CB_DoIdleAnalysis(self) -> bool | None:
        recorder = self.recorder
        if recorder is None:
            return super()._CB_DoIdleAnalysis()
        with recorder.span("slice", "slice"):
            self._count_queued(recorder)
            try:
                return super()._CB_DoIdleAnalysis()
            finally:
                self._count_queued(recorder)

    def _count_queued(self, recorder: TraceRecorder) -> None:
        depths: dict[str, float] = {}
        for queue in self.GetStatus().queue_status_list:
            name = f"priority {queue.priority:d}"
            depths[name] = depths.get(name, 0) + queue.file_count
        recorder.counter("queued files", depths)

    def _DoSingleScan(self, scan_item: CScanItem, end_time: float) -> bool:
        recorder = self.recorder
        if recorder is None:
            return super()._DoSingleScan(scan_item, end_time)
        name = name_of(scan_item.loc)
        wait = self._waits.pop(scan_item, None)
        if wait is not None:
            recorder.end(name, "wait for data", wait)
        if scan_item not in self._scans:
            self._scans[scan_item] = recorder.begin(
                name,
                "scan",
                scope=scan_item.scope_name,
                scan=scan_item.scan_name,
                priority=scan_item.priority,
                because=name_of(self.causes.get(scan_item.loc)),
            )
        goes_on = False
        try:
            with recorder.span(name, "scan slice", scope=scan_item.scope_name):
                goes_on = super()._DoSingleScan(scan_item, end_time)
            return goes_on
        finally:
            if not goes_on:
                recorder.end(name, "scan", self._scans.pop(scan_item))
            elif scan_item in self._fScanQueue._fScanItemsWaitingForData:
                self._waits[scan_item] = recorder.begin(name, "wait for data")

    def _CScanCoordinator__CheckWholeFiles(self, end_time: float) -> Any:
        recorder = self.recorder
        check = getattr(super(), "_CScanCoordinator__CheckWholeFiles")
        if recorder is None:
            return check(end_time)
        with recorder.span("check of whole files", "check"):
            return check(end_time)

    def AddPairsToPrimaryQueue(
        self, pairs: Iterable[_Pair], first: bool = True, priority: int | None = None
    ) -> None:
        pairs = list(pairs)
        if self.recorder is not None:
            active = self.fActiveScanItem
            for loc, _ in pairs:
                self.causes.setdefault(loc, None if active is None else active.loc)
        super().AddPairsToPrimaryQueue(pairs, first, priority)


def trace_app(app: App, recorder: TraceRecorder) -> None:
    """Have `recorder` told what the app does from now on. Its coordinator is a `TracedCoordinator`."""
    coordinator = app.coordinator
    assert isinstance(coordinator, TracedCoordinator)
    coordinator.recorder = recorder
    cache = app.info_cache
    for name in ("WriteToDatabase", "Trim"):
        setattr(cache, name, _told(recorder, getattr(cache, name), f"database: {name}"))
    timers = app.main_loop.timers
    setattr(timers, "run_due", _told(recorder, timers.run_due, "timers of the host"))
    for signal in ("scan-queue-locs-added", "scan-queue-locs-removed"):
        CHelperCallbackObj.class_connect_while_alive(signal, _helper_told(recorder, signal), app)


def _told(
    recorder: TraceRecorder, operation: Callable[..., Any], name: str
) -> Callable[..., Any]:
    """The operation, noted if it takes long enough to matter."""

    def call(*args: Any) -> Any:
        start = recorder.now()
        try:
            return operation(*args)
        finally:
            if recorder.now() - start >= _kWorthTelling:
                recorder.complete(name, "host", start)

    return call


def _helper_told(recorder: TraceRecorder, signal: str) -> Callable[..., None]:
    what = "queued by helper" if signal.endswith("added") else "done by helper"

    def tell(_emitter: object, locs: Iterable[CLocation]) -> None:
        recorder.instant(what, "helper", files=[name_of(loc) for loc in locs])

    return tell


def name_of(loc: Any) -> str:
    """What a location is called in a trace; empty for none."""
    return "" if loc is None else str(getattr(loc, "path", None) or loc.fUrl)
