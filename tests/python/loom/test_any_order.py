"""Whatever happens in whatever order, the database in the end is that of one undisturbed scan.

A machine writes, moves and deletes files, scans, stops, starts again, opens and edits buffers, looks
at documents and asks for scopes at once, in virtual time. At its end one more scan runs, and what is
then stored of the tree is compared, row for row, with a scan of it into an empty database. What was
once imported from elsewhere may stay.
"""

import os
import shutil
import sqlite3
import tempfile
from pathlib import Path

import pytest
from edit.editor import CSourceEditor
from hypothesis import settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, initialize, precondition, rule
from loombase.location import CLocalFileLocation
from pysource import _fastaccess
from singleton import GetSingletons

from loom import freshness
from loom.app import App
from loom.mainloop.stepped import SteppedMainLoop
from loom.scansession import ScanSession

kNames = ("a.py", "b.py", "pkg/__init__.py", "pkg/c.py", "pkg/sub/d.py")
kTexts = (
    "",
    "import b\nfrom pkg import c as see\n\ndef f(x):\n    return x\n",
    "class A:\n    def __init__(self):\n        self.x = 1\n\n    def m(self):\n        pass\n",
    "from a import *\n\nclass B(A):\n    y: int = 2\n",
    "def f(x):\n    pass\n\ndef f(x, y):\n    pass\n\n\nclass A:\n    z = f\n",
    "def broken(:\n    x = (1,\nclass Half\n",
    "from .c import f\nfrom . import c\n\n__all__ = ['f']\n",
)
kScopes = ("", "f", "A", "A.m", "A()", "nothing")

# What tells when and by whom a row was written, and not what it says.
_kOrigins = {"id", "settled", "scanned_ns", "written", "indexed"}

names = st.sampled_from(kNames)
texts = st.sampled_from(kTexts)


def stored(db_path: Path, top: Path) -> dict[str, list[tuple[str, ...]]]:
    """The rows that hold results of files below `top`, without their numbers and origins."""
    connection = sqlite3.connect(db_path)
    try:
        assert connection.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
        urls = dict(connection.execute("SELECT id, url FROM files"))
        result = {}
        for table in ("files", "scopes", "definitions", "names"):
            cursor = connection.execute(f"SELECT * FROM {table}")
            columns = [column[0] for column in cursor.description]
            rows = []
            for row in cursor:
                told = dict(zip(columns, row, strict=True))
                if table == "scopes":
                    told["file_id"] = told["id"] >> 24
                    told["number"] = told["id"] & 0xFFFFFF
                if "file_id" in told:
                    told["url"] = urls[told.pop("file_id")]
                if not told["url"].startswith(top.as_uri()):
                    continue
                rows.append(tuple(f"{k}={told[k]!r}" for k in sorted(told) if k not in _kOrigins))
            result[table] = sorted(rows)
        return result
    finally:
        connection.close()


class AnyOrder(RuleBasedStateMachine):
    def __init__(self) -> None:
        super().__init__()
        self.folder = Path(tempfile.mkdtemp())
        self.top = self.folder / "tree"
        self.now = 1_700_000_000.0
        self.patch = pytest.MonkeyPatch()
        self.patch.setattr(freshness, "now_ns", lambda: int(self.now * 1e9))
        self.patch.setattr(_fastaccess, "__TimeFunc", self.tick)
        self.app: App | None = None
        self.session: ScanSession | None = None
        self.buffers: dict[CLocalFileLocation, CSourceEditor] = {}

    def tick(self) -> float:
        """The scheduler's clock: each look costs time, so that slices end in different places."""
        self.now += 0.011
        return self.now

    # --- the tree

    @initialize(contents=st.lists(texts, min_size=len(kNames), max_size=len(kNames)))
    def begin(self, contents: list[str]) -> None:
        for name, text in zip(kNames, contents, strict=True):
            self.put(name, text)
        (self.top / "pyproject.toml").write_text("")
        self.start_host("first.sqlite3")

    def put(self, name: str, text: str) -> None:
        path = self.top / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        os.utime(path, (self.now, self.now))

    @rule(name=names, text=texts)
    def write(self, name: str, text: str) -> None:
        self.put(name, text)

    @rule(name=names, text=texts)
    def write_within_the_same_tick(self, name: str, text: str) -> None:
        """A change that leaves no trace in the file's time."""
        path = self.top / name
        before = path.stat().st_mtime if path.exists() else self.now
        self.put(name, text)
        if self.now - before < 2.0:
            os.utime(path, (before, before))

    @rule(name=names)
    def touch(self, name: str) -> None:
        if (self.top / name).exists():
            os.utime(self.top / name, (self.now, self.now))

    @rule(name=names)
    def delete(self, name: str) -> None:
        (self.top / name).unlink(missing_ok=True)

    @rule(name=names, to=names)
    def move(self, name: str, to: str) -> None:
        if (self.top / name).exists():
            (self.top / to).parent.mkdir(parents=True, exist_ok=True)
            os.replace(self.top / name, self.top / to)

    @rule(seconds=st.sampled_from([0.5, 3.0, 60.0]))
    def wait(self, seconds: float) -> None:
        self.now += seconds
        self.loop.advance(seconds)

    # --- the host

    def start_host(self, db_name: str) -> None:
        self.loop = SteppedMainLoop()
        self.app = App(self.folder / db_name, self.loop)

    def stop_host(self) -> None:
        if self.session is not None:
            self.session.stop()
            self.session.destroy()
            self.session = None
        self.buffers.clear()
        self.app.destroy()
        self.app = None

    @precondition(lambda self: self.session is None)
    @rule()
    def scan(self) -> None:
        self.session = ScanSession(self.app, [str(self.top)])
        self.session.start()

    @rule(count=st.integers(1, 40))
    def step(self, count: int) -> None:
        for _ in range(count):
            self.loop.step()

    @rule()
    def start_again(self) -> None:
        self.stop_host()
        self.start_host("first.sqlite3")

    @rule(name=names)
    def tell_of_change(self, name: str) -> None:
        loc = CLocalFileLocation(self.top / name)
        GetSingletons().fSavableMgr.FilesChanged([loc])
        self.app.coordinator.AddPairsToPrimaryQueue([(loc, "*")])

    @rule(name=names, scope=st.sampled_from(kScopes))
    def ask_at_once(self, name: str, scope: str) -> None:
        loc = CLocalFileLocation(self.top / name)
        needs = [(loc, scope, "primary")]
        self.app.coordinator.TryToScanDictNow(loc, scope, needs, self.now + 0.2)

    @rule(name=names, text=texts)
    def edit(self, name: str, text: str) -> None:
        path = self.top / name
        loc = CLocalFileLocation(path)
        if loc not in self.buffers:
            if not path.exists():
                return
            buffer = GetSingletons().fCacheMgr.OpenBuffer(
                loc, path.read_text(), path.stat().st_mtime
            )
            self.buffers[loc] = CSourceEditor(buffer)
            GetSingletons().fGuiMgr.SetActiveDocument(self.buffers[loc])
        self.buffers[loc].fCache.SetText(text)

    @precondition(lambda self: bool(self.buffers))
    @rule()
    def close_buffer(self) -> None:
        loc, editor = self.buffers.popitem()
        GetSingletons().fGuiMgr.CloseDocument(editor)
        GetSingletons().fCacheMgr.CloseBuffer(loc)

    @precondition(lambda self: bool(self.buffers))
    @rule(line=st.integers(-1, 9))
    def move_caret(self, line: int) -> None:
        analysis = GetSingletons().fCacheMgr.GetAnalysis(next(iter(self.buffers)), True)
        analysis.SetActiveLine(line)

    # --- the end

    def scan_to_the_end(self) -> None:
        self.now += 60.0
        ended: list[ScanSession] = []
        session = ScanSession(self.app, [str(self.top)])
        session.connect("finished", ended.append)
        session.start()
        self.loop.run_idle()
        assert ended == [session]
        session.destroy()
        self.app.destroy()
        self.app = None

    def teardown(self) -> None:
        try:
            if self.app is not None:
                self.stop_host()
                self.start_host("first.sqlite3")
                self.scan_to_the_end()
                self.start_host("second.sqlite3")
                self.scan_to_the_end()
                first = stored(self.folder / "first.sqlite3", self.top)
                assert first == stored(self.folder / "second.sqlite3", self.top)
        finally:
            if self.app is not None:
                self.app.destroy()
            self.patch.undo()
            shutil.rmtree(self.folder)


TestAnyOrder = AnyOrder.TestCase
TestAnyOrder.settings = settings(max_examples=25, stateful_step_count=25, deadline=None)
