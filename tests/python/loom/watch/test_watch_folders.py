"""Folders that come, go and move, and rules that change."""

import os
import shutil

import pytest

from loom.watch.events import Change, Event

NEW = "def renewed():\n    pass\n"


def test_a_new_folder_is_walked_with_all_that_is_in_it(world):
    world.watch()
    world.write("new/a.py", "new/deep/b.py", "new/__pycache__/c.py")
    world.happen((Change.APPEARED, "new/"))
    world.settle()
    assert world.take("scanned") == ["new/a.py", "new/deep/b.py"]
    assert world.followed() == [".", "new", "new/deep"]


@pytest.mark.parametrize("told", [True, False])
def test_a_file_made_while_its_new_folder_is_not_followed_yet_is_found(world, told):
    """The kernel tells of it only if it was made after the folder was followed."""
    world.watch()
    (world.top / "new").mkdir()

    def make(folder):
        if folder == world.path("new"):
            world.write("new/a.py")
            if told:
                world.source.pending.append(Event(Change.APPEARED, folder, "a.py"))

    world.source.on_watch = make
    world.happen((Change.APPEARED, "new/"))
    world.settle()
    world.happen()
    world.settle()
    assert world.take("scanned") == ["new/a.py"]


def test_a_folder_that_comes_and_goes_at_once_is_nothing(world):
    world.watch()
    world.happen((Change.APPEARED, "new/"), (Change.GONE, "new/"))
    world.settle()
    assert world.followed() == ["."]
    assert world.take("failed", "error", "forgotten") == []


def test_a_deleted_folder_is_forgotten(world):
    world.write("old/a.py", "old/deep/b.py", "c.py")
    world.watch()
    shutil.rmtree(world.path("old"))
    world.happen(
        (Change.GONE, "old/deep/b.py"),
        (Change.GONE, "old/a.py"),
        (Change.GONE, "old/deep/"),
        (Change.GONE, "old/"),
    )
    world.settle()
    assert world.names() == ["c.py"]
    assert world.followed() == ["."]


def test_the_end_of_a_followed_folder_may_be_all_that_is_told(world):
    world.write("old/deep/b.py", "c.py")
    world.watch()
    shutil.rmtree(world.path("old"))
    for folder in ("old/deep", "old"):
        world.source.pending.append(Event(Change.FOLDER_GONE, world.path(folder)))
    world.session.follower.take_events()
    world.settle()
    assert world.names() == ["c.py"]


@pytest.mark.parametrize("order", ["from first", "to first", "at different times"])
def test_a_folder_is_moved(world, order):
    world.write("old/a.py", "old/deep/b.py")
    world.watch()
    os.rename(world.path("old"), world.path("new"))
    events = [(Change.GONE, "old/"), (Change.APPEARED, "new/")]
    if order == "to first":
        events.reverse()
    if order == "at different times":
        for event in events:
            world.happen(event)
            world.settle()
    else:
        world.happen(*events)
    world.settle()
    assert world.names() == ["new/a.py", "new/deep/b.py"]
    assert world.followed() == [".", "new", "new/deep"]


def test_results_that_are_not_written_yet_are_forgotten_with_their_folder(world):
    world.watch()
    world.app.coordinator.SuspendIdleScans()
    world.write("new/a.py")
    world.happen((Change.APPEARED, "new/"))
    world.settle()
    world.app.coordinator.ResumeIdleScans()
    world.step_until(lambda: world.app.info_cache.IsKnown(world.loc("new/a.py")))
    assert world.names() == []  # it waits in memory
    shutil.rmtree(world.path("new"))
    world.happen((Change.GONE, "new/"))
    world.settle()
    assert world.names() == []
    assert not world.app.info_cache.IsKnown(world.loc("new/a.py"))


def test_another_folder_stands_in_place_of_a_deleted_one(world):
    world.write("pkg/a.py", "pkg/b.py")
    world.watch()
    shutil.rmtree(world.path("pkg"))
    world.write("pkg/b.py", text=NEW)
    world.write("pkg/c.py")
    world.happen((Change.GONE, "pkg/"), (Change.APPEARED, "pkg/"))
    world.settle()
    assert world.names() == ["pkg/b.py", "pkg/c.py"]
    assert world.app.info_cache.GetScopeInfo(world.loc("pkg/b.py"), "renewed") is not None
    assert world.followed() == [".", "pkg"]


def test_a_folder_turns_into_a_file_and_back(world):
    world.write("thing.py/a.py")
    world.watch()
    shutil.rmtree(world.path("thing.py"))
    world.write("thing.py")
    world.happen((Change.GONE, "thing.py/"), (Change.APPEARED, "thing.py"))
    world.settle()
    assert world.names() == ["thing.py"]
    os.unlink(world.path("thing.py"))
    world.write("thing.py/a.py")
    world.happen((Change.GONE, "thing.py"), (Change.APPEARED, "thing.py/"))
    world.settle()
    assert world.names() == ["thing.py/a.py"]


def test_a_given_folder_that_is_gone_is_waited_for(world):
    world.write("root/sub/a.py")
    world.watch(world.top / "root/sub")
    assert world.followed() == ["root/sub"]
    shutil.rmtree(world.path("root"))
    world.source.pending.append(Event(Change.FOLDER_GONE, world.path("root/sub")))
    world.session.follower.take_events()
    world.settle()
    assert world.names() == []
    assert world.followed() == ["."]  # the nearest folder above it
    (world.top / "other").mkdir()
    (world.top / "root").mkdir()
    world.happen((Change.APPEARED, "other/"), (Change.APPEARED, "root/"))
    world.settle()
    assert world.followed() == ["root"]
    world.write("root/sub/b.py")
    world.happen((Change.APPEARED, "root/sub/"))
    world.settle()
    assert world.names() == ["root/sub/b.py"]
    assert world.followed() == ["root/sub"]


def test_a_given_folder_that_was_back_before_its_end_was_told_is_walked(world):
    world.write("root/a.py")
    world.watch(world.top / "root")
    shutil.rmtree(world.path("root"))
    world.write("root/b.py")
    world.source.pending.append(Event(Change.FOLDER_GONE, world.path("root")))
    world.session.follower.take_events()
    world.settle()
    assert world.names() == ["root/b.py"]
    assert world.followed() == ["root"]


# --- rules


def test_a_new_pattern_leaves_files_out_and_they_are_forgotten(world):
    world.write("a.py", "gen/b.py", "gen/deep/c.py", "sub/d_gen.py")
    world.watch()
    world.write(".gitignore", text="gen\n*_gen.py\n")
    world.happen((Change.APPEARED, ".gitignore"))
    world.settle()
    assert world.names() == ["a.py"]
    assert world.take("forgotten") == ["gen/b.py", "gen/deep/c.py", "sub/d_gen.py"]
    assert world.followed() == [".", "sub"]
    world.write("gen/e.py", "sub/f_gen.py")
    world.happen((Change.APPEARED, "sub/f_gen.py"), (Change.APPEARED, "gen/e.py"))
    world.settle()
    assert world.names() == ["a.py"]


def test_a_pattern_that_is_taken_away_lets_files_in(world):
    world.write("a.py", "gen/b.py", "gen/deep/c.py")
    world.write(".gitignore", text="gen\n")
    world.watch()
    assert world.names() == ["a.py"]
    os.unlink(world.path(".gitignore"))
    world.happen((Change.GONE, ".gitignore"))
    world.settle()
    assert world.names() == ["a.py", "gen/b.py", "gen/deep/c.py"]
    assert world.followed() == [".", "gen", "gen/deep"]


def test_the_rules_of_an_inner_folder_hold_there(world):
    world.write("a.py", "sub/a.py", "sub/deep/a.py")
    world.watch()
    world.write("sub/.gitignore", text="/a.py\n")
    world.happen((Change.WRITTEN, "sub/.gitignore"))
    world.settle()
    assert world.names() == ["a.py", "sub/deep/a.py"]


def test_what_the_rules_left_out_already_but_somebody_imports_stays(world):
    world.write("a.py", "lib/b.py")
    world.write(".gitignore", text="lib\n")
    world.watch()
    world.session.scan.add([world.loc("lib/b.py")], 2)  # as an import would
    world.settle()
    assert world.names() == ["a.py", "lib/b.py"]
    world.write(".gitignore", text="lib\nother\n")
    world.happen((Change.WRITTEN, ".gitignore"))
    world.settle()
    assert world.names() == ["a.py", "lib/b.py"]


def test_a_folder_that_becomes_an_environment_is_left_out(world):
    world.write("a.py", "env/lib/b.py")
    world.watch()
    world.write("env/pyvenv.cfg", text="home = /usr\n")
    world.happen((Change.APPEARED, "env/pyvenv.cfg"))
    world.settle()
    assert world.names() == ["a.py"]
    assert world.followed() == [".", "env"]  # for the day when it is none
    os.unlink(world.path("env/pyvenv.cfg"))
    world.happen((Change.GONE, "env/pyvenv.cfg"))
    world.settle()
    assert world.names() == ["a.py", "env/lib/b.py"]


def test_a_folder_of_build_results_becomes_a_package(world):
    world.write("build/lib/a.py")
    world.watch()
    assert world.names() == []
    world.write("build/__init__.py")
    world.happen((Change.APPEARED, "build/__init__.py"))
    world.settle()
    assert world.names() == ["build/__init__.py", "build/lib/a.py"]


def test_a_folder_that_cannot_be_read_is_told_and_walked_once_it_can_be(world, monkeypatch):
    world.write("sub/a.py")
    world.watch()
    scandir = os.scandir

    def refuse(path):
        if path == world.path("sub/shut"):
            raise PermissionError(13, "Permission denied")
        return scandir(path)

    world.write("sub/shut/b.py")
    with monkeypatch.context() as context:
        context.setattr(os, "scandir", refuse)
        world.happen((Change.APPEARED, "sub/shut/"))
        world.settle()
    assert world.take("failed") == ["sub/shut"]
    assert world.names() == ["sub/a.py"]
    world.happen((Change.WRITTEN, "sub/shut/"))  # its mode was changed
    world.settle()
    assert world.names() == ["sub/a.py", "sub/shut/b.py"]
