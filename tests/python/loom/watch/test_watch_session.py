"""Pausing, polling, and what goes wrong."""

import os
from pathlib import Path

import pytest
from singleton import GetSingletons

from loom.store.errors import StoreError, StoreLockedError
from loom.watch.events import Change, NoMoreWatchesError

NEW = "def renewed():\n    pass\n"


# --- pausing


def test_while_paused_nothing_is_looked_at_and_nothing_is_lost(world):
    world.write("a.py")
    world.watch()
    world.session.pause()
    world.write("a.py", text=NEW)
    world.write("new/b.py")
    world.happen((Change.WRITTEN, "a.py"), (Change.APPEARED, "new/"))
    world.settle()
    assert world.take("scanned") == []
    assert not world.main_loop.idle
    assert world.main_loop.timers.next_due() is None
    world.session.resume()
    world.settle()
    assert world.take("scanned") == ["a.py", "new/b.py"]
    assert world.kinds() == ["started", "at-rest", "paused", "resumed", "at-rest"]


def test_the_first_scan_can_be_paused(world):
    world.write("a.py", "b.py")
    world.begin()
    world.session.toggle_pause()
    world.settle()
    assert world.session.is_paused
    assert not world.session.at_rest
    assert world.names() == []
    world.session.toggle_pause()
    world.settle()
    assert world.session.at_rest
    assert world.names() == ["a.py", "b.py"]


def test_pausing_twice_is_pausing_once(world):
    world.watch()
    for operation in ("pause", "pause", "resume", "resume"):
        getattr(world.session, operation)()
    assert world.kinds() == ["started", "at-rest", "paused", "resumed"]
    assert world.app.coordinator._fIdleScanSuspendCount == 0


def test_a_pause_writes_what_was_scanned(world):
    world.write("a.py")
    world.begin()
    world.step_until(lambda: world.app.info_cache.IsKnown(world.loc("a.py")))
    world.session.pause()
    assert world.names() == ["a.py"]


# --- polling


def poll(world):
    """Let the time for the next look come, and have it done."""
    world.main_loop.advance(5.1)
    world.settle()


@pytest.mark.parametrize("when", ["at the start", "on the way", "later"])
def test_where_nobody_tells_of_changes_all_files_are_looked_at_now_and_then(world, when):
    world.write("a.py", "sub/b.py")

    def refuse():
        raise NoMoreWatchesError("there are no more")

    if when == "at the start":
        world.watch(make_source=refuse)
    else:
        world.source.limit = 1 if when == "on the way" else 2
        world.watch()
    world.write("new/c.py")
    if when == "later":
        world.happen((Change.APPEARED, "new/"))
        world.settle()
        assert world.take("scanned") == ["new/c.py"]
    assert world.session.follower.source is None
    assert world.source.closed is (when != "at the start")
    polling = next(event for event in world.events if event["event"] == "polling")
    assert polling["reason"] == "there are no more"
    world.write("a.py", text=NEW)
    os.unlink(world.path("sub/b.py"))
    poll(world)
    assert world.take("scanned") == (["a.py"] if when == "later" else ["a.py", "new/c.py"])
    assert world.names() == ["a.py", "new/c.py"]


def test_polling_goes_on_says_nothing_of_nothing_and_obeys_changed_rules(world):
    world.write("a.py", "gen/b.py")
    world.watch(make_source=None, poll_seconds=5.0)
    world.session.follower.source = None
    world.session._poll_later(0.0)
    world.write("a.py", text=NEW)
    for name in ("a.py", "gen/b.py"):  # times of now aren't trusted
        os.utime(world.path(name), (1_700_000_000, 1_700_000_000))
    poll(world)
    assert world.take("scanned") == ["a.py"]
    told, changed = len(world.events), []
    GetSingletons().fSavableMgr.connect("external-files-changed", lambda *_: changed.append(_))
    for _ in range(3):
        poll(world)
    assert len(world.events) == told
    assert changed == []
    world.write(".gitignore", text="gen\n")
    poll(world)
    assert world.names() == ["a.py"]


def test_a_long_look_is_followed_by_a_long_rest(world):
    world.watch()
    world.session._poll_later(3.0)
    assert world.main_loop.timers.next_due() - world.main_loop.now() == pytest.approx(60.0)


def test_polling_waits_while_it_is_paused(world):
    world.write("a.py")
    world.watch(make_source=lambda: None)
    world.session.pause()
    world.write("a.py", text=NEW)
    poll(world)
    poll(world)
    assert world.take("scanned") == []
    world.session.resume()
    world.settle()
    assert world.take("scanned") == ["a.py"]
    world.write("a.py")
    poll(world)
    assert world.take("scanned") == ["a.py"]


# --- what goes wrong


def test_a_locked_database_makes_changes_wait(world, monkeypatch):
    world.write("old/a.py")
    world.watch()
    cache, forget = world.app.info_cache, world.app.info_cache.ForgetVanishedBelow
    refused = []

    def refuse_once(*args):
        if not refused:
            refused.append(args)
            raise StoreLockedError("locked by another process")
        return forget(*args)

    monkeypatch.setattr(cache, "ForgetVanishedBelow", refuse_once)
    os.rename(world.path("old"), world.path("new"))
    world.happen((Change.GONE, "old/"), (Change.APPEARED, "new/"))
    world.settle()
    world.main_loop.advance(1.1)
    world.settle()
    assert refused
    assert world.names() == ["new/a.py"]
    assert world.session.failure is None


@pytest.mark.parametrize("failure", [StoreError("of no use"), RuntimeError("a fault")])
def test_a_failure_that_nothing_mends_ends_the_session(world, monkeypatch, failure):
    world.write("a.py")
    world.watch()
    os.unlink(world.path("a.py"))
    ended = []
    world.session.connect("finished", ended.append)

    def fail(*args):
        raise failure

    monkeypatch.setattr(world.app.info_cache, "ForgetFile", fail)
    world.happen((Change.GONE, "a.py"))
    world.settle()
    assert ended == [world.session]
    assert world.session.failure is failure
    assert world.kinds()[-1] == "ended"


def test_results_that_could_not_be_written_are_written_later(world, monkeypatch):
    world.watch()
    cache = world.app.info_cache

    def refuse():
        raise StoreLockedError("locked by another process")

    world.write("a.py")
    with monkeypatch.context() as context:
        context.setattr(cache, "WriteToDatabase", refuse)
        world.happen((Change.WRITTEN, "a.py"))
        world.settle()
        assert world.names() == []
    world.main_loop.advance(5.1)
    world.settle()
    assert world.names() == ["a.py"]


def test_a_stopped_session_looks_at_nothing_more(world):
    world.write("a.py")
    world.watch()
    ended = []
    world.session.connect("finished", ended.append)
    world.session.stop()
    world.session.stop()
    assert ended == [world.session]
    assert world.session.failure is None


def test_a_destroyed_session_leaves_the_loop_alone(world):
    world.write("a.py")
    world.begin()
    world.session.destroy()
    assert world.source.closed
    world.session = None
    world.main_loop.run_idle()
    assert world.app.coordinator.on_scan_over is None


def test_the_session_tells_how_it_follows(world):
    world.write("a.py", "sub/b.py", "single")
    world.watch(world.top / "sub", world.top / "single")
    assert world.session.describe() == {
        "by": "inotify",
        "folders": 2,
        "roots": [world.path("sub")],
        "exclude": [],
        "files": [world.path("single")],
    }
    assert Path(world.events[0]["database"]) == world.db_path
