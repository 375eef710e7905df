"""Hours of editing in virtual time: memory stays flat, and each change costs one scan.

An editor with a few open files works on a tree that is watched: buffers are edited and saved, files
come, go and are rewritten from outside, the focus wanders. Two hours of that take some seconds;
`LOOM_SOAK_SECONDS` asks for another time.
"""

import gc
import os
import random
import sys
import tracemalloc
from collections import Counter
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent / "watch"))  # for `fakesource`

from edit.editor import CSourceEditor
from fakesource import FakeSource
from loombase.location import CLocalFileLocation
from pysource import _fastaccess
from singleton import GetSingletons

from loom import freshness
from loom.app import App
from loom.store.database import open_read_only
from loom.verify import Verification
from loom.watch.events import Change, Event
from loom.watch.session import WatchSession

kSeconds = float(os.environ.get("LOOM_SOAK_SECONDS", "7200"))
kRounds = 6
kFiles = 40
# Seconds between two things that happen, on the average.
kPause = 5.0


class Editing:
    """A tree, a session that watches it, and somebody who works on it."""

    def __init__(self, main_loop, folder, monkeypatch):
        self.main_loop = main_loop
        self.chance = random.Random(20)
        self.now = 1_700_000_000.0
        monkeypatch.setattr(freshness, "now_ns", lambda: int(self.now * 1e9))
        monkeypatch.setitem(vars(_fastaccess), "__TimeFunc", self.look_at_clock)
        self.scans = Counter()
        self.causes = Counter()
        self.top = folder / "tree"
        self.names = [f"pkg{number % 4}/mod{number}.py" for number in range(kFiles)]
        self.version = 0
        self.source = FakeSource()
        self.buffers = {}
        for name in self.names:
            self.put(name)
        (self.top / "pyproject.toml").write_text("")
        self.db_path = folder / "soak.sqlite3"
        self.app = App(self.db_path, main_loop)
        self.app.coordinator._fAnalyzeFoundImports = False
        # Told of what was parsed, and not of files that were read to make sure.
        self.app.info_cache.connect("file-stored", self.count_scan)
        self.session = WatchSession(self.app, [str(self.top)], None, lambda: self.source)
        self.session.start()
        self.settle()

    def look_at_clock(self):
        """The scheduler's clock; each look takes a while: slices end in different places."""
        self.now += 0.000_5
        return self.now

    def count_scan(self, _info_cache, loc, _record):
        self.scans[str(loc.path)] += 1

    # --- the tree

    def text(self):
        """Some source that no file had before."""
        self.version += 1
        other = self.chance.randrange(kFiles)
        lines = [f"from pkg{other % 4}.mod{other} import f0", f"version = {self.version}", ""]
        for number in range(self.chance.randrange(1, 12)):
            lines += [f"def f{number}(x):", f"    return f0(x) + {self.version}", ""]
            lines += [f"class C{number}:", "    def __init__(self):", "        self.x = 1", ""]
        return "\n".join(lines)

    def put(self, name, text=None):
        path = self.top / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(self.text() if text is None else text)
        os.utime(path, (self.now, self.now))
        self.causes[str(path)] += 1

    def tell(self, change, name):
        path = self.top / name
        self.source.pending.append(Event(change, str(path.parent), path.name, False))
        self.session.follower.take_events()

    # --- what happens

    def rewrite(self, name):
        if self.top.joinpath(name).exists() and name not in self.buffers:
            self.put(name)
            self.tell(Change.WRITTEN, name)

    def touch(self, name):
        """Another time and the same bytes, which is no cause for a scan."""
        path = self.top / name
        if path.exists():
            os.utime(path, (self.now, self.now))
            self.tell(Change.WRITTEN, name)

    def delete(self, name):
        if name not in self.buffers:
            (self.top / name).unlink(missing_ok=True)
            self.tell(Change.GONE, name)

    def create(self, name):
        if not self.top.joinpath(name).exists():
            self.put(name)
            self.tell(Change.WRITTEN, name)

    def look_at(self, name):
        """Open a file, or turn to it; the oldest of four is closed."""
        path = self.top / name
        table = GetSingletons()
        if name not in self.buffers:
            if not path.exists():
                return
            if len(self.buffers) == 4:
                self.close(next(iter(self.buffers)))
            loc = CLocalFileLocation(path)
            buffer = table.fCacheMgr.OpenBuffer(loc, path.read_text(), path.stat().st_mtime)
            self.buffers[name] = CSourceEditor(buffer)
        table.fGuiMgr.SetActiveDocument(self.buffers[name])

    def close(self, name):
        """Without saving: what the file holds is what counts again."""
        editor = self.buffers.pop(name)
        if editor.fCache.IsModified():
            self.causes[str(self.top / name)] += 1
        GetSingletons().fGuiMgr.CloseDocument(editor)
        GetSingletons().fCacheMgr.CloseBuffer(CLocalFileLocation(self.top / name))

    def edit(self, name):
        if name in self.buffers:
            self.buffers[name].fCache.SetText(self.text())
            self.causes[str(self.top / name)] += 1

    def save(self, name):
        if name in self.buffers:
            self.put(name, self.buffers[name].fCache.GetText())
            self.buffers[name].fCache.MarkSaved((self.top / name).stat().st_mtime)
            self.tell(Change.WRITTEN, name)

    def act(self):
        acts = [self.rewrite, self.touch, self.delete, self.create, self.look_at]
        act = self.chance.choice([*acts, *[self.edit, self.save] * 3])
        names = list(self.buffers) if act in (self.edit, self.save) else self.names
        if names:
            act(self.chance.choice(names))

    def pass_time(self, seconds):
        self.now += seconds
        self.main_loop.advance(seconds)

    def work(self, seconds):
        """Let things happen for so long, now and then in the middle of slices."""
        end = self.now + seconds
        while self.now < end:
            self.act()
            for _ in range(self.chance.randrange(30)):
                self.main_loop.step()
            self.pass_time(self.chance.expovariate(1 / kPause))

    def settle(self):
        """Come to rest, everything saved or closed."""
        for name in list(self.buffers):
            self.save(name)
        for _ in range(4):
            self.main_loop.run_idle()
            self.pass_time(8.0)
        self.main_loop.run_idle()

    def end(self):
        for name in list(self.buffers):
            self.close(name)
        self.settle()

    def stop(self):
        if self.app is not None:
            self.session.destroy()
            self.app.destroy()
            self.app = None

    def stored(self):
        connection = open_read_only(self.db_path)
        try:
            rows = connection.execute("SELECT url FROM files WHERE scans != ''").fetchall()
        finally:
            connection.close()
        start = f"{CLocalFileLocation(self.top).fUrl}/"
        return {url.removeprefix(start) for (url,) in rows if url.startswith(start)}


@pytest.fixture
def editing(main_loop, tmp_path, monkeypatch):
    editing = Editing(main_loop, tmp_path, monkeypatch)
    yield editing
    editing.stop()


def held():
    gc.collect()
    return tracemalloc.get_traced_memory()[0]


def assert_at_rest(editing):
    status = editing.app.coordinator.GetStatus()
    assert (status.queue_status_list, status.waiting_count) == ([], 0)
    assert editing.session.at_rest
    assert not editing.main_loop.idle


def test_hours_of_editing(editing):
    assert_at_rest(editing)
    sizes = []
    tracemalloc.start()
    try:
        for _ in range(kRounds):
            editing.work(kSeconds / kRounds)
            editing.end()
            assert_at_rest(editing)
            sizes.append(held())
    finally:
        tracemalloc.stop()

    there = {name for name in editing.names if (editing.top / name).exists()}
    assert editing.stored() == there
    assert sum(editing.scans.values()) > kSeconds / kPause / 4, "next to nothing happened"
    without_cause = {
        path: (count, editing.causes[path])
        for path, count in editing.scans.items()
        if count > editing.causes[path]
    }
    assert without_cause == {}
    # The first rounds fill caches; from then on nothing grows with the number of changes.
    growth = max(sizes[kRounds // 2 :]) - max(sizes[: kRounds // 2])
    assert growth < 100_000, sizes
    # And all of it is what a new scan of each file finds.
    editing.stop()
    connection = open_read_only(editing.db_path)
    try:
        verification = Verification(connection, [str(editing.top)], deep=None)
        assert list(verification.findings()) == []
    finally:
        connection.close()

