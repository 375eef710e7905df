"""A host that comes back in at its calls: it adds, removes, scans, flushes and destroys.

The session of the failing host, run once for every few calls; the chosen call does something to the
coordinator before it is answered.
"""

from collections.abc import Callable

import pytest
from guiutils import lgtk
from pysource import _fastaccess
from queue_support import check_invariants
from session import Session, watch_host
from world import kPrimary, World

import hostclock
import hostreset

# Each action is done at every so many calls; they begin at different ones.
kStride = 13


def add(session):
    pairs = [(session.a, "*"), (session.d, "f"), (session.world.loc("/p/new.py"), "*")]
    session.coordinator.AddPairsToPrimaryQueue(pairs, True)
    session.coordinator.AddPairsToSecondaryQueue(pairs)


def remove(session):
    session.coordinator.RemoveLocationsFromQueue([session.a, session.b, session.c, session.d])


def scan_now(session):
    needs = [(session.a, "f", kPrimary), (session.b, "n", kPrimary)]
    session.coordinator.TryToScanDictNow(session.a, "f", needs, hostclock.now() + 1.0)


def idle(session):
    lgtk.step()


kActions: list[Callable[[Session], object]] = [
    add,
    remove,
    scan_now,
    idle,
    lambda session: session.coordinator.FlushQueue(),
    lambda session: session.coordinator._fScanQueue.Clear(),
    lambda session: session.coordinator.SuspendIdleScans(),
    lambda session: session.coordinator._UpdateForHelperProcess(),
    lambda session: session.coordinator.destroy(),
]


def run(monkeypatch, at: int, action: Callable[[Session], object]) -> int:
    """Run the session; at the call numbered `at` the action is done. Returns the calls counted.

    A debug check may fail, because an operation may find that what it stood on has gone.
    """
    calls = 0
    armed = False

    def tell(_name: str) -> None:
        nonlocal calls, armed
        if not armed:
            return
        calls += 1
        if calls == at and session.coordinator is not None:
            armed = False
            try:
                action(session)
            finally:
                armed = True

    hostreset.reset()
    with monkeypatch.context() as patch:
        patch.setattr(_fastaccess, "__TimeFunc", hostclock.now)
        session = Session(World())
        watch_host(patch, tell)
        for step in session.steps():
            armed = True
            try:
                step()
            except AssertionError:
                assert __debug__
            armed = False
            check_invariants(session.coordinator._fScanQueue)
            assert session.coordinator._fActiveScanNowTriples == set()
            assert session.coordinator._fPendingScanNowTriples == set()
    return calls


@pytest.mark.parametrize("number", range(len(kActions)))
def test_the_host_may_come_back_in_at_any_call(monkeypatch, number):
    count = run(monkeypatch, 0, kActions[number])
    assert count > 500
    for at in range(1 + number % kStride, count + 1, kStride):
        try:
            run(monkeypatch, at, kActions[number])
        except BaseException as failure:
            failure.add_note(f"came back in at call {at} of {count}")
            raise
