"""Failures in one call of the idle callback."""

import pytest
from guiutils import lgtk
from loomutils import reflect
from operations import private, watched
from world import forget, logged, pending, scripted, told

import hostclock
import hostlog

kStart = hostclock.kStartTime
kQuiet = {"__EnsureStatusTimeout": None, "_ScheduleWriteToDatabaseIdle": None}


def make(world, **replies):
    """A scheduled coordinator that only notes what the idle call asks of its other operations."""
    coordinator = world.make(watched(**{**kQuiet, "__DoScans": None, **replies}))
    coordinator._ScheduleIdle()
    forget()
    return coordinator


def fill(world, coordinator):
    """Queue one file, with no check due."""
    return world.queue(coordinator, world.loc("/p/a.py"))


def fails_with(coordinator, failure):
    """Run one idle call that is to fail, and check what the host gets to see of it."""
    if __debug__:
        with pytest.raises(type(failure)) as info:
            coordinator._CB_DoIdleAnalysis()
        assert info.value is failure
    else:
        assert coordinator._CB_DoIdleAnalysis() is None
    assert reflect.reported == [failure]
    assert coordinator._fIdleProcId is None


@pytest.mark.parametrize(
    "failure", [RuntimeError("scan"), KeyError("k"), MemoryError(), KeyboardInterrupt()]
)
def test_a_failure_below_is_reported_and_unschedules(world, failure):
    coordinator = make(world, __DoScans=failure)
    item = fill(world, coordinator)
    world.log_lines(coordinator)
    fails_with(coordinator, failure)
    assert told("log", "ReportCurrentException", "emit") == [
        logged("Entering _CB_DoIdleAnalysis()"),
        logged("Exception raised in _CB_DoIdleAnalysis(); implicitly returning None"),
        ("ReportCurrentException", failure),
    ]
    assert coordinator._fActiveIdleStart == kStart
    assert coordinator._fScanQueue.First() == item
    forget()


def test_a_failure_keeps_its_traceback(world):
    def fail_here(_coordinator, _end_time):
        raise RuntimeError("deep")

    coordinator = make(world, __DoScans=fail_here)
    if __debug__:
        with pytest.raises(RuntimeError) as info:
            coordinator._CB_DoIdleAnalysis()
        assert info.traceback[-1].name == "fail_here"
    else:
        coordinator._CB_DoIdleAnalysis()
    trace = reflect.reported[0].__traceback__
    names = []
    while trace is not None:
        names.append(trace.tb_frame.f_code.co_name)
        trace = trace.tb_next
    assert names[-1] == "fail_here"
    forget()


def test_the_handle_is_gone_before_the_report(world, monkeypatch):
    coordinator = make(world, __DoScans=RuntimeError("x"))
    seen = []
    monkeypatch.setattr(
        reflect, "ReportCurrentException", lambda: seen.append(coordinator._fIdleProcId)
    )
    try:
        coordinator._CB_DoIdleAnalysis()
    except RuntimeError:
        pass
    assert seen == [None]
    forget()


def test_after_a_failure_the_host_drops_the_callback_and_the_next_schedule_starts_one(world):
    coordinator = make(world, __DoScans=[RuntimeError("once"), None])
    fill(world, coordinator)
    idle = coordinator._fIdleProcId
    try:
        while idle in lgtk.idle_ids():
            lgtk.step()
    except RuntimeError:
        pass
    assert idle not in lgtk.idle_ids()
    coordinator._ScheduleIdle()
    assert coordinator._fIdleProcId in lgtk.idle_ids()
    assert coordinator._CB_DoIdleAnalysis() is True
    forget()


@pytest.mark.parametrize(
    "operation", ["__EnsureStatusTimeout", "_ScheduleWriteToDatabaseIdle", "QueuesEmpty"]
)
def test_a_failure_beside_the_scans_goes_the_same_way(world, operation):
    failure = RuntimeError(operation)
    coordinator = make(world, **{operation: failure})
    fails_with(coordinator, failure)
    forget()


def test_a_failing_listener_of_end_goes_the_same_way(world):
    failure = RuntimeError("listener")
    coordinator = make(world)

    def listen():
        raise failure

    coordinator.connect("end", listen)
    fails_with(coordinator, failure)
    assert coordinator._fActiveIdleStart == kStart
    assert told("_ScheduleWriteToDatabaseIdle") == []
    forget()


class BrokenFile:
    """A log file that fails from a certain line on."""

    def __init__(self, failure, text):
        self.failure = failure
        self.text = text

    def write(self, line):
        if self.text in line:
            raise self.failure


@pytest.mark.parametrize("text", ["_CScanQueue contents", "Returning False"])
def test_a_failing_log_after_the_start_goes_the_same_way(world, text):
    failure = OSError("disk full")
    coordinator = make(world)
    coordinator.fLog.fOutputFile = BrokenFile(failure, text)
    fails_with(coordinator, failure)
    forget()


def test_a_failing_first_log_goes_straight_to_the_host(world):
    failure = OSError("disk full")
    coordinator = make(world)
    handle = coordinator._fIdleProcId
    coordinator.fLog.fOutputFile = BrokenFile(failure, "Entering")
    with pytest.raises(OSError) as info:
        coordinator._CB_DoIdleAnalysis()
    assert info.value is failure
    assert coordinator._fIdleProcId == handle
    assert hostlog.calls == []


def test_a_failing_log_of_quitting_goes_straight_to_the_host(world):
    failure = OSError("disk full")
    coordinator = make(world)
    handle = coordinator._fIdleProcId
    coordinator.Quitting()
    coordinator.fLog.fOutputFile = BrokenFile(failure, "quitting")
    with pytest.raises(OSError) as info:
        coordinator._CB_DoIdleAnalysis()
    assert info.value is failure
    assert coordinator._fIdleProcId == handle
    assert reflect.reported == []


def test_a_failing_clock_goes_to_the_report(world, monkeypatch):
    from pysource import _fastaccess

    failure = RuntimeError("no clock")

    def broken():
        raise failure

    coordinator = make(world)
    monkeypatch.setattr(_fastaccess, "__TimeFunc", broken)
    fails_with(coordinator, failure)
    assert coordinator._fActiveIdleStart == -1.0
    forget()


def test_a_failing_report_is_what_the_host_sees(world, monkeypatch):
    failure, second = RuntimeError("scan"), RuntimeError("report")

    def report():
        raise second

    coordinator = make(world, __DoScans=failure)
    monkeypatch.setattr(reflect, "ReportCurrentException", report)
    with pytest.raises(RuntimeError) as info:
        coordinator._CB_DoIdleAnalysis()
    assert info.value is second
    assert coordinator._fIdleProcId is None
    forget()


def test_a_failing_item_stays_at_the_head_and_runs_again(world, coordinator):
    failure = RuntimeError("bad file")
    item = fill(world, coordinator)
    other = world.queue(coordinator, world.loc("/p/b.py"))
    scripted(failure)
    coordinator._ScheduleIdle()
    fails_with(coordinator, failure)
    assert private(coordinator, "__fActiveLoc") is item.loc
    assert coordinator.fActiveScanItem is None
    assert coordinator._fScanQueue.First() == item
    world.loc_cache.derived_wanted[item.loc] = world.loc_cache.derived_wanted[other.loc] = False
    coordinator._ScheduleIdle()
    assert coordinator._CB_DoIdleAnalysis() is False
    assert pending(coordinator) == {}
    forget()
