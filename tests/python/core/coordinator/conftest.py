"""The world of each coordinator test.

What the host was asked must be consumed by the test, in order (`told`) or openly dropped
(`forget`): what is left in the log at the end fails the test.
"""

import sys
from pathlib import Path

import pytest

# The modules that the tests share stand beside them.
sys.path.insert(0, str(Path(__file__).resolve().parent))

from pysource import _fastaccess
from world import World

import hostclock
import hostlog


@pytest.fixture
def world(monkeypatch, request):
    """The collaborators, with the virtual clock in place."""
    monkeypatch.setattr(_fastaccess, "__TimeFunc", hostclock.now)
    failures = request.session.testsfailed
    world = World()
    hostlog.calls.clear()
    yield world
    left = hostlog.calls[:]
    monkeypatch.undo()
    for coordinator in world.made:
        coordinator.destroy()
    if request.session.testsfailed == failures:
        assert left == [], "calls that the test didn't look at"


@pytest.fixture
def coordinator(world):
    """A coordinator with a Python path, nothing queued, and the basic modules done."""
    return world.make()
