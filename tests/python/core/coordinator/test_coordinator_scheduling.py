"""The idle callback: scheduled, cancelled, suspended and resumed."""

import pytest
from guiutils import lgtk
from operations import watched
from pysource.scancoordinator import CScanCoordinator
from world import forget, kIdlePriority, pending, told

import hostlog


def fill(world, coordinator):
    """Queue one file, with no check due."""
    return world.queue(coordinator, world.loc("/p/a.py"))


def test_schedule_registers_with_the_priority_by_name_and_then_tells(
    world, coordinator, monkeypatch
):
    def idle_add(*args, **kwargs):
        hostlog.note("raw_idle_add", *args, **kwargs)
        return "handle"

    monkeypatch.setattr(lgtk, "idle_add", idle_add)
    seen = []
    coordinator.connect("scheduled", lambda *args: seen.append((args, coordinator._fIdleProcId)))
    forget()
    assert coordinator._ScheduleIdle() is None
    (add, emit) = told()
    assert add[0] == "raw_idle_add"
    assert add[2:] == ({"priority": kIdlePriority},)
    assert emit == ("emit", coordinator, "scheduled")
    assert seen == [((), "handle")]
    assert coordinator._fIdleProcId == "handle"


def test_the_scheduled_callback_is_the_idle_call(world):
    coordinator = world.make(watched(_CB_DoIdleAnalysis=[True, False]))
    coordinator._ScheduleIdle()
    forget()
    assert lgtk.run_idle() == 2
    assert told() == [("_CB_DoIdleAnalysis",), ("_CB_DoIdleAnalysis",)]


def test_schedule_twice_registers_once(world, coordinator):
    coordinator._ScheduleIdle()
    forget()
    coordinator._ScheduleIdle()
    assert told() == []
    assert len(lgtk.idle_ids()) == 1


def test_schedule_with_an_empty_path_does_nothing(world):
    coordinator = world.make(path=False)
    fill(world, coordinator)
    coordinator._ScheduleIdle()
    assert told() == []
    assert coordinator._fIdleProcId is None


@pytest.mark.parametrize("path", [(), [], {}, set(), ""])
def test_any_empty_collection_is_an_empty_path(world, coordinator, path):
    world.ana_mgr.fPyConfig.python_path_locs = path
    coordinator._ScheduleIdle()
    assert told() == []


def test_schedule_while_suspended_does_not_look_at_the_path(world, coordinator):
    coordinator.SuspendIdleScans()
    world.ana_mgr.fPyConfig = None
    coordinator._ScheduleIdle()
    assert told() == []


def test_schedule_with_a_failing_registration_stays_unscheduled(world, coordinator, monkeypatch):
    failure = RuntimeError("no loop")

    def idle_add(*args, **kwargs):
        raise failure

    monkeypatch.setattr(lgtk, "idle_add", idle_add)
    with pytest.raises(RuntimeError) as info:
        coordinator._ScheduleIdle()
    assert info.value is failure
    assert coordinator._fIdleProcId is None
    assert told() == []


def test_a_failing_listener_of_scheduled_leaves_the_handle(world, coordinator):
    failure = RuntimeError("listener")

    def listen():
        raise failure

    coordinator.connect("scheduled", listen)
    with pytest.raises(RuntimeError) as info:
        coordinator._ScheduleIdle()
    assert info.value is failure
    assert coordinator._fIdleProcId is not None
    forget()


def test_cancel_with_nothing_scheduled_does_nothing(coordinator):
    assert coordinator._CancelIdle() is None
    assert told() == []


def test_cancel_removes_and_tells_the_end(world, coordinator):
    coordinator._ScheduleIdle()
    handle = coordinator._fIdleProcId
    seen = []
    coordinator.connect("end", lambda *args: seen.append((args, coordinator._fIdleProcId)))
    forget()
    coordinator._CancelIdle()
    assert told() == [("idle_remove", handle), ("emit", coordinator, "end")]
    assert seen == [((), None)]
    assert lgtk.idle_ids() == []


def test_cancel_drops_what_idle_remove_returns(world, coordinator, monkeypatch):
    coordinator._ScheduleIdle()
    monkeypatch.setattr(lgtk, "idle_remove", lambda _handle: "something")
    seen = []
    coordinator.connect("end", lambda: seen.append(coordinator._fIdleProcId))
    coordinator._CancelIdle()
    assert seen == [None]
    assert coordinator._fIdleProcId is None
    forget()


def test_cancel_that_fails_keeps_the_handle(world, coordinator, monkeypatch):
    failure = RuntimeError("no loop")

    def idle_remove(handle):
        raise failure

    coordinator._ScheduleIdle()
    handle = coordinator._fIdleProcId
    forget()
    monkeypatch.setattr(lgtk, "idle_remove", idle_remove)
    with pytest.raises(RuntimeError) as info:
        coordinator._CancelIdle()
    assert info.value is failure
    assert coordinator._fIdleProcId == handle
    assert told() == []


def test_cancel_leaves_the_start_of_the_run(world, coordinator):
    fill(world, coordinator)
    world.mod_file_cache.emit("suspend")
    coordinator._ScheduleIdle()
    coordinator._CB_DoIdleAnalysis()
    start = coordinator._fActiveIdleStart
    assert start >= 0.0
    coordinator._CancelIdle()
    assert coordinator._fActiveIdleStart == start
    forget()


def test_suspend_counts_and_cancels(world):
    coordinator = world.make(watched(_CancelIdle=None))
    assert coordinator.SuspendIdleScans() is None
    assert coordinator._fIdleScanSuspendCount == 1
    coordinator.SuspendIdleScans()
    assert coordinator._fIdleScanSuspendCount == 2
    assert told() == [("_CancelIdle",), ("_CancelIdle",)]


def test_suspend_counts_before_it_cancels(world):
    counts = []
    coordinator = world.make(watched(_CancelIdle=lambda c: counts.append(c._fIdleScanSuspendCount)))
    coordinator.SuspendIdleScans()
    assert counts == [1]
    forget()


def test_a_suspended_coordinator_schedules_nothing(world, coordinator):
    coordinator.SuspendIdleScans()
    coordinator.AddPairsToPrimaryQueue([(world.loc("/p/a.py"), "*")])
    assert coordinator._fIdleProcId is None
    assert told("emit") == []
    forget()


def test_two_suspends_need_two_resumes(world, coordinator):
    fill(world, coordinator)
    coordinator._ScheduleIdle()
    coordinator.SuspendIdleScans()
    coordinator.SuspendIdleScans()
    forget()
    coordinator.ResumeIdleScans()
    assert coordinator._fIdleProcId is None
    assert told() == []
    coordinator.ResumeIdleScans()
    assert coordinator._fIdleProcId is not None
    assert [call[0] for call in told()] == ["idle_add", "emit"]


def test_resume_with_an_empty_queue_schedules_nothing(coordinator):
    coordinator.SuspendIdleScans()
    coordinator.ResumeIdleScans()
    assert coordinator._fIdleProcId is None
    assert told() == []


def test_resume_asks_for_the_ready_queues_only(world):
    coordinator = world.make(watched(_ScheduleIdle=None, QueuesEmpty=[True, False]))
    coordinator.SuspendIdleScans()
    coordinator.ResumeIdleScans()
    assert told() == [("QueuesEmpty", False)]
    coordinator.SuspendIdleScans()
    coordinator.ResumeIdleScans()
    assert told() == [("QueuesEmpty", False), ("_ScheduleIdle",)]


def test_resume_with_locations_in_the_helper_schedules(world, coordinator):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(world.loc("/p/a.py"), "*")])
    coordinator.SuspendIdleScans()
    forget()
    coordinator.ResumeIdleScans()
    assert [call[0] for call in told()] == ["idle_add", "emit"]


def test_resume_below_zero_blocks_until_it_is_back(world, coordinator):
    fill(world, coordinator)
    coordinator.ResumeIdleScans()
    assert coordinator._fIdleScanSuspendCount == -1
    coordinator._ScheduleIdle()
    assert told() == []
    coordinator.SuspendIdleScans()
    assert coordinator._fIdleScanSuspendCount == 0
    coordinator._ScheduleIdle()
    assert coordinator._fIdleProcId is not None
    forget()


def test_resume_from_two_to_one_asks_nothing(world):
    coordinator = world.make(watched("QueuesEmpty"))
    coordinator.SuspendIdleScans()
    coordinator.SuspendIdleScans()
    coordinator.ResumeIdleScans()
    assert told() == []


def test_new_locations_schedule_whatever_the_arguments(world):
    coordinator = world.make(watched(_ScheduleIdle=None))
    assert coordinator._CB_QueueLocationsAdded(None, object()) is None
    assert told() == [("_ScheduleIdle",)]


def test_an_addition_to_the_bare_queue_wakes_the_idle_loop(world, coordinator):
    loc = world.loc("/p/a.py")
    coordinator._fScanQueue.AddScanPairs([(loc, "*")], "primary")
    assert coordinator._fIdleProcId is None
    assert lgtk.step() is True
    assert coordinator._fIdleProcId is not None
    assert pending(coordinator) == {(loc, "*", "primary"): 2}
    forget()


def test_scheduled_runs_of_a_whole_life(world, coordinator):
    """From the addition of a file to the end, as the host sees it."""
    a, b = world.locs(2)
    world.loc_cache.derived_wanted[a] = world.loc_cache.derived_wanted[b] = False
    signals = []
    coordinator.connect("scheduled", lambda: signals.append("scheduled"))
    coordinator.connect("end", lambda: signals.append("end"))
    coordinator.AddPairsToPrimaryQueue([(a, "*")])
    world.info_cache.disk_mtimes.update({a: 1.0, b: 1.0})
    lgtk.run_idle()
    assert signals == ["scheduled", "end"]
    coordinator.AddPairsToPrimaryQueue([(b, "*")])
    lgtk.run_idle()
    assert signals == ["scheduled", "end"] * 2
    assert coordinator.QueuesEmpty() is True
    assert coordinator._fActiveIdleStart == -1.0
    assert len(hostlog.take("WriteToDatabase")) == 2
    forget()


def test_base_class_operations_can_be_called_directly(world, coordinator):
    CScanCoordinator._ScheduleIdle(coordinator)
    assert coordinator._fIdleProcId is not None
    CScanCoordinator._CancelIdle(coordinator)
    assert coordinator._fIdleProcId is None
    forget()
