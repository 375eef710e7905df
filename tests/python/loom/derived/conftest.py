"""A whole host over a tree of small files, and what its derived stage found."""

import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

from loom.bootstrap import ensure_host_path

ensure_host_path()
sys.path.insert(0, str(Path(__file__).parent))  # for `derived_samples`

from derived_samples import Tree

from loom.mainloop.stepped import SteppedMainLoop
from pysource import _fastaccess


class Clock:
    """Virtual time in seconds. It moves by `per_look` each time that somebody looks at it."""

    def __init__(self) -> None:
        self.now = 1_000.0
        self.per_look = 0.0

    def __call__(self) -> float:
        self.now += self.per_look
        return self.now


@pytest.fixture
def clock(monkeypatch: pytest.MonkeyPatch) -> Clock:
    result = Clock()
    monkeypatch.setitem(vars(_fastaccess), "__TimeFunc", result)
    monkeypatch.setattr("time.time", result)  # the scheduler's other clock
    return result


@pytest.fixture
def tree(tmp_path: Path, main_loop: SteppedMainLoop, clock: Clock) -> Iterator[Tree]:
    """An empty tree with a host that scans exactly its files."""
    result = Tree(tmp_path, main_loop, clock)
    yield result
    result.close()
