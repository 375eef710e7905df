"""A host that fails at each of its calls in turn.

A session that reaches all operations is run once to count the calls that the host gets, and then once
for each of them, which then fails. Whatever it was, the failure must come out as the very object that
was raised, the queue must be whole, nothing of a synchronous scan may be left over, and the next good
call must work.
"""

import collaborators
import pytest
from loomutils import reflect
from operations import kVirtual, watched
from pysource import _fastaccess, scopescanner
from pysource.scancoordinator import CScanCoordinator
from queue_support import check_invariants
from session import Session, watch_host
from world import World

import hostclock
import hostreset

# The runs are dealt to so many tests, so that a failure tells roughly where it is.
kParts = 8


class Injected(Exception):
    """What the chosen call raises."""


class Watch:
    """Counts the calls of the host; the one whose number is `at` fails."""

    def __init__(self, at: int = -1) -> None:
        self.at = at
        self.names: list[str] = []
        self.armed = False
        self.failure = Injected(at)
        self.came_out = False

    def tell(self, name: str) -> None:
        if self.armed:
            self.names.append(name)
            if len(self.names) == self.at:
                raise self.failure


def check(session: Session) -> None:
    """What must hold after each step."""
    coordinator = session.coordinator
    check_invariants(coordinator._fScanQueue)
    assert coordinator._fActiveScanNowTriples == set()
    assert coordinator._fPendingScanNowTriples == set()


def new_world(monkeypatch) -> World:
    hostreset.reset()
    monkeypatch.setattr(_fastaccess, "__TimeFunc", hostclock.now)
    return World()


def run(monkeypatch, watch: Watch, cls: type = CScanCoordinator) -> Session:
    """Run the session. Only the injected failure may come out of a step."""
    with monkeypatch.context() as patch:
        session = Session(new_world(patch), cls)
        watch_host(patch, watch.tell)
        for step in session.steps():
            watch.armed = True
            try:
                step()
            except Injected as failure:
                assert failure is watch.failure
                watch.came_out = True
            watch.armed = False
            if session.coordinator is None:
                session.construct()
            check(session)
        watch.came_out |= watch.failure in reflect.reported
        works_again(session)
    return session


def works_again(session: Session) -> None:
    """A coordinator that has seen all this, even its own end, still scans what it is given."""
    coordinator = session.coordinator
    scopescanner.reset()
    coordinator.FlushQueue()
    loc = session.world.loc("/p/after.py")
    session.world.info_cache.disk_mtimes[loc] = 5.0
    hostclock.advance(10.0)
    coordinator._fScanQueue.AddScanPairs([(loc, "*")], "primary", 1)
    coordinator._CScanCoordinator__DoScans(hostclock.now() + 5.0)
    assert any(loc in scanner.args for scanner in scopescanner.made)
    check(session)


def test_the_session_reaches_every_operation(monkeypatch):
    watch = Watch()
    run(monkeypatch, watch, watched(*kVirtual))
    assert set(kVirtual) <= set(watch.names)


def test_without_a_failure_nothing_is_reported(monkeypatch):
    watch = Watch()
    run(monkeypatch, watch)
    assert reflect.reported == []
    assert "ReportCurrentException" not in watch.names
    assert len(watch.names) > 500


def test_every_collaborator_is_called(monkeypatch):
    """What the session never asks of the host can't be made to fail."""
    watch = Watch()
    run(monkeypatch, watch)
    offered = {
        name
        for cls in vars(collaborators).values()
        if isinstance(cls, type) and cls.__module__ == collaborators.__name__
        for name, member in vars(cls).items()
        if callable(member) and not name.startswith("__")
    }
    heard = {name.rpartition(".")[2] for name in watch.names}
    assert offered <= heard


@pytest.mark.parametrize("part", range(kParts))
def test_each_call_of_the_host_fails_in_turn(monkeypatch, part):
    counting = Watch()
    run(monkeypatch, counting)
    count = len(counting.names)
    for at in range(1 + part, count + 1, kParts):
        watch = Watch(at)
        try:
            run(monkeypatch, watch)
        except BaseException as failure:
            failure.add_note(f"call {at} of {count} had failed: {watch.names[at - 1 : at]}")
            raise
        assert watch.came_out, f"the failure of call {at} was swallowed: {watch.names[at - 1]}"
