"""Helpers on an SSH server, which is this machine: each scan in a process of its own."""

import json
import os
import shlex
import subprocess
import sys
from pathlib import Path

import pytest

import loom

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "remote"))  # for `sshserver`

from realkit import contents
from sshserver import SshServer

_kRoot = Path(loom.__file__).resolve().parent.parent

kTimeLimit = 120  # seconds; only what hangs gets there


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    with SshServer(tmp_path_factory.mktemp("sshd")) as server:
        yield server


@pytest.fixture
def project(tree):
    top = tree({f"p{i % 3}/m{i:02}.py": f"class C{i}:\n    x = {i}\n" for i in range(30)})
    (top / "broken.py").write_text("def f(:\n")
    for path in top.rglob("*.py"):
        os.utime(path, (1_600_000_000, 1_600_000_000))
    return top


@pytest.fixture
def scan(server, project, tmp_path):
    """Scan the project as a remote one. Returns the report and what was said."""

    def scan(db_path, *options):
        env = os.environ | {"HOME": str(tmp_path), "PYTHONPATH": str(_kRoot)}
        env.pop("SSH_AUTH_SOCK", None)
        done = subprocess.run(
            [
                sys.executable, "-P", "-m", "loom", "scan", "--json", "--no-imports", "--no-derived",
                "--exit-zero", "--ssh-config", str(server.config), "--db", str(db_path), *options,
                f"{server.url}{project}",
            ],
            env=env, text=True, capture_output=True, timeout=kTimeLimit, check=False,
        )  # fmt: skip
        assert done.returncode == 0, done.stderr
        return json.loads(done.stdout)["files"], done.stderr

    return scan


def remote_loom(log):
    """A command that notes that it ran, and is this program."""
    main = shlex.join([sys.executable, "-O", "-P", str(_kRoot / "loom" / "__main__.py")])
    return f"echo ran >> {shlex.quote(str(log))}; {main}"


def test_files_are_scanned_where_they_are(scan, tmp_path):
    log = tmp_path / "log"
    files, said = scan(tmp_path / "there", "--helper", "--remote-loom", remote_loom(log))
    assert (files["scanned"], files["left"]) == (31, 0), said
    assert log.read_text() == "ran\n"
    scan(tmp_path / "here", "--no-helper")
    assert contents(tmp_path / "there") == contents(tmp_path / "here")
    # Both ways find that nothing has changed since.
    for options in (["--helper", "--remote-loom", remote_loom(log)], ["--no-helper"]):
        files, said = scan(tmp_path / "there", *options)
        assert files["scanned"] == 0, said


def test_without_a_helper_there_the_files_are_read_from_here(scan, tmp_path):
    files, said = scan(tmp_path / "db", "--helper", "--remote-loom", "no-such-program")
    assert (files["scanned"], files["left"]) == (31, 0)
    assert "helper on" in said
    assert "exit code 127" in said
