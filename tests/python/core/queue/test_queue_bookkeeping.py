"""Single queues, the per-location map, the counters, priorities of scans, emptiness."""

import pytest
from queue_support import (
    check_invariants,
    kDerived,
    kPrimary,
    local,
    order_of,
    pending,
    remote,
    state,
    totals,
    waiting,
)

import hostlog


def test_get_single_queue_without_order_uses_order_0(queue):
    known = queue._GetSingleQueue(kPrimary, 2)
    unknown = queue._GetSingleQueue("unknown", 2)
    assert (unknown.fScanName, unknown.fPriority, unknown.fOrder) == ("unknown", 2, 0)
    assert list(queue._fOrderedQueues) == [unknown, known]


def test_get_single_queue_without_order_prints_a_notice_in_debug_mode(queue, capsys):
    queue._GetSingleQueue("unknown", 2)
    queue._GetSingleQueue(kPrimary, 2)
    expected = "Scan without order: unknown\n" if __debug__ else ""
    assert capsys.readouterr().out == expected


def test_get_single_queue_prints_the_notice_each_time(queue, capsys):
    queue._GetSingleQueue("unknown", 2)
    queue._GetSingleQueue("unknown", 2)
    expected = "Scan without order: unknown\n" * 2 if __debug__ else ""
    assert capsys.readouterr().out == expected


def test_get_single_queue_twice_gives_the_same_object(queue):
    first = queue._GetSingleQueue(kPrimary, 2)
    assert queue._GetSingleQueue(kPrimary, 2) is first
    assert len(queue._fOrderedQueues) == 1


def test_get_single_queue_gives_an_emptied_queue_again(queue):
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    single = queue._GetSingleQueue(kPrimary, 2)
    assert len(single.fOrderedDict) == 1
    queue.ScanCompleted(queue.First())
    assert len(single.fOrderedDict) == 0
    assert queue._GetSingleQueue(kPrimary, 2) is single
    assert list(queue._fOrderedQueues) == [single]


def test_single_queues_are_sorted_by_priority_and_order(queue):
    queue.SetScansToOrder({"one": 1, "five": 5, "two": 2})
    queue._GetSingleQueue("one", 2)
    queue._GetSingleQueue("five", 1)
    queue._GetSingleQueue("two", 1)
    assert order_of(queue) == [(1, 2), (1, 5), (2, 1)]


def test_names_that_share_an_order_share_a_queue(queue):
    queue.SetScansToOrder({"one": 1, "other": 1})
    single = queue._GetSingleQueue("one", 2)
    assert queue._GetSingleQueue("other", 2) is single
    assert single.fScanName == "one"
    assert queue._GetSingleQueue("other", 1) is not single


def test_set_scans_to_order_keeps_the_mapping_itself(queue):
    orders = {"one": 1}
    queue.SetScansToOrder(orders)
    assert queue._fScansToOrder is orders
    orders["two"] = 9
    assert queue._GetSingleQueue("two", 2).fOrder == 9


def test_set_scans_to_order_moves_nothing(queue):
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    queue.SetScansToOrder({kPrimary: 8})
    assert order_of(queue) == [(2, 1)]
    assert queue._GetSingleQueue(kPrimary, 1).fOrder == 8
    assert order_of(queue) == [(1, 8), (2, 1)]


def test_negative_orders_and_priorities(queue):
    queue.SetScansToOrder({"low": -3})
    queue._GetSingleQueue("low", 2)
    queue._GetSingleQueue("low", -1)
    queue._GetSingleQueue("none", 2)
    assert order_of(queue) == [(-1, -3), (2, -3), (2, 0)]


def test_add_to_map_creates_record_and_counts(queue):
    a = local("a")
    queue._AddScanToPerLocationMap(a, "s", kPrimary, 2)
    info = queue._fPerLocationInfo[a]
    assert dict(info.scan_name_counts) == {kPrimary: 1}
    assert dict(info.pending_dict) == {("s", kPrimary): 2}
    assert totals(queue) == (1, 1)
    assert queue._fPendingLocationsAdded == {a}


def test_records_unpack_in_their_order(queue):
    a = remote("a")
    queue.AddScanPairs([(local("a"), "s")], kPrimary)
    queue._SetWholeFileCheckWaitingForInspect(a, 1)
    scan_name_counts, pending_dict = queue._fPerLocationInfo[local("a")]
    assert (dict(scan_name_counts), dict(pending_dict)) == ({kPrimary: 1}, {("s", kPrimary): 2})
    scan_count, file_count = queue._fPerScanNameCounts[kPrimary]
    assert (scan_count, file_count) == (1, 1)
    counts = queue._fPerScanNameCounts[kPrimary]
    assert (counts.scan_count, counts.file_count) == (1, 1)
    item_set, check_priority = queue._fWaitingForInspectByLoc[a]
    record = queue._fWaitingForInspectByLoc[a]
    assert (set(item_set), check_priority) == (set(), 1)
    assert (set(record.item_set), record.check_whole_file_priority) == (set(), 1)


def test_add_to_map_counts_files_by_scan_name(queue):
    a, b = local("a"), local("b")
    queue._AddScanToPerLocationMap(a, "s", kPrimary, 2)
    queue._AddScanToPerLocationMap(a, "t", kPrimary, 1)
    queue._AddScanToPerLocationMap(b, "s", kPrimary, 2)
    queue._AddScanToPerLocationMap(b, "s", kDerived, 2)
    assert totals(queue) == (3, 2)
    assert totals(queue, kDerived) == (1, 1)


def test_add_to_map_checks_for_a_double_entry(queue):
    a = local("a")
    queue._AddScanToPerLocationMap(a, "s", kPrimary, 2)
    if __debug__:
        with pytest.raises(AssertionError):
            queue._AddScanToPerLocationMap(a, "s", kPrimary, 2)
        assert totals(queue) == (1, 1)
    else:
        queue._AddScanToPerLocationMap(a, "s", kPrimary, 1)
        assert pending(queue, a) == {("s", kPrimary): 1}
        assert totals(queue) == (2, 1)


def test_remove_from_map_of_an_unknown_location(queue):
    before = state(queue)
    assert queue._RemoveScanFromPerLocationMap(local("a"), "s", kPrimary, 2) is False
    assert state(queue) == before


def test_remove_from_map_with_a_wrong_priority(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    before = state(queue)
    assert queue._RemoveScanFromPerLocationMap(a, "s", kPrimary, 1) is False
    assert queue._RemoveScanFromPerLocationMap(a, "t", kPrimary, 2) is False
    assert queue._RemoveScanFromPerLocationMap(a, "s", kDerived, 2) is False
    assert state(queue) == before


def test_remove_from_map_touches_only_map_and_counters(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s"), (a, "t")], kPrimary)
    assert queue._RemoveScanFromPerLocationMap(a, "s", kPrimary, 2) is True
    assert pending(queue, a) == {("t", kPrimary): 2}
    assert totals(queue) == (1, 1)
    assert list(queue._fOrderedQueues[0].fOrderedDict[a]) == ["s", "t"]


def test_removing_the_last_scan_deletes_the_record(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary)
    assert queue.RemoveScanTriple((a, "s", kPrimary)) is True
    assert a not in queue._fPerLocationInfo
    assert dict(queue._fPerScanNameCounts) == {}
    queue.AddScanPairs([(a, "t")], kDerived)
    info = queue._fPerLocationInfo[a]
    assert dict(info.scan_name_counts) == {kDerived: 1}
    assert dict(info.pending_dict) == {("t", kDerived): 2}


def test_remove_from_map_leaves_no_name_with_count_0(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary)
    queue.AddScanPairs([(a, "s")], kDerived)
    queue.RemoveScanTriple((a, "s", kPrimary))
    assert dict(queue._fPerLocationInfo[a].scan_name_counts) == {kDerived: 1}
    assert list(queue._fPerScanNameCounts) == [kDerived]


def test_reads_of_counts_create_no_entry(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary)
    before = state(queue)
    assert queue._fPerLocationInfo[a].scan_name_counts[kPrimary] == 1
    queue.GetScanCount(queue.First())
    queue.LocationInQueue(a, "unknown")
    queue.LocationInQueue(local("b"))
    assert state(queue) == before


def test_find_scan_priority_of_a_queued_scan(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 1)
    assert queue._FindScanPriority(a, "s", kPrimary) == 1
    assert queue._FindScanPriority(a, "t", kPrimary) is None
    assert queue._FindScanPriority(a, "s", kDerived) is None
    assert queue._FindScanPriority(local("b"), "s", kPrimary) is None


def test_find_scan_priority_of_a_queued_location_ignores_the_waiting_area(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 1)
    queue._AddItemsWaitingForInspect(a, [item(a, "t", kPrimary, 2)])
    assert queue._FindScanPriority(a, "t", kPrimary) is None


def test_find_scan_priority_of_a_waiting_location_is_its_check_priority(queue, item):
    a = remote("a")
    queue._AddItemsWaitingForInspect(a, [item(a, "s", kPrimary, 2)])
    queue._SetWholeFileCheckWaitingForInspect(a, 1)
    assert queue._FindScanPriority(a, "s", kPrimary) == 1
    assert queue._FindScanPriority(a, "anything", "any scan") == 1


def test_find_scan_priority_with_check_priority_0_is_0(queue, item):
    a = remote("a")
    queue._AddItemsWaitingForInspect(a, [item(a, "s", kPrimary, 2)])
    queue._SetWholeFileCheckWaitingForInspect(a, 0)
    assert queue._FindScanPriority(a, "s", kPrimary) == 0


def test_find_scan_priority_of_a_waiting_location_without_check(queue, item):
    a = remote("a")
    queue._AddItemsWaitingForInspect(a, [item(a, "s", kPrimary, 2)])
    assert queue._FindScanPriority(a, "anything", "any scan") == 2


def test_find_scan_priority_of_an_empty_waiting_set(queue):
    a = remote("a")
    queue._AddItemsWaitingForInspect(a, [])
    assert waiting(queue, a) == (set(), None)
    if __debug__:
        with pytest.raises(AssertionError, match="should not be reached"):
            queue._FindScanPriority(a, "s", kPrimary)
    else:
        assert queue._FindScanPriority(a, "s", kPrimary) is None


def test_empty_looks_at_the_waiting_areas_unless_told_not_to(queue, item):
    assert queue.Empty() and queue.Empty(False)
    queue.AddScanPairs([(remote("a"), "*")], kPrimary)
    assert queue.Empty(False) is True
    assert queue.Empty() is False
    queue.RemoveAllForLocations([remote("a")])
    assert queue.Empty() is True
    queue.StartWaitingForData(item(local("b")))
    assert queue.Empty(include_waiting=False) is True
    assert queue.Empty(include_waiting=True) is False


def test_empty_with_a_queued_scan(queue):
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    assert queue.Empty() is False
    assert queue.Empty(False) is False


def test_is_tree_branch_ready_asks_nothing_while_all_is_local(queue, monkeypatch):
    from loombase import location

    monkeypatch.setattr(location, "IsAsyncInspectLocation", None)
    assert queue.IsTreeBranchReady(remote("a")) is True
    assert hostlog.names() == []


def test_is_tree_branch_ready_asks_the_cache_for_remote_locations_only(queue, cache):
    queue.AddScanPairs([(remote("a"), "*")], kPrimary)
    hostlog.calls.clear()
    assert queue.IsTreeBranchReady(local("b")) is True
    assert hostlog.names() == []
    assert queue.IsTreeBranchReady(remote("a")) is False
    assert [call.args for call in hostlog.take("TreeBranchReady")] == [(remote("a"), True)]
    cache.ready.add(remote("a"))
    assert queue.IsTreeBranchReady(remote("a")) is True


def test_is_tree_branch_ready_takes_the_truth_of_the_answer(queue, cache, monkeypatch):
    queue.AddScanPairs([(remote("a"), "*")], kPrimary)
    monkeypatch.setattr(cache, "TreeBranchReady", lambda loc, flag: ["yes"], raising=False)
    assert queue.IsTreeBranchReady(remote("a")) is True
    monkeypatch.setattr(cache, "TreeBranchReady", lambda loc, flag: [], raising=False)
    assert queue.IsTreeBranchReady(remote("a")) is False


def test_invariants_hold_after_a_mixed_session(queue):
    a, b = local("a"), local("b")
    for priority in (2, 1, 0):
        queue.AddScanPairs([(a, "s"), (b, "*"), (a, "t")], kPrimary, priority)
        queue.AddScanPairs([(b, "u"), (a, "*")], kDerived, 2 - priority)
        check_invariants(queue)
    while queue.First().loc is not None:
        queue.ScanCompleted(queue.First())
        check_invariants(queue)
    assert queue.Empty()
