"""Tests of the stand-alone host, with its modules on the path as in the `loom` command."""

from collections.abc import Iterator

import pytest

from loom.bootstrap import ensure_host_path
from loom.mainloop.stepped import SteppedMainLoop

ensure_host_path()


@pytest.fixture
def main_loop() -> Iterator[SteppedMainLoop]:
    """A main loop in virtual time, set as the host's."""
    from guiutils import lgtk  # found since the call above

    loop = SteppedMainLoop()
    lgtk.SetMainLoop(loop)
    yield loop
    lgtk.SetMainLoop(None)
