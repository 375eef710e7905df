"""Tests of the stand-alone host, with its modules on the path as in the `loom` command."""

import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

from loom.bootstrap import ensure_host_path
from loom.mainloop.stepped import SteppedMainLoop

ensure_host_path()
sys.path.insert(0, str(Path(__file__).parent))  # for what these tests share

from virtualtime import Clock


@pytest.fixture
def main_loop() -> Iterator[SteppedMainLoop]:
    """A main loop in virtual time, set as the host's."""
    from guiutils import lgtk  # found since the call above

    loop = SteppedMainLoop()
    lgtk.SetMainLoop(loop)
    yield loop
    lgtk.SetMainLoop(None)


@pytest.fixture
def clock(monkeypatch: pytest.MonkeyPatch) -> Clock:
    """Virtual time, set as both clocks that the scheduler looks at."""
    from pysource import _fastaccess  # the host is on the path since the call above

    result = Clock()
    monkeypatch.setitem(vars(_fastaccess), "__TimeFunc", result)
    monkeypatch.setattr("time.time", result)
    return result
