"""News of missing information: `_CB_NeedsScanAdded`, `AddNeedsScanSetToQueues`, the caret."""

import pytest
from collaborators import Buffer
from operations import private, watched
from pysource import scopescanner
from pysource.analysis import CPySourceAnalysis
from pysource.scancoordinator import CScanItem, kBackgroundPriority, kInteractivePriority
from world import forget, kDerived, kPrimary, pending, told, waiting_files

import hostclock


@pytest.fixture
def loc(world):
    return world.loc("/p/a.py")


def needs(coordinator, triples, priority=None):
    """The news, as the info cache tells it."""
    assert coordinator._CB_NeedsScanAdded(None, triples, priority) is None


# The signal of the info cache.


def test_triples_go_to_the_queue_by_scan_name(world, loc):
    coordinator = world.make(watched(_ScheduleIdle=None))
    other = world.loc("/p/b.py")
    needs(coordinator, [(loc, "f", kPrimary), (other, "g", kDerived), (loc, "h", kPrimary)])
    assert pending(coordinator) == {
        (loc, "f", kPrimary): kInteractivePriority,
        (other, "g", kDerived): kInteractivePriority,
        (loc, "h", kPrimary): kInteractivePriority,
    }
    assert [call[0] for call in told() if call[0] != "idle_add"] == [
        "WantDerivedInfo",
        "_ScheduleIdle",
    ]


def test_the_order_of_scan_names_is_that_of_their_first_appearance(world, coordinator, loc):
    triples = [(loc, "a", "third"), (loc, "b", kDerived), (loc, "c", "third"), (loc, "d", kPrimary)]
    coordinator._fScanQueue.SetScansToOrder({})
    needs(coordinator, triples)
    # All names have order 0 here, and share a queue that has the name of whichever came first.
    (single,) = coordinator._fScanQueue._fOrderedQueues
    assert single.fScanName == "third"
    forget()


@pytest.mark.parametrize("priority", [0, 1, 2, 9])
def test_a_given_priority_is_used(world, coordinator, loc, priority):
    needs(coordinator, [(loc, "f", kPrimary)], priority)
    assert pending(coordinator) == {(loc, "f", kPrimary): priority}
    forget()


@pytest.mark.parametrize("running", [0, 1, 2])
def test_a_missing_priority_is_that_of_the_running_scan(world, coordinator, loc, running):
    item = CScanItem(world.loc("/p/run.py"), "*", kPrimary, running)
    world.during(coordinator, item, lambda: needs(coordinator, [(loc, "f", kPrimary)]))
    assert pending(coordinator) == {(loc, "f", kPrimary): running}
    forget()


def test_unwanted_secondary_scans_are_skipped(world, coordinator, loc):
    other = world.loc("/p/b.py")
    world.loc_cache.derived_wanted[loc] = False
    needs(coordinator, [(loc, "f", kDerived), (loc, "f", kPrimary), (other, "g", kDerived)])
    assert set(pending(coordinator)) == {(loc, "f", kPrimary), (other, "g", kDerived)}
    assert told("WantDerivedInfo") == [("WantDerivedInfo", loc), ("WantDerivedInfo", other)]
    forget()


def test_needs_are_due_for_no_check_and_never_go_to_the_helper(world, coordinator, loc):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    needs(coordinator, [(loc, "*", kPrimary)])
    assert waiting_files(coordinator) == {}
    assert told("proxy.AddPairsToPrimaryQueue") == []
    assert pending(coordinator) == {(loc, "*", kPrimary): kInteractivePriority}
    forget()


def test_needs_bypass_the_add_operations(world, loc):
    coordinator = world.make(watched("AddPairsToPrimaryQueue", "AddPairsToSecondaryQueue"))
    needs(coordinator, [(loc, "f", kPrimary), (loc, "f", kDerived)])
    assert told("AddPairsToPrimaryQueue", "AddPairsToSecondaryQueue") == []
    forget()


@pytest.mark.parametrize("nothing", [[], (), set(), {}])
def test_no_needs_schedule_all_the_same(world, nothing):
    coordinator = world.make(watched(_ScheduleIdle=None))
    needs(coordinator, nothing)
    assert told() == [("_ScheduleIdle",)]


@pytest.mark.parametrize("kind", [list, tuple, set, frozenset, iter])
def test_any_iterable_of_triples(world, coordinator, loc, kind):
    needs(coordinator, kind([(loc, "f", kPrimary)]))
    assert len(pending(coordinator)) == 1
    forget()


def test_a_scan_that_was_done_often_is_queued_again(world, coordinator, loc):
    item = CScanItem(loc, "f", kPrimary, 1)
    for _ in range(1000):
        coordinator._fScanQueue.ScanCompleted(item)
    needs(coordinator, [(loc, "f", kPrimary)])
    assert pending(coordinator) == {(loc, "f", kPrimary): kInteractivePriority}
    forget()


@pytest.mark.parametrize(
    ("triple", "error", "text"),
    [
        ((1, 2), ValueError, "not enough values to unpack (expected 3, got 2)"),
        ((1, 2, 3, 4), ValueError, "too many values to unpack (expected 3)"),
        (5, TypeError, "cannot unpack non-iterable int object"),
    ],
)
@pytest.mark.parametrize("operation", ["_CB_NeedsScanAdded", "AddNeedsScanSetToQueues"])
def test_an_element_that_is_no_triple_fails_and_nothing_is_added(
    world, loc, operation, triple, error, text
):
    coordinator = world.make(watched(_ScheduleIdle=None))
    triples = [(loc, "f", kPrimary), triple]
    args = (None, triples, None) if operation == "_CB_NeedsScanAdded" else (triples,)
    with pytest.raises(error) as info:
        getattr(coordinator, operation)(*args)
    assert str(info.value) == text
    assert pending(coordinator) == {}
    assert told("_ScheduleIdle") == []
    forget()


def test_all_three_arguments_are_required(coordinator):
    with pytest.raises(TypeError):
        coordinator._CB_NeedsScanAdded(None, [])
    coordinator._CB_NeedsScanAdded(priority=None, needs_scan_added=[], info_cache=None)
    forget()


# During a secondary scan.


def running_secondary(world, coordinator, loc, work, *, scope="*", scan=kDerived, priority=2):
    """Do something inside a secondary scan of a file; returns its scanner."""
    item = CScanItem(loc, scope, scan, priority)
    world.info_cache.infos[loc, scope] = "info"
    world.during(coordinator, item, work)
    return scopescanner.made[-1]


def test_the_running_secondary_scan_filters_what_is_needed(world, coordinator, loc, monkeypatch):
    other = world.loc("/p/b.py")
    triples = [(loc, "f", kPrimary), (other, "g", kPrimary)]
    given = []

    def keep_last(_scanner, needs_scan_added):
        given.append(needs_scan_added)
        return needs_scan_added[1:]

    monkeypatch.setattr(scopescanner.CWholeFileSecondaryScanner, "FilterNeedsScan", keep_last)
    running_secondary(world, coordinator, loc, lambda: needs(coordinator, triples))
    assert given == [triples]
    assert given[0] is triples
    assert pending(coordinator) == {(other, "g", kPrimary): 2}
    forget()


def test_needs_of_another_file_go_through_the_filter_too(world, coordinator, loc):
    other = [(world.loc("/p/b.py"), "f", kPrimary)]
    scanner = running_secondary(world, coordinator, loc, lambda: needs(coordinator, other))
    assert told("FilterNeedsScan") == [("FilterNeedsScan", scanner, other)]
    forget()


def test_after_the_scan_there_is_no_filter(world, coordinator, loc):
    running_secondary(world, coordinator, loc, lambda: None)
    needs(coordinator, [(loc, "f", kPrimary)])
    assert told("FilterNeedsScan") == []
    forget()


@pytest.mark.parametrize(
    ("scope", "scan"), [("*", kPrimary), ("f", kDerived), ("f", kPrimary), ("*", "third")]
)
def test_other_scans_filter_nothing(world, coordinator, loc, scope, scan):
    running_secondary(
        world,
        coordinator,
        loc,
        lambda: needs(coordinator, [(loc, "g", kPrimary)]),
        scope=scope,
        scan=scan,
    )
    assert told("FilterNeedsScan") == []
    assert (loc, "g", kPrimary) in pending(coordinator)
    forget()


def test_a_secondary_scan_with_no_scanner_filters_nothing(world, loc):
    """The driver is replaced, so that no scanner lives while the item is active."""

    def driver(coordinator, _item, _end_time):
        needs(coordinator, [(loc, "g", kPrimary)])
        return False

    coordinator = world.make(watched(__DoSecondaryWholeFileScan=driver))
    world.loc_cache.builtin_loc = world.loc("/lib/builtins.pyi")
    coordinator._DoSingleScan(CScanItem(loc, "*", kDerived, 0), 0.0)
    assert pending(coordinator) == {(loc, "g", kPrimary): 0}
    forget()


def test_a_failing_filter_adds_nothing(world, coordinator, loc, monkeypatch):
    failure = RuntimeError("filter")

    def fail(_scanner, _needs_scan_added):
        raise failure

    monkeypatch.setattr(scopescanner.CWholeFileSecondaryScanner, "FilterNeedsScan", fail)

    def work():
        with pytest.raises(RuntimeError) as info:
            needs(coordinator, [(loc, "f", kPrimary)])
        assert info.value is failure

    running_secondary(world, coordinator, loc, work)
    assert pending(coordinator) == {}
    forget()


def test_the_signal_may_arrive_in_the_middle_of_a_scan(world, coordinator, loc):
    def emit():
        world.info_cache.emit("needs-scan-added", world.info_cache, [(loc, "f", kPrimary)], None)

    running_secondary(world, coordinator, world.loc("/p/b.py"), emit, priority=0)
    assert pending(coordinator) == {(loc, "f", kPrimary): 0}
    assert len(told("FilterNeedsScan")) == 1
    forget()


# A set of needs.


def test_secondary_pairs_go_first(world, loc):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None, AddPairsToSecondaryQueue=None))
    other = world.loc("/p/b.py")
    world.cache_mgr.buffers[other] = Buffer(False)
    coordinator.AddNeedsScanSetToQueues(
        [
            (loc, "f", kPrimary),
            (loc, "g", kDerived),
            (other, "h", kPrimary),
            (loc, "x", "third"),
            (other, "i", kDerived),
        ]
    )
    assert told() == [
        ("DoesCacheBufferExist", loc, True),
        ("DoesCacheBufferExist", other, True),
        ("AddPairsToSecondaryQueue", [(loc, "g"), (other, "i")], True, None),
        ("AddPairsToPrimaryQueue", [(loc, "*"), (other, "h")], True, None),
    ]


@pytest.mark.parametrize(
    ("triples", "operations"),
    [
        ([], []),
        ([("l", "f", "third")], []),
        ([("l", "f", kPrimary)], ["AddPairsToPrimaryQueue"]),
        ([("l", "f", kDerived)], ["AddPairsToSecondaryQueue"]),
    ],
)
def test_empty_lists_are_not_added(world, triples, operations):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None, AddPairsToSecondaryQueue=None))
    assert coordinator.AddNeedsScanSetToQueues(triples) is None
    assert [call[0] for call in told() if call[0] != "DoesCacheBufferExist"] == operations


def test_an_empty_set_schedules_nothing(coordinator):
    coordinator.AddNeedsScanSetToQueues(set())
    assert told() == []
    assert coordinator._fIdleProcId is None


def test_two_scopes_of_a_file_without_buffer_are_one_whole_file(world, coordinator, loc):
    coordinator.AddNeedsScanSetToQueues([(loc, "f", kPrimary), (loc, "g", kPrimary)])
    assert pending(coordinator) == {(loc, "*", kPrimary): kInteractivePriority}
    forget()


def test_a_false_buffer_is_no_buffer_here(world, coordinator, loc):
    class Falsy(Buffer):
        def __bool__(self):
            return False

    world.cache_mgr.buffers[loc] = Falsy(False)
    coordinator.AddNeedsScanSetToQueues([(loc, "f", kPrimary)])
    assert set(pending(coordinator)) == {(loc, "*", kPrimary)}
    forget()


@pytest.mark.parametrize("buffer", [True, False])
def test_a_secondary_triple_keeps_its_scope(world, coordinator, loc, buffer):
    if buffer:
        world.cache_mgr.buffers[loc] = Buffer(False)
    coordinator.AddNeedsScanSetToQueues([(loc, "f", kDerived)])
    assert set(pending(coordinator)) == {(loc, "f", kDerived)}
    assert told("DoesCacheBufferExist") == []
    forget()


# The caret.


def move_caret(coordinator, loc, lineno, scopes=None):
    """The caret goes to a line; returns the analysis."""
    analysis = CPySourceAnalysis(loc, scopes)
    assert coordinator._CB_ActiveEditLinenoChanged(analysis, lineno) is None
    return analysis


def test_the_scopes_that_the_caret_is_not_in_are_queued(world, loc):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    coordinator._fIncompleteScansByLoc[loc].update({"f", "g", "h"})
    analysis = move_caret(coordinator, loc, 12, {12: "g"})
    calls = told()
    assert calls[0] == ("FindScopeContainingLine", analysis, 12)
    ((name, pairs, first, priority),) = calls[1:]
    assert (name, first, priority) == ("AddPairsToPrimaryQueue", True, kInteractivePriority)
    assert sorted(scope for _, scope in pairs) == ["f", "h"]
    assert {pair[0] for pair in pairs} == {loc}
    assert coordinator._fIncompleteScansByLoc == {loc: {"f", "g", "h"}}


def test_no_line_queues_all_scopes(world, coordinator, loc):
    coordinator._fIncompleteScansByLoc[loc].update({"f", ""})
    move_caret(coordinator, loc, -1)
    assert set(pending(coordinator)) == {(loc, "f", kPrimary), (loc, "", kPrimary)}
    assert told("FindScopeContainingLine") == []
    forget()


def test_line_zero_is_a_line(world, coordinator, loc):
    coordinator._fIncompleteScansByLoc[loc].add("f")
    move_caret(coordinator, loc, 0, {0: "f"})
    assert pending(coordinator) == {}
    forget()


def test_a_file_without_incomplete_scans_costs_one_lookup(world, coordinator, loc):
    move_caret(coordinator, loc, 12)
    assert told() == []
    assert coordinator._fIncompleteScansByLoc == {}


def scanned(world, coordinator, loc):
    """Let a whole-file scan of the file complete."""
    world.loc_cache.derived_wanted[loc] = False
    world.queue(coordinator, loc, priority=kBackgroundPriority)
    private(coordinator, "__DoScans")(2e6)
    assert coordinator._fLastScanCompleted == {loc: {("*", kPrimary): hostclock.kStartTime}}
    forget()


@pytest.mark.parametrize("scopes", [set(), {"f"}])
def test_nothing_to_queue_leaves_the_last_scan(world, coordinator, loc, scopes):
    scanned(world, coordinator, loc)
    coordinator._fIncompleteScansByLoc[loc].update(scopes)
    move_caret(coordinator, loc, 12, {12: "f"})
    assert set(coordinator._fLastScanCompleted) == {loc}
    assert told("AddPairsToPrimaryQueue", "idle_add") == []
    forget()


def test_what_is_queued_drops_the_last_scan(world, coordinator, loc):
    scanned(world, coordinator, loc)
    coordinator._fIncompleteScansByLoc[loc].add("f")
    move_caret(coordinator, loc, -1)
    assert coordinator._fLastScanCompleted == {}
    assert pending(coordinator) == {(loc, "f", kPrimary): kInteractivePriority}
    forget()


def test_the_last_scan_is_dropped_before_the_scopes_are_queued(world, loc):
    seen = []
    coordinator = world.make(
        watched(AddPairsToPrimaryQueue=lambda c, *_args: seen.append(dict(c._fLastScanCompleted)))
    )
    scanned(world, coordinator, loc)
    seen.clear()
    coordinator._fIncompleteScansByLoc[loc].add("f")
    move_caret(coordinator, loc, -1)
    assert seen == [{}]
    forget()


def test_the_caret_is_interactive_even_during_a_background_scan(world, coordinator, loc):
    coordinator._fIncompleteScansByLoc[loc].add("f")
    item = CScanItem(world.loc("/p/run.py"), "*", kPrimary, kBackgroundPriority)
    world.during(coordinator, item, lambda: move_caret(coordinator, loc, -1))
    assert pending(coordinator) == {(loc, "f", kPrimary): kInteractivePriority}
    forget()


def test_a_failing_question_for_the_scope_queues_nothing(world, coordinator, loc):
    failure = RuntimeError("scope")

    class CFailing(CPySourceAnalysis):
        def FindScopeContainingLine(self, lineno):
            raise failure

    coordinator._fIncompleteScansByLoc[loc].add("f")
    with pytest.raises(RuntimeError) as info:
        coordinator._CB_ActiveEditLinenoChanged(CFailing(loc), 3)
    assert info.value is failure
    assert pending(coordinator) == {}
    forget()


@pytest.mark.parametrize("lineno", [None, "1", 1.5])
def test_a_line_that_is_no_integer_fails(world, coordinator, loc, lineno):
    coordinator._fIncompleteScansByLoc[loc].add("f")
    with pytest.raises(TypeError):
        coordinator._CB_ActiveEditLinenoChanged(CPySourceAnalysis(loc), lineno)
    forget()
