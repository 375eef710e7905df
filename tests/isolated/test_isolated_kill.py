"""A scan that is killed at any moment loses at most what wasn't written, and the next goes on."""

import json
import multiprocessing
import os
import random
import signal
import sqlite3
from multiprocessing.context import ForkServerContext
from pathlib import Path
from typing import Any, NamedTuple

import killchild
import pytest

kTimeLimit = 120  # seconds; only a scan that hangs gets there

kQueries = (
    "SELECT url, mtime_ns, size, digest, scans, error, error_lineno, line_count,"
    " definition_count, imports, indexed, settled, scanner FROM files",
    "SELECT url, scopes.id % 16777216, name, parent, kind, lineno, end_lineno, info"
    " FROM scopes LEFT JOIN files ON files.id = scopes.id / 16777216",
    "SELECT url, packed FROM definitions LEFT JOIN files ON id = file_id",
    "SELECT url, name FROM names LEFT JOIN files ON id = file_id",
    "SELECT url, name FROM added_scopes LEFT JOIN files ON id = file_id",
    "SELECT url, derived.digest, facts FROM derived LEFT JOIN files ON id = file_id",
    "SELECT url, exports.digest FROM exports LEFT JOIN files ON id = file_id",
)


@pytest.fixture(scope="module")
def forks() -> ForkServerContext:
    """Processes that have the command loaded when they start."""
    context = multiprocessing.get_context("forkserver")
    context.set_forkserver_preload(["killchild"])
    return context


class Ended(NamedTuple):
    """How a scan ended. `written` is the number of files that were written before."""

    killed: bool
    written: int
    files: dict[str, Any]


class Scans:
    """Scans of one tree into one database, some of which are killed."""

    def __init__(self, forks: ForkServerContext, folder: Path) -> None:
        self._forks = forks
        self.top = folder / "tree"
        self.db_path = folder / "db" / "info.sqlite3"
        self._output = folder / "output"
        killchild.make_tree(self.top)

    def run(self, point: str = killchild.kNowhere, count: int = 0, beats: int = 0) -> Ended:
        """One scan, to its end or to a kill; with `beats`, by us after so many statements."""
        reader, writer = self._forks.Pipe(duplex=False)
        arguments = ["--no-imports", "--db", str(self.db_path), str(self.top)]
        process = self._forks.Process(
            target=killchild.scan_reporting,
            args=(arguments, point, count, str(self._output), writer, beats > 0),
        )
        process.start()
        writer.close()
        written, seen = 0, 0
        with os.fdopen(os.dup(reader.fileno()), "rb") as reports:
            for line in reports:
                if line != b"\n":
                    written = int(line)
                    continue
                seen += 1
                if seen == beats and process.pid is not None:
                    os.kill(process.pid, signal.SIGKILL)
        reader.close()
        process.join(kTimeLimit)
        if process.exitcode == -signal.SIGKILL:
            return Ended(True, written, {})
        assert process.exitcode in (0, 1)  # 1 if a file with errors was scanned
        return Ended(False, written, json.loads(self._output.read_text())["files"])

    def check(self, ended: Ended, being_replaced: int = 0) -> int:
        """Fail unless all is there that was written; returns how many files are.

        Of files that are `being_replaced` the old rows may be gone and the new ones not yet there.
        """
        if not self.db_path.exists():
            assert ended.written == 0
            return 0
        connection = sqlite3.connect(self.db_path)
        try:
            assert connection.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
            if not connection.execute("PRAGMA user_version").fetchone()[0]:
                assert ended.written == 0
                return 0
            [(done,)] = connection.execute(
                "SELECT count(*) FROM files WHERE scans != ''"
            ).fetchall()
            assert done >= ended.written - being_replaced
            return int(done)
        finally:
            connection.close()


def content(db_path: Path) -> list[list[tuple[Any, ...]]]:
    """All rows, in order, without the numbers of files."""
    connection = sqlite3.connect(db_path)
    try:
        return [sorted(connection.execute(query), key=repr) for query in kQueries]
    finally:
        connection.close()


@pytest.fixture(scope="module")
def whole(forks: ForkServerContext, tmp_path_factory: pytest.TempPathFactory) -> Scans:
    """A scan that nobody disturbs."""
    scans = Scans(forks, tmp_path_factory.mktemp("whole"))
    ended = scans.run()
    assert (ended.killed, ended.files["scanned"], ended.files["failed"]) == (False, 40, 0)
    assert scans.check(ended) == 40
    return scans


def rows_below(scans: Scans) -> list[list[tuple[Any, ...]]]:
    """The content of a database with URLs that don't tell whose tree it is."""
    start = scans.top.as_uri()
    return [
        [tuple(v.replace(start, "") if isinstance(v, str) else v for v in row) for row in rows]
        for rows in content(scans.db_path)
    ]


def kills(seed: int, count: int) -> list[tuple[str, int, int]]:
    """Random points to be killed at, as arguments of `run`; each kind of point occurs."""
    chance = random.Random(seed)
    points = [*killchild.kPoints, "random"]
    found = []
    for number in range(count):
        point = points[number % len(points)]
        if point == "random":
            found.append((killchild.kNowhere, 0, chance.randrange(1, 300)))
        else:
            most = {"statement": 150, "write": 100, "scan": 9, "checkpoint": 1}.get(point, 5)
            found.append((point, chance.randrange(most), 0))
    chance.shuffle(found)
    return found


@pytest.mark.parametrize("seed", [1, 2])
def test_killed_again_and_again(
    forks: ForkServerContext, whole: Scans, tmp_path: Path, seed: int
) -> None:
    """All kills hit one database, each scan going on where the last one was killed."""
    scans = Scans(forks, tmp_path)
    done = killed = 0
    for point in kills(seed, 7):
        ended = scans.run(*point)
        before, done = done, scans.check(ended)
        assert done >= before, point
        killed += ended.killed
        if not ended.killed:
            assert ended.files["unchanged"] == before, point
    assert killed >= 3
    ended = scans.run()
    assert ended.files["scanned"] + ended.files["failed"] == 40 - done
    assert ended.files["unchanged"] == done
    assert rows_below(scans) == rows_below(whole)
    assert scans.run().files["unchanged"] == 40


@pytest.mark.parametrize("point", killchild.kPoints)
def test_killed_once(forks: ForkServerContext, whole: Scans, tmp_path: Path, point: str) -> None:
    """Each kind of point is reached, and some of the files are there already."""
    scans = Scans(forks, tmp_path)
    count = {"checkpoint": 0, "scan": 25, "statement": 300, "write": 250}.get(point, 10)
    ended = scans.run(point, count)
    assert ended.killed
    done = scans.check(ended)
    assert 0 < done < 40 or point == "checkpoint"
    ended = scans.run()
    assert (ended.files["unchanged"], ended.files["left"]) == (done, 0)
    assert rows_below(scans) == rows_below(whole)


def test_killed_while_changed_files_are_scanned(
    forks: ForkServerContext, tmp_path: Path
) -> None:
    """Old rows are replaced file by file: whatever is there is the old file or the new one."""
    scans = Scans(forks, tmp_path)
    scans.run()
    old = {row[0]: row for row in content(scans.db_path)[0]}
    killchild.make_tree(scans.top, changed=20)
    (scans.top / "pkg1" / "mod33.py").unlink()
    for point in kills(3, 5):
        scans.check(scans.run(*point), being_replaced=2)  # one half written, one deleted
    scans.run()
    fresh = Scans(forks, tmp_path / "fresh")
    fresh.top = scans.top
    fresh.run()
    ours, theirs = content(scans.db_path), content(fresh.db_path)
    assert len(ours[0]) == 39
    assert sum(old[row[0]][3] != row[3] for row in ours[0]) == 18  # two of the 20 had no version
    names = 3
    assert [rows for n, rows in enumerate(ours) if n != names] == [
        rows for n, rows in enumerate(theirs) if n != names
    ]
    # A crash may leave a file too many under a name, never one too few.
    assert {row for row in ours[names] if row[0]} >= set(theirs[names])


def test_two_scans_at_once_one_of_them_killed(
    forks: ForkServerContext, whole: Scans, tmp_path: Path
) -> None:
    """The other one isn't disturbed, and neither loses what it has written."""
    scans = Scans(forks, tmp_path)
    other = Scans(forks, tmp_path)
    other._output = tmp_path / "other"
    assert scans.run("committed", 5).killed
    reader, writer = forks.Pipe(duplex=False)
    arguments = ["--no-imports", "--db", str(other.db_path), str(other.top)]
    beside = forks.Process(
        target=killchild.scan_reporting,
        args=(arguments, killchild.kNowhere, 0, str(other._output), writer, False),
    )
    beside.start()
    writer.close()
    for count in (3, 7):
        scans.run("write", count * 10)
    beside.join(kTimeLimit)
    reader.close()
    assert beside.exitcode in (0, 1)
    assert json.loads(other._output.read_text())["files"]["left"] == 0
    assert scans.run().files["unchanged"] == 40
    assert rows_below(scans) == rows_below(whole)
