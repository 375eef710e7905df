"""A set of triples, scanned on the caller's stack: `TryToScanDictNow`."""

import time

import pytest
from collaborators import Buffer
from operations import watched
from pysource import scopescanner
from world import forget, kDerived, kPrimary, pending, scripted, told

kEnd = 50.0


@pytest.fixture
def loc(world):
    return world.loc("/p/a.py")


class WallClock:
    """The clock that `time.time` tells."""

    def __init__(self):
        self.now = 0.0

    def __call__(self):
        return self.now


@pytest.fixture
def clock(monkeypatch):
    """A wall clock that stands still at 0."""
    clock = WallClock()
    monkeypatch.setattr(time, "time", clock)
    return clock


def active(coordinator):
    """The triples that are being scanned."""
    return set(coordinator._fActiveScanNowTriples)


def claimed(coordinator):
    """The triples that some call means to scan."""
    return set(coordinator._fPendingScanNowTriples)


def scan_set(coordinator, triples, end_time=kEnd):
    """Scan a set of triples now."""
    return coordinator.TryToScanDictNow("for_loc", "for_scope", triples, end_time)


def at_rest(coordinator):
    """Whether no triple is left in hand."""
    return active(coordinator) == set() and claimed(coordinator) == set()


@pytest.mark.parametrize("nothing", [[], (), set(), {}, ""])
def test_an_empty_set_is_false_and_touches_nothing(coordinator, clock, nothing):
    assert scan_set(coordinator, nothing) is False
    assert told() == []


def test_a_primary_triple_is_scanned_and_the_result_is_true(world, clock, loc):
    coordinator = world.make(watched(TryToScanNow="ignored"))
    assert scan_set(coordinator, [(loc, "f", kPrimary)]) is True
    assert told() == [("TryToScanNow", loc, "f", [kPrimary], kEnd, True)]
    assert at_rest(coordinator)
    assert pending(coordinator) == {}


def test_arguments_by_keyword(coordinator, clock, loc):
    assert (
        coordinator.TryToScanDictNow(end_time=kEnd, needs_scan_set=[], for_scope=None, for_loc=None)
        is False
    )


def test_a_triple_is_in_both_sets_while_it_is_scanned(world, clock, loc):
    triple = (loc, "f", kPrimary)
    seen = []

    def scan(coordinator, *_args):
        seen.append((active(coordinator), claimed(coordinator)))

    coordinator = world.make(watched(TryToScanNow=scan))
    scan_set(coordinator, [triple])
    assert seen == [({triple}, {triple})]
    forget()


def test_primary_triples_are_scanned_in_their_order(world, clock, loc):
    coordinator = world.make(watched(TryToScanNow=None))
    triples = [(loc, scope, kPrimary) for scope in "cab"]
    scan_set(coordinator, triples)
    assert [call[2] for call in told("TryToScanNow")] == ["c", "a", "b"]


def test_only_secondary_triples_are_queued_and_the_result_is_false(world, clock, loc):
    coordinator = world.make(watched(AddPairsToSecondaryQueue=None))
    assert scan_set(coordinator, [(loc, "f", kDerived), (loc, "g", "third")]) is False
    assert told() == [
        ("AddPairsToSecondaryQueue", [(loc, "f")], True, None),
        ("AddPairsToSecondaryQueue", [(loc, "g")], True, None),
    ]


def test_secondary_triples_are_queued_before_any_scan(world, clock, loc):
    coordinator = world.make(watched(AddPairsToSecondaryQueue=None, TryToScanNow=None))
    assert scan_set(coordinator, [(loc, "f", kPrimary), (loc, "g", kDerived)]) is True
    assert [call[0] for call in told()] == ["AddPairsToSecondaryQueue", "TryToScanNow"]


def test_a_triple_that_is_being_scanned_is_skipped(world, clock, loc):
    triple = (loc, "f", kPrimary)
    inner = []

    def scan(coordinator, *_args):
        inner.append(scan_set(coordinator, [triple]))

    coordinator = world.make(watched(TryToScanNow=scan))
    assert scan_set(coordinator, [triple]) is True
    assert inner == [False]
    assert len(told("TryToScanNow")) == 1
    assert at_rest(coordinator)


def test_a_secondary_scan_is_no_part_of_the_sets(world, clock, loc):
    coordinator = world.make(watched(AddPairsToSecondaryQueue=None))
    triple = (loc, "f", kDerived)
    scan_set(coordinator, [triple, triple])
    assert len(told("AddPairsToSecondaryQueue")) == 2
    assert at_rest(coordinator)


def test_a_nested_call_finishes_what_its_caller_has_claimed(world, clock, loc):
    """The outer call then skips the triple and queues it again at its end."""
    a, b = (loc, "a", kPrimary), (loc, "b", kPrimary)
    inner = []

    def scan(coordinator, _loc, scope, *_args):
        if scope == "a":
            inner.append(scan_set(coordinator, [b]))
            inner.append(claimed(coordinator))

    coordinator = world.make(watched(TryToScanNow=scan, AddNeedsScanSetToQueues=None))
    assert scan_set(coordinator, [a, b]) is True
    # What is left of the claims inside is the triple in hand.
    assert inner == [True, {a}]
    assert [call[2] for call in told("TryToScanNow")] == ["a", "b"]
    assert told() == [("AddNeedsScanSetToQueues", {b})]
    assert at_rest(coordinator)


def test_claims_of_the_caller_outlive_a_nested_call(world, clock, loc):
    """A nested call that stops early takes back only what it has claimed itself."""
    a, b, c = ((loc, scope, kPrimary) for scope in "abc")
    seen = []

    def scan(coordinator, _loc, scope, *_args):
        if scope == "a":
            clock.now = kEnd + 1.0
            assert scan_set(coordinator, [b, c]) is False
            clock.now = 0.0
            seen.append(claimed(coordinator))

    coordinator = world.make(watched(TryToScanNow=scan, AddNeedsScanSetToQueues=None))
    assert scan_set(coordinator, [a, b]) is True
    assert seen == [{a, b}]
    assert [call[1] for call in told("AddNeedsScanSetToQueues")] == [{b, c}]
    assert at_rest(coordinator)
    forget()


def test_a_claimed_triple_is_not_queued_as_a_secondary_one(world, clock, loc):
    """Only if the name of the primary scan changes can a claimed triple look like a secondary one."""
    a, b = (loc, "a", kPrimary), (loc, "b", kPrimary)
    inner = []

    def scan(coordinator, _loc, scope, *_args):
        if scope == "a":
            world.ana_mgr.fPrimaryScanName = "renamed"
            inner.append(scan_set(coordinator, [b, (loc, "c", kPrimary)]))
            world.ana_mgr.fPrimaryScanName = kPrimary

    coordinator = world.make(watched(TryToScanNow=scan, AddPairsToSecondaryQueue=None))
    assert scan_set(coordinator, [a, b]) is True
    assert inner == [False]
    assert told("AddPairsToSecondaryQueue") == [
        ("AddPairsToSecondaryQueue", [(loc, "c")], True, None)
    ]
    forget()


def test_the_deadline_after_the_first_of_three(world, clock, loc):
    triples = [(loc, scope, kPrimary) for scope in "abc"]

    def scan(_coordinator, *_args):
        clock.now = kEnd + 0.001

    coordinator = world.make(watched(TryToScanNow=scan, AddNeedsScanSetToQueues=None))
    assert scan_set(coordinator, triples) is False
    assert told() == [
        ("TryToScanNow", loc, "a", [kPrimary], kEnd, True),
        ("AddNeedsScanSetToQueues", set(triples)),
    ]
    assert at_rest(coordinator)


def test_the_deadline_itself_is_in_time(world, clock, loc):
    coordinator = world.make(watched(TryToScanNow=None))
    clock.now = kEnd
    assert scan_set(coordinator, [(loc, "a", kPrimary), (loc, "b", kPrimary)]) is True
    assert len(told("TryToScanNow")) == 2
    forget()


def test_at_least_one_scan_is_started_however_late(world, clock, loc):
    coordinator = world.make(watched(TryToScanNow=None, AddNeedsScanSetToQueues=None))
    clock.now = kEnd + 1000.0
    assert scan_set(coordinator, [(loc, "a", kPrimary), (loc, "b", kPrimary)]) is False
    assert len(told("TryToScanNow")) == 1
    forget()


def test_the_wall_clock_is_looked_up_at_each_use(world, clock, loc, monkeypatch):
    """It is `time.time`, not the clock of the idle loop."""
    from pysource import _fastaccess

    def broken():
        raise NotImplementedError

    coordinator = world.make(watched(TryToScanNow=None, AddNeedsScanSetToQueues=None))
    monkeypatch.setattr(_fastaccess, "__TimeFunc", broken)
    assert scan_set(coordinator, [(loc, "a", kPrimary)]) is True
    monkeypatch.setattr(time, "time", lambda: kEnd + 1.0)
    assert scan_set(coordinator, [(loc, "a", kPrimary)]) is False
    forget()


def test_what_is_left_goes_to_the_queues(world, coordinator, clock, loc):
    world.cache_mgr.buffers[loc] = Buffer(False)
    clock.now = kEnd + 1.0
    assert scan_set(coordinator, {(loc, "a", kPrimary), (loc, "b", kPrimary)}) is False
    assert set(pending(coordinator)) == {(loc, "a", kPrimary), (loc, "b", kPrimary)}
    forget()


def test_a_triple_twice_is_scanned_once_and_queued_for_nothing(world, clock, loc):
    coordinator = world.make(watched(TryToScanNow=None))
    triple = (loc, "f", kPrimary)
    assert scan_set(coordinator, [triple, triple]) is True
    assert len(told("TryToScanNow")) == 1
    assert told() == []


@pytest.mark.parametrize(
    ("triple", "error", "text"),
    [
        ((1, 2), ValueError, "not enough values to unpack (expected 3, got 2)"),
        ((1, 2, 3, 4), ValueError, "too many values to unpack (expected 3)"),
        (5, TypeError, "cannot unpack non-iterable int object"),
    ],
)
def test_an_element_that_is_no_triple_fails_before_anything_is_claimed(
    world, clock, loc, triple, error, text
):
    coordinator = world.make(watched(TryToScanNow=None))
    with pytest.raises(error) as info:
        scan_set(coordinator, [(loc, "f", kPrimary), triple])
    assert str(info.value) == text
    assert told("TryToScanNow", "AddNeedsScanSetToQueues") == []
    assert at_rest(coordinator)


def test_a_failing_scan_leaves_everything_in_order(world, clock, loc):
    failure = RuntimeError("scan")
    a, b = (loc, "a", kPrimary), (loc, "b", kPrimary)
    coordinator = world.make(watched(TryToScanNow=failure, AddNeedsScanSetToQueues=None))
    with pytest.raises(RuntimeError) as info:
        scan_set(coordinator, [a, b])
    assert info.value is failure
    assert told("AddNeedsScanSetToQueues") == [("AddNeedsScanSetToQueues", {a, b})]
    assert at_rest(coordinator)
    forget()


def test_a_failure_of_the_cleanup_replaces_the_first(world, clock, loc):
    first, second = RuntimeError("scan"), RuntimeError("cleanup")
    coordinator = world.make(watched(TryToScanNow=first, AddNeedsScanSetToQueues=second))
    with pytest.raises(RuntimeError) as info:
        scan_set(coordinator, [(loc, "a", kPrimary)])
    assert info.value is second
    assert at_rest(coordinator)
    forget()


def test_a_failing_wall_clock_leaves_everything_in_order(world, loc, monkeypatch):
    failure = RuntimeError("clock")

    def broken():
        raise failure

    coordinator = world.make(watched(TryToScanNow=None, AddNeedsScanSetToQueues=None))
    monkeypatch.setattr(time, "time", broken)
    with pytest.raises(RuntimeError) as info:
        scan_set(coordinator, [(loc, "a", kPrimary)])
    assert info.value is failure
    assert len(told("AddNeedsScanSetToQueues")) == 1
    assert at_rest(coordinator)
    forget()


def test_a_set_without_a_size_fails(coordinator, clock, loc):
    with pytest.raises(TypeError):
        scan_set(coordinator, 5)


def test_a_failure_of_a_real_scan_goes_through_the_set_operation(world, coordinator, clock, loc):
    failure = RuntimeError("scan")
    world.cache_mgr.buffers[loc] = Buffer(False)
    scripted(failure)
    with pytest.raises(RuntimeError) as info:
        scan_set(coordinator, [(loc, "f", kPrimary)])
    assert info.value is failure
    assert info.traceback[-1].name == "Scan"
    assert scopescanner.made[0].destroyed
    assert pending(coordinator) == {(loc, "f", kPrimary): 1}
    assert at_rest(coordinator)
    forget()
