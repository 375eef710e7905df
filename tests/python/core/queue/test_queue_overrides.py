"""Virtual operations overridden in a Python subclass are what the system itself calls."""

import pytest
import singleton
from edit.editor import CSourceEditor
from guiutils import lgtk
from queue_support import (
    FakeGuiMgr,
    FakeLocationDataCache,
    implementation,
    kDerived,
    kOrders,
    kPrimary,
    kVirtualOperations,
    local,
    plain,
    remote,
    spying,
    state,
)


class Buffer:
    def __init__(self, loc):
        self.fLocation = loc


def session(impl, cls, log):
    """A session that reaches every virtual operation; the state after each step is logged too."""
    lgtk.reset()
    singleton.reset()
    cache = FakeLocationDataCache()
    queue = cls(cache)
    queue.SetScansToOrder(dict(kOrders))
    a, b, c, r, s = local("a"), local("b"), local("c"), remote("r"), remote("s")

    def item(loc, scope_name, scan_name=kPrimary, priority=2):
        return impl.CScanItem(loc, scope_name, scan_name, priority)

    def gui_changes():
        gui = FakeGuiMgr()
        singleton.GetSingletons().Set("fGuiMgr", gui)
        gui.show(CSourceEditor(Buffer(b)), c)

    def becomes_unready():
        cache.ready.clear()

    steps = [
        lambda: queue.AddScanPairs([(a, "s"), (a, "t"), (b, "*")], kPrimary),
        lambda: queue.AddScanPairs([(a, "s"), (c, "u"), (a, "*")], kPrimary, 1, True),
        lambda: queue.AddScanPairs([(b, "x"), (a, "y")], kDerived, 2),
        lambda: queue.AddScanPairs([(b, "*")], kDerived, 2),
        lambda: queue.AddScanPairs([(r, "*"), (a, "z")], kPrimary, 2, True),
        lambda: queue.AddScanPairs([(s, "p")], kPrimary, 1),
        lgtk.step,
        gui_changes,
        lambda: queue.UpdateForVisibleDocuments(a, [a]),
        queue.First,
        lambda: queue.ScanCompleted(queue.First()),
        lambda: queue.GetScanCount(item(a, "s")),
        lambda: queue.StartWaitingForData(item(c, "u", kPrimary, 1)),
        lambda: queue.FinishedWaitingForData(item(c, "u", kPrimary, 1)),
        lambda: cache.make_ready(r),
        lambda: cache.make_ready(local("unknown")),
        lambda: cache.emit("inspect-failed", cache, {s}),
        lambda: cache.emit("cleared", cache),
        lambda: queue.AddScanPairs([(r, "q")], kDerived, 0),
        becomes_unready,
        queue.First,
        queue.PopWholeFilesToCheck,
        lambda: queue.RemoveScanTriple((r, "q", kDerived)),
        lambda: queue.RemoveAllForLocations([a, s], {kPrimary}),
        lambda: queue.RemoveAllForLocations([b]),
        lambda: queue._MoveScansForLocToWaitingForInspect(c, 1),
        queue.Empty,
        queue.GetWaitingCount,
        queue.GetAllLocations,
        lambda: queue.GetFileCount(None, None),
        lambda: queue.LocationInQueue(c),
        lambda: queue._FindScanPriority(c, "u", kPrimary),
        lgtk.step,
        queue.Clear,
        queue.destroy,
    ]
    for number, step in enumerate(steps):
        log.append((f"step {number}", ()))
        log.append(("result", (plain(step()),)))
        log.append(("state", ({**state(queue), "gui": queue._fGuiMgr is not None},)))


def test_overrides_are_called_as_in_the_twin():
    """Same calls, same arguments, same order, same results, same state."""
    logs = []
    for name in ("twin", "cpp"):
        log = []
        module = implementation(name)
        session(module, spying(module._CScanQueue, log), log)
        logs.append(log)
    twin_log, cpp_log = logs
    for number, (expected, actual) in enumerate(zip(twin_log, cpp_log, strict=False)):
        assert actual == expected, f"entry {number} after {twin_log[max(0, number - 5) : number]}"
    assert len(cpp_log) == len(twin_log)


def test_session_without_overrides_ends_in_the_same_states():
    logs = []
    for name in ("twin", "cpp"):
        log = []
        module = implementation(name)
        session(module, module._CScanQueue, log)
        logs.append(log)
    assert logs[0] == logs[1]


def test_session_reaches_every_virtual_operation(impl):
    log = []
    session(impl, spying(impl._CScanQueue, log), log)
    assert set(kVirtualOperations) <= {name for name, _ in log}


def subclass(impl, **operations):
    """A queue of a subclass with these operations."""
    queue = type("Sub", (impl._CScanQueue,), operations)(FakeLocationDataCache())
    queue.SetScansToOrder(dict(kOrders))
    return queue


def test_result_of_is_tree_branch_ready_is_obeyed(impl):
    queue = subclass(impl, IsTreeBranchReady=lambda self, leaf_loc: leaf_loc != local("b"))
    queue.AddScanPairs([(local("a"), "*"), (local("b"), "*")], kPrimary)
    assert set(queue._fWaitingForInspectByLoc) == {local("b")}
    assert queue.LocationInQueue(local("a"))


def test_result_of_find_scan_priority_is_obeyed(impl):
    queue = subclass(impl, _FindScanPriority=lambda self, loc, scope_name, scan_name: 0)
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    assert queue.Empty()


def test_result_of_first_or_none_is_obeyed(impl):
    answers = [None, None, impl.CScanItem("loc", "s", kPrimary, 1)]
    expected = answers[-1]
    queue = subclass(impl, _FirstOrNone=lambda self: answers.pop(0))
    assert queue.First() is expected


def test_result_of_get_pending_dict_is_obeyed(impl):
    queue = subclass(impl, GetPendingDictForLoc=lambda self, loc: {("s", kDerived): 1})
    queue._MoveScansForLocToWaitingForInspect(local("a"))
    (only,) = queue._fWaitingForInspectByLoc[local("a")].item_set
    assert only == (local("a"), "s", kDerived, 1)


def test_result_of_remove_from_map_is_obeyed(impl):
    def refuse(self, loc, scope_name, scan_name, priority):
        return False

    queue = subclass(impl, _RemoveScanFromPerLocationMap=refuse)
    queue.AddScanPairs([(local("a"), "s")], kPrimary)
    assert queue.RemoveScanTriple((local("a"), "s", kPrimary)) is False
    assert queue.First().scope_name == "s"


def test_result_of_get_single_queue_is_obeyed(impl):
    """The override sends everything to background."""

    def get(self, scan_name, priority):
        return impl._CScanQueue._GetSingleQueue(self, scan_name, 2)

    queue = subclass(impl, _GetSingleQueue=get)
    queue.AddScanPairs([(local("a"), "*")], kPrimary, 0)
    assert [q.fPriority for q in queue._fOrderedQueues] == [2]
    assert queue.GetPendingDictForLoc(local("a")) == {("*", kPrimary): 0}


def test_override_of_signal_emit_idle_is_what_the_idle_calls(impl):
    calls = []
    queue = subclass(impl, _SignalEmitIdle=lambda self: calls.append(self))
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    lgtk.step()
    assert calls == [queue]


def test_override_of_handlers_is_what_the_signals_call(impl):
    calls = []
    cache = FakeLocationDataCache()
    cls = type(
        "Sub",
        (impl._CScanQueue,),
        {
            "_CB_TreeBranchesNowReady": lambda self, data, ready_set: calls.append("ready"),
            "_CB_InspectFailed": lambda self, loc_data_cache, loc_set: calls.append("failed"),
            "_CB_LocReadyCleared": lambda self, loc_data_cache: calls.append("cleared"),
            "_CB_SingletonChanged": lambda self: calls.append("changed"),
        },
    )
    queue = cls(cache)
    cache.make_ready(remote("r"))
    cache.emit("inspect-failed", cache, set())
    cache.emit("cleared", cache)
    singleton.GetSingletons().Set("fPrefMgr", 1)
    assert calls == ["ready", "failed", "cleared", "changed"]
    assert queue.Empty()


def test_override_of_destroy_impl_is_what_destroy_calls(impl):
    calls = []

    def destroy_impl(self):
        calls.append("mine")
        impl._CScanQueue._destroy_impl(self)

    queue = subclass(impl, _destroy_impl=destroy_impl)
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    queue.destroy()
    assert calls == ["mine"]
    assert queue.Empty()


def test_override_set_on_the_class_later_is_honoured(impl):
    cls = type("Sub", (impl._CScanQueue,), {})
    queue = cls(FakeLocationDataCache())
    queue.SetScansToOrder(dict(kOrders))
    calls = []
    cls._UpdatePendingSets = lambda self, added_set, removed_set: calls.append(added_set)
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    assert calls == [{local("a")}]
    del cls._UpdatePendingSets
    queue.AddScanPairs([(local("b"), "*")], kPrimary)
    assert calls == [{local("a")}]
    assert queue._fPendingLocationsAdded == {local("b")}


def test_override_in_a_mixin_is_honoured(impl):
    calls = []

    class Mixin:
        def First(self):
            calls.append("First")
            return super().First()

    cls = type("Sub", (Mixin, impl._CScanQueue), {})
    cls(FakeLocationDataCache()).First()
    assert calls == ["First"]


def test_failure_in_an_override_passes_through(impl):
    failure = RuntimeError("override")

    def fail(self, scan_triple, priority=None, remove_waiting=True):
        raise failure

    queue = subclass(impl, RemoveScanTriple=fail)
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    with pytest.raises(RuntimeError) as caught:
        queue.ScanCompleted(queue.First())
    assert caught.value is failure
    assert caught.traceback[-1].name == "fail"


def test_super_call_reaches_the_default(impl):
    class Sub(impl._CScanQueue):
        def Empty(self, include_waiting=True):
            return not super().Empty(include_waiting)

    assert Sub(FakeLocationDataCache()).Empty() is False


@pytest.mark.parametrize(
    ("name", "wrong"),
    [
        ("_FindScanPriority", "early"),
        ("_GetSingleQueue", object()),
        ("_GetSingleQueue", None),
        ("GetPendingDictForLoc", 7),
        ("GetPendingDictForLoc", {"not a key": 1}),
        ("GetPendingDictForLoc", {("s", kPrimary): "early"}),
    ],
)
def test_cpp_survives_wrong_results_of_overrides(name, wrong):
    queue = subclass(implementation("cpp"), **{name: lambda self, *args, **kwargs: wrong})
    a = local("a")
    failed = 0
    for operation in (
        lambda: queue.AddScanPairs([(a, "s")], kPrimary, 2),
        lambda: queue.AddScanPairs([(a, "s")], kPrimary, 1),
        lambda: queue._MoveScansForLocToWaitingForInspect(a),
        lambda: queue.RemoveScanTriple((a, "s", kPrimary)),
        lambda: queue.UpdateForVisibleDocuments(a, []),
        queue.First,
        queue.Clear,
    ):
        try:
            operation()
        except (TypeError, ValueError, AttributeError):
            failed += 1
    assert failed >= 1
    assert queue.Empty(False)


def test_cpp_survives_a_single_queue_of_another_queue():
    module = implementation("cpp")
    stranger = module._CScanQueue(FakeLocationDataCache())
    stranger.SetScansToOrder(dict(kOrders))
    for single in (
        stranger._GetSingleQueue(kPrimary, 2),
        module._CSingleScanQueue(kPrimary, 2, 1),
    ):
        queue = subclass(module, _GetSingleQueue=lambda self, scan_name, priority: single)
        a = local("a")
        for operation in (
            lambda: queue.AddScanPairs([(a, "s"), (local("b"), "*")], kPrimary),
            lambda: queue.AddScanPairs([(a, "*")], kPrimary),
            lambda: queue.RemoveScanTriple((a, "*", kPrimary)),
            lambda: queue.UpdateForVisibleDocuments(local("b"), []),
            lambda: queue._MoveScansBetweenQueues(a, None, single, single),
            lambda: stranger.PrintScanQueues(lambda text: None),
            queue.First,
            stranger.First,
            queue.Clear,
            stranger.Clear,
        ):
            try:
                operation()
            except (TypeError, ValueError, KeyError, AssertionError):
                continue
        assert queue.Empty(False) and stranger.Empty(False)
