"""What becomes of changes, whatever their order: events come from a list, step by step."""

import os

import pytest
from loombase.location import CLocalFileLocation
from pysource.scopescanner import wholefile

from loom.ignore import parse_patterns
from loom.watch.events import Change, Event

NEW = "def renewed():\n    pass\n"


def test_the_first_scan_is_that_of_a_whole_tree_and_every_folder_is_followed(world):
    world.write("a.py", "sub/b.py", "sub/deep/c.py", "node_modules/d.py")
    world.watch()
    assert world.names() == ["a.py", "sub/b.py", "sub/deep/c.py"]
    assert world.followed() == [".", "sub", "sub/deep"]
    assert world.kinds() == ["started", "at-rest"]
    assert world.last_rest()["scanned"] == 3


def test_at_rest_nothing_is_registered_that_could_wake_the_loop(world):
    world.write("a.py")
    world.watch()
    assert not world.main_loop.idle
    assert world.main_loop.timers.next_due() is None


def test_a_new_file_is_scanned(world):
    world.watch()
    world.write("a.py")
    world.happen((Change.APPEARED, "a.py"), (Change.WRITTEN, "a.py"))
    world.settle()
    assert world.take("scanned") == ["a.py"]
    assert world.names() == ["a.py"]
    assert not world.main_loop.idle
    assert world.main_loop.timers.next_due() is None


def test_only_the_changed_file_is_scanned(world):
    world.write("a.py", "b.py")
    world.watch()
    before = world.stored()
    world.write("a.py", text=NEW)
    world.happen((Change.WRITTEN, "a.py"))
    world.settle()
    assert world.take("scanned") == ["a.py"]
    after = world.stored()
    assert before["a.py"] != after["a.py"]
    assert before["b.py"] == after["b.py"]


@pytest.mark.parametrize("seconds", [-100, 100])
def test_a_file_that_was_only_touched_is_not_parsed(world, seconds, monkeypatch):
    world.write("a.py")
    world.watch()
    parsed, scanner = [], wholefile.SourceScanner
    monkeypatch.setattr(
        wholefile, "SourceScanner", lambda data: (parsed.append(data), scanner(data))[1]
    )
    status = os.stat(world.path("a.py"))
    os.utime(world.path("a.py"), (status.st_atime, status.st_mtime + seconds))
    world.happen((Change.WRITTEN, "a.py"))
    world.settle()
    assert parsed == []
    assert world.take("scanned", "failed", "error") == []
    assert (world.last_rest()["scanned"], world.last_rest()["unchanged"]) == (0, 1)
    world.write("a.py", text=NEW)
    world.happen((Change.WRITTEN, "a.py"))
    world.settle()
    assert parsed == [NEW.encode()]


def test_a_deleted_file_is_forgotten(world):
    world.write("a.py", "b.py")
    world.watch()
    os.unlink(world.path("a.py"))
    world.happen((Change.GONE, "a.py"))
    world.settle()
    assert world.take("forgotten") == ["a.py"]
    assert world.names() == ["b.py"]
    assert world.last_rest()["forgotten"] == 1


def test_a_file_that_was_never_known_is_not_told_to_be_forgotten(world):
    world.watch()
    world.happen((Change.APPEARED, "a.py"), (Change.GONE, "a.py"))
    world.settle()
    assert world.take("forgotten", "failed", "error") == []


@pytest.mark.parametrize(
    "events",
    [
        [(Change.GONE, "a.py"), (Change.APPEARED, "a.py")],
        [(Change.APPEARED, "a.py"), (Change.GONE, "a.py")],
        [(Change.APPEARED, "a.py.tmp"), (Change.GONE, "a.py.tmp"), (Change.APPEARED, "a.py")],
    ],
)
def test_what_counts_is_how_things_stand_in_the_end(world, events):
    """An editor that saves by a new file and a rename, however the events come."""
    world.write("a.py")
    world.watch()
    world.write("a.py", text=NEW)
    world.happen(*events)
    world.settle()
    assert world.take("scanned") == ["a.py"]
    assert world.take("forgotten") == []


def test_a_file_is_moved_within_the_tree(world):
    world.write("a.py", "sub/b.py")
    world.watch()
    os.rename(world.path("a.py"), world.path("sub/a.py"))
    world.happen((Change.GONE, "a.py"), (Change.APPEARED, "sub/a.py"))
    world.settle()
    assert world.take("scanned") == ["sub/a.py"]
    assert world.take("forgotten") == ["a.py"]
    assert world.names() == ["sub/a.py", "sub/b.py"]


def test_a_name_that_is_not_python_wakes_nobody(world):
    world.watch()
    world.write("notes.txt", "a.py.swp")
    world.happen((Change.WRITTEN, "notes.txt"), (Change.WRITTEN, "a.py.swp"))
    assert not world.main_loop.idle
    assert world.main_loop.timers.next_due() is None


def test_what_is_not_known_is_not_written_down(world):
    """A database without a suffix in the watched folder would otherwise never come to rest."""
    world.watch()
    world.write("database", text="SQLite format 3")
    world.happen((Change.WRITTEN, "database"), (Change.GONE, "other"))
    world.main_loop.advance(1.0)
    world.main_loop.step()
    assert not world.app.info_cache.HasUnwritten()


def test_a_script_without_suffix_is_python_by_its_first_line(world):
    world.watch()
    world.write("tool", text="#!/usr/bin/env python3\nx = 1\n")
    world.write("other", text="#!/bin/sh\n")
    world.happen((Change.WRITTEN, "tool"), (Change.WRITTEN, "other"))
    world.settle()
    assert world.names() == ["tool"]
    world.write("tool", text="#!/bin/sh\n")
    world.happen((Change.WRITTEN, "tool"))
    world.settle()
    assert world.names() == []


def test_a_file_that_cannot_be_parsed_is_told_and_the_next_version_is_scanned(world):
    world.watch()
    world.write("a.py", text="def f(\n")
    world.happen((Change.WRITTEN, "a.py"))
    world.settle()
    assert world.take("error") == ["a.py"]
    world.write("a.py", text=NEW)
    world.happen((Change.WRITTEN, "a.py"))
    world.settle()
    assert world.take("scanned") == ["a.py"]


def test_a_scan_that_fails_ends_nothing(world, monkeypatch):
    world.write("a.py", "b.py")
    world.watch()

    with monkeypatch.context() as context:
        context.setattr(wholefile.CWholeFilePrimaryScanner, "Scan", lambda *_: 1 / 0)
        world.write("a.py", text=NEW)
        world.happen((Change.WRITTEN, "a.py"))
        world.settle()
    assert world.last_rest()["failed"] == 1
    world.happen((Change.WRITTEN, "a.py"))
    world.settle()
    assert world.take("scanned") == ["a.py"]


# --- a file changes again


def test_a_file_that_changes_again_within_seconds_is_scanned_again(world):
    """The scheduler itself wouldn't do so before five seconds are over; its clock stands here."""
    world.write("a.py")
    world.watch()
    for number in range(3):
        world.write("a.py", text=f"def version_{number}():\n    pass\n")
        world.happen((Change.WRITTEN, "a.py"))
        world.settle()
        assert world.take("scanned") == ["a.py"]
        loc = CLocalFileLocation(world.path("a.py"))
        assert world.app.coordinator._fLastScanCompleted[loc] == {("*", "primary"): 1_000.0}


BIG = "".join(f"def function_{number}():\n    return {number}\n" for number in range(10_000))


def begin_a_scan(world):
    """A scan of "a.py" that has read the file and isn't over."""
    world.write("a.py", text=BIG)
    world.begin()
    world.clock.per_look = 0.015  # a slice is a few steps of the scanner
    world.step_until(
        lambda: world.app.coordinator.WholeFileScanBegun(world.loc("a.py"))
        and world.session.follower._first_walk_over
    )


def test_a_file_that_changes_while_it_is_scanned_is_scanned_again(world):
    begin_a_scan(world)
    world.write("a.py", text=NEW)
    world.happen((Change.WRITTEN, "a.py"))
    world.main_loop.advance(0.1)
    world.step_until(lambda: not world.session.follower._notes.files)
    assert world.app.coordinator.WholeFileScanBegun(world.loc("a.py"))  # with what it has read
    world.settle()
    world.clock.per_look = 0.0
    world.settle()
    assert world.last_rest()["definitions"] == 1
    assert world.app.info_cache.GetScopeInfo(world.loc("a.py"), "renewed") is not None


def test_a_file_that_is_deleted_while_it_is_scanned_is_forgotten(world):
    begin_a_scan(world)
    os.unlink(world.path("a.py"))
    world.happen((Change.GONE, "a.py"))
    world.settle()
    assert world.names() == []
    assert world.take("forgotten") == ["a.py"]


def test_a_scan_that_nobody_goes_on_with_does_not_leave_old_results(world):
    """The scheduler keeps the scanner of a scan that was taken out of the queue."""
    begin_a_scan(world)
    world.app.coordinator.RemoveLocationsFromQueue([world.loc("a.py")])
    world.write("a.py", text=NEW)
    world.happen((Change.WRITTEN, "a.py"))
    world.settle()
    world.settle()
    assert world.app.info_cache.GetScopeInfo(world.loc("a.py"), "renewed") is not None
    assert world.app.info_cache.GetScopeInfo(world.loc("a.py"), "function_1") is None


def test_a_file_that_changes_while_it_is_with_the_helper_is_looked_at_when_its_result_comes(
    world, monkeypatch
):
    world.write("a.py")
    world.watch()
    loc, with_helper = world.loc("a.py"), set()
    monkeypatch.setattr(
        type(world.app.coordinator),
        "_fLocsQueuedInHelper",
        property(lambda _coordinator: with_helper),
        raising=False,
    )
    with_helper.add(loc)
    world.write("a.py", text=NEW)
    world.happen((Change.WRITTEN, "a.py"))
    world.main_loop.advance(1.0)
    world.main_loop.run_idle()
    assert world.take("scanned") == []
    with_helper.clear()
    world.app.info_cache.emit("file-reread", world.app.info_cache, loc)
    world.settle()
    assert world.take("scanned") == ["a.py"]


# --- many at a time, and which come first


def test_events_of_one_file_are_one_look_at_it(world, monkeypatch):
    world.watch()
    world.write("a.py")
    for _ in range(100):
        world.happen((Change.WRITTEN, "a.py"))
    looks = []
    follower = world.session.follower
    look = follower._look_at_file
    monkeypatch.setattr(
        follower, "_look_at_file", lambda *args: (looks.append(args), look(*args))
    )
    world.settle()
    assert len(looks) == 1


def test_a_burst_is_waited_for_but_not_for_ever(world):
    world.watch()
    world.write("a.py")
    for _ in range(20):
        world.happen((Change.WRITTEN, "a.py"))
        world.main_loop.advance(0.03)
        if world.main_loop.idle:
            break
    assert world.main_loop.idle
    assert 0.5 <= world.main_loop.now() - 1.8 <= 0.65  # the first settling took 1.8 s


def test_a_check_out_of_many_files_comes_in_few_batches_and_waits_its_turn(world):
    world.watch()
    names = [f"m{number}.py" for number in range(1_000)]
    world.write(*names)
    batches = []
    world.session.follower.connect(
        "files-changed", lambda _follower, locs, priority: batches.append((len(locs), priority))
    )
    world.happen(*[(Change.APPEARED, name) for name in names])
    world.settle()
    assert sum(count for count, _ in batches) == 1_000
    assert {priority for _, priority in batches} == {2}
    assert len(batches) < 100
    assert len(world.names()) == 1_000


def test_a_few_changed_files_come_before_all_others(world):
    world.write("a.py", "b.py")
    world.watch()
    world.app.coordinator.SuspendIdleScans()
    world.write("a.py", text=NEW)
    world.happen((Change.WRITTEN, "a.py"))
    world.settle()
    pending = world.app.coordinator._fScanQueue.GetPendingDictForLoc(world.loc("a.py"))
    assert pending == {("*", "primary"): 1}
    world.app.coordinator.ResumeIdleScans()


def test_a_change_during_the_first_scan_is_not_lost(world):
    world.write("a.py", "sub/b.py")
    world.begin()
    world.step_until(lambda: "sub/b.py" in world.names())
    world.write("sub/b.py", text=NEW)
    world.happen((Change.WRITTEN, "sub/b.py"))
    world.settle()
    assert world.app.info_cache.GetScopeInfo(world.loc("sub/b.py"), "renewed") is not None


def test_very_many_noted_files_become_a_walk(world, monkeypatch):
    from loom.watch import notes

    monkeypatch.setattr(notes, "_kMostFiles", 3)
    world.watch()
    world.write("a.py", "b.py", "c.py", "d.py", "unheard.py")
    world.happen(*[(Change.APPEARED, f"{name}.py") for name in "abcd"])
    world.settle()
    assert world.names() == ["a.py", "b.py", "c.py", "d.py", "unheard.py"]


def test_lost_events_lead_to_a_walk_of_everything(world):
    world.write("a.py", "gone.py", "old/b.py")
    world.watch()
    world.write("a.py", text=NEW)
    world.write("new/c.py")
    os.unlink(world.path("gone.py"))
    os.unlink(world.path("old/b.py"))
    os.rmdir(world.path("old"))
    world.source.pending.append(Event(Change.LOST))
    world.session.follower.take_events()
    world.settle()
    assert "events-lost" in world.kinds()
    assert world.take("scanned") == ["a.py", "new/c.py"]
    assert world.names() == ["a.py", "new/c.py"]
    assert world.followed() == [".", "new"]


# --- what the user says


def test_patterns_of_the_user_hold_for_changes_too(world):
    world.watch(exclude=parse_patterns(["left_*", "!node_modules"]))
    world.write("left_out.py", "sub/left_out.py", "node_modules/kept.py")
    (world.top / "left_folder").mkdir()
    world.write("left_folder/a.py")
    world.happen(
        (Change.APPEARED, "left_out.py"),
        (Change.APPEARED, "sub/"),
        (Change.APPEARED, "left_folder/"),
        (Change.APPEARED, "node_modules/"),
    )
    world.settle()
    assert world.names() == ["node_modules/kept.py"]
    assert world.followed() == [".", "node_modules", "sub"]


def test_a_named_file_is_followed_and_its_neighbours_are_not(world):
    world.write("odd name", "b.py")
    world.watch(world.top / "odd name")
    assert world.names() == ["odd%20name"]
    world.write("odd name", text=NEW)
    world.write("b.py", text=NEW)
    world.write("sub/c.py")
    world.happen((Change.WRITTEN, "b.py"), (Change.APPEARED, "sub/"))
    world.happen((Change.APPEARED, "odd name"))
    world.settle()
    assert world.take("scanned") == ["odd name"]
    assert world.names() == ["odd%20name"]
    assert world.followed() == ["."]
    os.unlink(world.path("odd name"))
    world.happen((Change.GONE, "odd name"))
    world.settle()
    assert world.names() == []


def test_memory_does_not_grow_with_the_number_of_changes(world):
    world.write("a.py")
    world.watch()
    for number in range(50):
        world.write("a.py", text="def f(\n" if number % 2 else NEW)
        world.happen((Change.WRITTEN, "a.py"))
        world.settle()
    assert len(world.app.coordinator.slices) == 0
    counts = world.session.scan.counts
    assert (counts.found, counts.errors) == (0, [])
    assert not world.session.follower._notes
    assert not world.session.follower._again
