"""Locations and collaborators that fail, come back in, or die in the middle of an operation.

For the C++ queue each failure must leave the invariants whole, reach the caller as the very object
that was raised, and lose nothing that was queued before.
"""

import gc

import pytest
from guiutils import lgtk
from loombase import location
from loombase.destroyable import CDestroyable
from queue_support import (
    FakeLocationDataCache,
    check_invariants,
    complete_first,
    implementation,
    kDerived,
    kOrders,
    kPrimary,
    local,
    remote,
)

import hostreset


class Trap:
    """Counts events; at the one whose number is `at` it runs `action`, once."""

    def __init__(self, at=-1, action=None):
        self.at = at
        self.action = action
        self.count = 0
        self.armed = True
        self.sprung = False

    def event(self):
        if not self.armed:
            return
        self.count += 1
        if self.count == self.at:
            self.sprung = True
            self.armed = False
            try:
                self.action()
            finally:
                self.armed = True

    def off(self):
        self.armed = False

    def on(self):
        self.armed = True


class Located:
    """A location equal to others of its number; few hashes, so that equality is often asked."""

    def __init__(self, number, trap):
        self.number = number
        self.trap = trap

    def __eq__(self, other):
        self.trap.event()
        return isinstance(other, Located) and self.number == other.number

    def __hash__(self):
        self.trap.event()
        return self.number % 3

    def __repr__(self):
        return f"<{self.number}>"


class Injected(Exception):
    """What a trap raises."""


def raise_(failure):
    raise failure


def new_queue(module, cache=None):
    queue = module._CScanQueue(cache or FakeLocationDataCache())
    queue.SetScansToOrder(dict(kOrders))
    return queue


def steps_of(module, queue, loc):
    """A session as a list of functions; `loc(n)` makes a location, a new object each time."""

    def item(number, scope_name, scan_name=kPrimary, priority=2):
        return module.CScanItem(loc(number), scope_name, scan_name, priority)

    return [
        lambda: queue.AddScanPairs([(loc(n), "*") for n in range(5)], kPrimary, 2, True),
        lambda: queue.AddScanPairs([(loc(n), "s") for n in range(8)], kDerived, 2),
        lambda: queue.AddScanPairs([(loc(n), "t") for n in (6, 1)], kDerived, 1),
        lambda: queue.AddScanPairs([(loc(6), "*"), (loc(2), "*")], kPrimary, 1, True),
        lambda: queue.AddScanPairs([(loc(7), "*"), (loc(7), "s")], kDerived),
        lambda: queue.UpdateForVisibleDocuments(loc(3), [loc(4), loc(7)]),
        lambda: queue.AddScanPairs([(loc(3), "v"), (loc(4), "*")], kDerived, 1),
        lambda: queue.First(),
        lambda: complete_first(queue),
        lambda: queue.ScanCompleted(item(2, "s", kDerived)),
        lambda: queue.GetScanCount(item(2, "s", kDerived)),
        lambda: queue.RemoveScanTriple((loc(1), "t", kDerived)),
        lambda: queue.StartWaitingForData(item(5, "s", kDerived)),
        lambda: queue._MoveScansForLocToWaitingForInspect(loc(7)),
        lambda: queue.PopWholeFilesToCheck(1),
        lambda: queue._CB_TreeBranchesNowReady(None, {loc(7)}),
        lambda: queue.FinishedWaitingForData(item(5, "s", kDerived)),
        lambda: queue.RemoveAllForLocations([loc(0), loc(6)], {kDerived}),
        lambda: lgtk.step(),
        lambda: queue.RemoveAllForLocations([loc(3), loc(9)]),
        lambda: queue.GetAllLocations(),
        lambda: lgtk.step(),
    ]


def run(steps, trap, allowed):
    """Run the steps; only the allowed failures may come out. Returns the failures."""
    failures = []
    for step in steps:
        try:
            step()
        except allowed as failure:
            failures.append(failure)
    trap.off()
    return failures


def drain(queue, limit=200):
    for _ in range(limit):
        if complete_first(queue).loc is None:
            return
    raise AssertionError("the queue doesn't run dry")


def count_events(module):
    trap = Trap()
    queue = new_queue(module)
    assert run(steps_of(module, queue, lambda n: Located(n, trap)), trap, ()) == []
    return trap.count


def test_equality_and_hash_that_raise_at_each_call_in_turn():
    module = implementation("cpp")
    events = count_events(module)
    assert events > 100
    for at in range(1, events + 1):
        hostreset.reset()
        failure = Injected(at)
        trap = Trap(at, lambda: raise_(failure))
        queue = new_queue(module)
        for step in steps_of(module, queue, lambda n: Located(n, trap)):
            try:
                step()
            except Injected as caught:
                assert caught is failure
            trap.off()
            check_invariants(queue)
            trap.on()
        assert trap.sprung
        trap.off()
        drain(queue)
        queue.Clear()
        assert queue.Empty(False)


def actions_on(queue, trap):
    """Ways to come back into the queue."""

    def own(n):
        return Located(n, trap)

    return {
        "add": lambda: queue.AddScanPairs([(own(n), "r") for n in (0, 7, 20)], kPrimary, 1, True),
        "add many": lambda: queue.AddScanPairs([(own(n), "*") for n in range(40, 90)], kDerived),
        "remove": lambda: queue.RemoveAllForLocations([own(n) for n in range(8)]),
        "clear": queue.Clear,
        "complete": lambda: complete_first(queue),
        "show": lambda: queue.UpdateForVisibleDocuments(own(2), [own(6)]),
        "wait": lambda: queue._MoveScansForLocToWaitingForInspect(own(2), 1),
        "pop": lambda: queue.PopWholeFilesToCheck(),
        "emit": queue._SignalEmitIdle,
        "destroy": queue.destroy,
    }


kActions = (
    *("add", "add many", "remove", "clear", "complete"),
    *("show", "wait", "pop", "emit", "destroy"),
)


def come_back_in(module, action, after_step):
    """Run the session once for each call of `__eq__` or `__hash__`, which does the action first.

    Debug checks may fail: an operation may find that what it stood on has gone.
    """
    for at in range(1, count_events(module) + 1):
        hostreset.reset()
        trap = Trap(at)
        queue = new_queue(module)
        trap.action = actions_on(queue, trap)[action]
        for step in steps_of(module, queue, lambda n: Located(n, trap)):
            try:
                step()
            except AssertionError:
                assert __debug__
            trap.off()
            after_step(queue)
            trap.on()
        trap.off()
        queue.Clear()
        queue.AddScanPairs([(Located(n, trap), "*") for n in range(5)], kPrimary)
        drain(queue)
        assert queue.Empty(False)


@pytest.mark.parametrize("action", kActions)
def test_equality_and_hash_that_come_back_in_break_nothing_for_good(action):
    come_back_in(implementation("cpp"), action, lambda queue: queue.GetAllLocations())


@pytest.mark.parametrize("action", kActions)
def test_equality_and_hash_that_come_back_in_leave_the_invariants_whole(action):
    come_back_in(implementation("cpp"), action, check_invariants)


@pytest.mark.parametrize("action", ["add", "remove", "clear", "complete", "show", "destroy"])
def test_location_that_comes_back_in_when_it_dies(action):
    """Each release of a location that was only the queue's runs an operation of the queue."""
    module = implementation("cpp")
    trap = Trap()
    deaths = 0

    class Mortal(Located):
        def __del__(self):
            nonlocal deaths
            deaths += 1
            if deaths % 3 == 0 and trap.armed:
                trap.armed = False
                actions_on(queue, trap)[action]()
                trap.armed = True

    queue = new_queue(module)
    for step in steps_of(module, queue, lambda n: Mortal(n, trap)):
        step()
        check_invariants(queue)
    trap.off()
    drain(queue)
    queue.Clear()
    lgtk.run_idle()
    assert deaths > 0 and queue.Empty(False)


def host_calls(module, monkeypatch, trap):
    """Replace every call of the host that the queue makes by one that meets the trap first."""

    class Cache(FakeLocationDataCache):
        def TreeBranchReady(self, leaf_loc, flag):
            trap.event()
            return super().TreeBranchReady(leaf_loc, flag)

    def trapped(function):
        def call(*args, **kwargs):
            trap.event()
            return function(*args, **kwargs)

        return call

    monkeypatch.setattr(lgtk, "idle_add", trapped(lgtk.idle_add))
    monkeypatch.setattr(lgtk, "idle_remove", trapped(lgtk.idle_remove))
    monkeypatch.setattr(
        location, "IsAsyncInspectLocation", trapped(location.IsAsyncInspectLocation)
    )
    monkeypatch.setattr(CDestroyable, "emit", trapped(CDestroyable.emit))
    monkeypatch.setattr(CDestroyable, "destroy", trapped(CDestroyable.destroy))
    cache = Cache()
    return new_queue(module, cache), cache


def host_session(module, queue, cache):
    r, s, a, b = remote("r"), remote("s"), local("a"), local("b")

    def unready():
        cache.ready.clear()

    return [
        lambda: queue.AddScanPairs([(a, "*"), (b, "s")], kPrimary),
        lambda: queue.AddScanPairs([(r, "*"), (a, "t")], kDerived, 1, True),
        lambda: queue._SignalEmitIdle(),
        lambda: cache.ready.update((r, s)),
        lambda: queue._CB_TreeBranchesNowReady(cache, {r}),
        lambda: queue.AddScanPairs([(s, "*"), (s, "u")], kPrimary, 1, True),
        unready,
        lambda: queue.First(),
        lambda: queue.PopWholeFilesToCheck(),
        lambda: queue._CB_TreeBranchesNowReady(cache, {r, s}),
        lambda: queue.RemoveAllForLocations([a, b]),
        lambda: queue._SignalEmitIdle(),
        lambda: queue.AddScanPairs([(a, "*"), (b, "*")], kPrimary),
        lambda: queue.AddScanPairs([(b, "*")], kPrimary, 1),
        lambda: queue.UpdateForVisibleDocuments(a, [b]),
        lambda: complete_first(queue),
        lambda: queue.Clear(),
        lambda: queue.AddScanPairs([(a, "*"), (r, "*")], kPrimary),
        lambda: queue.destroy(),
    ]


def test_collaborators_that_raise_at_each_call_in_turn(monkeypatch):
    module = implementation("cpp")
    trap = Trap()
    with monkeypatch.context() as patch:
        queue, cache = host_calls(module, patch, trap)
        run(host_session(module, queue, cache), trap, ())
    events = trap.count
    assert events > 30
    for at in range(1, events + 1):
        hostreset.reset()
        failure = Injected(at)
        trap = Trap(at, lambda: raise_(failure))
        with monkeypatch.context() as patch:
            queue, cache = host_calls(module, patch, trap)
            for step in host_session(module, queue, cache):
                try:
                    step()
                except Injected as caught:
                    assert caught is failure
                check_invariants(queue)
            assert trap.sprung
            trap.off()
            queue.Clear()
            queue.AddScanPairs([(local("after"), "*")], kPrimary)
            assert queue.First().loc is local("after")
            drain(queue)


@pytest.mark.parametrize("action", ["add", "remove", "clear", "complete", "first"])
def test_collaborators_that_come_back_in_at_each_call_in_turn(monkeypatch, action):
    module = implementation("cpp")
    at, sprung = 0, True
    while sprung:
        at += 1
        hostreset.reset()
        trap = Trap(at)
        with monkeypatch.context() as patch:
            queue, cache = host_calls(module, patch, trap)
            a, x = local("a"), local("x")
            trap.action = {
                "add": lambda: queue.AddScanPairs([(a, "q"), (x, "*")], kPrimary, 1),
                "remove": lambda: queue.RemoveAllForLocations([a, remote("r"), local("b")]),
                "clear": lambda: queue.Clear(),
                "complete": lambda: complete_first(queue),
                "first": lambda: queue.First(),
            }[action]
            for step in host_session(module, queue, cache):
                step()
                check_invariants(queue)
            sprung = trap.sprung
    assert at > 20


def test_scan_is_queued_whole_or_not_at_all_when_the_idle_fails(monkeypatch):
    """What the caller was told has failed may be asked for again, and is then queued."""
    module = implementation("cpp")
    queue = new_queue(module)
    failure = Injected("idle_add")
    with monkeypatch.context() as patch:
        patch.setattr(lgtk, "idle_add", lambda *args, **kwargs: raise_(failure))
        with pytest.raises(Injected) as caught:
            queue.AddScanPairs([(local("a"), "s"), (local("b"), "s")], kPrimary)
    assert caught.value is failure
    check_invariants(queue)
    queue.AddScanPairs([(local("a"), "s"), (local("b"), "s")], kPrimary)
    check_invariants(queue)
    assert queue.GetAllLocations() == {local("a"), local("b")}
    drain(queue)
    assert queue.Empty()


def test_location_whose_hash_changes_is_lost_but_harmless():
    class Shifting:
        value = 1

        def __hash__(self):
            return self.value

        def __eq__(self, other):
            return self is other

    queue = new_queue(implementation("cpp"))
    loc = Shifting()
    queue.AddScanPairs([(loc, "s"), (local("a"), "s")], kPrimary)
    loc.value = 2
    queue.AddScanPairs([(loc, "t")], kPrimary)
    queue.RemoveAllForLocations([loc])
    assert queue.First().scope_name in ("s", "t")
    queue.Clear()
    assert queue.Empty(False)


def test_equality_that_answers_with_no_truth(impl):
    failure = Injected("truth")

    class Untrue:
        def __bool__(self):
            raise failure

    class Odd:
        def __hash__(self):
            return 1

        def __eq__(self, other):
            return Untrue()

    queue = new_queue(impl)
    queue.AddScanPairs([(Odd(), "*")], kPrimary)
    with pytest.raises(Injected) as caught:
        queue.AddScanPairs([(Odd(), "*")], kPrimary)
    assert caught.value is failure
    assert len(queue.GetAllLocations()) == 1


def test_equality_is_not_asked_of_identical_locations(impl):
    class Proud:
        def __hash__(self):
            return 1

        def __eq__(self, other):
            raise Injected("asked")

    queue = new_queue(impl)
    loc = Proud()
    queue.AddScanPairs([(loc, "s"), (loc, "t")], kPrimary)
    queue.AddScanPairs([(loc, "s")], kPrimary, 1)
    queue.ScanCompleted(queue.First())
    queue.RemoveAllForLocations([loc])
    assert queue.Empty()


def test_equality_may_never_say_yes(impl):
    """Like a floating-point NaN: equal to nothing, found by identity."""
    nan = float("nan")
    queue = new_queue(impl)
    queue.AddScanPairs([(nan, "s"), (nan, "t")], kPrimary)
    assert len(queue.GetAllLocations()) == 1
    queue.RemoveAllForLocations([nan])
    assert queue.Empty()


def test_add_asks_for_the_hash_at_most_twice_and_never_for_equality():
    module = implementation("cpp")
    calls = {"hash": 0, "eq": 0}

    class Counting:
        def __hash__(self):
            calls["hash"] += 1
            return id(self) >> 4

        def __eq__(self, other):
            calls["eq"] += 1
            return self is other

    queue = new_queue(module)
    locs = [Counting() for _ in range(1000)]
    for priority in (2, 2, 1):
        calls.update(hash=0, eq=0)
        for loc in locs:
            queue.AddScanPairs([(loc, "*")], kPrimary, priority)
        assert calls["hash"] <= 2 * len(locs)
        assert calls["eq"] == 0
    calls.update(hash=0, eq=0)
    queue.AddScanPairs([(loc, "*") for loc in locs], kPrimary, 0)
    assert calls["hash"] <= 2 * len(locs)
    assert calls["eq"] == 0


def test_queue_releases_its_locations():
    module = implementation("cpp")
    alive = 0

    class Counted:
        def __init__(self):
            nonlocal alive
            alive += 1

        def __del__(self):
            nonlocal alive
            alive -= 1

    queue = new_queue(module)
    for leave in (
        lambda: drain(queue),
        lambda: queue.RemoveAllForLocations(queue.GetAllLocations()),
        lambda: queue.Clear(),
    ):
        queue.AddScanPairs([(Counted(), "*") for _ in range(50)], kPrimary, 2, True)
        assert alive == 50
        leave()
        while queue.PopWholeFilesToCheck() is not None:
            pass
        lgtk.run_idle()
        queue.Clear()
        lgtk.run_idle()
        lgtk.reset()
        gc.collect()
        import hostlog

        hostlog.calls.clear()
        assert alive == 0


def test_texts_that_are_subclasses_of_str():
    class Text(str):
        def __eq__(self, other):
            raise Injected("compared")

        def __lt__(self, other):
            raise Injected("sorted")

        __hash__ = str.__hash__

    module = implementation("cpp")
    queue = new_queue(module)
    try:
        queue.AddScanPairs([(local("a"), Text("t")), (local("a"), Text("s"))], kPrimary)
    except (Injected, TypeError):
        assert queue.Empty(False) or queue.First().scope_name in ("s", "t")
    queue.Clear()
    assert queue.Empty()


@pytest.mark.parametrize("name", ["\ud800", "a\0b", "", "*x", " *", "\U0010ffff", "x" * 100_000])
def test_any_text_is_a_scope_name(impl, name):
    queue = new_queue(impl)
    a = local("a")
    queue.AddScanPairs([(a, "m"), (a, name)], kPrimary)
    assert [i.scope_name for i in (queue.First(),)] == [min("m", name)]
    assert queue.RemoveScanTriple((a, name, kPrimary)) is True
    assert queue.First().scope_name == "m"


@pytest.mark.parametrize("name", ["\ud800", "a\0b", "", "*", "x" * 1000])
def test_any_text_is_a_scan_name(impl, name):
    queue = new_queue(impl)
    queue.SetScansToOrder({name: 1})
    queue.AddScanPairs([(local("a"), "*")], name)
    assert queue.First().scan_name == name
    assert queue.GetFileCount(name, None) == 1
    queue.ScanCompleted(queue.First())
    assert queue.Empty()


def test_mapping_of_orders_that_is_no_dict(impl):
    """Any mapping will do, or a clean failure: never a crash, never a lost queue."""
    from collections import UserDict

    queue = new_queue(impl)
    try:
        queue.SetScansToOrder(UserDict(kOrders))
        queue.AddScanPairs([(local("a"), "*")], kPrimary)
        assert [q.fOrder for q in queue._fOrderedQueues] == [1]
    except TypeError:
        assert queue.Empty()


def test_orders_of_a_wrong_type_fail_cleanly():
    module = implementation("cpp")
    queue = new_queue(module)
    for wrong in ("first", None, 1.5, 2**63):
        queue.SetScansToOrder({kPrimary: wrong})
        with pytest.raises((TypeError, OverflowError, ValueError)):
            queue.AddScanPairs([(local("a"), "*")], kPrimary)
        assert queue.Empty() and list(queue._fOrderedQueues) == []
    queue.SetScansToOrder(dict(kOrders))
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    assert queue.First().loc is local("a")


def test_pair_sequence_that_changes_while_it_is_read(impl):
    """Pairs are added from inside the question of readiness."""
    pairs = [(local("a"), "*"), (local("b"), "*")]

    class Growing(impl._CScanQueue):
        def IsTreeBranchReady(self, leaf_loc):
            if len(pairs) < 5:
                pairs.append((local(str(len(pairs))), "*"))
            return True

    queue = Growing(FakeLocationDataCache())
    queue.SetScansToOrder(dict(kOrders))
    queue.AddScanPairs(pairs, kPrimary)
    assert {local("a"), local("b")} <= queue.GetAllLocations()
    check_invariants(queue)
