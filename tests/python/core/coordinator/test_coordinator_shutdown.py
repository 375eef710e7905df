"""`Quitting` and `destroy`."""

from guiutils import lgtk
from operations import private, watched
from pysource import scopescanner
from pysource.scancoordinator import _CScanQueue
from world import forget, kPrimary, logged, pending, scripted, told

import hostlog


def test_quitting_sets_the_flag_and_nothing_else(world, coordinator):
    item = world.queue(coordinator, world.loc("/p/a.py"))
    coordinator._ScheduleIdle()
    handle = coordinator._fIdleProcId
    forget()
    assert coordinator.Quitting() is None
    assert private(coordinator, "__fQuitting") is True
    assert told() == []
    assert coordinator._fIdleProcId == handle
    assert coordinator._fScanQueue.First() == item


def test_quitting_twice_stays(coordinator):
    coordinator.Quitting()
    coordinator.Quitting()
    assert private(coordinator, "__fQuitting") is True


def test_after_quitting_scans_are_scheduled_and_each_call_ends_at_once(world, coordinator):
    coordinator.Quitting()
    for i in range(2):
        world.queue(coordinator, world.loc(f"/p/{i}.py"))
        coordinator._ScheduleIdle()
        assert coordinator._fIdleProcId is not None
        assert coordinator._CB_DoIdleAnalysis() is False
    assert private(coordinator, "__fQuitting") is True
    assert len(pending(coordinator)) == 2
    forget()


def test_after_quitting_other_operations_answer_as_before(world, coordinator):
    coordinator.Quitting()
    loc = world.loc("/p/a.py")
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    assert coordinator.LocationInScanQueues(loc) is True
    assert coordinator.QueuesEmpty() is False
    coordinator.RemoveLocationsFromQueue([loc])
    assert coordinator.QueuesEmpty() is True
    forget()


def test_flush_does_not_clear_quitting(world, coordinator):
    coordinator.Quitting()
    coordinator.FlushQueue()
    assert private(coordinator, "__fQuitting") is True
    forget()


def test_destroy_with_nothing_scheduled_destroys_only_the_queue(world, coordinator):
    queue = coordinator._fScanQueue
    coordinator.destroy()
    calls = told()
    assert calls[:2] == [("destroy", coordinator), ("destroy", queue)]
    # What follows is the queue's own end.
    assert [call[0] for call in calls[2:]] == ["idle_add", "idle_remove"]
    assert calls[2][1] == queue._SignalEmitIdle


def test_destroy_cancels_removes_and_destroys_in_order(world, coordinator):
    loc = world.loc("/p/a.py")
    world.queue(coordinator, loc)
    coordinator._ScheduleIdle()
    private(coordinator, "__EnsureStatusTimeout")()
    idle = coordinator._fIdleProcId
    timer = private(coordinator, "__fStatusTimeout")
    signal_idle = coordinator._fScanQueue._fSignalEmitIdle
    queue = coordinator._fScanQueue
    single = queue._fOrderedQueues[0]
    forget()
    coordinator.destroy()
    assert told() == [
        ("destroy", coordinator),
        ("idle_remove", idle),
        ("emit", coordinator, "end"),
        ("timeout_remove", timer),
        ("destroy", queue),
        ("destroy", single),
        ("idle_remove", signal_idle),
    ]
    assert coordinator._fIdleProcId is None
    assert private(coordinator, "__fStatusTimeout") == timer
    assert lgtk.idle_ids() == []
    assert lgtk.timer_ids() == []


def test_destroy_uses_an_overridden_cancel(world):
    coordinator = world.make(watched(_CancelIdle=None))
    coordinator._ScheduleIdle()
    forget()
    coordinator.destroy()
    assert [call[0] for call in told()][:3] == ["destroy", "_CancelIdle", "destroy"]
    assert coordinator._fIdleProcId is not None


def test_destroy_twice_runs_the_end_once(world):
    coordinator = world.make(watched("_destroy_impl"))
    coordinator.destroy()
    coordinator.destroy()
    assert len(told("_destroy_impl")) == 1
    forget()


def test_destroy_after_quitting_hands_on_the_dead_handle(world, coordinator):
    world.queue(coordinator, world.loc("/p/a.py"))
    coordinator._ScheduleIdle()
    handle = coordinator._fIdleProcId
    coordinator.Quitting()
    lgtk.run_idle()
    assert coordinator._fIdleProcId == handle
    assert handle not in lgtk.idle_ids()
    forget()
    coordinator.destroy()
    assert told("idle_remove", "emit")[:2] == [
        ("idle_remove", handle),
        ("emit", coordinator, "end"),
    ]
    forget()


def test_destroy_leaves_scanners_mappings_and_logger(world, coordinator):
    loc = world.loc("/p/a.py")
    item = world.queue(coordinator, loc)
    scripted(scopescanner.kTimedOut)
    coordinator._DoSingleScan(item, 0.0)
    log = coordinator.fLog
    coordinator.destroy()
    scanner = scopescanner.made[0]
    assert not scanner.destroyed
    assert private(coordinator, "__fActivePrimaryWholeFileScanners") == {loc: scanner}
    assert coordinator._fIncompleteScansByLoc == {loc: set()}
    assert coordinator.fLog is log
    forget()


def test_destroy_leaves_a_pending_write_to_the_host(world, coordinator):
    coordinator._ScheduleWriteToDatabaseIdle()
    handle = coordinator._fIdleToWriteToDatabase
    forget()
    coordinator.destroy()
    assert ("idle_remove", handle) not in told()
    assert coordinator._fIdleToWriteToDatabase == handle
    lgtk.run_idle()
    assert told() == []


def test_destroy_from_inside_a_scan(world, coordinator):
    item = world.queue(coordinator, world.loc("/p/a.py"))
    coordinator._ScheduleIdle()

    def step(_scanner, _end_time):
        coordinator.destroy()
        return scopescanner.kTimedOut

    scripted(step)
    forget()
    assert coordinator._CB_DoIdleAnalysis() in (True, False)
    assert pending(coordinator) == {}
    assert private(coordinator, "__fActiveLoc") is item.loc
    forget()


def test_destroy_from_inside_a_scan_that_finishes(world, coordinator):
    loc = world.loc("/p/a.py")
    world.queue(coordinator, loc)

    def step(_scanner, _end_time):
        coordinator.destroy()
        return scopescanner.kFinishedScanning

    scripted(step)
    private(coordinator, "__DoScans")(2e6)
    assert coordinator._fScanTripleCompletedCount[loc, "*", kPrimary] == 1
    forget()


def test_operations_after_destroy_do_not_fail(world, coordinator):
    coordinator.destroy()
    assert coordinator.QueuesEmpty() is True
    assert coordinator.GetStatus().queue_status_list == []
    assert coordinator.LocationInScanQueues(world.loc("/p/a.py")) is False
    coordinator.Quitting()
    forget()


def test_first_idle_call_after_quitting_logs_and_returns_false(world, coordinator):
    item = world.queue(coordinator, world.loc("/p/a.py"))
    coordinator._ScheduleIdle()
    handle = coordinator._fIdleProcId
    world.log_lines(coordinator)
    coordinator.Quitting()
    forget()
    assert coordinator._CB_DoIdleAnalysis() is False
    assert told() == [
        logged("Entering _CB_DoIdleAnalysis()"),
        logged("Returning False from _CB_DoIdleAnalysis because Loom in quitting"),
    ]
    assert coordinator._fIdleProcId == handle
    assert coordinator._fScanQueue.First() == item
    assert hostlog.calls == []


def test_the_queue_is_destroyed_through_its_own_destroy(world, coordinator, monkeypatch):
    from loombase.destroyable import CDestroyable

    destroyed = []
    base = CDestroyable.destroy

    def destroy(self):
        destroyed.append(type(self))
        base(self)

    monkeypatch.setattr(CDestroyable, "destroy", destroy)
    coordinator.destroy()
    assert _CScanQueue in destroyed
    forget()
