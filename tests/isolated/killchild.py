"""A `loom scan` that kills itself with SIGKILL at a chosen point, in a process forked for it.

The limits that make transactions rare are lowered, so that there are many points to be killed at.
"""

import contextlib
import os
import signal
import sqlite3
import sys
import threading
from collections.abc import Iterator
from multiprocessing.connection import Connection
from pathlib import Path
from typing import Any

# Forked processes have all this loaded already.
from loom.bootstrap import ensure_host_path

ensure_host_path()

from loom.cli import main as cli_main
from loom.store import checkpoint, database, nameindex, schema, writer
from pysource import scopeinfo, scopescanner

# Where a scan can be killed: at a statement of SQL, at one within a transaction for results, before
# and after its commit, before a step of a scanner, while the log is moved, and nowhere.
kPoints = ("statement", "write", "commit", "committed", "scan", "checkpoint")
kNowhere = "nowhere"


class Killer:
    """Kills the process the time number `count`, from 0, that it passes `point`."""

    def __init__(self, point: str, count: int) -> None:
        self._point = point
        self._left = count

    def passes(self, point: str) -> None:
        if point == self._point:
            self._left -= 1
            if self._left < 0:
                os.kill(os.getpid(), signal.SIGKILL)


def scan_reporting(
    arguments: list[str], point: str, count: int, output: str, writer: Connection, beat: bool
) -> None:
    """`scan` as what a process does: by a name that it can import."""
    scan(arguments, point, count, output, writer.fileno(), beat)


def scan(
    arguments: list[str], point: str, count: int, output: str, reports: int, beat: bool
) -> None:
    """Scan, and be killed. What is printed goes to the file `output`.

    Each commit is told to the descriptor `reports` as a line with the number of scanned files in
    the database; with `beat`, each statement of SQL as an empty line.
    """
    killer = Killer(point, count)
    in_transaction = False

    def note_statement(text: str) -> None:
        if beat:
            os.write(reports, b"\n")
        killer.passes("statement")
        if in_transaction:
            killer.passes("commit" if text.startswith("COMMIT") else "write")

    migrate = schema.migrate

    def watched_migrate(connection: sqlite3.Connection) -> int:
        connection.set_trace_callback(note_statement)
        return migrate(connection)

    transaction = database.transaction

    @contextlib.contextmanager
    def watched_transaction(connection: sqlite3.Connection, wait: float) -> Iterator[None]:
        nonlocal in_transaction
        in_transaction = True
        with transaction(connection, wait):
            yield
        in_transaction = False
        killer.passes("committed")
        [(done,)] = connection.execute("SELECT count(*) FROM files WHERE scans != ''").fetchall()
        os.write(reports, b"%d\n" % done)

    step = scopescanner.CWholeFilePrimaryScanner.Scan

    def watched_step(self: Any, end_time: float) -> Any:
        killer.passes("scan")
        return step(self, end_time)

    move_log = checkpoint.Checkpointer._run

    def watched_move_log(self: Any) -> None:
        # At some moment while the log is being moved.
        threading.Thread(target=killer.passes, args=("checkpoint",)).start()
        move_log(self)

    patches: list[tuple[Any, str, Any]] = [
        (schema, "migrate", watched_migrate),
        (writer, "transaction", watched_transaction),
        (writer, "_kScopesPerCheck", 20),
        (nameindex, "kMergeAtPairs", 300),
        (nameindex, "_kPairsPerCheck", 20),
        (checkpoint, "kWorthwhileBytes", 60_000),
        (checkpoint.Checkpointer, "_run", watched_move_log),
        (scopescanner.CWholeFilePrimaryScanner, "Scan", watched_step),
        (scopeinfo, "_kWriteAtBytes", 20_000),
        (scopeinfo, "_kTrimSeconds", 0.000_2),
        (scopeinfo, "_kIdleWriteSeconds", 0.000_5),
    ]
    for thing, name, value in patches:
        assert hasattr(thing, name), name
        setattr(thing, name, value)
    descriptor = os.open(output, os.O_WRONLY | os.O_CREAT | os.O_TRUNC)
    os.dup2(descriptor, sys.stdout.fileno())
    code = cli_main.run(["scan", "--json", *arguments])
    sys.stdout.flush()
    os._exit(code)


def make_tree(top: Path, changed: int = 0) -> None:
    """Some files of several sizes, all of them old; `changed` of them in another version."""
    for number in range(40):
        path = top / f"pkg{number % 4}" / f"mod{number}.py"
        path.parent.mkdir(parents=True, exist_ok=True)
        if number == 7:
            path.write_text("def broken(:\n    pass\n")
        elif number == 8:
            path.write_bytes(b"name = '\xe4'\n")
        else:
            functions = 120 if number == 9 else number % 7 * 6
            version = 2 if number < changed else 1
            path.write_text(
                f"import os\nkVersion{number} = {version}\n"
                + "".join(
                    f"class C{n}(Base):\n    def method_{number}_{n}_{version}(self, a):\n"
                    f"        self.field{n} = a\n"
                    for n in range(functions)
                )
            )
        os.utime(path, ns=(10**18 + changed, 10**18 + changed))
