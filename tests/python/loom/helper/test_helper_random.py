"""Helpers that answer, die, come and misbehave in any order: nothing is lost or stored twice."""

import tempfile
from pathlib import Path

from guiutils import lgtk
from hypothesis import given, settings
from hypothesis import strategies as st
from loombase.location import CLocalFileLocation
from test_helper_pool import Setting

from loom.app import App
from loom.helper.statuspage import Scanning
from loom.mainloop.stepped import SteppedMainLoop

kFiles = 12

# What happens, to which of the helpers.
steps = st.lists(
    st.tuples(
        st.sampled_from(
            ["greet", "answer one", "answer all", "die", "die scanning", "garbage", "wait", "run"]
        ),
        st.integers(0, 2),
    ),
    max_size=40,
)


class World:
    """Two helpers and a tree, and what each helper was given and hasn't answered."""

    def __init__(self, folder, share):
        self.main_loop = SteppedMainLoop()
        lgtk.SetMainLoop(self.main_loop)
        self.app = App(folder / "info.sqlite3", self.main_loop)
        self.app.coordinator._fAnalyzeFoundImports = False
        self.locs = []
        for number in range(kFiles):
            path = folder / f"f{number}.py"
            path.write_text(f"x{number} = 1\n")
            self.locs.append(CLocalFileLocation(path))
        self.setting = Setting(self.app, self.main_loop, count=2, share=share)
        self.out = {}
        self.setting.add(*self.locs)

    def live(self):
        return [h for h in self.setting.helpers if not h.ended]

    def hear(self):
        for helper in self.live():
            self.out.setdefault(helper, []).extend(helper.hear())

    def do(self, what, which):
        self.hear()
        live = self.live()
        if what == "wait":
            self.main_loop.advance(1.0)
        elif what == "run":
            self.main_loop.run_idle()
        if what in ("wait", "run") or not live:
            return
        helper = live[which % len(live)]
        jobs = self.out.get(helper, [])
        if what == "greet":
            if helper.greeted is not None and not getattr(helper, "has_greeted", False):
                helper.has_greeted = True
                helper.greet()
        elif what.startswith("answer"):
            part = jobs[:1] if what == "answer one" else list(jobs)
            del jobs[: len(part)]
            self.setting.answer(part, helper)
        elif what == "garbage":
            helper.say_bytes(b"\xff" * 8)
            self.main_loop.run_idle()
        else:
            if what == "die scanning" and jobs:
                helper.now_scanning = Scanning(jobs[-1].number, 0.0)
            helper.die()

    def finish(self):
        """From here on everybody does what they should."""
        for _ in range(200):
            self.main_loop.run_idle()
            if self.setting.coordinator.QueuesEmpty():
                return
            for helper in self.live():
                self.hear()
                self.do("greet", self.live().index(helper))
            self.main_loop.run_idle()
            for number in range(len(self.live())):
                self.do("answer all", number)
            self.main_loop.advance(1.0)
        raise AssertionError(f"never done: {self.setting.in_helper}")


@settings(max_examples=60)
@given(steps, st.booleans())
def test_all_is_stored_once_whatever_happens(happens, share):
    with tempfile.TemporaryDirectory() as folder:
        world = World(Path(folder), share)
        try:
            for what, which in happens:
                world.do(what, which)
                # What the scheduler believes to be away is what the pool has.
                assert world.setting.in_helper == set(world.setting.pool.locs)
            world.finish()
            stored = world.setting.stored
            assert sorted(stored, key=lambda loc: loc.path) == sorted(
                world.locs, key=lambda loc: loc.path
            )
            assert world.setting.in_helper == set()
            assert len(world.setting.pool) == 0
        finally:
            world.app.destroy()
            lgtk.SetMainLoop(None)
