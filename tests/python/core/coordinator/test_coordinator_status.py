"""The status timer and the write of the database."""

import pytest
from guiutils import lgtk
from operations import private, watched
from pysource.scancoordinator import CScanStatus, CSingleQueueStatus
from world import forget, kDerived, kPrimary, pending, told

import hostlog

# GetStatus.


def test_status_of_empty_queues(coordinator):
    status = coordinator.GetStatus()
    assert type(status) is CScanStatus
    assert status == ([], 0)
    assert type(status.queue_status_list) is list
    assert told() == []


def test_status_in_the_order_of_service(world, coordinator):
    a, b, c, d = world.locs(4)
    for loc in (a, b, c):
        world.queue(coordinator, loc, priority=2)
    world.queue(coordinator, d, priority=1)
    status = coordinator.GetStatus()
    assert status.queue_status_list == [(kPrimary, 1, 1), (kPrimary, 2, 3)]
    assert {type(record) for record in status.queue_status_list} == {CSingleQueueStatus}
    assert status.waiting_count == 0


def test_status_counts_files_and_not_scopes(world, coordinator):
    (a,) = world.locs(1)
    for scope in ("f", "g", "h"):
        world.queue(coordinator, a, scope)
    world.queue(coordinator, a, "*", kDerived)
    assert coordinator.GetStatus().queue_status_list == [(kPrimary, 2, 1), (kDerived, 2, 1)]


def test_status_leaves_out_queues_that_have_become_empty(world, coordinator):
    a, b = world.locs(2)
    world.queue(coordinator, a, priority=1)
    world.queue(coordinator, b, priority=2)
    coordinator.RemoveLocationsFromQueue([a])
    assert coordinator.GetStatus().queue_status_list == [(kPrimary, 2, 1)]
    assert len(coordinator._fScanQueue._fOrderedQueues) == 2
    forget()


def test_status_counts_what_waits_apart(world, coordinator):
    parked = world.queue(coordinator, world.loc("/p/a.py"))
    coordinator._fScanQueue.StartWaitingForData(parked)
    remote = world.remote("/p/r.py", ready=False)
    world.queue(coordinator, remote, "f")
    world.queue(coordinator, remote, "g")
    assert coordinator.GetStatus() == ([], 2)
    forget()


def test_status_says_nothing_of_the_helper(world, coordinator):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(world.loc("/p/a.py"), "*")])
    assert coordinator.GetStatus() == ([], 0)
    forget()


def test_status_visits_no_location(world, coordinator):
    class Loc(type(world.loc("/p/a.py"))):
        silent = False

        def __hash__(self):
            if Loc.silent:
                raise NotImplementedError
            return 1

        def __eq__(self, other):
            if Loc.silent:
                raise NotImplementedError
            return self is other

    for i in range(5):
        world.queue(coordinator, Loc(f"file:///p/{i}.py"))
    Loc.silent = True
    assert coordinator.GetStatus().queue_status_list == [(kPrimary, 2, 5)]
    Loc.silent = False


# The timer.


def ensure(coordinator):
    """Start the timer if need be."""
    assert private(coordinator, "__EnsureStatusTimeout")() is None


def timer(coordinator):
    """The timer's handle."""
    return private(coordinator, "__fStatusTimeout")


def test_timer_is_started_for_a_full_queue(world):
    coordinator = world.make(watched(_CB_UpdateStatus=False))
    world.queue(coordinator, world.loc("/p/a.py"))
    ensure(coordinator)
    ((name, milliseconds, callback, owner),) = told()
    assert (name, milliseconds, owner) == ("timeout_add_while_alive", 1000, coordinator)
    assert type(milliseconds) is int
    assert lgtk.timer_ids() == [timer(coordinator)]
    callback()
    assert told() == [("_CB_UpdateStatus",)]


def test_timer_is_not_started_twice(world, coordinator):
    world.queue(coordinator, world.loc("/p/a.py"))
    ensure(coordinator)
    handle = timer(coordinator)
    forget()
    ensure(coordinator)
    assert told() == []
    assert timer(coordinator) == handle


def test_timer_is_not_started_for_empty_queues(coordinator):
    ensure(coordinator)
    assert told() == []
    assert timer(coordinator) is None


def test_timer_asks_for_the_ready_queues_only(world):
    coordinator = world.make(watched(QueuesEmpty=[True, False]))
    ensure(coordinator)
    assert told() == [("QueuesEmpty", False)]
    ensure(coordinator)
    assert told("QueuesEmpty") == [("QueuesEmpty", False)]
    assert timer(coordinator) is not None
    forget()


def test_timer_is_not_started_for_waiting_scans(world, coordinator):
    world.queue(coordinator, world.remote("/p/r.py", ready=False))
    ensure(coordinator)
    assert timer(coordinator) is None
    assert told() == []


def test_timer_is_started_for_locations_in_the_helper(world, coordinator):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(world.loc("/p/a.py"), "*")])
    ensure(coordinator)
    assert timer(coordinator) is not None
    forget()


def test_timer_is_started_by_the_first_idle_call(world, coordinator):
    world.mod_file_cache.emit("suspend")
    world.queue(coordinator, world.loc("/p/a.py"))
    assert timer(coordinator) is None
    coordinator._CB_DoIdleAnalysis()
    assert timer(coordinator) is not None
    forget()


def test_a_failing_registration_leaves_no_timer(world, coordinator, monkeypatch):
    failure = RuntimeError("no loop")

    def fail(*_args):
        raise failure

    world.queue(coordinator, world.loc("/p/a.py"))
    monkeypatch.setattr(lgtk, "timeout_add_while_alive", fail)
    with pytest.raises(RuntimeError) as info:
        ensure(coordinator)
    assert info.value is failure
    assert timer(coordinator) is None


# The tick.


def test_a_tick_tells_the_status_and_goes_on(world, coordinator):
    world.queue(coordinator, world.loc("/p/a.py"))
    ensure(coordinator)
    handle = timer(coordinator)
    forget()
    assert coordinator._CB_UpdateStatus() is True
    assert told() == [
        ("emit", coordinator, "scan-status-update", coordinator, ([(kPrimary, 2, 1)], 0))
    ]
    assert timer(coordinator) == handle


def test_listeners_get_coordinator_and_status(world, coordinator):
    seen = []
    coordinator.connect("scan-status-update", lambda *args: seen.append(args))
    coordinator._CB_UpdateStatus()
    ((emitter, status),) = seen
    assert emitter is coordinator
    assert type(status) is CScanStatus
    forget()


def test_a_tick_with_empty_queues_tells_once_more_and_ends(world, coordinator):
    world.queue(coordinator, world.loc("/p/a.py"))
    ensure(coordinator)
    coordinator._fScanQueue.Clear()
    forget()
    assert coordinator._CB_UpdateStatus() is False
    assert told() == [("emit", coordinator, "scan-status-update", coordinator, ([], 0))]
    assert timer(coordinator) is None


def test_the_update_is_told_before_the_timer_ends(world, coordinator):
    world.queue(coordinator, world.loc("/p/a.py"))
    ensure(coordinator)
    coordinator._fScanQueue.Clear()
    seen = []
    coordinator.connect("scan-status-update", lambda *_args: seen.append(timer(coordinator)))
    handle = timer(coordinator)
    coordinator._CB_UpdateStatus()
    assert seen == [handle]
    forget()


def test_a_tick_with_waiting_scans_only_ends(world, coordinator):
    world.queue(coordinator, world.remote("/p/r.py", ready=False))
    assert coordinator._CB_UpdateStatus() is False
    assert told("emit")[0][4] == ([], 1)
    forget()


def test_a_tick_with_locations_in_the_helper_goes_on(world, coordinator):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(world.loc("/p/a.py"), "*")])
    forget()
    assert coordinator._CB_UpdateStatus() is True
    assert told("emit")[0][4] == ([], 0)


def test_a_tick_uses_the_overridden_status(world):
    coordinator = world.make(watched(GetStatus="status", QueuesEmpty=True))
    assert coordinator._CB_UpdateStatus() is False
    assert told() == [
        ("GetStatus",),
        ("emit", coordinator, "scan-status-update", coordinator, "status"),
        ("QueuesEmpty", False),
    ]


def test_a_failing_listener_keeps_the_timer(world, coordinator):
    failure = RuntimeError("listener")

    def listen(*_args):
        raise failure

    world.queue(coordinator, world.loc("/p/a.py"))
    ensure(coordinator)
    handle = timer(coordinator)
    coordinator.connect("scan-status-update", listen)
    with pytest.raises(RuntimeError) as info:
        coordinator._CB_UpdateStatus()
    assert info.value is failure
    assert timer(coordinator) == handle
    forget()


def test_one_update_a_second_until_the_queue_is_empty(world, coordinator):
    world.mod_file_cache.emit("suspend")
    world.queue(coordinator, world.loc("/p/a.py"))
    coordinator._ScheduleIdle()
    lgtk.step()
    lgtk.step()
    updates = []
    coordinator.connect("scan-status-update", lambda *_args: updates.append(1))
    assert lgtk.advance(0.999) == 0
    assert lgtk.advance(3.0) == 3
    coordinator._fScanQueue.Clear()
    assert lgtk.advance(10.0) == 1
    assert len(updates) == 4
    assert timer(coordinator) is None
    forget()


def test_the_timer_starts_again_after_it_has_ended(world, coordinator):
    for _ in range(2):
        world.queue(coordinator, world.loc("/p/a.py"))
        ensure(coordinator)
        assert timer(coordinator) in lgtk.timer_ids()
        coordinator._fScanQueue.Clear()
        lgtk.advance(1.0)
        assert timer(coordinator) is None
    forget()


# The database.


def test_a_write_is_scheduled_without_a_priority(world, monkeypatch):
    def idle_add_while_alive(*args, **kwargs):
        hostlog.note("raw_idle_add_while_alive", *args, **kwargs)
        return "handle"

    coordinator = world.make(watched(_CB_WriteToDatabase=None))
    monkeypatch.setattr(lgtk, "idle_add_while_alive", idle_add_while_alive)
    assert coordinator._ScheduleWriteToDatabaseIdle() is None
    ((name, callback, owner),) = told()
    assert (name, owner) == ("raw_idle_add_while_alive", coordinator)
    assert coordinator._fIdleToWriteToDatabase == "handle"
    callback()
    assert told() == [("_CB_WriteToDatabase",)]


def test_a_write_is_scheduled_once(coordinator):
    coordinator._ScheduleWriteToDatabaseIdle()
    forget()
    coordinator._ScheduleWriteToDatabaseIdle()
    assert told() == []
    assert len(lgtk.idle_ids()) == 1


def test_the_write_runs_once_and_returns_none(world, coordinator):
    coordinator._ScheduleWriteToDatabaseIdle()
    forget()
    assert coordinator._CB_WriteToDatabase() is None
    assert told() == [("WriteToDatabase",)]
    assert coordinator._fIdleToWriteToDatabase is None


def test_the_handle_is_gone_before_the_write(world, coordinator):
    seen = []
    world.info_cache.WriteToDatabase = lambda: seen.append(coordinator._fIdleToWriteToDatabase)
    coordinator._ScheduleWriteToDatabaseIdle()
    coordinator._CB_WriteToDatabase()
    assert seen == [None]
    forget()


def test_the_write_drops_what_the_cache_returns(world, coordinator):
    world.info_cache.WriteToDatabase = lambda: True
    assert coordinator._CB_WriteToDatabase() is None
    forget()


def test_the_write_goes_through_the_manager(world, coordinator):
    class Cache:
        def WriteToDatabase(self):
            hostlog.note("other.WriteToDatabase")

    world.ana_mgr.fInfoCache = Cache()
    coordinator._CB_WriteToDatabase()
    assert told() == [("other.WriteToDatabase",)]


def test_two_idle_calls_that_end_before_the_write_make_one(world, coordinator):
    coordinator._CB_DoIdleAnalysis()
    coordinator._CB_DoIdleAnalysis()
    assert len(told("idle_add_while_alive")) == 1
    lgtk.run_idle()
    assert len(told("WriteToDatabase")) == 1
    forget()


def test_a_write_that_is_pending_dies_with_the_coordinator(world, coordinator):
    coordinator._ScheduleWriteToDatabaseIdle()
    coordinator.destroy()
    forget()
    assert lgtk.run_idle() == 0
    assert told() == []


def test_a_failing_write_can_be_scheduled_again(world, coordinator):
    failure = RuntimeError("disk full")

    def fail():
        raise failure

    world.info_cache.WriteToDatabase = fail
    coordinator._ScheduleWriteToDatabaseIdle()
    with pytest.raises(RuntimeError) as info:
        coordinator._CB_WriteToDatabase()
    assert info.value is failure
    assert coordinator._fIdleToWriteToDatabase is None
    coordinator._ScheduleWriteToDatabaseIdle()
    assert coordinator._fIdleToWriteToDatabase is not None
    forget()


def test_the_write_runs_after_the_scan_callback_has_gone(world, coordinator):
    loc = world.loc("/p/a.py")
    world.loc_cache.derived_wanted[loc] = False
    world.queue(coordinator, loc)
    seen = []
    world.info_cache.WriteToDatabase = lambda: seen.append(
        (coordinator._fIdleProcId, pending(coordinator))
    )
    coordinator._ScheduleIdle()
    lgtk.run_idle()
    assert seen == [(None, {})]
    forget()


def test_scans_that_arrive_before_the_write_leave_both_pending(world, coordinator):
    coordinator._CB_DoIdleAnalysis()
    world.queue(coordinator, world.loc("/p/a.py"))
    coordinator._ScheduleIdle()
    assert coordinator._fIdleToWriteToDatabase in lgtk.idle_ids()
    assert coordinator._fIdleProcId in lgtk.idle_ids()
    forget()
