"""A watched tree, step by step: events come from a list or the kernel, and time is virtual."""

import contextlib
import os
import select
import sys
from pathlib import Path

import pytest

from loom.bootstrap import ensure_host_path

ensure_host_path()
sys.path.insert(0, str(Path(__file__).parent))  # for `fakesource`

from fakesource import FakeSource
from loombase.location import CLocalFileLocation
from pysource import _fastaccess

from loom.app import App
from loom.store.database import open_read_only
from loom.watch.events import Event
from loom.watch.session import WatchSession


class Clock:
    """The scheduler's time in seconds. It moves by `per_look` each time somebody looks at it."""

    def __init__(self):
        self.now = 1_000.0
        self.per_look = 0.0

    def __call__(self):
        self.now += self.per_look
        return self.now


@pytest.fixture
def clock(monkeypatch):
    clock = Clock()
    monkeypatch.setitem(vars(_fastaccess), "__TimeFunc", clock)
    return clock


class World:
    """A tree at `top` and a session over it. `events` are those that the session told."""

    def __init__(self, main_loop, clock, tmp_path):
        self.main_loop = main_loop
        self.clock = clock
        self.top = tmp_path / "tree"
        self.top.mkdir()
        self.db_path = tmp_path / "info.sqlite3"
        self.app = App(self.db_path, main_loop)
        self.app.coordinator._fAnalyzeFoundImports = False
        self.source = FakeSource()
        self.session = None
        self.events = []

    # --- the tree

    def write(self, *names, text=None):
        """Make or replace files; each defines a name of its own unless `text` says otherwise."""
        for name in names:
            path = self.top / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(f"def in_{path.stem}():\n    pass\n" if text is None else text)

    def path(self, name):
        return str(self.top / name)

    def loc(self, name):
        return CLocalFileLocation(self.top / name)

    # --- the session

    def watch(self, *paths, make_source=None, **options):
        """Begin to watch, by default the whole tree, and come to rest."""
        self.begin(*paths, make_source=make_source, **options)
        self.settle()
        return self.session

    def begin(self, *paths, make_source=None, **options):
        self.session = WatchSession(
            self.app,
            [str(path) for path in paths or [self.top]],
            options.pop("exclude", None),
            make_source or (lambda: self.source),
            **options,
        )
        self.session.connect("event", lambda _session, event: self.events.append(event))
        self.session.start()

    def happen(self, *events):
        """Tell of events: (change, name) for a file, a name that ends in "/" for a folder."""
        for change, name in events:
            path = self.top / name
            folder = str(path.parent)
            self.source.pending.append(Event(change, folder, path.name, name.endswith("/")))
        self.session.follower.take_events()

    def settle(self):
        """Let a burst end, and all work be done."""
        for _ in range(3):
            self.main_loop.run_idle()
            self.main_loop.advance(0.6)
        self.main_loop.run_idle()

    def step_until(self, condition):
        for _ in range(10_000):
            if condition():
                return
            assert self.main_loop.step()
        raise AssertionError("it never came to that")

    # --- what came of it

    def take(self, *kinds):
        """The names in the events of these kinds since the last call, without the tree's path."""
        found = [
            os.path.relpath(event["path"], self.top)
            for event in self.events
            if event["event"] in kinds
        ]
        self.events = [event for event in self.events if event["event"] not in kinds]
        return sorted(found)

    def kinds(self):
        return [event["event"] for event in self.events]

    def last_rest(self):
        return next(event for event in reversed(self.events) if event["event"] == "at-rest")

    def stored(self):
        """What the database holds: name to digest, in hexadecimal."""
        connection = open_read_only(self.db_path)
        try:
            rows = connection.execute("SELECT url, digest FROM files WHERE scans != ''").fetchall()
        finally:
            connection.close()
        start = f"{CLocalFileLocation(self.top).fUrl}/"
        return {url.removeprefix(start): digest for url, digest in rows if url.startswith(start)}

    def names(self):
        return sorted(self.stored())

    def followed(self):
        """The folders that the source was told of."""
        return sorted(os.path.relpath(path, self.top) for path in self.source.watched)


@pytest.fixture
def world(main_loop, clock, tmp_path):
    world = World(main_loop, clock, tmp_path)
    yield world
    if world.session is not None:
        world.session.destroy()
    world.app.destroy()


class KernelWorld(World):
    """Events come from the kernel, which has them queued when a call that causes them returns."""

    def watch(self, *paths, **options):
        from loom.watch.inotify import InotifySource

        return super().watch(*paths, make_source=InotifySource, **options)

    def take_events(self):
        """Read all that the kernel has."""
        follower = self.session.follower
        while follower.source is not None and select.select([follower.source], [], [], 0)[0]:
            follower.take_events()

    def settle(self):
        for _ in range(3):
            if self.session is not None:
                self.take_events()
            super().settle()

    def followed(self):
        watches = self.session.follower.source._watches
        return sorted(os.path.relpath(path, self.top) for path in watches)


@pytest.fixture
def kernel(main_loop, clock, tmp_path):
    world = KernelWorld(main_loop, clock, tmp_path)
    yield world
    with contextlib.ExitStack() as stack:
        stack.callback(world.app.destroy)
        if world.session is not None:
            world.session.destroy()
