"""The batched reports of added and removed locations."""

import pytest
from guiutils import lgtk
from queue_support import kPrimary, local, remote

import hostlog


@pytest.fixture
def heard(queue):
    """What listeners of both signals heard: (name, set of locations), in order."""
    heard = []

    def listener(name):
        def listen(emitter, locs):
            assert emitter is queue
            assert type(locs) is set
            heard.append((name, set(locs)))

        return listen

    queue.connect("locations-added", listener("added"))
    queue.connect("locations-removed", listener("removed"))
    hostlog.calls.clear()
    return heard


def add(queue, *names):
    queue.AddScanPairs([(local(n), "*") for n in names], kPrimary)


def remove(queue, *names):
    queue.RemoveAllForLocations([local(n) for n in names])


def locs(names):
    return {local(n) for n in names}


def test_add_then_remove_is_in_both_sets(queue, heard):
    add(queue, "a")
    remove(queue, "a")
    lgtk.run_idle()
    assert heard == [("added", locs("a")), ("removed", locs("a"))]


def test_remove_then_add_is_in_neither(queue, heard):
    add(queue, "a")
    lgtk.run_idle()
    heard.clear()
    remove(queue, "a")
    add(queue, "a")
    lgtk.run_idle()
    assert heard == []


def test_add_remove_add_is_in_the_added_set_only(queue, heard):
    add(queue, "a")
    remove(queue, "a")
    add(queue, "a")
    lgtk.run_idle()
    assert heard == [("added", locs("a"))]


def test_remove_add_remove_is_in_the_removed_set_only(queue, heard):
    add(queue, "a")
    lgtk.run_idle()
    heard.clear()
    remove(queue, "a")
    add(queue, "a")
    remove(queue, "a")
    lgtk.run_idle()
    assert heard == [("removed", locs("a"))]


def test_cancelling_leaves_the_other_locations(queue, heard):
    add(queue, *"ab")
    lgtk.run_idle()
    heard.clear()
    remove(queue, *"ab")
    add(queue, *"bc")
    lgtk.run_idle()
    assert heard == [("added", locs("c")), ("removed", locs("a"))]


def test_repeated_changes_schedule_one_idle(queue, heard):
    for i in range(100):
        add(queue, str(i))
    remove(queue, *map(str, range(0, 100, 2)))
    assert len(hostlog.take("idle_add")) == 1
    assert len(lgtk.idle_ids()) == 1
    lgtk.run_idle()
    assert [name for name, _ in heard] == ["added", "removed"]


def test_idle_is_registered_without_a_priority(queue, monkeypatch):
    calls = []

    def idle_add(*args, **kwargs):
        calls.append((args, kwargs))
        return 77

    monkeypatch.setattr(lgtk, "idle_add", idle_add)
    add(queue, "a")
    ((args, kwargs),) = calls
    assert len(args) == 1 and kwargs == {}
    assert queue._fSignalEmitIdle == 77
    assert args[0]() is None
    assert queue._fSignalEmitIdle is None


def test_idle_callback_is_the_operation_itself(queue):
    add(queue, "a")
    (call,) = hostlog.take("idle_add")
    assert call.args[0].__self__ is queue
    assert call.args[0].__name__ == "_SignalEmitIdle"


def test_update_with_none_schedules_and_emits_nothing(queue, heard):
    assert queue._UpdatePendingSets(None, None) is None
    assert len(lgtk.idle_ids()) == 1
    lgtk.run_idle()
    assert heard == []
    assert hostlog.take("emit") == []


def test_update_with_empty_sets_is_the_same(queue, heard):
    queue._UpdatePendingSets(set(), set())
    assert len(lgtk.idle_ids()) == 1
    lgtk.run_idle()
    assert heard == []


def test_update_by_hand(queue, heard):
    queue._UpdatePendingSets(locs("ab"), locs("b"))
    assert queue._fPendingLocationsAdded == locs("ab")
    assert queue._fPendingLocationsRemoved == locs("b")
    queue._UpdatePendingSets(added_set=locs("bc"), removed_set=None)
    assert queue._fPendingLocationsAdded == locs("abc")
    assert queue._fPendingLocationsRemoved == set()
    lgtk.run_idle()
    assert heard == [("added", locs("abc"))]


def test_cancelled_location_is_left_out_of_the_adds(queue):
    queue._UpdatePendingSets(None, locs("a"))
    queue._UpdatePendingSets(locs("ab"), None)
    assert queue._fPendingLocationsAdded == locs("b")
    assert queue._fPendingLocationsRemoved == set()


def test_removal_leaves_the_adds_alone(queue):
    queue._UpdatePendingSets(locs("a"), None)
    queue._UpdatePendingSets(None, locs("a"))
    assert queue._fPendingLocationsAdded == locs("a")
    assert queue._fPendingLocationsRemoved == locs("a")


def test_given_sets_are_not_kept(queue):
    given = locs("a")
    queue._UpdatePendingSets(given, given)
    given.clear()
    assert queue._fPendingLocationsAdded == queue._fPendingLocationsRemoved == locs("a")


def test_pending_sets_are_empty_during_the_emission(queue):
    seen = []

    def listen(emitter, added):
        seen.append((set(emitter._fPendingLocationsAdded), emitter._fSignalEmitIdle, added))

    queue.connect("locations-added", listen)
    add(queue, "a")
    lgtk.step()
    assert seen == [(set(), None, locs("a"))]


def test_change_by_a_listener_is_reported_by_a_new_idle(queue, heard):
    def listen(emitter, added):
        if local("b") not in added:
            add(emitter, "b")
            remove(emitter, "a")

    queue.connect("locations-added", listen)
    add(queue, "a")
    lgtk.step()
    assert heard == [("added", locs("a"))]
    assert len(lgtk.idle_ids()) == 1
    lgtk.step()
    assert heard == [("added", locs("a")), ("added", locs("b")), ("removed", locs("a"))]


def test_moving_to_waiting_is_a_removal_and_coming_back_an_add(queue, heard, cache):
    r = remote("r")
    cache.ready.add(r)
    queue.AddScanPairs([(r, "*")], kPrimary)
    lgtk.run_idle()
    cache.ready.clear()
    queue.First()
    lgtk.run_idle()
    cache.make_ready(r)
    lgtk.run_idle()
    assert heard == [("added", {r}), ("removed", {r}), ("added", {r})]


def test_waiting_locations_are_not_reported(queue, heard):
    queue.AddScanPairs([(remote("r"), "*")], kPrimary)
    queue.RemoveAllForLocations([remote("r")])
    lgtk.run_idle()
    assert heard == []
    assert hostlog.take("idle_add") == []


def test_change_of_priority_reports_the_location_as_its_record_goes_and_comes(queue, heard):
    """The record goes with the only scan and comes again: before the idle both cancel out."""
    add(queue, "a")
    lgtk.run_idle()
    heard.clear()
    queue.AddScanPairs([(local("a"), "*")], kPrimary, 1)
    lgtk.run_idle()
    assert heard == []


def test_failing_listener_of_the_first_signal(queue):
    failure = RuntimeError("listener")

    def listen(emitter, added):
        raise failure

    removed = []
    queue.connect("locations-added", listen)
    queue.connect("locations-removed", lambda *args: removed.append(args))
    add(queue, "a")
    remove(queue, "a")
    with pytest.raises(RuntimeError) as caught:
        lgtk.step()
    assert caught.value is failure
    assert queue._fPendingLocationsAdded == queue._fPendingLocationsRemoved == set()
    assert queue._fSignalEmitIdle is None
    assert removed == []
    add(queue, "b")
    assert len(lgtk.idle_ids()) == 1


def test_set_that_is_handed_over_is_the_listener_s(queue):
    kept = []
    queue.connect("locations-added", lambda emitter, added: kept.append(added))
    add(queue, "a")
    lgtk.run_idle()
    add(queue, "b")
    assert kept == [locs("a")]
    kept[0].clear()
    assert queue.GetAllLocations() == locs("ab")


def test_idle_runs_once(queue):
    add(queue, "a")
    assert lgtk.run_idle() == 1
    assert queue._fSignalEmitIdle is None


def test_signal_emit_idle_called_by_hand(queue, heard):
    add(queue, "a")
    assert queue._SignalEmitIdle() is None
    assert heard == [("added", locs("a"))]
    lgtk.run_idle()
    assert heard == [("added", locs("a"))]


def test_listener_may_destroy_the_queue(queue):
    queue.connect("locations-added", lambda emitter, added: emitter.destroy())
    add(queue, "a")
    lgtk.run_idle()
    assert queue.Empty()


def test_lost_idle_is_scheduled_again(queue, monkeypatch):
    """`idle_add` fails: the failure passes through, and the next change tries again."""
    failure = RuntimeError("no idle")

    def idle_add(*args, **kwargs):
        raise failure

    with monkeypatch.context() as broken:
        broken.setattr(lgtk, "idle_add", idle_add)
        with pytest.raises(RuntimeError) as caught:
            queue._UpdatePendingSets(locs("a"), None)
        assert caught.value is failure
        assert queue._fSignalEmitIdle is None
    queue._UpdatePendingSets(locs("b"), None)
    assert queue._fPendingLocationsAdded == locs("ab")
    assert len(lgtk.idle_ids()) == 1
