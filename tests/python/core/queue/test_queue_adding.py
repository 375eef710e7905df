"""How a scan enters the queue."""

import pytest
from queue_support import (
    check_invariants,
    kDerived,
    kPrimary,
    local,
    order_of,
    pending,
    remote,
    scopes_in,
    state,
    totals,
    waiting,
)

import hostlog


def test_empty_sequence_changes_nothing(queue):
    before = state(queue)
    queue.AddScanPairs([], kPrimary)
    assert state(queue) == before
    assert order_of(queue) == []


def test_ready_pairs_empty_still_creates_the_target_queue(queue):
    queue._AddReadyScanPairs([], kPrimary, 2, False)
    assert order_of(queue) == [(2, 1)]


def test_any_iterable_of_pairs_will_do(queue):
    queue.AddScanPairs(((local(n), "*") for n in "ab"), kPrimary)
    queue.AddScanPairs([[local("c"), "*"]], kPrimary)
    assert [loc for loc, _ in scopes_in(queue, 2)] == [local("a"), local("b"), local("c")]


def test_priority_none_is_background(queue):
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    queue.AddScanPairs([(local("b"), "*")], kPrimary, None)
    assert pending(queue, local("a")) == {("*", kPrimary): 2}
    assert pending(queue, local("b")) == {("*", kPrimary): 2}


def test_enumerated_priorities_are_numbers(queue, impl):
    queue.AddScanPairs([(local("a"), "*")], kPrimary, impl.kInteractivePriority)
    assert pending(queue, local("a")) == {("*", kPrimary): 1}
    assert queue.First() == (local("a"), "*", kPrimary, 1)


def test_scopes_are_sorted_and_counted_once(queue):
    a = local("a")
    queue.AddScanPairs([(a, "b")], kPrimary)
    queue.AddScanPairs([(a, "a")], kPrimary)
    assert scopes_in(queue, 2) == [(a, ["a", "b"])]
    before = state(queue)
    queue.AddScanPairs([(a, "a")], kPrimary)
    assert state(queue) == before
    assert totals(queue) == (2, 1)


def test_scopes_sort_by_text_not_by_bytes_or_length(queue):
    a = local("a")
    names = ["é", "z", "Z", "aa", "a", "\U0001f600", "\uffff", "ab", ""]
    queue.AddScanPairs([(a, name) for name in names], kPrimary)
    assert scopes_in(queue, 2) == [(a, sorted(names))]


def test_adding_at_an_earlier_priority_moves(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    queue.AddScanPairs([(a, "s")], kPrimary, 1)
    assert scopes_in(queue, 2) == []
    assert scopes_in(queue, 1) == [(a, ["s"])]
    assert pending(queue, a) == {("s", kPrimary): 1}
    assert totals(queue) == (1, 1)
    before = state(queue)
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    assert state(queue) == before


def test_moving_one_of_two_scopes_leaves_the_other(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s"), (a, "t")], kPrimary, 2)
    queue.AddScanPairs([(a, "t")], kPrimary, 0)
    assert scopes_in(queue, 2) == [(a, ["s"])]
    assert scopes_in(queue, 0) == [(a, ["t"])]
    assert pending(queue, a) == {("s", kPrimary): 2, ("t", kPrimary): 0}
    assert totals(queue) == (2, 1)


def test_wildcard_absorbs_scopes(queue):
    a = local("a")
    queue.AddScanPairs([(a, "a"), (a, "b")], kPrimary, 2)
    queue.AddScanPairs([(a, "*")], kPrimary, 2)
    assert scopes_in(queue, 2) == [(a, ["*"])]
    assert pending(queue, a) == {("*", kPrimary): 2}
    assert totals(queue) == (1, 1)


def test_wildcard_absorbs_scopes_of_its_own_scan_name_only(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kDerived, 2)
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    queue.AddScanPairs([(a, "*")], kPrimary, 2)
    assert pending(queue, a) == {("s", kDerived): 2, ("*", kPrimary): 2}
    check_invariants(queue)


def test_absorption_of_the_last_scope_signals_nothing(queue):
    from guiutils import lgtk

    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary)
    lgtk.run_idle()
    queue.AddScanPairs([(a, "*")], kPrimary)
    hostlog.calls.clear()
    lgtk.run_idle()
    assert hostlog.take("emit") == []
    assert scopes_in(queue, 2) == [(a, ["*"])]


def test_absorption_keeps_the_place_of_the_location(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "s"), (b, "s")], kPrimary)
    queue.AddScanPairs([(a, "*")], kPrimary)
    assert scopes_in(queue, 2) == [(a, ["*"]), (b, ["s"])]


def test_scope_under_a_wildcard_as_early(queue):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kPrimary, 1)
    before = state(queue)
    queue.AddScanPairs([(a, "s")], kPrimary, 1)
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    assert {**state(queue), "queues": None} == {**before, "queues": None}
    assert scopes_in(queue, 1) == [(a, ["*"])]
    assert scopes_in(queue, 2) == []


def test_scope_earlier_than_a_wildcard_is_queued_beside_it(queue):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kPrimary, 2)
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    assert pending(queue, a) == {("*", kPrimary): 2}
    queue.AddScanPairs([(a, "s")], kPrimary, 1)
    assert scopes_in(queue, 2) == [(a, ["*"])]
    assert scopes_in(queue, 1) == [(a, ["s"])]
    assert totals(queue) == (2, 1)


def test_wildcard_earlier_than_a_scope_leaves_both(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    queue.AddScanPairs([(a, "*")], kPrimary, 1)
    assert pending(queue, a) == {("s", kPrimary): 2, ("*", kPrimary): 1}
    assert scopes_in(queue, 2) == [(a, ["s"])]
    assert scopes_in(queue, 1) == [(a, ["*"])]


def test_scope_moved_into_a_queue_with_a_wildcard_is_lost(queue):
    """A scope at 2 beside "*" at 1: asking for it at 1 finds it covered after its removal."""
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    queue.AddScanPairs([(a, "*")], kPrimary, 1)
    queue.AddScanPairs([(a, "s")], kPrimary, 1)
    assert pending(queue, a) == {("*", kPrimary): 1}
    assert scopes_in(queue, 2) == []
    assert totals(queue) == (1, 1)


def test_skipped_pair_adds_no_check(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "s")], kPrimary, 1)
    queue.AddScanPairs([(b, "*")], kPrimary, 1)
    queue.AddScanPairs([(a, "s"), (b, "t")], kPrimary, 1, add_to_check=True)
    queue.AddScanPairs([(a, "s"), (b, "*")], kPrimary, 2, True)
    assert dict(queue._fWholeFilesToCheck) == {}


def test_queued_pair_adds_a_check(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "s"), (b, "*")], kPrimary, 1, True)
    assert list(queue._fWholeFilesToCheck.items()) == [(a, 1), (b, 1)]


def test_check_is_overwritten_also_by_a_later_priority_and_keeps_its_place(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "s"), (b, "*")], kPrimary, 1, True)
    queue.AddScanPairs([(a, "t")], kPrimary, 2, True)
    assert list(queue._fWholeFilesToCheck.items()) == [(a, 2), (b, 1)]


def test_checks_are_not_added_without_add_to_check(queue):
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    assert dict(queue._fWholeFilesToCheck) == {}


def test_new_location_goes_to_the_end(queue):
    queue.AddScanPairs([(local(n), "*") for n in "cab"], kPrimary)
    assert [loc for loc, _ in scopes_in(queue, 2)] == [local(n) for n in "cab"]


def test_new_visible_location_goes_to_the_front(queue):
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    queue.UpdateForVisibleDocuments(None, [local("v"), local("w")])
    queue.AddScanPairs([(local("v"), "*"), (local("b"), "*"), (local("w"), "*")], kPrimary)
    assert [loc for loc, _ in scopes_in(queue, 2)] == [local(n) for n in "wvab"]


def test_readding_a_visible_location_moves_it_to_the_front(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "s"), (b, "s")], kPrimary)
    queue.UpdateForVisibleDocuments(None, [b])
    queue.AddScanPairs([(a, "s"), (b, "s")], kPrimary, 1)
    assert [loc for loc, _ in scopes_in(queue, 1)] == [b, a]
    queue.AddScanPairs([(a, "t")], kPrimary, 1)
    assert [loc for loc, _ in scopes_in(queue, 1)] == [b, a]
    queue.UpdateForVisibleDocuments(None, [])
    queue.AddScanPairs([(local("c"), "s")], kPrimary, 1)
    queue.UpdateForVisibleDocuments(None, [a, b])
    queue.AddScanPairs([(local("c"), "t")], kPrimary, 1)
    order = [loc for loc, _ in scopes_in(queue, 1)]
    queue.AddScanPairs([(a, "u")], kPrimary, 1)
    assert [loc for loc, _ in scopes_in(queue, 1)] == [a] + [loc for loc in order if loc != a]


def test_visible_location_moves_forward_even_if_the_wildcard_covers_the_scope(queue):
    """The pair is skipped only after the location was touched."""
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "*"), (b, "*")], kPrimary, 2)
    queue.AddScanPairs([(b, "s")], kPrimary, 1)
    queue.AddScanPairs([(local("c"), "s")], kPrimary, 1)
    assert [loc for loc, _ in scopes_in(queue, 1)] == [b, local("c")]


def test_locations_with_scopes_keep_their_place(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "s"), (b, "s")], kPrimary)
    queue.AddScanPairs([(b, "t"), (a, "t")], kPrimary)
    assert [loc for loc, _ in scopes_in(queue, 2)] == [a, b]


def test_first_remote_location_switches_inspection_on(queue, monkeypatch):
    from loombase import location

    asked = []
    real = location.IsAsyncInspectLocation
    monkeypatch.setattr(
        location, "IsAsyncInspectLocation", lambda loc: asked.append(loc) or real(loc)
    )
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    assert asked == [local("a")]
    assert queue.fAnyAsyncInspectLocation is False
    queue.AddScanPairs([(remote("r"), "*")], kPrimary)
    assert queue.fAnyAsyncInspectLocation is True
    asked.clear()
    queue.AddScanPairs([(local("b"), "*")], kPrimary)
    assert asked == [local("b")], "asked once, by the question of readiness"


def test_is_async_inspect_location_takes_the_truth_of_the_answer(queue, monkeypatch):
    from loombase import location

    monkeypatch.setattr(location, "IsAsyncInspectLocation", lambda loc: [])
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    assert queue.fAnyAsyncInspectLocation is False


def test_pairs_before_the_first_remote_one_count_as_ready(queue):
    r, a = remote("r"), local("a")
    queue.AddScanPairs([(a, "*"), (r, "*"), (local("b"), "*")], kPrimary)
    assert [loc for loc, _ in scopes_in(queue, 2)] == [a, local("b")]
    assert waiting(queue, r) == ({(r, "*", kPrimary, 2)}, None)


def test_ready_remote_location_is_queued(queue, cache):
    r = remote("r")
    cache.ready.add(r)
    queue.AddScanPairs([(r, "*")], kPrimary)
    assert scopes_in(queue, 2) == [(r, ["*"])]
    assert waiting(queue, r) is None


def test_location_that_is_not_ready_waits_with_its_check(queue):
    r = remote("r")
    queue.AddScanPairs([(r, "*"), (r, "s")], kPrimary, 1, True)
    assert waiting(queue, r) == ({(r, "*", kPrimary, 1), (r, "s", kPrimary, 1)}, 1)
    assert dict(queue._fWholeFilesToCheck) == {}
    assert order_of(queue) == [], "no ready pair, no single queue"


def test_waiting_location_without_check_keeps_an_earlier_check_priority(queue):
    r = remote("r")
    queue.AddScanPairs([(r, "*")], kPrimary, 1, True)
    queue.AddScanPairs([(r, "s")], kPrimary, 2)
    assert waiting(queue, r)[1] == 1


def test_waiting_location_answers_for_all_its_scans_on_the_ready_path(queue, item):
    """A location that waits hides a later add of the same location that counts as ready."""
    r = remote("r")
    queue._AddItemsWaitingForInspect(r, [item(r, "*", kPrimary, 2)])
    queue._AddReadyScanPairs([(r, "s")], kPrimary, 2, True)
    assert pending(queue, r) == {}
    assert dict(queue._fWholeFilesToCheck) == {}


def test_earlier_ready_add_takes_the_waiting_entry(queue, item):
    """Existing priority 2 against 1: the removal takes the waiting entry, then the scan enters."""
    r = remote("r")
    queue._AddItemsWaitingForInspect(r, [item(r, "s", kPrimary, 2)])
    queue._AddReadyScanPairs([(r, "s")], kPrimary, 1, False)
    assert waiting(queue, r) is None
    assert pending(queue, r) == {("s", kPrimary): 1}


def test_pair_that_is_no_pair_fails_like_unpacking(queue):
    a = local("a")
    for bad, error, text in (
        ((a,), ValueError, "not enough values to unpack (expected 2, got 1)"),
        ((), ValueError, "not enough values to unpack (expected 2, got 0)"),
        ((a, "*", "x"), ValueError, "too many values to unpack (expected 2)"),
        (7, TypeError, "cannot unpack non-iterable int object"),
        (None, TypeError, "cannot unpack non-iterable NoneType object"),
        (a, TypeError, "cannot unpack non-iterable CLocalFileLocation object"),
    ):
        for add in (
            lambda: queue.AddScanPairs([bad], kPrimary),
            lambda: queue._AddReadyScanPairs([bad], kPrimary, 2, False),
        ):
            with pytest.raises(error) as caught:
                add()
            assert str(caught.value) == text
    assert queue.Empty()


def test_ready_pairs_before_a_bad_one_have_been_queued(queue):
    a, b = local("a"), local("b")
    with pytest.raises(ValueError, match=r"expected 2, got 1"):
        queue._AddReadyScanPairs([(a, "*"), (b,), (local("c"), "*")], kPrimary, 2, True)
    assert queue.GetAllLocations() == {a}
    assert dict(queue._fWholeFilesToCheck) == {a: 2}
    check_invariants(queue)


def test_waiting_pairs_before_a_bad_one_wait(queue):
    r = remote("r")
    with pytest.raises(ValueError, match=r"expected 2, got 1"):
        queue.AddScanPairs([(r, "*"), (local("b"),)], kPrimary)
    assert waiting(queue, r) == ({(r, "*", kPrimary, 2)}, None)
    assert queue.fAnyAsyncInspectLocation is True


def test_failing_iterator_of_pairs(queue):
    failure = RuntimeError("no more pairs")

    def pairs():
        yield remote("r"), "*"
        raise failure

    with pytest.raises(RuntimeError) as caught:
        queue.AddScanPairs(pairs(), kPrimary)
    assert caught.value is failure
    assert queue.GetAllLocations() == {remote("r")}


def test_pairs_that_are_no_sequence(queue):
    with pytest.raises(TypeError, match="'int' object is not iterable"):
        queue.AddScanPairs(7, kPrimary)


def test_locations_by_equality(queue):
    """Equal locations are one location; the first object is the one that is kept."""

    class Path:
        def __init__(self, name):
            self.name = name

        def __eq__(self, other):
            return isinstance(other, Path) and self.name == other.name

        def __hash__(self):
            return hash(self.name)

    first, second = Path("a"), Path("a")
    queue.AddScanPairs([(first, "s")], kPrimary)
    queue.AddScanPairs([(second, "t"), (Path("b"), "*")], kPrimary)
    assert [list(s) for _, s in scopes_in(queue, 2)] == [["s", "t"], ["*"]]
    assert queue.First().loc is first
    assert queue.RemoveScanTriple((second, "s", kPrimary)) is True
    assert pending(queue, first) == {("t", kPrimary): 2}


def test_unhashable_location_fails(queue):
    with pytest.raises(TypeError, match="unhashable type: 'list'"):
        queue.AddScanPairs([([], "*")], kPrimary)
    assert queue.Empty()


def test_any_hashable_object_is_a_location(queue):
    locs = [1, "text", None, (1, 2), 2.5, frozenset({1})]
    queue.AddScanPairs([(loc, "*") for loc in locs], kPrimary)
    assert [loc for loc, _ in scopes_in(queue, 2)] == locs
    assert queue.GetAllLocations() == set(locs)


def test_many_scopes_stay_sorted(queue):
    a = local("a")
    names = [f"scope{(i * 37) % 101}" for i in range(101)]
    for name in names:
        queue.AddScanPairs([(a, name)], kPrimary)
    assert scopes_in(queue, 2) == [(a, sorted(names))]
    assert totals(queue) == (101, 1)
    check_invariants(queue)
    for name in names[::2]:
        assert queue.RemoveScanTriple((a, name, kPrimary)) is True
    assert scopes_in(queue, 2) == [(a, sorted(names[1::2]))]
    check_invariants(queue)
