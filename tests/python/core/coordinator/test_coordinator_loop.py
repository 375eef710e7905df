"""The scan loop of one slice: `__DoScans`."""

import pytest
from operations import private, watched
from pysource import scopescanner, utils
from pysource.analysis import CPySourceAnalysis
from pysource.scancoordinator import CScanItem, kBackgroundPriority, kInteractivePriority
from world import (
    forget,
    kDerived,
    kPrimary,
    logged,
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


def test_suspended_loop_does_nothing(world):
    coordinator = world.make(watched("_QueueBasicModules", _DoSingleScan=False), basic=False)
    world.queue(coordinator, world.loc("/p/a.py"), check=True)
    world.mod_file_cache.emit("suspend")
    world.log_lines(coordinator)
    forget()
    do_scans(coordinator)
    assert told() == []
    assert len(waiting_files(coordinator)) == 1


def test_basic_modules_are_queued_first_with_the_end_time(world):
    coordinator = world.make(
        watched(_QueueBasicModules=None, __CheckWholeFiles=True), basic=False
    )
    do_scans(coordinator)
    assert told() == [("_QueueBasicModules", kEnd), ("__CheckWholeFiles", kEnd)]


def test_basic_modules_are_asked_for_until_they_are_queued(world):
    coordinator = world.make(watched("_QueueBasicModules"), basic=False)
    do_scans(coordinator)
    do_scans(coordinator)
    assert len(told("_QueueBasicModules")) == 2
    forget()


def test_basic_modules_that_are_queued_are_not_asked_for(world):
    coordinator = world.make(watched("_QueueBasicModules"))
    do_scans(coordinator)
    assert told() == []


def test_time_used_up_by_the_basic_modules_leaves_no_scan(world):
    coordinator = world.make(
        watched(_QueueBasicModules=lambda _c, _end: pass_time(1.0), _DoSingleScan=False),
        basic=False,
    )
    item = world.queue(coordinator, world.loc("/p/a.py"), check=True)
    world.log_lines(coordinator)
    do_scans(coordinator)
    assert told() == [("_QueueBasicModules", kEnd)]
    assert coordinator._fScanQueue.First() == item


def test_time_used_up_by_the_basic_modules_still_returns_true_from_the_idle_call(world):
    coordinator = world.make(
        watched(_QueueBasicModules=lambda _c, _end: pass_time(1.0)), basic=False
    )
    world.queue(coordinator, world.loc("/p/a.py"))
    assert coordinator._CB_DoIdleAnalysis() is True
    forget()


@pytest.mark.parametrize("end_time", [kStart, kStart - 1.0, -1.0])
def test_no_scan_at_or_after_the_end_time(world, end_time):
    coordinator = make(world)
    world.queue(coordinator, world.loc("/p/a.py"))
    do_scans(coordinator, end_time)
    assert told() == []


def test_whole_file_check_out_of_time_ends_the_slice(world):
    coordinator = make(world, __CheckWholeFiles=True)
    world.queue(coordinator, world.loc("/p/a.py"))
    world.log_lines(coordinator)
    do_scans(coordinator)
    assert told() == [
        ("__CheckWholeFiles", kEnd),
        logged("Out of time after whole file check"),
    ]


def test_whole_file_check_runs_before_each_scan(world):
    coordinator = make(world, __CheckWholeFiles=False)
    a, b = (world.queue(coordinator, loc) for loc in world.locs(2))
    do_scans(coordinator)
    assert told("__CheckWholeFiles", "_DoSingleScan") == [
        ("__CheckWholeFiles", kEnd),
        ("_DoSingleScan", a, kEnd),
        ("__CheckWholeFiles", kEnd),
        ("_DoSingleScan", b, kEnd),
        ("__CheckWholeFiles", kEnd),
    ]
    forget()


def test_empty_queue_logs_and_returns(world):
    coordinator = make(world, __CheckWholeFiles=False)
    world.log_lines(coordinator)
    do_scans(coordinator)
    assert told() == [("__CheckWholeFiles", kEnd), logged("loc is None in scan_item")]


# The five-second rule.


def completed(world, coordinator, loc, scope="*", scan=kPrimary):
    """Let one scan complete now."""
    item = world.queue(coordinator, loc, scope, scan)
    do_scans(coordinator, hostclock.now() + 0.5)
    assert coordinator._fLastScanCompleted[loc][scope, scan] == hostclock.now()
    forget()
    return item


def test_a_scan_repeated_too_soon_is_skipped_and_ends_the_slice(world):
    coordinator = make(world)
    a, b = world.locs(2)
    completed(world, coordinator, a)
    pass_time(4.9)
    world.queue(coordinator, a)
    other = world.queue(coordinator, b)
    world.log_lines(coordinator)
    do_scans(coordinator, kEnd + 100)
    assert told() == [
        logged(f"Skipping scan because last scan is too recent: {(a, '*', kPrimary)!r}")
    ]
    assert coordinator._fScanQueue.First() == other
    # The skipped scan counts as completed in the queue, not in the coordinator.
    assert coordinator._fScanQueue.GetScanCount(CScanItem(a, "*", kPrimary, None)) == 2
    assert coordinator._fLastScanCompleted[a]["*", kPrimary] == kStart


def test_a_scan_repeated_after_exactly_five_seconds_runs(world):
    coordinator = make(world)
    a = world.loc("/p/a.py")
    completed(world, coordinator, a)
    pass_time(5.0)
    item = world.queue(coordinator, a)
    do_scans(coordinator, kEnd + 100)
    assert scans() == [item]
    assert coordinator._fLastScanCompleted[a]["*", kPrimary] == kStart + 5.0
    forget()


@pytest.mark.parametrize(("scope", "scan"), [("f", kPrimary), ("*", kDerived), ("f", kDerived)])
def test_the_rule_is_for_each_scope_and_scan_by_itself(world, scope, scan):
    coordinator = make(world)
    a = world.loc("/p/a.py")
    completed(world, coordinator, a)
    item = world.queue(coordinator, a, scope, scan)
    do_scans(coordinator)
    assert scans() == [item]
    assert set(coordinator._fLastScanCompleted[a]) == {("*", kPrimary), (scope, scan)}
    forget()


def test_a_skip_leaves_the_active_location(world):
    coordinator = make(world, _DoSingleScan=[False, True])
    a, b = world.locs(2)
    completed(world, coordinator, a)
    slow = world.queue(coordinator, b)
    do_scans(coordinator)
    assert private(coordinator, "__fActiveLoc") is b
    world.queue(coordinator, a, priority=kInteractivePriority)
    do_scans(coordinator)
    assert private(coordinator, "__fActiveLoc") is b
    assert coordinator._fScanQueue.First() == slow
    forget()


# Is it Python?


@pytest.mark.parametrize("name", ["a.py", "a.pi", "a.pyi", ".py", "a.txt.py"])
def test_a_url_with_a_python_end_is_python_without_a_question(world, name):
    coordinator = make(world)
    item = world.queue(coordinator, world.loc("/p/" + name))
    do_scans(coordinator)
    assert told("_DoSingleScan", "IsPythonSource", "GetAnalysis") == [
        ("_DoSingleScan", item, kEnd)
    ]
    forget()


@pytest.mark.parametrize("name", ["a.script", "a.py.script"])
def test_a_file_that_the_host_knows_is_python(world, name):
    coordinator = make(world)
    item = world.queue(coordinator, world.loc("/p/" + name))
    do_scans(coordinator)
    assert told("_DoSingleScan", "IsPythonSource", "GetAnalysis") == [
        ("IsPythonSource", item.loc),
        ("_DoSingleScan", item, kEnd),
    ]
    forget()


@pytest.mark.parametrize("name", ["a.PY", "a.pyc", "a.pyx", "apy", "notes.txt", ""])
def test_other_files_are_asked_about_in_order(world, name):
    coordinator = make(world, __GetAnalysis=None)
    loc = world.loc("/p/" + name)
    world.queue(coordinator, loc)
    world.log_lines(coordinator)
    do_scans(coordinator)
    assert told() == [
        ("IsPythonSource", loc),
        ("__GetAnalysis", loc, True),
        logged(f"Removing scan because not python: {(loc, '*', kPrimary)!r}"),
        logged("loc is None in scan_item"),
    ]
    assert pending(coordinator) == {}


def test_a_file_with_an_analysis_is_python(world):
    coordinator = make(world)
    loc = world.loc("/p/notes.txt")
    world.cache_mgr.analyses[loc] = CPySourceAnalysis(loc)
    item = world.queue(coordinator, loc)
    do_scans(coordinator)
    assert told("_DoSingleScan", "GetAnalysis") == [
        ("GetAnalysis", loc, True),
        ("_DoSingleScan", item, kEnd),
    ]
    forget()


def test_a_file_with_an_analysis_of_another_class_is_removed(world):
    coordinator = make(world)
    loc = world.loc("/p/notes.txt")
    world.cache_mgr.analyses[loc] = object()
    world.queue(coordinator, loc)
    do_scans(coordinator)
    assert told("_DoSingleScan") == []
    assert pending(coordinator) == {}
    forget()


def test_a_false_analysis_is_still_python(world):
    coordinator = make(world, __GetAnalysis=0)
    item = world.queue(coordinator, world.loc("/p/notes.txt"))
    do_scans(coordinator)
    assert scans() == [item]
    forget()


def test_is_python_source_is_looked_up_at_each_use_and_taken_for_its_truth(world, monkeypatch):
    coordinator = make(world)
    monkeypatch.setattr(utils, "IsPythonSource", lambda loc: ["yes"])
    item = world.queue(coordinator, world.loc("/p/notes.txt"))
    do_scans(coordinator)
    assert scans() == [item]
    forget()


def test_a_removal_takes_only_that_triple_and_the_slice_goes_on(world):
    coordinator = make(world, __GetAnalysis=None)
    loc = world.loc("/p/notes.txt")
    world.queue(coordinator, loc, "f", priority=kInteractivePriority)
    world.queue(coordinator, loc, "g", priority=kBackgroundPriority)
    item = world.queue(coordinator, world.loc("/p/a.py"))
    do_scans(coordinator)
    assert scans() == [item]
    assert len(told("__GetAnalysis")) == 2
    assert pending(coordinator) == {}
    # A removed scan isn't a completed one.
    assert coordinator._fScanQueue.GetScanCount(CScanItem(loc, "f", kPrimary, None)) == 0
    assert set(coordinator._fLastScanCompleted) == {item.loc}
    forget()


def test_time_is_read_again_after_a_removal(world):
    def slow_question(_coordinator, _loc, _create):
        pass_time(1.0)

    coordinator = make(world, __GetAnalysis=slow_question)
    world.queue(coordinator, world.loc("/p/notes.txt"))
    item = world.queue(coordinator, world.loc("/p/a.py"))
    do_scans(coordinator)
    assert told("_DoSingleScan") == []
    assert coordinator._fScanQueue.First() == item
    forget()


def test_the_active_location_is_python_without_a_question(world):
    coordinator = make(world, _DoSingleScan=[True, True, False])
    loc = world.loc("/p/a.script")
    item = world.queue(coordinator, loc)
    do_scans(coordinator)
    assert len(told("IsPythonSource")) == 1
    do_scans(coordinator)
    do_scans(coordinator)
    assert told("IsPythonSource") == []
    assert scans() == [item] * 3
    forget()


def test_the_active_location_is_known_by_identity(world):
    class EqualLoc(type(world.loc("/p/a.py"))):
        def __eq__(self, other):
            return self.fUrl == other.fUrl

        def __hash__(self):
            return hash(self.fUrl)

    coordinator = make(world, _DoSingleScan=True)
    one, two = EqualLoc("file:///p/a.script"), EqualLoc("file:///p/a.script")
    world.queue(coordinator, one)
    do_scans(coordinator)
    assert private(coordinator, "__fActiveLoc") is one
    coordinator._fScanQueue.RemoveAllForLocations([one])
    world.queue(coordinator, two)
    forget()
    do_scans(coordinator)
    assert told("IsPythonSource")[0][1] is two
    assert private(coordinator, "__fActiveLoc") is two
    forget()


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
