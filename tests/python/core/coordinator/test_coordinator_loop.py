"""The scan loop of one slice: `__DoScans`."""

import pytest
from operations import private, watched
from pysource import utils
from pysource.analysis import CPySourceAnalysis
from pysource.scancoordinator import CScanItem, kBackgroundPriority, kInteractivePriority
from world import (
    forget,
    kDerived,
    kPrimary,
    logged,
    pass_time,
    pending,
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
    coordinator = world.make(watched(_QueueBasicModules=None, __CheckWholeFiles=True), basic=False)
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
    assert told("_DoSingleScan", "IsPythonSource", "GetAnalysis") == [("_DoSingleScan", item, kEnd)]
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
