"""Remote files: over a fake network, and over a real server."""

from __future__ import annotations

import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

from loom.bootstrap import ensure_host_path

ensure_host_path()
sys.path.insert(0, str(Path(__file__).parent))  # for `fakeremote` and `sshserver`

from fakeremote import FakeNetwork
from sshserver import SshServer


@pytest.fixture
def network() -> FakeNetwork:
    return FakeNetwork()


@pytest.fixture(scope="session")
def ssh_server(tmp_path_factory: pytest.TempPathFactory) -> Iterator[SshServer]:
    """A server that runs for all tests of a session; none may stop it."""
    with SshServer(tmp_path_factory.mktemp("sshd")) as server:
        yield server


@pytest.fixture
def own_ssh_server(tmp_path: Path) -> Iterator[SshServer]:
    """A server of the test's own, to be treated badly."""
    folder = tmp_path / "sshd"
    folder.mkdir()
    with SshServer(folder) as server:
        yield server
