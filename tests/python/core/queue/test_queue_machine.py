"""Random sessions over the C++ queue and its twin, side by side.

After each operation both have given the same result or the same failure, all visible state is
equal, and the invariants hold. Some operations walk a set or a mapping whose order nobody promises;
then the twin is tried with each order of its walks until one leads where the C++ queue went.
"""

import itertools
from collections import deque

import pytest
from guiutils import lgtk
from hypothesis import HealthCheck, assume, settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, initialize, invariant, precondition, rule
from queue_support import (
    FakeLocationDataCache,
    check_invariants,
    complete_first,
    implementation,
    kDerived,
    kOrders,
    kPrimary,
    plain,
    state,
)

import hostlog
import hostreset
from loombase.location import CLocalFileLocation, CRemoteFileLocation

kMostOrders = 720  # of one walk that are tried

kLocals = [CLocalFileLocation(f"file:///{n}.py") for n in "ab"]
kRemotes = [CRemoteFileLocation(f"ssh://h/{n}.py") for n in "rs"]

locations = st.sampled_from(kLocals + kRemotes)
scopes = st.sampled_from(["*", "a", "b"])
priorities = st.sampled_from([0, 1, 2])
flags = st.booleans()
pair_lists = st.lists(st.tuples(locations, scopes), min_size=1, max_size=5)


class Walks:
    """The orders in which a twin walks what has no order: first as it comes, then all others."""

    def __init__(self):
        self.plan = deque()
        self.sizes = []

    def __call__(self, entries):
        entries = list(entries)
        self.sizes.append(len(entries))
        order = self.plan.popleft() if self.plan else None
        if order is None or len(order) != len(entries):
            return entries
        return [entries[i] for i in order]


def plans(sizes):
    """All combinations of orders for walks of these sizes, but for the one that was tried."""
    choices = [list(itertools.permutations(range(n))) for n in sizes]
    return itertools.islice(itertools.product(*choices), 1, kMostOrders)


def outcome(operation):
    """("result", value) or ("failure", type, text), of a failed debug check without its text."""
    try:
        return "result", plain(operation())
    except AssertionError:
        return kFailedCheck
    except (ValueError, TypeError, KeyError) as failure:
        return "failure", type(failure), str(failure)


kFailedCheck = ("failure", AssertionError)


def noting(cls):
    """A twin that notes what leads out of the invariants for good; the session starts anew then.

    `strayed`: the map and the scope lists come apart, and a debug check fails or would have to.
    Either a scan is entered that the map holds already, for a location that is queued and waits as
    well: the removal of the later scan deals with the waiting entry alone. Or scopes are moved between
    single queues under another scan name than the map has them, since two names share a queue.

    `endless`: after a late change of orders a location can stay at the head of a single queue while
    the map has lost it. If it isn't ready, `First` can't take it away: a debug check fails then, or
    without checks it would go on for ever.
    """

    class Noting(cls):
        strayed = False
        endless = False

        def First(self):
            for _ in range(20):
                item = self._FirstOrNone()
                if item is not None:
                    return item
            self.endless = True
            raise AssertionError("no end")

        def _AddScanToPerLocationMap(self, loc, scope_name, scan_name, priority):
            if (scope_name, scan_name) in (self.GetPendingDictForLoc(loc) or ()):
                self.strayed = True
            super()._AddScanToPerLocationMap(loc, scope_name, scan_name, priority)

        def _MoveScansBetweenQueues(self, loc, names_to_move, from_queue, to_queue):
            known = self.GetPendingDictForLoc(loc) or ()
            for single in (from_queue, to_queue):
                for name in single.fOrderedDict.get(loc) or ():
                    if (name, to_queue.fScanName) not in known:
                        self.strayed = True
            super()._MoveScansBetweenQueues(loc, names_to_move, from_queue, to_queue)

    return Noting


class Side:
    """One implementation with its collaborators."""

    def __init__(self, name):
        self.module = implementation(name)
        self.cache = FakeLocationDataCache()
        self.walks = Walks()
        self.heard = []
        cls = self.module._CScanQueue
        self.queue = (noting(cls) if name == "twin" else cls)(self.cache)
        if name == "twin":
            self.queue._Walk = self.walks
        for signal in ("locations-added", "locations-removed"):
            self.queue.connect(signal, lambda _q, locs, s=signal: self.heard.append((s, set(locs))))

    def item(self, loc, scope_name, scan_name, priority):
        return self.module.CScanItem(loc, scope_name, scan_name, priority)

    def visible_state(self):
        return {**state(self.queue), "heard": list(self.heard)}


def saved(side):
    """What restores the twin: deep copies of its containers; locations and orders are shared."""
    queue = side.queue
    fields = {
        "fAnyAsyncInspectLocation": queue.fAnyAsyncInspectLocation,
        "_fPerLocationInfo": {
            loc: type(info)(dict(info.scan_name_counts), dict(info.pending_dict))
            for loc, info in queue._fPerLocationInfo.items()
        },
        "_fPerScanNameCounts": dict(queue._fPerScanNameCounts),
        "_fCompletedCount": dict(queue._fCompletedCount),
        "_fPendingLocationsAdded": set(queue._fPendingLocationsAdded),
        "_fPendingLocationsRemoved": set(queue._fPendingLocationsRemoved),
        "_fSignalEmitIdle": queue._fSignalEmitIdle,
        "_fWaitingForInspectByLoc": {
            loc: type(record)(set(record.item_set), record.check_whole_file_priority)
            for loc, record in queue._fWaitingForInspectByLoc.items()
        },
        "_fScanItemsWaitingForData": set(queue._fScanItemsWaitingForData),
        "_fActiveDocLoc": queue._fActiveDocLoc,
        "_fVisibleDocLocs": set(queue._fVisibleDocLocs),
        "_fWholeFilesToCheck": dict(queue._fWholeFilesToCheck),
    }
    singles = [
        (q, [(loc, list(names)) for loc, names in q.fOrderedDict.items()])
        for q in queue._fOrderedQueues
    ]
    return fields, singles, list(side.heard)


def restore(side, copy):
    fields, singles, heard = copy
    vars(side.queue).update(fields)
    side.queue._fOrderedQueues = [single for single, _ in singles]
    for single, entries in singles:
        for loc in list(single.fOrderedDict.keys()):
            del single.fOrderedDict[loc]
        for loc, names in entries:
            single.fOrderedDict.Set(loc, names)
    side.heard[:] = heard


class QueueMachine(RuleBasedStateMachine):
    """Both queues under the same operations. Each scan name has an order of its own."""

    scan_names = (kPrimary, kDerived)
    scan_name = st.sampled_from(scan_names)
    orders = dict(kOrders)
    whole = True  # whether invariants are promised

    @initialize()
    def start(self):
        hostreset.reset()
        self.cpp = Side("cpp")
        self.twin = Side("twin")
        self.both(lambda side: side.queue.SetScansToOrder(dict(self.orders)))

    def both(self, operation):
        """Do it on both sides; results and states must agree. Starts anew after a failed check."""
        twin, cpp = self.twin, self.cpp
        hostlog.calls.clear()
        before = saved(twin)
        twin.walks.plan.clear()
        twin.walks.sizes.clear()
        expected = outcome(lambda: operation(twin)), twin.visible_state()
        if twin.queue.endless:
            self.start()
            return
        sizes = list(twin.walks.sizes)
        actual = outcome(lambda: operation(cpp)), cpp.visible_state()
        if twin.queue.strayed:
            assert actual[0] == expected[0]
            self.start()
            return
        if actual == expected:
            return
        after = saved(twin)
        for plan in plans(sizes):
            restore(twin, before)
            twin.walks.plan = deque(plan)
            if (outcome(lambda: operation(twin)), twin.visible_state()) == actual:
                return
        restore(twin, after)
        assert actual == expected, "no order of the twin's walks leads here"

    @rule(pairs=pair_lists, scan=st.data(), priority=st.none() | priorities, check=flags)
    def add(self, pairs, scan, priority, check):
        name = scan.draw(self.scan_name)
        self.both(lambda side: side.queue.AddScanPairs(pairs, name, priority, check))

    @rule(pairs=pair_lists, scan=st.data(), priority=priorities, check=flags)
    def add_ready(self, pairs, scan, priority, check):
        name = scan.draw(self.scan_name)
        self.both(lambda side: side.queue._AddReadyScanPairs(pairs, name, priority, check))

    @rule(
        loc=locations, scan=st.data(), late=st.lists(scopes, max_size=2), early=scopes, show=flags
    )
    def add_at_two_priorities(self, loc, scan, late, early, show):
        """Scopes of one location at two priorities, which then perhaps meet in one queue."""
        name = scan.draw(self.scan_name)
        self.both(lambda s: s.queue.AddScanPairs([(loc, scope) for scope in late], name, 2))
        self.both(lambda s: s.queue.AddScanPairs([(loc, early)], name, 1))
        if show:
            self.both(lambda side: side.queue.UpdateForVisibleDocuments(None, ()))
            self.both(lambda side: side.queue.UpdateForVisibleDocuments(loc, ()))

    @rule()
    def first_and_complete(self):
        self.both(lambda side: complete_first(side.queue))

    @rule()
    def first(self):
        self.both(lambda side: side.queue.First())

    @rule()
    def first_or_none(self):
        self.both(lambda side: side.queue._FirstOrNone())

    @rule(loc=locations, scope=scopes, scan=st.data(), priority=st.none() | priorities)
    def complete_any(self, loc, scope, scan, priority):
        name = scan.draw(self.scan_name)
        self.both(lambda s: s.queue.ScanCompleted(s.item(loc, scope, name, priority)))
        self.both(lambda s: s.queue.GetScanCount(s.item(loc, scope, name, priority)))

    @rule(
        loc=locations, scope=scopes, scan=st.data(), priority=st.none() | priorities, waiting=flags
    )
    def remove_triple(self, loc, scope, scan, priority, waiting):
        triple = (loc, scope, scan.draw(self.scan_name))
        self.both(lambda side: side.queue.RemoveScanTriple(triple, priority, waiting))

    @rule(locs=st.lists(locations, max_size=3), scan=st.data(), waiting=flags)
    def remove_locations(self, locs, scan, waiting):
        names = scan.draw(st.none() | st.sets(self.scan_name))
        self.both(lambda side: side.queue.RemoveAllForLocations(locs, names, waiting))

    @rule(active=st.none() | locations, visible=st.sets(locations, max_size=3))
    def show(self, active, visible):
        self.both(lambda side: side.queue.UpdateForVisibleDocuments(active, visible))

    @precondition(lambda self: not self.twin.queue.Empty(False))
    @rule(data=st.data())
    def show_a_queued_one(self, data):
        queued = sorted(self.twin.queue._fPerLocationInfo, key=repr)
        loc = data.draw(st.sampled_from(queued))
        self.both(lambda side: side.queue.UpdateForVisibleDocuments(None, ()))
        self.both(lambda side: side.queue.UpdateForVisibleDocuments(loc, ()))

    @rule(locs=st.sets(st.sampled_from(kRemotes)))
    def set_ready(self, locs):
        self.cpp.cache.ready = set(locs)
        self.twin.cache.ready = set(locs)

    @rule(locs=st.sets(locations))
    def report_ready(self, locs):
        size = sum(
            len(record.item_set)
            for loc, record in self.twin.queue._fWaitingForInspectByLoc.items()
            if loc in locs
        )
        assume(size <= 4)
        self.both(lambda s: s.cache.emit("now-tree-branch-ready", s.cache, set(locs)))

    @rule(loc=locations, scope=scopes, scan=st.data(), priority=priorities, check=flags)
    def add_waiting(self, loc, scope, scan, priority, check):
        name = scan.draw(self.scan_name)
        self.both(
            lambda s: s.queue._AddItemsWaitingForInspect(loc, [s.item(loc, scope, name, priority)])
        )
        if check:
            self.both(lambda s: s.queue._SetWholeFileCheckWaitingForInspect(loc, priority))

    @rule(loc=locations, priority=st.none() | priorities)
    def move_to_waiting(self, loc, priority):
        self.both(lambda s: s.queue._MoveScansForLocToWaitingForInspect(loc, priority))

    @rule(loc=locations, scope=scopes, scan=st.data(), priority=priorities)
    def park(self, loc, scope, scan, priority):
        name = scan.draw(self.scan_name)
        self.both(lambda s: s.queue.StartWaitingForData(s.item(loc, scope, name, priority)))

    @precondition(lambda self: not self.twin.queue.Empty(False))
    @rule()
    def park_first(self):
        def park(side):
            item = side.queue.First()
            if item.loc is not None:
                side.queue.StartWaitingForData(item)

        self.both(park)

    @precondition(lambda self: self.twin.queue._fScanItemsWaitingForData)
    @rule(data=st.data())
    def unpark(self, data):
        parked = sorted(map(repr, self.twin.queue._fScanItemsWaitingForData))
        text = data.draw(st.sampled_from(parked))
        (chosen,) = (i for i in self.twin.queue._fScanItemsWaitingForData if repr(i) == text)
        self.both(lambda s: s.queue.FinishedWaitingForData(s.item(*chosen)))

    @rule(max_files=st.integers(-1, 4))
    def pop_checks(self, max_files):
        self.both(lambda side: side.queue.PopWholeFilesToCheck(max_files))

    @rule()
    def idle(self):
        for side in (self.cpp, self.twin):
            if side.queue._fSignalEmitIdle is not None:
                lgtk.idle_remove(side.queue._fSignalEmitIdle)
        self.both(lambda side: side.queue._SignalEmitIdle())

    @precondition(lambda self: len(self.twin.queue._fCompletedCount) > 3)
    @rule()
    def clear(self):
        self.both(lambda side: side.queue.Clear())

    @rule(added=st.none() | st.sets(locations), removed=st.none() | st.sets(locations))
    def report(self, added, removed):
        self.both(lambda side: side.queue._UpdatePendingSets(added, removed))

    @rule(loc=locations, scope=scopes, scan=st.data(), priority=st.none() | priorities)
    def ask(self, loc, scope, scan, priority):
        name = scan.draw(self.scan_name)
        for question in (
            lambda q: q.Empty(),
            lambda q: q.Empty(False),
            lambda q: q.LocationInQueue(loc),
            lambda q: q.LocationInQueue(loc, name),
            lambda q: q.GetPendingDictForLoc(loc),
            lambda q: q.GetFileCount(name, priority),
            lambda q: q.GetFileCount(None, priority),
            lambda q: q.GetWaitingCount(),
            lambda q: q.GetAllLocations(),
            lambda q: q.IsTreeBranchReady(loc),
        ):
            self.both(lambda side, ask=question: ask(side.queue))
        record = self.twin.queue._fWaitingForInspectByLoc.get(loc)
        if record is None or len({i.priority for i in record.item_set}) <= 1:
            self.both(lambda side: side.queue._FindScanPriority(loc, scope, name))

    @rule(limit=st.integers(0, 12))
    def dump(self, limit):
        def lines(side):
            texts = []
            side.queue.PrintScanQueues(texts.append, limit)
            area = next((i for i, t in enumerate(texts) if t.startswith("Waiting")), len(texts))
            # Which of the waiting ones are shown is nobody's promise, only how many.
            return texts[:area] + [t.split(":")[0] for t in texts[area:]]

        self.both(lines)

    @invariant()
    def invariants_hold(self):
        if self.whole and hasattr(self, "cpp"):
            check_invariants(self.cpp.queue)

    def teardown(self):
        if hasattr(self, "cpp"):
            self.both(lambda side: side.queue.destroy())


class ThreeNamesMachine(QueueMachine):
    """A third scan name, without an order of its own: it has order 0 and comes first."""

    scan_names = (kPrimary, kDerived, "unordered")
    scan_name = st.sampled_from(scan_names)


class ChangingOrdersMachine(QueueMachine):
    """Orders are changed late, and names may come to share one: the invariants aren't promised."""

    whole = False

    @rule(first=st.integers(0, 2), second=st.integers(0, 2))
    def change_orders(self, first, second):
        self.both(
            lambda side: side.queue.SetScansToOrder({kPrimary: first, kDerived: second})
        )


kSettings = settings(
    max_examples=2 * settings.default.max_examples,
    suppress_health_check=[HealthCheck.too_slow, HealthCheck.filter_too_much],
)


@pytest.mark.parametrize("machine", [QueueMachine, ThreeNamesMachine, ChangingOrdersMachine])
def test_random_sessions(machine, capsys):
    from hypothesis.stateful import run_state_machine_as_test

    run_state_machine_as_test(machine, settings=kSettings)
    capsys.readouterr()
