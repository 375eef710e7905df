"""Scans with helper processes that are real, and what a database holds."""

import os
import select
import sqlite3
import sys
from collections import Counter
from pathlib import Path

from loombase.location import CLocalFileLocation

import loom
from loom.app import App
from loom.helper import launch
from loom.helper.support import CHelperProcessSupport
from loom.mainloop.asyncio_loop import AsyncioMainLoop
from loom.scansession import ScanSession

_kHere = Path(__file__).resolve().parent
_kRoot = Path(loom.__file__).resolve().parent.parent

# Seconds; only what hangs gets there.
kTimeLimit = 120

# When and in which writing a row came about is no answer.
_kOrigins = {"scanned_ns", "written"}


def bad_command(folder):
    """The command line of a helper that misbehaves."""

    def command(arguments):
        code = (
            "import runpy, sys; path, *sys.argv = sys.argv[1:]; sys.path[:0] = path.split(':');"
            "runpy.run_path(sys.argv[0], run_name='__main__')"
        )
        path = os.pathsep.join([str(_kRoot), str(_kRoot / "loom" / "hostpath")])
        return [
            sys.executable, "-O", "-P", "-c", code,
            path, str(_kHere / "bad_helper.py"), str(folder), *arguments,
        ]  # fmt: skip

    return command


class RealScan:
    """Scans of `top` into `db_path` by an app with real helpers.

    `stored` counts how often each file was stored. `hook(loc)` is called after each.
    """

    def __init__(self, top, db_path, *, command=launch.own_command, count=1, share=False):
        self.main_loop = AsyncioMainLoop()
        self.app = App(db_path, self.main_loop)
        self.app.coordinator._fAnalyzeFoundImports = False
        self.top = top
        self.stored = Counter()
        self.errors = {}
        self.handles = []
        self.hook = lambda _loc: None
        self.app.info_cache.connect("file-stored", self._note_stored)
        self.support = None
        if count:
            self.support = CHelperProcessSupport(
                self.app.ana_mgr, lambda: self._launch(command), count, share
            )
            self.support.start()

    def _launch(self, command):
        self.handles.append(launch.LocalHelper(self.main_loop.loop, command))
        return self.handles[-1]

    def _note_stored(self, cache, loc, record):
        name = Path(loc.path).stem
        self.stored[name] += 1
        if record.error is not None:
            self.errors[name] = record.error
        self.hook(loc)

    def run(self):
        """Scan to the end. Returns the counts."""
        session = ScanSession(self.app, [str(self.top)])
        session.connect("finished", lambda _session: self.main_loop.loop.stop())
        session.start()
        self._run_loop()
        assert session.failure is None
        session.destroy()
        return session.counts

    def run_until(self, signal_of, name):
        """Run the main loop until an object emits a signal."""
        signal_of.connect(name, lambda *_args: self.main_loop.loop.stop())
        self._run_loop()

    def _run_loop(self):
        loop = self.main_loop.loop
        late = []

        def fail():
            late.append(True)
            loop.stop()

        limit = loop.call_later(kTimeLimit, fail)
        loop.run_forever()
        limit.cancel()
        assert not late, "it hangs"

    def close(self):
        self.app.destroy()
        self.main_loop.close()


def scan_alone(top, db_path):
    """The same without helpers."""
    scan = RealScan(top, db_path, count=0)
    scan.run()
    scan.close()


def contents(db_path):
    """All that a database answers, table by table, whatever order it was written in."""
    connection = sqlite3.connect(db_path)
    try:
        assert connection.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
        urls = dict(connection.execute("SELECT id, url FROM files"))
        tables = connection.execute("SELECT name FROM sqlite_schema WHERE type = 'table'")
        return {name: _rows(connection, name, urls) for (name,) in tables.fetchall()}
    finally:
        connection.close()


def _rows(connection, table, urls):
    cursor = connection.execute(f"SELECT * FROM {table}")
    columns = [column[0] for column in cursor.description]
    return Counter(
        tuple(
            (column, _told(table, column, value, urls))
            for column, value in zip(columns, row, strict=True)
            if column not in _kOrigins and (table, column) != ("files", "id")
        )
        for row in cursor
    )


def _told(table, column, value, urls):
    """A value with the URL in place of a file's number."""
    if column == "file_id":
        return urls[value]
    if (table, column) == ("scopes", "id"):
        return urls[value >> 24], value & ((1 << 24) - 1)
    return value


def scans_in(folder):
    """How often the bad helper has begun to scan each file."""
    path = folder / "scanned"
    return Counter(path.read_text().split()) if path.exists() else Counter()


def wait_for_end(pid_fd):
    """Wait until the process behind a pidfd is no more."""
    poll = select.poll()
    poll.register(pid_fd, select.POLLIN)
    assert poll.poll(kTimeLimit * 1000), "the process lives on"


def loc_of(path):
    return CLocalFileLocation(path)
