"""What a scan leaves in the loop, whether it is over or interrupted: `__DoScans`."""

import pytest
from operations import private, watched
from pysource import scopescanner
from pysource.scancoordinator import kInteractivePriority
from world import (
    forget,
    kDerived,
    kPrimary,
    pass_time,
    pending,
    scripted,
    told,
    waiting_files,
)

import hostclock

kStart = hostclock.kStartTime
kEnd = kStart + 1.0


def make(world, **replies):
    """A coordinator whose single scans are answered by the test, finished at once if it says not."""
    return world.make(watched(**{"_DoSingleScan": False, **replies}))


def do_scans(coordinator, end_time=kEnd):
    """One pass of the loop."""
    assert private(coordinator, "__DoScans")(end_time) is None


def scans():
    """The items given to `_DoSingleScan` so far."""
    return [call[1] for call in told("_DoSingleScan")]


# What a scan that is over leaves.


def test_completion_in_order(world):
    def single(coordinator, item, _end_time):
        assert private(coordinator, "__fActiveLoc") is item.loc
        assert coordinator._fScanQueue.First() == item
        return False

    coordinator = make(world, _DoSingleScan=single)
    item = world.queue(coordinator, world.loc("/p/a.py"))
    trims = []
    world.info_cache.Trim = lambda: trims.append(
        (pending(coordinator), dict(coordinator._fLastScanCompleted))
    )
    do_scans(coordinator)
    assert trims == [({}, {})]
    assert coordinator._fLastScanCompleted == {item.loc: {("*", kPrimary): kStart}}
    assert private(coordinator, "__fActiveLoc") is None
    assert coordinator._fScanQueue.GetScanCount(item) == 1
    forget()


def test_trim_once_for_each_completed_scan(world):
    coordinator = make(world)
    for loc in world.locs(4):
        world.queue(coordinator, loc)
    do_scans(coordinator)
    assert len(told("Trim")) == 4
    forget()


def test_the_recorded_time_is_that_before_the_slice_of_the_scan(world):
    def single(_coordinator, _item, _end_time):
        pass_time(0.25)
        return False

    coordinator = make(world, _DoSingleScan=single)
    a, b = world.locs(2)
    world.queue(coordinator, a)
    world.queue(coordinator, b)
    do_scans(coordinator)
    times = {loc: done["*", kPrimary] for loc, done in coordinator._fLastScanCompleted.items()}
    assert times == {a: kStart, b: kStart + 0.25}
    forget()


def test_the_recorded_time_is_not_that_after_the_whole_file_check(world):
    def check(_coordinator, _end_time):
        pass_time(0.1)
        return False

    coordinator = make(world, __CheckWholeFiles=check)
    a = world.loc("/p/a.py")
    world.queue(coordinator, a)
    do_scans(coordinator)
    assert coordinator._fLastScanCompleted[a]["*", kPrimary] == kStart
    forget()


def test_scans_stop_at_the_end_time(world):
    def single(_coordinator, _item, _end_time):
        pass_time(0.5)
        return False

    coordinator = make(world, _DoSingleScan=single)
    queued = [world.queue(coordinator, loc) for loc in world.locs(5)]
    do_scans(coordinator)
    assert scans() == queued[:2]
    assert coordinator._fScanQueue.First() == queued[2]
    forget()


def test_out_of_time_leaves_item_and_active_location(world):
    coordinator = make(world, _DoSingleScan=True)
    item = world.queue(coordinator, world.loc("/p/a.py"))
    do_scans(coordinator)
    assert told("_DoSingleScan", "Trim") == [("_DoSingleScan", item, kEnd)]
    assert coordinator._fScanQueue.First() == item
    assert private(coordinator, "__fActiveLoc") is item.loc
    assert coordinator._fLastScanCompleted == {}
    forget()


@pytest.mark.parametrize("result", [1, "more", [0]])
def test_an_overridden_single_scan_is_taken_for_its_truth(world, result):
    coordinator = make(world, _DoSingleScan=lambda _c, _item, _end: result)
    item = world.queue(coordinator, world.loc("/p/a.py"))
    do_scans(coordinator)
    assert coordinator._fScanQueue.First() == item
    forget()


def test_a_derived_scan_joins_the_completed_locations(world):
    coordinator = make(world)
    a, b, c = world.locs(3)
    world.queue(coordinator, a, scan=kDerived)
    world.queue(coordinator, b, scan=kPrimary)
    world.queue(coordinator, c, "f", kDerived)
    do_scans(coordinator)
    assert private(coordinator, "__fCompletedLocs") == {a, c}
    coordinator.FlushQueue()
    assert private(coordinator, "__fCompletedLocs") == {a, c}
    forget()


def test_a_scan_of_another_name_does_not_join_the_completed_locations(world):
    coordinator = make(world)
    world.queue(coordinator, world.loc("/p/a.py"), scan="third")
    do_scans(coordinator)
    assert private(coordinator, "__fCompletedLocs") == set()
    forget()


def test_failure_leaves_everything_as_it_was(world):
    failure = RuntimeError("scan")
    coordinator = make(world, _DoSingleScan=failure)
    item = world.queue(coordinator, world.loc("/p/a.py"))
    with pytest.raises(RuntimeError) as info:
        private(coordinator, "__DoScans")(kEnd)
    assert info.value is failure
    assert coordinator._fScanQueue.First() == item
    assert private(coordinator, "__fActiveLoc") is item.loc
    assert coordinator._fLastScanCompleted == {}
    assert told("Trim") == []
    forget()


def test_failing_trim_has_completed_but_not_recorded(world):
    failure = RuntimeError("trim")

    def trim():
        raise failure

    coordinator = make(world)
    item = world.queue(coordinator, world.loc("/p/a.py"))
    world.info_cache.Trim = trim
    with pytest.raises(RuntimeError) as info:
        private(coordinator, "__DoScans")(kEnd)
    assert info.value is failure
    assert pending(coordinator) == {}
    assert coordinator._fLastScanCompleted == {}
    assert private(coordinator, "__fActiveLoc") is item.loc
    forget()


def test_a_location_that_forgets_its_url_fails(world):
    coordinator = make(world)
    loc = type("Loc", (), {})()
    world.queue(coordinator, loc)
    with pytest.raises(AttributeError) as info:
        private(coordinator, "__DoScans")(kEnd)
    assert info.value.name == "fUrl"
    forget()


# Scans that are interrupted.


def test_a_better_scan_goes_first_and_the_old_scanner_waits(world, coordinator):
    a, b = world.locs(2)
    world.loc_cache.derived_wanted[a] = world.loc_cache.derived_wanted[b] = False
    slow = world.queue(coordinator, a)
    scripted(scopescanner.kTimedOut, scopescanner.kTimedOut)
    do_scans(coordinator)
    assert private(coordinator, "__fActiveLoc") is a
    (scanner,) = scopescanner.made
    world.queue(coordinator, b, priority=kInteractivePriority)
    do_scans(coordinator)
    assert private(coordinator, "__fActiveLoc") is b
    assert private(coordinator, "__fActivePrimaryWholeFileScanners")[a] is scanner
    do_scans(coordinator)
    assert coordinator._fScanTripleCompletedCount[a, "*", kPrimary] == 1
    assert coordinator._fScanTripleCompletedCount[b, "*", kPrimary] == 1
    assert scanner.destroyed
    assert slow.loc not in private(coordinator, "__fActivePrimaryWholeFileScanners")
    forget()


def test_a_check_that_arrives_between_slices_goes_first(world, coordinator):
    a, b = world.locs(2)
    world.queue(coordinator, a)
    scripted(scopescanner.kTimedOut, scopescanner.kTimedOut)
    do_scans(coordinator)
    world.queue(coordinator, b, check=True)
    forget()
    do_scans(coordinator)
    names = [call[0] for call in told()]
    assert names.index("GetScansDoneForMultipleFiles") < names.index("Scan")
    assert waiting_files(coordinator) == {}


def test_each_slice_gets_its_own_end_time(world, coordinator):
    world.queue(coordinator, world.loc("/p/a.py"))
    scripted(scopescanner.kTimedOut, scopescanner.kTimedOut)
    do_scans(coordinator, kEnd)
    pass_time(10.0)
    do_scans(coordinator, kEnd + 10.0)
    assert [call[2] for call in told("Scan")] == [kEnd, kEnd + 10.0]
    forget()


def test_a_secondary_scan_without_builtins_is_dropped_but_recorded(world, coordinator):
    a = world.loc("/p/a.py")
    item = world.queue(coordinator, a, scan=kDerived)
    do_scans(coordinator)
    assert told("GetBuiltinLoc", "FinishedWithScans", "CWholeFileSecondaryScanner") == [
        ("GetBuiltinLoc",)
    ]
    assert pending(coordinator) == {}
    assert coordinator._fScanQueue.GetScanCount(item) == 1
    assert coordinator._fLastScanCompleted == {a: {("*", kDerived): kStart}}
    assert coordinator._fScanTripleCompletedCount == {}
    assert private(coordinator, "__fCompletedLocs") == {a}
    forget()


def test_a_queue_changed_inside_a_scan_is_respected(world):
    """The scan that runs takes all scans of its location out of the queue, and adds another."""

    def single(coordinator, item, _end_time):
        seen.append(item.loc)
        if item.loc is a:
            coordinator._fScanQueue.RemoveAllForLocations([a])
            world.queue(coordinator, b)
        return False

    seen = []
    a, b = world.locs(2)
    coordinator = make(world, _DoSingleScan=single)
    world.queue(coordinator, a)
    do_scans(coordinator)
    assert seen == [a, b]
    assert pending(coordinator) == {}
    forget()


def test_records_forgotten_inside_a_scan_are_written_anew(world):
    def single(coordinator, item, _end_time):
        coordinator.ClearLastScanInfo([item.loc])
        return False

    coordinator = make(world, _DoSingleScan=single)
    a = world.loc("/p/a.py")
    world.queue(coordinator, a)
    do_scans(coordinator)
    assert coordinator._fLastScanCompleted == {a: {("*", kPrimary): kStart}}
    forget()
