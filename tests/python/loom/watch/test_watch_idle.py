"""A session on the real main loop: what wakes it, and that nothing does at rest."""

import selectors

import pytest

from loom.app import App
from loom.mainloop.asyncio_loop import AsyncioMainLoop
from loom.watch.inotify import InotifySource
from loom.watch.session import WatchSession


class WouldSleepForEver(Exception):
    """Nothing is left to do, and no timer is armed."""


class Sleepless(selectors.DefaultSelector):
    """Raises where the loop would sleep until somebody wakes it from outside."""

    def select(self, timeout=None):
        ready = super().select(0 if timeout is None else timeout)
        if timeout is None and not ready:
            raise WouldSleepForEver
        return ready


@pytest.fixture
def session(tmp_path):
    main_loop = AsyncioMainLoop(Sleepless())
    app = App(tmp_path / "info.sqlite3", main_loop)
    app.coordinator._fAnalyzeFoundImports = False
    (tmp_path / "tree").mkdir()
    (tmp_path / "tree/a.py").write_text("a = 1\n")
    session = WatchSession(app, [str(tmp_path / "tree")], None, InotifySource)
    follower = session.follower
    main_loop.loop.add_reader(follower.source.fileno(), follower.take_events)
    session.start()
    yield session
    main_loop.loop.remove_reader(follower.source.fileno())
    session.destroy()
    app.destroy()
    main_loop.close()


def run_until_it_would_sleep(session):
    with pytest.raises(WouldSleepForEver):
        session.app.main_loop.loop.run_forever()


def test_at_rest_it_would_sleep_for_ever(session):
    run_until_it_would_sleep(session)
    assert session.at_rest
    run_until_it_would_sleep(session)  # at once again


def test_a_change_wakes_it_and_then_it_rests_again(session, tmp_path):
    run_until_it_would_sleep(session)
    events = []
    session.connect("event", lambda _session, event: events.append(event["event"]))
    (tmp_path / "tree/a.py").write_text("a = 2\n")
    run_until_it_would_sleep(session)
    assert events == ["scanned", "at-rest"]


def test_paused_it_would_sleep_for_ever_too(session, tmp_path):
    run_until_it_would_sleep(session)
    session.pause()
    (tmp_path / "tree/a.py").write_text("a = 2\n")
    run_until_it_would_sleep(session)
    assert not session.app.info_cache.HasUnwritten()
