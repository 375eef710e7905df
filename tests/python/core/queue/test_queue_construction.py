"""Construction, fields, operations by name, destruction."""

import gc
import inspect
import weakref

import pytest
import singleton
from guiutils import lgtk
from loombase.destroyable import CDestroyable
from queue_support import (
    FakeLocationDataCache,
    kDefaults,
    kFields,
    kOrders,
    kPrimary,
    kVirtualOperations,
    local,
    state,
)

import hostlog


def test_initial_values_of_the_fields(impl, cache):
    queue = impl._CScanQueue(cache)
    assert queue._fLocationDataCache is cache
    assert state(queue) == {
        "async": False,
        "orders": {},
        "queues": [],
        "locations": {},
        "totals": {},
        "completed": {},
        "added": set(),
        "removed": set(),
        "idle": False,
        "inspect": {},
        "data": set(),
        "active": None,
        "visible": set(),
        "gui": None,
        "checks": [],
    }


def test_types_of_the_fields(queue):
    for name in (
        "_fScansToOrder",
        "_fPerLocationInfo",
        "_fPerScanNameCounts",
        "_fCompletedCount",
        "_fWaitingForInspectByLoc",
        "_fWholeFilesToCheck",
    ):
        assert isinstance(getattr(queue, name), dict), name
    for name in (
        "_fPendingLocationsAdded",
        "_fPendingLocationsRemoved",
        "_fScanItemsWaitingForData",
        "_fVisibleDocLocs",
    ):
        assert isinstance(getattr(queue, name), set), name
    assert isinstance(queue._fOrderedQueues, list)
    assert queue.fAnyAsyncInspectLocation is False


def test_construction_by_keyword(impl, cache):
    assert impl._CScanQueue(location_data_cache=cache)._fLocationDataCache is cache


def test_construction_connects_in_order(impl, cache):
    hostlog.calls.clear()
    queue = impl._CScanQueue(cache)
    calls = hostlog.take("connect", "connect_while_alive", "class_connect_while_alive")
    assert [call.name for call in calls] == ["connect_while_alive"] * 4
    assert [call.args[:2] for call in calls] == [
        (cache, "now-tree-branch-ready"),
        (cache, "inspect-failed"),
        (cache, "cleared"),
        (singleton.GetSingletons(), "changed"),
    ]
    assert all(call.args[3] is queue and not call.kwargs for call in calls)
    assert isinstance(calls[3].args[2], lgtk.NoArgCallback)


def test_handlers_are_those_of_the_queue(impl, cache):
    hostlog.calls.clear()
    queue = impl._CScanQueue(cache)
    handlers = [call.args[2] for call in hostlog.take("connect_while_alive")]
    handlers[3] = handlers[3].callback
    for handler, name in zip(
        handlers,
        (
            "_CB_TreeBranchesNowReady",
            "_CB_InspectFailed",
            "_CB_LocReadyCleared",
            "_CB_SingletonChanged",
        ),
        strict=True,
    ):
        assert handler.__name__ == name
        assert handler.__self__ is queue


def test_base_class_gets_the_two_signal_names(queue):
    assert isinstance(queue, CDestroyable)
    queue.connect("locations-added", print)
    queue.connect("locations-removed", print)
    with pytest.raises(ValueError, match="locations-lost"):
        queue.connect("locations-lost", print)


def test_base_of_a_single_queue_gets_no_argument(impl, monkeypatch):
    seen = []
    init = CDestroyable.__init__

    def spy(self, *args, **kwargs):
        seen.append((type(self).__name__, args, kwargs))
        init(self, *args, **kwargs)

    monkeypatch.setattr(CDestroyable, "__init__", spy)
    single = impl._CSingleScanQueue(kPrimary, 2, 7)
    assert seen == [("_CSingleScanQueue", (), {})]
    assert isinstance(single, CDestroyable)


def test_base_of_the_queue_gets_one_tuple(impl, cache, monkeypatch):
    seen = []
    init = CDestroyable.__init__

    def spy(self, *args, **kwargs):
        seen.append((args, kwargs))
        init(self, *args, **kwargs)

    monkeypatch.setattr(CDestroyable, "__init__", spy)
    impl._CScanQueue(cache)
    assert seen == [((("locations-added", "locations-removed"),), {})]


def test_single_queue_fields(impl):
    single = impl._CSingleScanQueue(scan_name=kPrimary, priority=2, order=7)
    assert (single.fScanName, single.fPriority, single.fOrder) == (kPrimary, 2, 7)
    assert len(single.fOrderedDict) == 0
    single.destroy()


def test_single_queue_holds_64_bit_numbers(impl):
    single = impl._CSingleScanQueue(kPrimary, -(2**63), 2**63 - 1)
    assert (single.fPriority, single.fOrder) == (-(2**63), 2**63 - 1)


@pytest.mark.parametrize("name", kFields)
def test_fields_of_the_cpp_queue_are_read_only(name, cache):
    from pysource import scancoordinator

    queue = scancoordinator._CScanQueue(cache)
    before = state(queue)
    with pytest.raises(AttributeError):
        setattr(queue, name, None)
    with pytest.raises(AttributeError):
        delattr(queue, name)
    assert state(queue) == before
    assert hasattr(queue, name)


@pytest.mark.parametrize("name", ["fScanName", "fPriority", "fOrder", "fOrderedDict"])
def test_fields_of_the_cpp_single_queue_are_read_only(name):
    from pysource import scancoordinator

    single = scancoordinator._CSingleScanQueue(kPrimary, 2, 1)
    with pytest.raises(AttributeError):
        setattr(single, name, 1)
    with pytest.raises(AttributeError):
        delattr(single, name)
    assert hasattr(single, name)


def test_wrong_arguments_are_type_errors(impl, cache):
    with pytest.raises(TypeError):
        impl._CScanQueue()
    with pytest.raises(TypeError):
        impl._CScanQueue(cache, 1)
    with pytest.raises(TypeError):
        impl._CSingleScanQueue(kPrimary)


def test_cpp_argument_types_are_checked(cache):
    from pysource import scancoordinator

    queue = scancoordinator._CScanQueue(cache)
    with pytest.raises(TypeError):
        scancoordinator._CSingleScanQueue(kPrimary, "2", 1)
    with pytest.raises((OverflowError, ValueError)):
        scancoordinator._CSingleScanQueue(kPrimary, 2**63, 1)
    with pytest.raises(TypeError):
        queue._GetSingleQueue(kPrimary, "2")
    with pytest.raises(TypeError):
        queue._GetSingleQueue(7, 2)
    with pytest.raises(TypeError):
        queue.AddScanPairs([(local("a"), "*")], kPrimary, "2")
    with pytest.raises(TypeError):
        queue.AddScanPairs([(local("a"), 7)], kPrimary)
    with pytest.raises((OverflowError, ValueError)):
        queue.AddScanPairs([(local("a"), "*")], kPrimary, 2**63)
    with pytest.raises(TypeError):
        queue.PopWholeFilesToCheck("25")
    with pytest.raises(TypeError):
        queue.GetScanCount(7)
    assert queue.Empty()
    with pytest.raises(TypeError):
        queue._MoveScansBetweenQueues(local("a"), None, object(), object())


@pytest.mark.parametrize("name", [*kVirtualOperations, "PrintScanQueues"])
def test_unknown_keywords_are_type_errors(queue, name):
    with pytest.raises(TypeError):
        getattr(queue, name)(no_such_argument=1)


def example(queue, impl, arg):
    """A value that fits an argument of that name."""
    single = impl._CSingleScanQueue(kPrimary, 2, 1)
    return {
        "active_loc": local("a"),
        "visible_locs": [local("a")],
        "loc": local("a"),
        "names_to_move": None,
        "from_queue": single,
        "to_queue": single,
        "include_waiting": True,
        "scan_name": kPrimary,
        "check_whole_file_priority": 2,
        "priority": 2,
        "scope_name": "s",
        "scans_to_order": {},
        "pair_seq": [(local("a"), "*")],
        "add_to_check": True,
        "max_files": 25,
        "item_seq": [],
        "ready_pair_list": [(local("a"), "*")],
        "scan_item": impl.CScanItem(local("a"), "*", kPrimary, 2),
        "scan_triple": (local("a"), "*", kPrimary),
        "remove_waiting": True,
        "loc_seq": [local("a")],
        "scan_name_set": {kPrimary},
        "data": queue._fLocationDataCache,
        "ready_set": {local("a")},
        "loc_data_cache": queue._fLocationDataCache,
        "loc_set": set(),
        "added_set": {local("a")},
        "removed_set": None,
        "leaf_loc": local("a"),
    }[arg]


kCallable = [name for name in kVirtualOperations if name != "_CB_ActiveDocChanged"]


@pytest.mark.parametrize("name", kCallable)
def test_operations_by_keyword_and_by_position(impl, name):
    """Both ways of calling do the same, and the defaults are those promised."""
    results = []
    for by_keyword in (True, False):
        queue = impl._CScanQueue(FakeLocationDataCache())
        queue.SetScansToOrder(dict(kOrders))
        args = {arg: example(queue, impl, arg) for arg in kVirtualOperations[name]}
        operation = getattr(queue, name)
        result = operation(**args) if by_keyword else operation(*args.values())
        if name == "_GetSingleQueue":
            result = result.fPriority
        results.append((result, state(queue)))
    assert results[0] == results[1]


@pytest.mark.parametrize("name", kDefaults)
def test_defaults_of_operations(impl, name):
    results = []
    for explicit in (True, False):
        queue = impl._CScanQueue(FakeLocationDataCache())
        queue.SetScansToOrder(dict(kOrders))
        queue.AddScanPairs([(local(str(i)), "*") for i in range(30)], kPrimary, 1, True)
        defaults = kDefaults[name]
        args = {
            arg: example(queue, impl, arg)
            for arg in kVirtualOperations[name]
            if arg not in defaults
        }
        results.append(
            (getattr(queue, name)(**args, **(defaults if explicit else {})), state(queue))
        )
    assert results[0] == results[1]


@pytest.mark.parametrize("name", [*kVirtualOperations, "PrintScanQueues"])
def test_required_arguments_are_required(queue, name):
    required = [a for a in kVirtualOperations.get(name, ()) if a not in kDefaults.get(name, {})]
    if required:
        with pytest.raises(TypeError):
            getattr(queue, name)()
    else:
        assert inspect.isroutine(getattr(queue, name))


def test_get_file_count_requires_both_arguments(queue):
    with pytest.raises(TypeError):
        queue.GetFileCount(kPrimary)


def test_destroy_clears_and_removes_the_idle(queue):
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    idle = queue._fSignalEmitIdle
    hostlog.calls.clear()
    queue.destroy()
    assert queue.Empty() and queue._fOrderedQueues == []
    assert [c.args for c in hostlog.take("idle_remove")] == [(idle,)]
    assert queue._fSignalEmitIdle == idle
    assert lgtk.idle_ids() == []


def test_no_signal_follows_a_destroy(queue):
    seen = []
    queue.connect("locations-added", lambda *args: seen.append(args))
    queue.connect("locations-removed", lambda *args: seen.append(args))
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    queue.destroy()
    lgtk.run_idle()
    assert seen == []


def test_destroy_of_an_untouched_queue_removes_the_idle_of_its_own_clear(queue):
    """`Clear` schedules an idle even with nothing to report, and it is removed at once."""
    queue.destroy()
    assert hostlog.names() == ["destroy", "idle_add", "idle_remove"]


def test_destroy_twice_clears_once(queue):
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    queue.destroy()
    hostlog.calls.clear()
    queue.destroy()
    assert hostlog.names() == ["destroy"]


def test_destroy_cuts_the_connections(queue, cache):
    queue.destroy()
    for signal in ("now-tree-branch-ready", "inspect-failed", "cleared"):
        assert cache.connection_count(signal) == 0
    assert singleton.GetSingletons().connection_count("changed") == 0


def test_destroy_destroys_each_single_queue(queue):
    singles = [queue._GetSingleQueue(kPrimary, 2), queue._GetSingleQueue(kPrimary, 1)]
    hostlog.calls.clear()
    queue.destroy()
    destroyed = [call.args[0] for call in hostlog.take("destroy")]
    assert destroyed == [queue, singles[1], singles[0]]


def test_weak_reference_and_collection(impl):
    queue = impl._CScanQueue(FakeLocationDataCache())
    queue.SetScansToOrder(dict(kOrders))
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    queue.itself = queue
    dead = weakref.ref(queue)
    assert dead() is queue
    queue.destroy()
    hostlog.calls.clear()
    del queue
    gc.collect()
    assert dead() is None


def test_collection_of_a_queue_that_was_never_destroyed(impl):
    class Listener:
        pass

    cache = FakeLocationDataCache()
    queue = impl._CScanQueue(cache)
    queue.SetScansToOrder(dict(kOrders))
    loc = local("a")
    loc.listener = Listener()
    loc.listener.queue = queue
    dead = weakref.ref(loc.listener)
    queue.AddScanPairs([(loc, "*")], kPrimary)
    lgtk.reset()
    singleton.reset()
    hostlog.calls.clear()
    from loombase import location

    location.reset()
    del queue, cache, loc
    gc.collect()
    assert dead() is None


def test_instance_attributes_of_one_s_own(queue):
    queue.note = 1
    assert queue.note == 1
    del queue.note


def test_subclass_that_skips_init_stays_usable():
    """An instance whose constructor didn't run answers or fails cleanly."""
    from pysource import scancoordinator

    class Bare(scancoordinator._CScanQueue):
        def __init__(self):
            pass

    queue = Bare()
    assert queue.Empty() is True
    assert tuple(queue.First()) == (None, None, None, None)
    assert queue._fLocationDataCache is None
    queue.destroy()


def test_second_init_leaves_a_working_queue(impl, cache):
    queue = impl._CScanQueue(cache)
    queue.SetScansToOrder(dict(kOrders))
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    queue.__init__(cache)
    queue.SetScansToOrder(dict(kOrders))
    queue.AddScanPairs([(local("b"), "*")], kPrimary)
    assert queue.LocationInQueue(local("b"))
    assert queue.First().loc in (local("a"), local("b"))


def test_failing_connection_fails_the_constructor(impl):
    failure = RuntimeError("no connection")

    class Broken(FakeLocationDataCache):
        def connect_while_alive(self, name, callback, owner):
            raise failure

    with pytest.raises(RuntimeError) as caught:
        impl._CScanQueue(Broken())
    assert caught.value is failure
