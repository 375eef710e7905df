"""How the next scan is chosen and how a scan leaves."""

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

kNothing = (None, None, None, None)


def drain(queue):
    """All scans in the order in which `First` names them."""
    done = []
    while (item := queue.First()).loc is not None:
        done.append(tuple(item))
        queue.ScanCompleted(item)
    return done


def test_first_on_empty_queues(queue, impl):
    item = queue.First()
    assert tuple(item) == kNothing
    assert isinstance(item, impl.CScanItem)
    assert order_of(queue) == []
    queue._GetSingleQueue(kPrimary, 2)
    assert tuple(queue.First()) == kNothing
    assert tuple(queue._FirstOrNone()) == kNothing


def test_first_names_the_scan_with_its_queue(queue, impl):
    queue.AddScanPairs([(local("a"), "s")], kPrimary, 1)
    item = queue.First()
    assert isinstance(item, impl.CScanItem)
    assert (item.loc, item.scope_name, item.scan_name) == (local("a"), "s", kPrimary)
    assert item.priority == 1
    assert item.loc is local("a")


def test_first_twice_gives_equal_items(queue):
    queue.AddScanPairs([(local("a"), "*"), (local("b"), "*")], kPrimary)
    before = state(queue)
    assert queue.First() == queue.First()
    assert state(queue) == before


def test_scopes_of_a_location_one_after_the_other(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "b"), (b, "*"), (a, "a")], kPrimary)
    assert [item[:2] for item in drain(queue)] == [(a, "a"), (a, "b"), (b, "*")]


def test_earlier_priority_first_also_if_added_later(queue):
    queue.AddScanPairs([(local("a"), "*")], kPrimary, 2)
    queue.AddScanPairs([(local("b"), "*")], kPrimary, 1)
    queue.AddScanPairs([(local("c"), "*")], kDerived, 0)
    assert [item[0] for item in drain(queue)] == [local("c"), local("b"), local("a")]


def test_order_of_scan_names_decides_within_a_priority(queue):
    queue.AddScanPairs([(local("a"), "*"), (local("b"), "*")], kDerived)
    queue.AddScanPairs([(local("b"), "*"), (local("a"), "*")], kPrimary)
    assert [item[0:3:2] for item in drain(queue)] == [
        (local("b"), kPrimary),
        (local("a"), kPrimary),
        (local("a"), kDerived),
        (local("b"), kDerived),
    ]


def test_first_of_a_shared_queue_reports_the_name_it_was_made_for(queue):
    queue.SetScansToOrder({"one": 1, "other": 1})
    queue._GetSingleQueue("one", 2)
    queue.AddScanPairs([(local("a"), "*")], "other")
    assert queue.First().scan_name == "one"


def test_first_moves_a_location_that_is_not_ready_to_waiting(queue, cache):
    r, a = remote("r"), local("a")
    cache.ready.add(r)
    queue.AddScanPairs([(r, "s"), (r, "t")], kPrimary)
    queue.AddScanPairs([(r, "*")], kDerived)
    queue.AddScanPairs([(a, "*")], kPrimary)
    cache.ready.clear()
    assert queue.First() == (a, "*", kPrimary, 2)
    assert waiting(queue, r) == (
        {(r, "s", kPrimary, 2), (r, "t", kPrimary, 2), (r, "*", kDerived, 2)},
        None,
    )
    assert not queue.LocationInQueue(r)
    check_invariants(queue)


def test_first_or_none_says_that_the_choice_must_be_made_again(queue, cache):
    r = remote("r")
    cache.ready.add(r)
    queue.AddScanPairs([(r, "*")], kPrimary)
    cache.ready.clear()
    assert queue._FirstOrNone() is None
    assert tuple(queue._FirstOrNone()) == kNothing


def test_first_moves_all_that_are_not_ready(queue, cache):
    remotes = [remote(str(i)) for i in range(5)]
    cache.ready.update(remotes)
    queue.AddScanPairs([(r, "*") for r in remotes], kPrimary)
    cache.ready = {remotes[3]}
    assert queue.First().loc == remotes[3]
    assert set(queue._fWaitingForInspectByLoc) == set(remotes[:3])


def test_first_checks_that_the_location_left_the_head(impl, cache):
    class Stubborn(impl._CScanQueue):
        moves = 0

        def _MoveScansForLocToWaitingForInspect(self, loc, check_whole_file_priority=None):
            self.moves += 1
            if self.moves > 3:
                super()._MoveScansForLocToWaitingForInspect(loc, check_whole_file_priority)

    queue = Stubborn(cache)
    queue.SetScansToOrder({kPrimary: 1})
    r = remote("r")
    cache.ready.add(r)
    queue.AddScanPairs([(r, "*")], kPrimary)
    cache.ready.clear()
    if __debug__:
        with pytest.raises(AssertionError):
            queue.First()
        assert queue.moves == 1
    else:
        assert tuple(queue.First()) == kNothing
        assert queue.moves == 4


def test_scan_completed_removes_and_counts(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary)
    assert queue.ScanCompleted(item(a, "s")) is None
    assert queue.Empty()
    assert {tuple(k): v for k, v in queue._fCompletedCount.items()} == {(a, "s", kPrimary, None): 1}


def test_scan_completed_for_a_scan_that_left_still_counts(queue, item):
    a = local("a")
    queue.ScanCompleted(item(a, "s"))
    queue.ScanCompleted(item(a, "s", kPrimary, 1))
    assert queue.GetScanCount(item(a, "s")) == 2


def test_scan_completed_at_another_priority_removes_nothing(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 1)
    queue.ScanCompleted(item(a, "s", kPrimary, 2))
    assert pending(queue, a) == {("s", kPrimary): 1}
    assert queue.GetScanCount(item(a, "s")) == 1


def test_scan_completed_with_priority_none_finds_the_scan(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 1)
    queue.ScanCompleted(item(a, "s", kPrimary, None))
    assert queue.Empty()


def test_remove_with_a_wrong_priority_changes_nothing(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    before = state(queue)
    assert queue.RemoveScanTriple((a, "s", kPrimary), 1) is False
    assert state(queue) == before


def test_remove_without_priority_finds_it(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 0)
    assert queue.RemoveScanTriple((a, "s", kPrimary)) is True
    assert queue.Empty()
    assert queue.RemoveScanTriple((a, "s", kPrimary)) is False


def test_remove_of_the_last_scope_takes_the_location_out(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "s"), (a, "t"), (b, "*")], kPrimary)
    assert queue.RemoveScanTriple((a, "s", kPrimary)) is True
    assert scopes_in(queue, 2) == [(a, ["t"]), (b, ["*"])]
    assert queue.RemoveScanTriple((a, "t", kPrimary), 2) is True
    assert scopes_in(queue, 2) == [(b, ["*"])]
    assert order_of(queue) == [(2, 1)]


def test_remove_without_priority_in_the_waiting_area_takes_all_priorities(queue, item):
    r = remote("r")
    other = item(r, "t", kPrimary, 1)
    queue._AddItemsWaitingForInspect(
        r, [item(r, "s", kPrimary, 2), item(r, "s", kPrimary, 1), other, item(r, "s", kDerived, 2)]
    )
    assert queue.RemoveScanTriple((r, "s", kPrimary)) is True
    assert waiting(queue, r)[0] == {tuple(other), (r, "s", kDerived, 2)}
    assert queue.RemoveScanTriple((r, "s", kPrimary)) is False


def test_remove_with_priority_on_a_waiting_location_is_true_without_the_item(queue, item):
    r = remote("r")
    queue._AddItemsWaitingForInspect(r, [item(r, "s", kPrimary, 2)])
    assert queue.RemoveScanTriple((r, "s", kPrimary), 1) is True
    assert queue.RemoveScanTriple((r, "other", "scan"), 2) is True
    assert waiting(queue, r) == ({(r, "s", kPrimary, 2)}, None)
    assert queue.RemoveScanTriple((r, "s", kPrimary), 2) is True
    assert waiting(queue, r) is None


def test_remove_of_the_last_waiting_item_drops_its_check(queue, item):
    r = remote("r")
    queue._AddItemsWaitingForInspect(r, [item(r, "s", kPrimary, 2)])
    queue._SetWholeFileCheckWaitingForInspect(r, 1)
    assert queue.RemoveScanTriple((r, "s", kPrimary)) is True
    assert waiting(queue, r) is None
    assert dict(queue._fWholeFilesToCheck) == {}


def test_remove_from_an_empty_waiting_set_drops_the_entry(queue):
    r = remote("r")
    queue._SetWholeFileCheckWaitingForInspect(r, 1)
    assert queue.RemoveScanTriple((r, "s", kPrimary)) is False
    assert waiting(queue, r) is None


def test_remove_deals_with_the_waiting_entry_alone(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary)
    queue._AddItemsWaitingForInspect(a, [item(a, "s", kPrimary, 2), item(a, "t", kPrimary, 2)])
    assert queue.RemoveScanTriple((a, "s", kPrimary), 2) is True
    assert pending(queue, a) == {("s", kPrimary): 2}
    assert waiting(queue, a)[0] == {(a, "t", kPrimary, 2)}


def test_remove_with_remove_waiting_false_works_on_the_queues(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary)
    queue._AddItemsWaitingForInspect(a, [item(a, "s", kPrimary, 2)])
    assert queue.RemoveScanTriple((a, "s", kPrimary), None, False) is True
    assert pending(queue, a) == {}
    assert waiting(queue, a)[0] == {(a, "s", kPrimary, 2)}


def test_remove_without_priority_uses_the_waiting_priority_when_waiting_is_ignored(queue, item):
    """The location isn't queued: the priority found is the waiting one, and no scan has it."""
    r = remote("r")
    queue._AddItemsWaitingForInspect(r, [item(r, "s", kPrimary, 2)])
    assert queue.RemoveScanTriple((r, "s", kPrimary), remove_waiting=False) is False
    assert waiting(queue, r)[0] == {(r, "s", kPrimary, 2)}


def test_remove_of_an_absorbed_scan(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s"), (a, "*")], kPrimary)
    assert queue.RemoveScanTriple((a, "s", kPrimary)) is False
    assert queue.RemoveScanTriple((a, "s", kPrimary), 2) is False
    assert scopes_in(queue, 2) == [(a, ["*"])]


def test_remove_of_a_scan_that_only_the_map_knows(queue):
    """The scope isn't at its place in the list: false, though the map has been changed."""
    a = local("a")
    queue.AddScanPairs([(a, "m")], kPrimary)
    queue._AddScanToPerLocationMap(a, "b", kPrimary, 2)
    queue._AddScanToPerLocationMap(a, "z", kPrimary, 2)
    assert queue.RemoveScanTriple((a, "b", kPrimary), 2) is False
    assert queue.RemoveScanTriple((a, "z", kPrimary), 2) is False
    assert pending(queue, a) == {("m", kPrimary): 2}
    assert scopes_in(queue, 2) == [(a, ["m"])]


def test_triple_that_is_no_triple_fails_like_unpacking(queue):
    a = local("a")
    for bad, error, text in (
        ((a, "s"), ValueError, "not enough values to unpack (expected 3, got 2)"),
        ((a, "s", kPrimary, 2), ValueError, "too many values to unpack (expected 3)"),
        (7, TypeError, "cannot unpack non-iterable int object"),
    ):
        with pytest.raises(error) as caught:
            queue.RemoveScanTriple(bad)
        assert str(caught.value) == text


def test_first_keeps_serving_while_the_queue_changes(queue):
    """Between `First` and `ScanCompleted` the scan may go and others may come."""
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "*")], kPrimary)
    item = queue.First()
    queue.Clear()
    queue.AddScanPairs([(b, "*")], kPrimary)
    queue.ScanCompleted(item)
    assert queue.First().loc == b
    assert totals(queue) == (1, 1)


def test_no_idle_and_no_question_in_first(queue):
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    hostlog.calls.clear()
    queue.First()
    assert hostlog.names() == []
