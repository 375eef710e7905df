"""Tests of the C++ modules over the fake host.

The host's folder must be on `sys.path` before `pysource` is first imported: `CDestroyable` is taken
then, once for the process.
"""

import sys
from pathlib import Path

import pytest

kCore = Path(__file__).resolve().parent
kFakeHost = kCore / "fakehost"

if "loombase" in sys.modules:
    raise RuntimeError("another host is loaded: run tests/python/core in a process of its own")
# What the tests of the queue share serves those of the coordinator, too.
sys.path[:0] = [str(kFakeHost), str(kCore / "queue")]
pytest.register_assert_rewrite("queue_support")


@pytest.fixture(autouse=True)
def fresh_host():
    """Every test starts with a host that has seen nothing yet."""
    import hostreset

    hostreset.reset()
    yield
    hostreset.reset()
