"""`FlushQueue` and `ClearLastScanInfo`: what they forget, and what they leave."""

import pytest
from guiutils import lgtk
from operations import private, watched
from pysource import scopescanner
from world import forget, kPrimary, pending, scripted, told, waiting_files

kLate = 2e6


def history(world, coordinator, *locs):
    """Give each location the record of a scan and of a check."""
    for loc in locs:
        world.info_cache.disk_mtimes[loc] = 5.0
        world.loc_cache.derived_wanted[loc] = False
        world.queue(coordinator, loc, check=True)
    private(coordinator, "__DoScans")(kLate)
    assert set(coordinator._fLastScanCompleted) == set(locs)
    forget()


def test_flush_in_order(world, coordinator):
    a, b = world.locs(2)
    history(world, coordinator, a)
    world.queue(coordinator, b, check=True)
    coordinator._ScheduleIdle()
    handle = coordinator._fIdleProcId
    world.mod_file_cache.emit("suspend")
    seen = []

    def state():
        seen.append(
            (
                coordinator._fIdleProcId,
                len(pending(coordinator)),
                len(coordinator._fLastScanCompleted),
                len(coordinator._fMTimeAtLastWholeFileCheck),
                coordinator._fAllBasicModuleQueued,
                coordinator.fWaitingForRemote,
                len(coordinator._fLocsQueuedInHelper),
            )
        )

    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(world.loc("/h/x.py"), "*")])
    coordinator.connect("end", state)
    world.cache_mgr._ClearEOLBlindCacheAndScans = state
    world.proxy.FlushQueue = lambda callback: state()
    forget()
    assert coordinator.FlushQueue() is None
    assert told("idle_remove", "emit") == [
        ("idle_remove", handle),
        ("emit", coordinator, "end"),
    ]
    assert seen == [
        (None, 1, 1, 1, True, True, 1),
        (None, 0, 0, 0, False, False, 1),
        (None, 0, 0, 0, False, False, 0),
    ]
    assert waiting_files(coordinator) == {}
    forget()


def test_flush_with_nothing_scheduled_tells_no_end(world, coordinator):
    history(world, coordinator, world.loc("/p/a.py"))
    coordinator.FlushQueue()
    assert told("emit", "idle_remove") == []
    assert coordinator._fLastScanCompleted == {}
    assert coordinator._fMTimeAtLastWholeFileCheck == {}
    assert told("_ClearEOLBlindCacheAndScans") == [("_ClearEOLBlindCacheAndScans",)]
    forget()


def test_flush_spells_the_cancel_out(world):
    coordinator = world.make(watched("_CancelIdle"))
    coordinator._ScheduleIdle()
    coordinator.FlushQueue()
    assert told("_CancelIdle") == []
    assert coordinator._fIdleProcId is None
    forget()


def test_flush_tells_the_helper_without_a_callback(world, coordinator):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.FlushQueue()
    assert told("proxy.FlushQueue") == [("proxy.FlushQueue", {"callback": None})]
    forget()


def test_flush_uses_the_cache_manager_of_the_singletons(world, coordinator):
    from collaborators import CacheManager

    other = CacheManager()
    calls = []
    other._ClearEOLBlindCacheAndScans = lambda: calls.append("cleared")
    world.singletons.fCacheMgr = other
    coordinator.FlushQueue()
    assert calls == ["cleared"]
    assert told("_ClearEOLBlindCacheAndScans") == []
    forget()


def test_flush_leaves_what_is_under_way(world, coordinator):
    a, b = world.locs(2)
    history(world, coordinator, b)
    world.queue(coordinator, a)
    scripted(scopescanner.kTimedOut)
    coordinator._ScheduleIdle()
    coordinator._CB_DoIdleAnalysis()
    coordinator._fIncompleteScansByLoc[a].add("f")
    timer = private(coordinator, "__fStatusTimeout")
    start = coordinator._fActiveIdleStart
    coordinator.SuspendIdleScans()
    forget()
    coordinator.FlushQueue()
    assert private(coordinator, "__fActiveLoc") is a
    (scanner,) = private(coordinator, "__fActivePrimaryWholeFileScanners").values()
    assert not scanner.destroyed
    assert dict(coordinator._fIncompleteScansByLoc) == {a: {"f"}}
    assert private(coordinator, "__fStatusTimeout") == timer
    assert timer in lgtk.timer_ids()
    assert coordinator._fActiveIdleStart == start >= 0.0
    assert coordinator._fIdleScanSuspendCount == 1
    assert coordinator._fScanTripleCompletedCount == {(b, "*", kPrimary): 1}
    forget()


def test_a_scanner_left_by_a_flush_takes_up_the_scan(world, coordinator):
    a = world.loc("/p/a.py")
    world.queue(coordinator, a)
    scripted(scopescanner.kTimedOut)
    private(coordinator, "__DoScans")(kLate)
    coordinator.FlushQueue()
    (scanner,) = scopescanner.made
    world.queue(coordinator, a)
    forget()
    private(coordinator, "__DoScans")(kLate)
    assert told("Scan")[0][1] is scanner
    assert told("CWholeFilePrimaryScanner") == []
    forget()


def test_after_a_flush_the_basic_modules_are_queued_again(world):
    coordinator = world.make(watched("_QueueBasicModules"))
    private(coordinator, "__DoScans")(kLate)
    assert told("_QueueBasicModules") == []
    coordinator.FlushQueue()
    private(coordinator, "__DoScans")(kLate)
    assert len(told("_QueueBasicModules")) == 1
    forget()


def test_flush_reports_the_locations_as_removed_in_idle(world, coordinator):
    a = world.loc("/p/a.py")
    world.queue(coordinator, a)
    lgtk.run_idle()
    removed = []
    coordinator._fScanQueue.connect("locations-removed", lambda _queue, locs: removed.append(locs))
    world.queue(coordinator, a)
    coordinator.FlushQueue()
    assert removed == []
    lgtk.run_idle()
    assert a in removed[0]
    forget()


def test_flush_that_fails_at_the_cache_manager_has_done_what_comes_before(world, coordinator):
    failure = RuntimeError("cache manager")

    def fail():
        raise failure

    a = world.loc("/p/a.py")
    history(world, coordinator, a)
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(a, "*")])
    world.cache_mgr._ClearEOLBlindCacheAndScans = fail
    with pytest.raises(RuntimeError) as info:
        coordinator.FlushQueue()
    assert info.value is failure
    assert coordinator._fLastScanCompleted == {}
    assert coordinator._fAllBasicModuleQueued is False
    assert coordinator._fLocsQueuedInHelper == {a}
    assert told("proxy.FlushQueue") == []
    forget()


# ClearLastScanInfo.


@pytest.mark.parametrize("kind", [list, tuple, set, iter, dict.fromkeys])
def test_clear_takes_any_iterable(world, coordinator, kind):
    a, b, c = world.locs(3)
    history(world, coordinator, a, b, c)
    assert coordinator.ClearLastScanInfo(kind([a, c])) is None
    assert set(coordinator._fLastScanCompleted) == {b}
    assert coordinator._fMTimeAtLastWholeFileCheck == {b: 5.0}
    assert told() == []


def test_clear_of_nothing_or_of_strangers_does_nothing(world, coordinator):
    a, b = world.locs(2)
    history(world, coordinator, a)
    coordinator.ClearLastScanInfo([])
    coordinator.ClearLastScanInfo([b, b])
    assert set(coordinator._fLastScanCompleted) == {a}
    assert coordinator._fMTimeAtLastWholeFileCheck == {a: 5.0}
    assert told() == []


def test_clear_lets_the_next_scan_run_at_once(world, coordinator):
    a = world.loc("/p/a.py")
    history(world, coordinator, a)
    coordinator.ClearLastScanInfo([a])
    world.queue(coordinator, a)
    private(coordinator, "__DoScans")(kLate)
    assert coordinator._fScanTripleCompletedCount[a, "*", kPrimary] == 2
    forget()


def test_clear_drops_each_location_before_the_next_is_asked_for(world, coordinator):
    failure = RuntimeError("no more")
    a, b = world.locs(2)
    history(world, coordinator, a, b)

    def locs():
        yield a
        raise failure

    with pytest.raises(RuntimeError) as info:
        coordinator.ClearLastScanInfo(locs())
    assert info.value is failure
    assert set(coordinator._fLastScanCompleted) == {b}
    assert coordinator._fMTimeAtLastWholeFileCheck == {b: 5.0}


def test_clear_of_something_that_isnt_iterable_fails(coordinator):
    with pytest.raises(TypeError):
        coordinator.ClearLastScanInfo(3)


def test_clear_of_an_unhashable_location_fails(world, coordinator):
    history(world, coordinator, world.loc("/p/a.py"))
    with pytest.raises(TypeError):
        coordinator.ClearLastScanInfo([[]])
    assert len(coordinator._fLastScanCompleted) == 1
