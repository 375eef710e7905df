"""Synchronous scans three deep: each scan asks for the next one from inside of its `Scan`."""

import time

import pytest
from collaborators import Buffer
from pysource import scopescanner
from pysource.scancoordinator import CScanItem
from pysource.scopescanner import kFinishedScanning
from world import forget, kDerived, kPrimary, pending, told

kEnd = 50.0

# The scans, outermost first, and where in one of them a failure can be.
kScopes = "abc"
kMoments = ["before", "after", "save", "destroy"]


@pytest.fixture(autouse=True)
def clock(monkeypatch):
    """A wall clock that stands still at 0."""
    monkeypatch.setattr(time, "time", lambda: 0.0)


class Nest:
    """Scans of `a`, `b` and `c`, each of which asks for the next one and for all that are running.

    The outermost call claims `c` as well. The scan of `failing` fails at a moment, the first time;
    with `caught` the scan around it goes on all the same.
    """

    def __init__(self, world, monkeypatch, failing="", moment="", caught=False):
        self.coordinator = world.make()
        self.loc = world.loc("/p/a.py")
        self.failing, self.moment, self.caught = failing, moment, caught
        self.failure = RuntimeError(f"{moment} in {failing}")
        self.results = {}
        self.begun = []
        self.deepest = None
        world.cache_mgr.buffers[self.loc] = Buffer(False)  # else whole files are queued
        nest = self

        class CScanner(scopescanner.CSingleScopePrimaryScanner):
            def Scan(self, end_time):
                return nest.scan(self.args[1])

            def SaveToInfoCache(self, *args):
                nest.fail(self.args[1], "save")
                return super().SaveToInfoCache(*args)

            def _destroy_impl(self):
                super()._destroy_impl()
                nest.fail(self.args[1], "destroy")

        monkeypatch.setattr(scopescanner, "CSingleScopePrimaryScanner", CScanner)

    def triple(self, scope):
        return (self.loc, scope, kPrimary)

    def triples(self, scopes):
        return {self.triple(scope) for scope in scopes}

    def ask(self, scopes):
        triples = [self.triple(scope) for scope in scopes]
        return self.coordinator.TryToScanDictNow(self.loc, "", triples, kEnd)

    def fail(self, scope, moment):
        if (scope, moment) == (self.failing, self.moment):
            self.moment = ""
            raise self.failure

    def scan(self, scope):
        again = scope in self.begun
        self.begun.append(scope)
        self.fail(scope, "before")
        depth = kScopes.index(scope)
        if depth == 2:
            self.deepest = (
                set(self.coordinator._fActiveScanNowTriples),
                set(self.coordinator._fPendingScanNowTriples),
            )
        elif not again:
            inner = kScopes[depth + 1]
            try:
                self.results[inner] = self.ask(inner + kScopes[: depth + 1])
            except RuntimeError as error:
                assert error is self.failure
                if not self.caught:
                    raise
        self.fail(scope, "after")
        return kFinishedScanning

    def at_rest(self):
        """Nothing is in hand, and every scanner has been destroyed, once."""
        coordinator = self.coordinator
        assert set(coordinator._fActiveScanNowTriples) == set()
        assert set(coordinator._fPendingScanNowTriples) == set()
        assert coordinator.fActiveScanItem is None
        assert all(scanner.destroyed for scanner in scopescanner.made)
        return True


def queued(nest):
    return {scope for _, scope, _ in pending(nest.coordinator)}


def test_each_scan_runs_inside_of_the_one_that_asked_for_it(world, monkeypatch):
    nest = Nest(world, monkeypatch)
    assert nest.ask("ac") is True
    assert nest.begun == ["a", "b", "c"]
    assert nest.results == {"b": True, "c": True}
    assert nest.deepest == (nest.triples("abc"), nest.triples("abc"))
    assert nest.at_rest()
    # The outermost call had claimed `c` and queues it, because a nested one was quicker.
    assert pending(nest.coordinator) == {nest.triple("c"): 1}
    forget()


def test_scan_that_is_running_at_any_depth_is_not_begun_again(world, monkeypatch):
    nest = Nest(world, monkeypatch)
    inside = []

    def scan(scope):
        nest.begun.append(scope)
        if scope == "c":
            inside.append(nest.ask("abc"))
        else:
            nest.ask(kScopes[kScopes.index(scope) + 1])
        return kFinishedScanning

    monkeypatch.setattr(nest, "scan", scan)
    assert nest.ask("a") is True
    assert (nest.begun, inside) == (["a", "b", "c"], [False])
    assert nest.at_rest() and queued(nest) == set()
    forget()


@pytest.mark.parametrize("moment", kMoments)
@pytest.mark.parametrize(
    ("failing", "left"), [("a", "ac"), ("b", "abc"), ("c", "abc")], ids=["first", "second", "third"]
)
def test_failure_at_any_level_leaves_nothing_in_hand(world, monkeypatch, failing, left, moment):
    nest = Nest(world, monkeypatch, failing, moment)
    with pytest.raises(RuntimeError) as info:
        nest.ask("ac")
    assert info.value is nest.failure
    depth = kScopes.index(failing) + 1
    assert nest.begun == list(kScopes[: depth if moment == "before" else 3])
    assert nest.at_rest()
    # What was asked for and not finished, at every level, is for the idle loop.
    assert pending(nest.coordinator) == {nest.triple(scope): 1 for scope in left}
    destroyed = [scanner.args[1] for _, scanner in told("destroy")]
    assert destroyed == nest.begun[::-1]
    # And the next call finds everything in order.
    assert nest.ask("b") is True
    assert nest.at_rest()
    forget()


@pytest.mark.parametrize(
    ("failing", "moment", "begun", "left"),
    [
        # The outermost call still means to scan `c`, and does.
        ("c", "before", "abcc", ""),
        ("c", "after", "abcc", ""),
        ("c", "save", "abcc", ""),
        ("c", "destroy", "abcc", ""),
        ("b", "before", "abc", "b"),
        # `c` was finished inside, and is queued because the outermost call had claimed it.
        ("b", "after", "abc", "bc"),
        ("b", "save", "abc", "bc"),
        ("b", "destroy", "abc", "bc"),
    ],
)
def test_scan_that_goes_on_after_a_failure_inside(world, monkeypatch, failing, moment, begun, left):
    nest = Nest(world, monkeypatch, failing, moment, caught=True)
    assert nest.ask("ac") is True
    assert nest.begun == list(begun)
    assert nest.at_rest()
    assert queued(nest) == set(left)
    forget()


@pytest.mark.parametrize("depth", [0, 1, 2])
def test_deadline_that_passes_at_any_level_ends_all_around_it(world, monkeypatch, depth):
    now = [0.0]
    nest = Nest(world, monkeypatch)
    monkeypatch.setattr(time, "time", lambda: now[0])
    fail = nest.fail

    def pass_time(scope, moment):
        if (scope, moment) == (kScopes[depth], "after"):
            now[0] = kEnd + 1.0
        fail(scope, moment)

    monkeypatch.setattr(nest, "fail", pass_time)
    assert nest.ask("ac") is False
    assert nest.begun == ["a", "b", "c"]
    assert nest.results == {"b": depth == 0, "c": depth < 2}
    assert nest.at_rest()
    assert queued(nest) == {0: set("ac"), 1: set("abc"), 2: set("abc")}[depth]
    forget()


@pytest.mark.parametrize("failing", ["", *kScopes])
def test_inside_of_an_idle_scan_all_levels_queue_at_its_priority(world, monkeypatch, failing):
    nest = Nest(world, monkeypatch, failing, "before" if failing else "")
    running = CScanItem(world.loc("/p/run.py"), "*", kPrimary, 2)

    def step(_scanner, _end_time):
        nest.ask("ac")
        return kFinishedScanning

    scopescanner.script.append(step)
    if failing:
        with pytest.raises(RuntimeError) as info:
            nest.coordinator._DoSingleScan(running, kEnd)
        assert info.value is nest.failure
    else:
        assert nest.coordinator._DoSingleScan(running, kEnd) is False
    left = {nest.triple(scope): 2 for scope in {"": "c", "a": "ac"}.get(failing, "abc")}
    assert {key: value for key, value in pending(nest.coordinator).items() if key in left} == left
    assert set(nest.coordinator._fActiveScanNowTriples) == set()
    assert set(nest.coordinator._fPendingScanNowTriples) == set()
    assert nest.coordinator.fActiveScanItem is None
    # The scan of the file itself goes on in the next slice if it failed.
    alive = [scanner for scanner in scopescanner.made if not scanner.destroyed]
    assert [scanner.args[0] for scanner in alive] == ([running.loc] if failing else [])
    forget()


def test_secondary_scans_asked_for_at_any_level_are_queued(world, monkeypatch):
    nest = Nest(world, monkeypatch)
    asked = []

    def scan(scope):
        derived = (nest.loc, scope, kDerived)
        asked.append(nest.coordinator.TryToScanDictNow(nest.loc, "", [derived], kEnd))
        if scope != "c":
            nest.ask(kScopes[kScopes.index(scope) + 1])
        return kFinishedScanning

    monkeypatch.setattr(nest, "scan", scan)
    assert nest.ask("a") is True
    assert asked == [False] * 3
    assert set(pending(nest.coordinator)) == {(nest.loc, scope, kDerived) for scope in kScopes}
    assert nest.at_rest()
    forget()
