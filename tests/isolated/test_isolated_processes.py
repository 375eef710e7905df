"""Several `loom` processes on one database: two scan, others read, and nothing is lost or late."""

import os
import sqlite3
import subprocess
import sys

import pytest
from support import package_folder

kTimeLimit = 300  # seconds; only what hangs gets there
kFiles = 120

# A command of `loom` that waits for a line before it begins. All waits for locks end after the
# database's own time, and then the command fails: so a longer wait shows, on a slow machine, too.
kProgram = """
import sys
from loom.bootstrap import ensure_host_path
ensure_host_path()
from loom.store.database import kLockWaitSeconds
from loom.cli.main import run
if kLockWaitSeconds > 1.0:
    sys.exit("somebody may wait for a lock for longer than a second")
print("ready", file=sys.stderr, flush=True)
sys.stdin.readline()
sys.exit(run(sys.argv[1:]))
"""


def start(*arguments: object) -> subprocess.Popen[str]:
    return subprocess.Popen(
        [sys.executable, *["-O"] * sys.flags.optimize, "-P", "-c", kProgram, *map(str, arguments)],
        env={**os.environ, "PYTHONPATH": str(package_folder())},
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )


def together(*processes: subprocess.Popen[str]) -> None:
    """Have all begin at the same moment."""
    for process in processes:
        assert process.stderr.readline() == "ready\n"
    for process in processes:
        process.stdin.write("\n")
        process.stdin.flush()


def end(process: subprocess.Popen[str]) -> tuple[int, str, str]:
    """Exit code, standard output and standard error."""
    out, err = process.communicate(timeout=kTimeLimit)
    return process.returncode, out, err


def run(*arguments: object) -> tuple[int, str, str]:
    process = start(*arguments)
    together(process)
    return end(process)


def make_tree(folder, first):
    folder.mkdir()
    for number in range(first, first + kFiles):
        lines = [f"class C{number}:", f"    def common{number % 7}(self): pass"]
        lines += [f"def f{number}_{each}(a, b=1): return a + b" for each in range(60)]
        (folder / f"mod{number}.py").write_text("\n".join(lines) + "\n")
    (folder / "pyproject.toml").write_text("")
    return folder


@pytest.fixture
def trees(tmp_path):
    return make_tree(tmp_path / "one", 0), make_tree(tmp_path / "two", kFiles)


def stored(db_path):
    """What is known of each file, by its URL: digest, scans, scopes and indexed names."""
    connection = sqlite3.connect(db_path)
    try:
        assert connection.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
        return {
            url: (digest, scans, scopes, names)
            for url, digest, scans, scopes, names in connection.execute(
                "SELECT url, digest, scans,"
                " (SELECT count(*) FROM scopes WHERE scopes.id >> 24 = files.id),"
                " (SELECT count(*) FROM definitions WHERE definitions.file_id = files.id)"
                " FROM files"
            )
        }
    finally:
        connection.close()


@pytest.mark.parametrize("same", [False, True], ids=["two trees", "the same tree"])
def test_two_scan_and_others_read(trees, tmp_path, same):
    one, two = (trees[0], trees[0]) if same else trees
    alone, shared = tmp_path / "alone.sqlite3", tmp_path / "shared.sqlite3"
    assert run("scan", one, two, "--db", alone)[0] == 0
    # Readers need tables.
    (tmp_path / "empty").mkdir()
    assert run("scan", tmp_path / "empty", "--no-imports", "--db", shared)[0] == 0

    scanners = [start("scan", tree, "--db", shared) for tree in (one, two)]
    together(*scanners)
    reads = []
    while any(scanner.poll() is None for scanner in scanners):
        for question in (["find", "common3"], ["symbols", one / "mod5.py"], ["status"]):
            reads.append((question[0], *run(*question, "--db", shared)))
    for scanner in scanners:
        code, _, err = end(scanner)
        # A slice doesn't wait at all; if that lasts it tells that results wait to be written.
        assert code == 0, err
        assert "(waited" not in err
    assert reads
    for question, code, out, err in reads:
        # Not there yet is an answer; a database that can't be used isn't.
        assert code in (0, 1), (question, out, err)
        assert "locked" not in err
        assert "Traceback" not in err
    assert stored(shared) == stored(alone)
    assert run("verify", "--deep", one, two, "--db", shared)[0] == 0
    code, out, _ = run("find", "common3", "--db", shared)
    assert code == 0
    expected = sum(number % 7 == 3 for number in range(kFiles * (1 if same else 2)))
    assert len(out.splitlines()) == expected
