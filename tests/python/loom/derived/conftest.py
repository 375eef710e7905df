"""A whole host over a tree of small files, and what its derived stage found."""

import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

from loom.bootstrap import ensure_host_path

ensure_host_path()
sys.path.insert(0, str(Path(__file__).parent))  # for `derived_samples`

from derived_samples import Tree
from virtualtime import Clock

from loom.mainloop.stepped import SteppedMainLoop


@pytest.fixture
def tree(tmp_path: Path, main_loop: SteppedMainLoop, clock: Clock) -> Iterator[Tree]:
    """An empty tree with a host that scans exactly its files."""
    result = Tree(tmp_path, main_loop, clock)
    yield result
    result.close()
