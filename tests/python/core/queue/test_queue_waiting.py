"""Scans that wait for the inspection of their location, and scans that wait for data."""

import pytest
from guiutils import lgtk
from queue_support import (
    check_invariants,
    kDerived,
    kPrimary,
    local,
    pending,
    remote,
    scopes_in,
    state,
    waiting,
)


def test_items_are_added_to_the_set_and_the_check_stays(queue, item):
    r = remote("r")
    queue._AddItemsWaitingForInspect(r, [item(r, "s")])
    assert waiting(queue, r) == ({(r, "s", kPrimary, 2)}, None)
    queue._SetWholeFileCheckWaitingForInspect(r, 1)
    queue._AddItemsWaitingForInspect(r, (i for i in [item(r, "t"), item(r, "s")]))
    assert waiting(queue, r) == ({(r, "s", kPrimary, 2), (r, "t", kPrimary, 2)}, 1)


def test_items_are_scan_items(queue, impl):
    r = remote("r")
    queue.AddScanPairs([(r, "s")], kPrimary)
    (only,) = queue._fWaitingForInspectByLoc[r].item_set
    assert isinstance(only, impl.CScanItem)
    assert only == impl.CScanItem(r, "s", kPrimary, 2)


def test_no_items_still_create_the_record(queue):
    queue._AddItemsWaitingForInspect(remote("r"), [])
    assert waiting(queue, remote("r")) == (set(), None)
    assert queue.GetWaitingCount() == 1


@pytest.mark.parametrize("priority", [0, 1, 2, None])
def test_check_priority_is_replaced_outright(queue, item, priority):
    r = remote("r")
    queue._AddItemsWaitingForInspect(r, [item(r, "s")])
    queue._SetWholeFileCheckWaitingForInspect(r, 1)
    queue._SetWholeFileCheckWaitingForInspect(r, priority)
    assert waiting(queue, r) == ({(r, "s", kPrimary, 2)}, priority)


def test_check_priority_without_record_creates_one(queue):
    queue._SetWholeFileCheckWaitingForInspect(remote("r"), None)
    assert waiting(queue, remote("r")) == (set(), None)


def test_location_counts_once_and_parked_scans_each(queue, item):
    queue.AddScanPairs([(remote("r"), "s"), (remote("r"), "t")], kPrimary)
    assert queue.GetWaitingCount() == 1
    queue.StartWaitingForData(item(local("a"), "s"))
    queue.StartWaitingForData(item(local("a"), "t"))
    assert queue.GetWaitingCount() == 3


def test_move_of_a_location_without_scans_changes_nothing(queue, item):
    r = remote("r")
    queue._AddItemsWaitingForInspect(r, [item(r, "s")])
    before = state(queue)
    queue._MoveScansForLocToWaitingForInspect(r)
    queue._MoveScansForLocToWaitingForInspect(r, 1)
    queue._MoveScansForLocToWaitingForInspect(local("unknown"), 1)
    assert state(queue) == before


def test_move_takes_all_scans_and_reports_the_removal(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s"), (a, "t")], kPrimary, 2)
    queue.AddScanPairs([(a, "*")], kDerived, 1)
    lgtk.run_idle()
    queue._MoveScansForLocToWaitingForInspect(a)
    assert waiting(queue, a) == (
        {(a, "s", kPrimary, 2), (a, "t", kPrimary, 2), (a, "*", kDerived, 1)},
        None,
    )
    assert queue._fPendingLocationsRemoved == {a}
    assert queue.Empty(False)
    check_invariants(queue)


def test_move_with_a_due_check_has_it_in_both_places(queue):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kPrimary, 1, True)
    queue._MoveScansForLocToWaitingForInspect(a)
    assert waiting(queue, a) == ({(a, "*", kPrimary, 1)}, 1)
    assert dict(queue._fWholeFilesToCheck) == {a: 1}


def test_move_with_a_given_check_priority_prefers_it(queue):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kPrimary, 1, True)
    queue._MoveScansForLocToWaitingForInspect(a, 2)
    assert waiting(queue, a)[1] == 2


def test_move_overwrites_the_old_check_priority_also_by_none(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kPrimary)
    queue._AddItemsWaitingForInspect(a, [item(a, "w")])
    queue._SetWholeFileCheckWaitingForInspect(a, 0)
    queue._MoveScansForLocToWaitingForInspect(a)
    assert waiting(queue, a) == ({(a, "w", kPrimary, 2), (a, "*", kPrimary, 2)}, None)


def test_ready_brings_the_scans_back(queue, cache):
    r = remote("r")
    queue.AddScanPairs([(r, "s")], kPrimary, 1)
    queue.AddScanPairs([(r, "*")], kDerived, 2)
    cache.make_ready(r)
    assert waiting(queue, r) is None
    assert pending(queue, r) == {("s", kPrimary): 1, ("*", kDerived): 2}
    check_invariants(queue)


def test_ready_skips_the_question_of_readiness(queue, cache):
    r = remote("r")
    queue.AddScanPairs([(r, "*")], kPrimary)
    cache.emit("now-tree-branch-ready", cache, {r})
    assert pending(queue, r) == {("*", kPrimary): 2}, "though the cache still says no"


def test_ready_adds_two_scans_of_one_key_in_one_call(impl, cache):
    calls = []

    class Spy(impl._CScanQueue):
        def _AddReadyScanPairs(self, ready_pair_list, scan_name, priority, add_to_check):
            calls.append((set(ready_pair_list), scan_name, priority, add_to_check))
            super()._AddReadyScanPairs(ready_pair_list, scan_name, priority, add_to_check)

    queue = Spy(cache)
    queue.SetScansToOrder({kPrimary: 1, kDerived: 2})
    r, s = remote("r"), remote("s")
    queue.AddScanPairs([(r, "a"), (r, "b"), (s, "a")], kPrimary)
    queue._SetWholeFileCheckWaitingForInspect(s, 0)
    queue.AddScanPairs([(r, "c")], kPrimary, 1)
    cache.make_ready(r, s)
    assert sorted(calls, key=lambda c: (c[2], c[3])) == [
        ({(r, "c")}, kPrimary, 1, False),
        ({(r, "a"), (r, "b")}, kPrimary, 2, False),
        ({(s, "a")}, kPrimary, 2, True),
    ]
    assert all(isinstance(c[3], bool) for c in calls)


def test_ready_check_gets_the_priority_of_the_scan(queue, cache):
    r = remote("r")
    queue.AddScanPairs([(r, "*")], kPrimary, 2, True)
    queue._SetWholeFileCheckWaitingForInspect(r, 0)
    cache.make_ready(r)
    assert dict(queue._fWholeFilesToCheck) == {r: 2}


def test_ready_check_priority_0_is_a_check(queue, cache):
    r = remote("r")
    queue.AddScanPairs([(r, "*")], kPrimary, 0, True)
    cache.make_ready(r)
    assert dict(queue._fWholeFilesToCheck) == {r: 0}


def test_ready_without_check_adds_none(queue, cache):
    r = remote("r")
    queue.AddScanPairs([(r, "*")], kPrimary)
    cache.make_ready(r)
    assert dict(queue._fWholeFilesToCheck) == {}


def test_ready_with_no_waiting_location_does_nothing(impl, cache):
    calls = []

    class Spy(impl._CScanQueue):
        def _AddReadyScanPairs(self, ready_pair_list, scan_name, priority, add_to_check):
            calls.append(ready_pair_list)

    queue = Spy(cache)
    queue.AddScanPairs([(remote("waits"), "*")], kPrimary)
    before = state(queue)
    cache.emit("now-tree-branch-ready", cache, {remote("r"), local("a")})
    cache.emit("now-tree-branch-ready", cache, set())
    assert calls == []
    assert state(queue) == before


def test_ready_of_one_location_leaves_the_others(queue, cache):
    r, s = remote("r"), remote("s")
    queue.AddScanPairs([(r, "*"), (s, "*")], kPrimary)
    cache.make_ready(s)
    assert queue.GetAllLocations() == {r, s}
    assert queue.LocationInQueue(s) and not queue.LocationInQueue(r)


def test_ready_of_an_empty_record_only_drops_it(queue, cache):
    r = remote("r")
    queue._SetWholeFileCheckWaitingForInspect(r, 1)
    cache.make_ready(r)
    assert waiting(queue, r) is None
    assert dict(queue._fWholeFilesToCheck) == {}


def test_ready_location_that_is_visible_goes_to_the_front(queue, cache):
    r = remote("r")
    queue.UpdateForVisibleDocuments(None, [r])
    queue.AddScanPairs([(local("a"), "*"), (r, "*")], kPrimary)
    cache.make_ready(r)
    assert [loc for loc, _ in scopes_in(queue, 2)] == [r, local("a")]


def test_ready_called_directly_by_keyword(queue, cache):
    r = remote("r")
    queue.AddScanPairs([(r, "*")], kPrimary)
    assert queue._CB_TreeBranchesNowReady(data=cache, ready_set=[r]) is None
    assert queue.LocationInQueue(r)


def test_inspect_failed_and_cleared_change_nothing(queue, cache):
    r = remote("r")
    queue.AddScanPairs([(r, "*")], kPrimary, 2, True)
    before = state(queue)
    cache.emit("inspect-failed", cache, {r})
    cache.emit("cleared", cache)
    assert state(queue) == before
    assert queue.GetWaitingCount() == 1


def test_start_waiting_parks_the_scan(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "s"), (a, "t")], kPrimary, 1)
    parked = item(a, "s", kPrimary, 1)
    assert queue.StartWaitingForData(parked) is None
    assert queue._fScanItemsWaitingForData == {parked}
    assert pending(queue, a) == {("t", kPrimary): 1}
    check_invariants(queue)


def test_start_waiting_twice_removes_once_and_parks_once(impl, cache):
    calls = []

    class Spy(impl._CScanQueue):
        def RemoveScanTriple(self, scan_triple, priority=None, remove_waiting=True):
            calls.append((scan_triple, priority, remove_waiting))
            return super().RemoveScanTriple(scan_triple, priority, remove_waiting)

    queue = Spy(cache)
    queue.SetScansToOrder({kPrimary: 1})
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary)
    parked = impl.CScanItem(a, "s", kPrimary, 2)
    queue.StartWaitingForData(parked)
    queue.AddScanPairs([(a, "s")], kPrimary)
    queue.StartWaitingForData(parked)
    assert calls == [((a, "s", kPrimary), 2, True)]
    assert queue.GetWaitingCount() == 1
    assert pending(queue, a) == {("s", kPrimary): 2}


def test_start_waiting_with_a_wrong_priority_parks_and_removes_nothing(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    queue.StartWaitingForData(item(a, "s", kPrimary, 1))
    assert pending(queue, a) == {("s", kPrimary): 2}
    assert queue.GetWaitingCount() == 1


def test_finished_waiting_queues_again_at_the_priority(queue, item):
    a = local("a")
    parked = item(a, "s", kPrimary, 1)
    queue.StartWaitingForData(parked)
    assert queue.FinishedWaitingForData(parked) is None
    assert pending(queue, a) == {("s", kPrimary): 1}
    assert queue._fScanItemsWaitingForData == set()
    assert dict(queue._fWholeFilesToCheck) == {}


def test_finished_waiting_of_an_unknown_item(queue, item):
    before = state(queue)
    queue.FinishedWaitingForData(item(local("a"), "s"))
    assert state(queue) == before


def test_finished_waiting_of_an_equal_item(queue, item):
    queue.StartWaitingForData(item(local("a"), "s"))
    queue.FinishedWaitingForData(item(local("a"), "s"))
    assert queue.LocationInQueue(local("a"))


def test_finished_waiting_may_be_covered_already(queue, item):
    a = local("a")
    parked = item(a, "s", kPrimary, 2)
    queue.StartWaitingForData(parked)
    queue.AddScanPairs([(a, "*")], kPrimary, 2)
    queue.FinishedWaitingForData(parked)
    assert pending(queue, a) == {("*", kPrimary): 2}


def test_finished_waiting_on_a_location_that_is_not_ready_any_more(queue, cache, item):
    r = remote("r")
    cache.ready.add(r)
    queue.AddScanPairs([(r, "s")], kPrimary)
    parked = queue.First()
    queue.StartWaitingForData(parked)
    cache.ready.clear()
    queue.FinishedWaitingForData(parked)
    assert waiting(queue, r) == ({(r, "s", kPrimary, 2)}, None)


def test_parked_scan_keeps_the_queue_not_empty_also_through_clear(queue, item):
    queue.StartWaitingForData(item(local("a")))
    assert queue.Empty() is False
    queue.Clear()
    assert queue.Empty() is False


def test_parked_item_is_the_given_object(queue, item):
    parked = item(local("a"))
    queue.StartWaitingForData(parked)
    (only,) = queue._fScanItemsWaitingForData
    assert only is parked


def test_parking_an_item_with_priority_none_removes_at_any_priority(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 1)
    parked = item(a, "s", kPrimary, None)
    queue.StartWaitingForData(parked)
    assert queue.Empty(False)
    queue.FinishedWaitingForData(parked)
    assert pending(queue, a) == {("s", kPrimary): 2}
