"""One call of the idle callback."""

import pytest
from guiutils import lgtk
from operations import private, watched
from pysource import inferenceengine
from world import forget, kSlice, logged, pass_time, told, waiting_files

import hostclock

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


# The length of a slice.


def slice_of(coordinator):
    """The length of the slice of one idle call."""
    now = hostclock.now()
    coordinator._CB_DoIdleAnalysis()
    ((_, end_time),) = told("__DoScans")
    forget()
    return end_time - now


def test_slice_beside_an_engine_in_python(world):
    coordinator = make(world)
    assert slice_of(coordinator) == pytest.approx(0.1 if __debug__ else 0.05, abs=1e-9)


@pytest.mark.parametrize("file", ["/e/inferenceengine.so", "C:\\e\\inferenceengine.pyd"])
def test_slice_beside_a_compiled_engine(world, monkeypatch, file):
    coordinator = make(world)
    monkeypatch.setattr(inferenceengine, "__file__", file)
    assert slice_of(coordinator) == pytest.approx(0.05, abs=1e-9)


def test_slice_is_chosen_at_each_call(world, monkeypatch):
    coordinator = make(world)
    monkeypatch.setattr(inferenceengine, "__file__", "/e/x.so")
    assert slice_of(coordinator) == pytest.approx(0.05, abs=1e-9)
    monkeypatch.setattr(inferenceengine, "__file__", "/e/x.so.py")
    assert slice_of(coordinator) == pytest.approx(kSlice, abs=1e-9)


def test_slice_counts_from_the_time_after_the_status_timer(world):
    coordinator = make(world, __EnsureStatusTimeout=lambda _self: pass_time(7.0))
    coordinator._CB_DoIdleAnalysis()
    ((_, end_time),) = told("__DoScans")
    assert end_time == pytest.approx(kStart + 7.0 + kSlice, abs=1e-9)
    forget()


# The status timer.


def test_status_timer_is_ensured_while_there_is_none(world):
    coordinator = make(world)
    coordinator._CB_DoIdleAnalysis()
    assert [call[0] for call in told()][:2] == ["__EnsureStatusTimeout", "__DoScans"]


def test_status_timer_is_not_asked_for_when_it_runs(world):
    coordinator = world.make(watched("__EnsureStatusTimeout", **{"__DoScans": None}))
    fill(world, coordinator)
    coordinator._CB_DoIdleAnalysis()
    assert private(coordinator, "__fStatusTimeout") is not None
    assert told("__EnsureStatusTimeout") == [("__EnsureStatusTimeout",)]
    coordinator._CB_DoIdleAnalysis()
    assert told("__EnsureStatusTimeout") == []
    forget()


# The run.


def test_first_call_of_a_run_sets_both_times(world):
    coordinator = make(world)
    fill(world, coordinator)
    pass_time(3.0)
    coordinator._CB_DoIdleAnalysis()
    assert coordinator._fActiveIdleStart == kStart + 3.0
    assert coordinator._fLastLogQueue == kStart + 3.0
    forget()


def test_later_calls_of_a_run_keep_the_start(world):
    coordinator = make(world)
    fill(world, coordinator)
    coordinator._CB_DoIdleAnalysis()
    pass_time(1.0)
    coordinator._CB_DoIdleAnalysis()
    assert coordinator._fActiveIdleStart == kStart
    assert coordinator._fLastLogQueue == kStart
    forget()


def test_run_times_are_set_before_the_scans(world):
    seen = []
    coordinator = make(world, __DoScans=lambda c, _end: seen.append(c._fActiveIdleStart))
    coordinator._CB_DoIdleAnalysis()
    assert seen == [kStart]
    forget()


@pytest.mark.parametrize(("seconds", "dumps"), [(2.0, False), (2.001, True), (60.0, True)])
def test_periodic_dump_after_more_than_two_seconds(world, seconds, dumps):
    coordinator = make(world)
    fill(world, coordinator)
    coordinator._CB_DoIdleAnalysis()
    world.log_lines(coordinator)
    pass_time(seconds)
    forget()
    coordinator._CB_DoIdleAnalysis()
    lines = [call[1] for call in told("log")]
    assert lines[0].endswith("Entering _CB_DoIdleAnalysis()\n")
    assert any(line.endswith("_CScanQueue contents:\n") for line in lines) is dumps
    assert coordinator._fLastLogQueue == (kStart + seconds if dumps else kStart)
    forget()


def test_periodic_dump_without_a_log_file_only_moves_the_time(world):
    coordinator = make(world)
    fill(world, coordinator)
    coordinator._CB_DoIdleAnalysis()
    pass_time(2.5)
    coordinator._CB_DoIdleAnalysis()
    assert coordinator._fLastLogQueue == kStart + 2.5
    pass_time(2.0)
    coordinator._CB_DoIdleAnalysis()
    assert coordinator._fLastLogQueue == kStart + 2.5
    forget()


def test_periodic_dump_has_ten_lines_of_scopes_at_most(world):
    coordinator = make(world)
    for loc in world.locs(20):
        world.queue(coordinator, loc)
    coordinator._CB_DoIdleAnalysis()
    world.log_lines(coordinator)
    pass_time(3.0)
    forget()
    coordinator._CB_DoIdleAnalysis()
    lines = [call[1] for call in told("log")]
    # A file takes two lines of ten, itself and its scope.
    assert sum("/p/m" in line for line in lines) == 5
    assert any(line.endswith("  ...\n") for line in lines)
    forget()


def test_the_first_call_of_a_run_dumps_nothing(world):
    coordinator = make(world)
    fill(world, coordinator)
    world.log_lines(coordinator)
    pass_time(100.0)
    coordinator._CB_DoIdleAnalysis()
    assert not any("contents" in call[1] for call in told("log"))
    forget()


# The two ends.


def test_a_queue_that_is_not_empty_returns_true(world):
    coordinator = make(world)
    fill(world, coordinator)
    handle = coordinator._fIdleProcId
    world.log_lines(coordinator)
    assert coordinator._CB_DoIdleAnalysis() is True
    assert told("log") == [
        logged("Entering _CB_DoIdleAnalysis()"),
        logged("Returning True from _CB_DoIdleAnalysis() because scan queue is not empty"),
    ]
    assert [call[0] for call in told()] == ["__EnsureStatusTimeout", "__DoScans"]
    assert coordinator._fIdleProcId == handle


def test_an_empty_queue_ends_the_run(world):
    coordinator = make(world)
    assert coordinator._CB_DoIdleAnalysis() is False
    assert [call[0] for call in told()] == [
        "__EnsureStatusTimeout",
        "__DoScans",
        "emit",
        "_ScheduleWriteToDatabaseIdle",
    ]
    assert coordinator._fIdleProcId is None
    assert coordinator._fActiveIdleStart == -1.0
    assert coordinator._fLastLogQueue == kStart


def test_the_end_is_told_with_no_handle_and_the_run_still_under_way(world):
    coordinator = make(world)
    seen = []
    coordinator.connect(
        "end",
        lambda *args: seen.append((args, coordinator._fIdleProcId, coordinator._fActiveIdleStart)),
    )
    coordinator._CB_DoIdleAnalysis()
    assert seen == [((), None, kStart)]
    forget()


def test_the_end_asks_for_waiting_scans_too(world):
    coordinator = make(world, QueuesEmpty=False)
    coordinator._CB_DoIdleAnalysis()
    assert ("QueuesEmpty", True) in told("QueuesEmpty")
    assert told("emit") == []
    assert coordinator._fActiveIdleStart == kStart
    assert [call[0] for call in told()][-1] == "_ScheduleWriteToDatabaseIdle"


def test_the_end_logs_and_dumps(world):
    coordinator = make(world)
    world.log_lines(coordinator)
    coordinator._CB_DoIdleAnalysis()
    lines = told("log")
    assert lines == [
        logged("Entering _CB_DoIdleAnalysis()"),
        logged(
            "Returning False from _CB_DoIdleAnalysis() because scan queue is empty"
            " (not including waiting)"
        ),
        logged("_CScanQueue contents:"),
    ]
    forget()


def test_scans_that_only_wait_keep_the_run_and_write_the_database(world):
    coordinator = make(world)
    world.queue(coordinator, world.remote("/p/r.py", ready=False))
    assert coordinator._CB_DoIdleAnalysis() is False
    assert told("emit") == []
    assert coordinator._fIdleProcId is None
    assert coordinator._fActiveIdleStart == kStart
    assert told("_ScheduleWriteToDatabaseIdle") == [("_ScheduleWriteToDatabaseIdle",)]
    forget()


def test_drained_and_waiting_then_scheduled_again_has_no_end_between(world):
    coordinator = make(world)
    world.queue(coordinator, world.remote("/p/r.py", ready=False))
    coordinator._CB_DoIdleAnalysis()
    pass_time(1.0)
    coordinator._ScheduleIdle()
    coordinator._CB_DoIdleAnalysis()
    assert [call[2] for call in told("emit")] == ["scheduled"]
    assert coordinator._fActiveIdleStart == kStart
    forget()


def test_locations_in_the_helper_keep_the_run(world):
    coordinator = make(world)
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(world.loc("/p/a.py"), "*")])
    assert coordinator._CB_DoIdleAnalysis() is False
    assert told("emit") == []
    assert coordinator._fActiveIdleStart == kStart
    forget()


def test_while_the_module_cache_is_suspended_each_call_returns_true_and_does_nothing(world):
    coordinator = world.make(basic=False)
    item = world.queue(coordinator, world.loc("/p/a.py"), check=True)
    world.mod_file_cache.emit("suspend")
    coordinator._ScheduleIdle()
    forget()
    for _ in range(3):
        assert coordinator._CB_DoIdleAnalysis() is True
    # The status timer is all that a suspended call sees to.
    assert [call[0] for call in told()] == ["timeout_add_while_alive"]
    assert coordinator._fScanQueue.First() == item
    assert waiting_files(coordinator) == {item.loc: 2}


def test_an_empty_queue_from_end_to_end(world, coordinator):
    coordinator._ScheduleIdle()
    world.log_lines(coordinator)
    forget()
    assert coordinator._CB_DoIdleAnalysis() is False
    calls = told()
    write = coordinator._fIdleToWriteToDatabase
    assert calls == [
        logged("Entering _CB_DoIdleAnalysis()"),
        logged("loc is None in scan_item"),
        ("emit", coordinator, "end"),
        ("idle_add_while_alive", coordinator._CB_WriteToDatabase, coordinator),
        logged(
            "Returning False from _CB_DoIdleAnalysis() because scan queue is empty"
            " (not including waiting)"
        ),
        logged("_CScanQueue contents:"),
    ]
    assert write in lgtk.idle_ids()
