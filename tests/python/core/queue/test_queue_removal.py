"""Removal of all scans of some locations, and of everything."""

import pytest
from guiutils import lgtk
from queue_support import (
    check_invariants,
    kDerived,
    kOrders,
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


def fill(queue, item):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "s"), (a, "t"), (b, "*")], kPrimary, 2)
    queue.AddScanPairs([(a, "u")], kPrimary, 1)
    queue.AddScanPairs([(a, "*"), (b, "*")], kDerived, 2)
    queue._AddItemsWaitingForInspect(a, [item(a, "w"), item(a, "x", kDerived, 1)])
    return a, b


def test_remove_all_takes_every_scan_of_the_locations(queue):
    a, b, c = local("a"), local("b"), local("c")
    queue.AddScanPairs([(a, "s"), (a, "t"), (b, "*"), (c, "*")], kPrimary, 2)
    queue.AddScanPairs([(a, "u"), (c, "*")], kDerived, 1)
    assert queue.RemoveAllForLocations([a, b]) is None
    assert queue.GetAllLocations() == {c}
    assert totals(queue) == (1, 1) and totals(queue, kDerived) == (1, 1)
    check_invariants(queue)


def test_remove_all_with_names_leaves_other_names_and_the_waiting_entry(queue, item):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "s")], kPrimary)
    queue.AddScanPairs([(a, "*")], kDerived)
    queue._AddItemsWaitingForInspect(a, [item(a, "w"), item(a, "x")])
    queue.AddScanPairs([(b, "*")], kPrimary)
    queue.RemoveAllForLocations([a, b], {kPrimary}, False)
    assert pending(queue, a) == {("*", kDerived): 2}
    assert not queue.LocationInQueue(b)
    assert waiting(queue, a)[0] == {(a, "w", kPrimary, 2), (a, "x", kPrimary, 2)}


def test_remove_all_with_names_keeps_the_waiting_entry_of_a_location_it_kept(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kDerived)
    queue._AddItemsWaitingForInspect(a, [item(a, "w")])
    queue.RemoveAllForLocations([a], {kPrimary})
    assert pending(queue, a) == {("*", kDerived): 2}
    assert waiting(queue, a)[0] == {(a, "w", kPrimary, 2)}


def test_remove_all_with_names_drops_a_location_that_only_waits(queue, item):
    r = remote("r")
    queue._AddItemsWaitingForInspect(r, [item(r, "s", kDerived, 2)])
    queue._SetWholeFileCheckWaitingForInspect(r, 1)
    queue.RemoveAllForLocations([r], {kPrimary})
    assert waiting(queue, r) is None


def test_remove_all_without_waiting_leaves_the_waiting_entry(queue, item):
    r = remote("r")
    queue._AddItemsWaitingForInspect(r, [item(r)])
    queue.RemoveAllForLocations([r], remove_waiting=False)
    assert waiting(queue, r)[0] == {(r, "*", kPrimary, 2)}


def test_remove_all_of_a_location_that_is_queued_and_waits(queue, item):
    """Each removal of a turn deals with the waiting entry as long as it exists."""
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary)
    queue._AddItemsWaitingForInspect(a, [item(a, "w"), item(a, "x")])
    queue.RemoveAllForLocations([a])
    assert pending(queue, a) == {("s", kPrimary): 2}
    assert waiting(queue, a) is None


def test_remove_all_goes_on_in_the_queues_once_the_waiting_entry_is_gone(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary)
    queue.AddScanPairs([(a, "s")], kDerived)
    queue._AddItemsWaitingForInspect(a, [])
    queue.RemoveAllForLocations([a])
    assert len(pending(queue, a)) == 1, "one turn went to the empty waiting entry"
    check_invariants(queue)


def test_remove_all_takes_any_iterable_and_container(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "*"), (b, "*")], kPrimary)
    queue.RemoveAllForLocations((loc for loc in (a, local("unknown"))), [kPrimary, "other"])
    assert queue.GetAllLocations() == {b}
    queue.RemoveAllForLocations({b}, frozenset({kPrimary}))
    assert queue.Empty()


def test_remove_all_with_an_empty_set_of_names_keeps_all(queue):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kPrimary)
    queue.RemoveAllForLocations([a], set())
    assert pending(queue, a) == {("*", kPrimary): 2}


def test_remove_all_leaves_checks_parked_scans_and_counts(queue, item):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kPrimary, 2, True)
    queue.StartWaitingForData(item(a, "parked"))
    queue.ScanCompleted(item(a, "done"))
    queue.RemoveAllForLocations([a])
    assert dict(queue._fWholeFilesToCheck) == {a: 2}
    assert queue.GetWaitingCount() == 1
    assert queue.GetScanCount(item(a, "done")) == 1


def test_remove_all_with_a_failing_sequence(queue):
    failure = RuntimeError("no more locations")

    def locations():
        yield local("a")
        raise failure

    queue.AddScanPairs([(local("a"), "*"), (local("b"), "*")], kPrimary)
    with pytest.raises(RuntimeError) as caught:
        queue.RemoveAllForLocations(locations())
    assert caught.value is failure
    assert queue.GetAllLocations() == {local("b")}
    check_invariants(queue)


def test_clear_empties_the_queues(queue, item):
    a, b = fill(queue, item)
    queue.ScanCompleted(item(b, "*"))
    queue.Clear()
    assert queue.Empty(False) and queue.Empty()
    assert order_of(queue) == []
    assert queue.GetScanCount(item(b, "*")) == 0
    cleared = state(queue)
    assert cleared["locations"] == cleared["totals"] == cleared["inspect"] == {}
    assert cleared["completed"] == {} and cleared["checks"] == []
    assert tuple(queue.First()) == (None,) * 4


def test_clear_leaves_parked_scans(queue, item):
    parked = item(local("a"), "s")
    queue.StartWaitingForData(parked)
    queue.Clear()
    assert queue.Empty(False) is True
    assert queue.Empty() is False
    assert queue._fScanItemsWaitingForData == {parked}


def test_clear_leaves_orders_and_documents(queue):
    from queue_support import FakeGuiMgr
    import singleton

    gui = FakeGuiMgr()
    singleton.GetSingletons().Set("fGuiMgr", gui)
    queue.UpdateForVisibleDocuments(local("a"), [local("b")])
    queue.Clear()
    assert dict(queue._fScansToOrder) == kOrders
    assert queue._fActiveDocLoc is local("a")
    assert queue._fVisibleDocLocs == {local("a"), local("b")}
    assert queue._fGuiMgr is gui


def test_clear_destroys_each_single_queue_in_order(queue):
    singles = [queue._GetSingleQueue(kPrimary, p) for p in (2, 0, 1)]
    hostlog.calls.clear()
    queue.Clear()
    assert [c.args[0] for c in hostlog.take("destroy")] == [singles[1], singles[2], singles[0]]


def test_clear_reports_the_queued_locations_and_not_the_waiting_ones(queue):
    seen = []
    queue.connect("locations-removed", lambda q, locs: seen.append((q, locs)))
    queue.AddScanPairs([(local("a"), "*"), (local("b"), "*"), (remote("r"), "*")], kPrimary)
    lgtk.run_idle()
    queue.Clear()
    lgtk.run_idle()
    assert seen == [(queue, {local("a"), local("b")})]


def test_clear_of_an_empty_queue_schedules_the_idle(queue):
    queue.Clear()
    assert len(lgtk.idle_ids()) == 1
    hostlog.calls.clear()
    lgtk.run_idle()
    assert hostlog.take("emit") == []


def test_clear_switches_inspection_off(queue):
    queue.AddScanPairs([(remote("r"), "*")], kPrimary)
    assert queue.fAnyAsyncInspectLocation is True
    queue.Clear()
    assert queue.fAnyAsyncInspectLocation is False
    assert queue.IsTreeBranchReady(remote("r")) is True


def test_queue_works_after_clear(queue, item):
    fill(queue, item)
    queue.Clear()
    single = queue._GetSingleQueue(kPrimary, 2)
    assert order_of(queue) == [(2, 1)]
    queue.AddScanPairs([(local("c"), "*")], kPrimary)
    assert scopes_in(queue, 2) == [(local("c"), ["*"])]
    assert len(single.fOrderedDict) == 1
    check_invariants(queue)


def test_single_queue_held_from_before_clear_is_readable(queue):
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    single = queue._fOrderedQueues[0]
    queue.Clear()
    queue.AddScanPairs([(local("b"), "*")], kPrimary)
    assert (single.fScanName, single.fPriority, single.fOrder) == (kPrimary, 2, 1)
    assert single is not queue._fOrderedQueues[0]
    assert local("b") not in list(single.fOrderedDict)
