"""The list of files due for a check, and the small questions."""

import pytest
from queue_support import (
    kDerived,
    kPrimary,
    local,
    order_of,
    pending,
    remote,
    state,
    waiting,
)


def add_checks(queue, names, priority=2):
    queue.AddScanPairs([(local(n), "*") for n in names], kPrimary, priority, True)


def test_pop_takes_one_more_than_asked_newest_first(queue):
    add_checks(queue, "abcde")
    assert queue.PopWholeFilesToCheck(2) == [(local(n), 2) for n in "edc"]
    assert list(queue._fWholeFilesToCheck) == [local("a"), local("b")]


def test_pop_of_an_empty_list_is_none(queue):
    assert queue.PopWholeFilesToCheck() is None
    assert queue.PopWholeFilesToCheck(0) is None


def test_pop_takes_26_by_default(queue):
    queue.AddScanPairs([(local(str(i)), "*") for i in range(60)], kPrimary, 1, True)
    batches = [queue.PopWholeFilesToCheck() for _ in range(4)]
    assert [batch and len(batch) for batch in batches] == [26, 26, 8, None]
    assert [loc for batch in batches[:3] for loc, _ in batch] == [
        local(str(i)) for i in reversed(range(60))
    ]


@pytest.mark.parametrize(("max_files", "taken"), [(0, 1), (-1, 0), (1, 2), (99, 5)])
def test_pop_takes_while_the_list_has_at_most_max_files(queue, max_files, taken):
    add_checks(queue, "abcde")
    popped = queue.PopWholeFilesToCheck(max_files=max_files)
    assert isinstance(popped, list)
    assert len(popped) == taken
    assert len(queue._fWholeFilesToCheck) == 5 - taken


def test_pop_yields_pairs_of_location_and_priority(queue):
    add_checks(queue, "a", 1)
    ((loc, priority),) = queue.PopWholeFilesToCheck()
    assert loc is local("a")
    assert priority == 1


def test_pop_leaves_the_scans_queued(queue):
    add_checks(queue, "ab")
    queue.PopWholeFilesToCheck()
    assert queue.GetAllLocations() == {local("a"), local("b")}


def test_check_outlives_the_scans_of_its_location(queue):
    add_checks(queue, "a")
    queue.RemoveAllForLocations([local("a")])
    assert queue.Empty()
    assert queue.PopWholeFilesToCheck() == [(local("a"), 2)]


def test_popped_and_added_again_is_newest(queue):
    add_checks(queue, "ab")
    queue.PopWholeFilesToCheck(0)
    add_checks(queue, "c")
    queue.RemoveAllForLocations([local("b")])
    add_checks(queue, "b")
    assert [loc for loc, _ in queue.PopWholeFilesToCheck()] == [local(n) for n in "bca"]


def test_pop_moves_what_is_not_ready_to_waiting(queue, cache):
    r, s = remote("r"), remote("s")
    cache.ready.update((r, s))
    queue.AddScanPairs([(r, "*"), (local("a"), "*"), (s, "*")], kPrimary, 2, True)
    cache.ready = {s}
    assert queue.PopWholeFilesToCheck() == [(s, 2), (local("a"), 2)]
    assert waiting(queue, r) == ({(r, "*", kPrimary, 2)}, 2)
    assert not queue.LocationInQueue(r)


def test_pop_of_nothing_ready_is_an_empty_list(queue, cache):
    r = remote("r")
    cache.ready.add(r)
    queue.AddScanPairs([(r, "*")], kPrimary, 2, True)
    cache.ready.clear()
    assert queue.PopWholeFilesToCheck() == []


def test_pop_forgets_a_check_of_a_location_that_is_not_ready_and_not_queued(queue, cache):
    r = remote("r")
    cache.ready.add(r)
    queue.AddScanPairs([(r, "*")], kPrimary, 2, True)
    queue.RemoveAllForLocations([r])
    cache.ready.clear()
    assert queue.PopWholeFilesToCheck() == []
    assert waiting(queue, r) is None
    assert queue.PopWholeFilesToCheck() is None


def test_pop_asks_readiness_after_all_have_been_taken(impl, cache):
    """A scan that is entered from inside the question is not part of the batch."""

    class Asking(impl._CScanQueue):
        left = None

        def IsTreeBranchReady(self, leaf_loc):
            if self.left is not None:
                self.left.append(len(self._fWholeFilesToCheck))
            return super().IsTreeBranchReady(leaf_loc)

    queue = Asking(cache)
    queue.SetScansToOrder({kPrimary: 1})
    r = remote("r")
    cache.ready.add(r)
    queue.AddScanPairs([(r, "*"), (local("a"), "*"), (local("b"), "*")], kPrimary, 2, True)
    queue.left = []
    queue.PopWholeFilesToCheck(1)
    assert queue.left == [1, 1]


def test_location_in_queue(queue, item):
    a, r = local("a"), remote("r")
    queue.AddScanPairs([(a, "s")], kPrimary)
    queue._AddItemsWaitingForInspect(r, [item(r)])
    assert queue.LocationInQueue(a) is True
    assert queue.LocationInQueue(a, None) is True
    assert queue.LocationInQueue(a, kPrimary) is True
    assert queue.LocationInQueue(a, kDerived) is False
    assert queue.LocationInQueue(local("b")) is False
    assert queue.LocationInQueue(r) is False
    assert queue.LocationInQueue(r, kPrimary) is False


def test_get_pending_dict_for_loc(queue, item):
    a, r = local("a"), remote("r")
    queue.AddScanPairs([(a, "s"), (a, "t")], kPrimary)
    queue.AddScanPairs([(a, "*")], kDerived, 1)
    queue._AddItemsWaitingForInspect(r, [item(r)])
    result = queue.GetPendingDictForLoc(a)
    assert isinstance(result, dict)
    assert result == {("s", kPrimary): 2, ("t", kPrimary): 2, ("*", kDerived): 1}
    assert queue.GetPendingDictForLoc(local("b")) is None
    assert queue.GetPendingDictForLoc(r) is None


def test_get_file_count(queue):
    queue.AddScanPairs([(local("a"), "s"), (local("a"), "t"), (local("b"), "*")], kPrimary, 2)
    queue.AddScanPairs([(local("a"), "u")], kPrimary, 1)
    queue.AddScanPairs([(local("c"), "*")], kDerived, 1)
    assert queue.GetFileCount(kPrimary, 2) == 2
    assert queue.GetFileCount(kPrimary, 1) == 1
    assert queue.GetFileCount(kPrimary, None) == 3, "a location at two priorities counts twice"
    assert queue.GetFileCount(None, 1) == 2
    assert queue.GetFileCount(None, None) == 4
    assert queue.GetFileCount(kDerived, 2) == 0
    assert queue.GetFileCount("unknown", None) == 0
    assert queue.GetFileCount(scan_name=None, priority=None) == 4
    assert len(order_of(queue)) == 3, "a question creates no single queue"


def test_get_file_count_goes_by_the_name_of_the_single_queue(queue):
    queue.SetScansToOrder({"one": 1, "other": 1})
    queue.AddScanPairs([(local("a"), "*")], "one")
    queue.AddScanPairs([(local("b"), "*")], "other")
    assert queue.GetFileCount("one", None) == 2
    assert queue.GetFileCount("other", None) == 0


def test_get_waiting_count(queue, item):
    r = remote("r")
    assert queue.GetWaitingCount() == 0
    queue.AddScanPairs([(r, "s"), (r, "t"), (r, "u")], kPrimary)
    assert queue.GetWaitingCount() == 1, "one location, however many scans"
    queue.StartWaitingForData(item(local("a"), "s"))
    queue.StartWaitingForData(item(local("a"), "t"))
    assert queue.GetWaitingCount() == 3, "each parked scan by itself"


def test_get_scan_count(queue, item):
    a = local("a")
    queue.ScanCompleted(item(a, "s", kPrimary, 2))
    queue.ScanCompleted(item(a, "*", kPrimary, 2))
    queue.ScanCompleted(item(a, "*", kPrimary, 1))
    assert queue.GetScanCount(item(a, "s", kPrimary, 1)) == 3
    assert queue.GetScanCount(item(a, "s", kPrimary, None)) == 3
    assert queue.GetScanCount(item(a, "*", kPrimary, 0)) == 2
    assert queue.GetScanCount(item(a, "t", kPrimary, 0)) == 2
    assert queue.GetScanCount(item(a, "s", kDerived, 2)) == 0
    assert queue.GetScanCount(item(local("b"), "s", kPrimary, 2)) == 0


def test_completed_counts_have_priority_none(queue, item):
    a = local("a")
    queue.ScanCompleted(item(a, "s", kPrimary, 2))
    queue.ScanCompleted(item(a, "s", kPrimary, 0))
    assert {tuple(k): v for k, v in queue._fCompletedCount.items()} == {(a, "s", kPrimary, None): 2}
    assert queue._fCompletedCount[item(a, "s", kPrimary, None)] == 2


def test_get_scan_count_creates_no_entry(queue, item):
    queue.GetScanCount(item(local("a"), "s"))
    assert dict(queue._fCompletedCount) == {}


def test_get_all_locations(queue, item):
    a, r, p = local("a"), remote("r"), local("p")
    queue.AddScanPairs([(a, "*"), (r, "*")], kPrimary)
    queue.StartWaitingForData(item(p))
    first = queue.GetAllLocations()
    assert first == {a, r}
    assert type(first) is set
    first.clear()
    assert queue.GetAllLocations() == {a, r}, "a new set each time"


def test_questions_change_nothing(queue, item):
    a, r = local("a"), remote("r")
    queue.AddScanPairs([(a, "s"), (r, "*")], kPrimary, 1, True)
    before = state(queue)
    queue.Empty()
    queue.LocationInQueue(a, kPrimary)
    queue.GetPendingDictForLoc(a)
    queue.GetFileCount(None, None)
    queue.GetWaitingCount()
    queue.GetScanCount(item(a, "s"))
    queue.GetAllLocations()
    queue._FindScanPriority(r, "s", kPrimary)
    assert state(queue) == before
    assert pending(queue, a) == {("s", kPrimary): 1}
