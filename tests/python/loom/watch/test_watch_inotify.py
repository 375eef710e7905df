"""Real events. The kernel has them queued when a call that causes them returns, so nobody waits."""

import errno
import gc
import os
import random
import shutil
import tracemalloc

import pytest
from inotify_simple import INotify

from loom.walk import Found, walk
from loom.watch.events import Change, Event, NoMoreWatchesError
from loom.watch.inotify import InotifySource

NEW = "def renewed():\n    pass\n"


@pytest.fixture
def source():
    source = InotifySource()
    yield source
    source.close()


def read(source):
    return [(event.change, event.folder, event.name, event.is_folder) for event in source.read()]


# --- the source


def test_events_say_what_happened_and_where(source, tmp_path):
    top = str(tmp_path)
    source.watch(top)
    (tmp_path / "a.py").write_text("x")
    (tmp_path / "sub").mkdir()
    os.rename(tmp_path / "a.py", tmp_path / "b.py")
    os.utime(tmp_path / "b.py")
    (tmp_path / "b.py").unlink()
    (tmp_path / "sub").rmdir()
    assert read(source) == [
        (Change.APPEARED, top, "a.py", False),
        (Change.WRITTEN, top, "a.py", False),
        (Change.APPEARED, top, "sub", True),
        (Change.GONE, top, "a.py", False),
        (Change.APPEARED, top, "b.py", False),
        (Change.WRITTEN, top, "b.py", False),
        (Change.GONE, top, "b.py", False),
        (Change.GONE, top, "sub", True),
    ]
    assert read(source) == []


def test_names_that_are_not_utf8_come_through(source, tmp_path):
    source.watch(str(tmp_path))
    with open(os.fsencode(tmp_path) + b"/\xff.py", "w"):
        pass
    assert {os.fsencode(event.name) for event in source.read()} == {b"\xff.py"}


def test_the_end_of_a_folder_is_told_once(source, tmp_path):
    folder = tmp_path / "sub"
    folder.mkdir()
    source.watch(str(folder))
    folder.rmdir()
    assert read(source) == [(Change.FOLDER_GONE, str(folder), "", False)]
    assert source._paths == source._watches == {}
    source.unwatch(str(folder))


def test_nothing_more_is_heard_of_a_folder_that_was_given_up(source, tmp_path):
    source.watch(str(tmp_path))
    (tmp_path / "a.py").touch()
    source.unwatch(str(tmp_path))
    (tmp_path / "b.py").touch()
    assert read(source) == []


def test_a_moved_folder_belongs_to_its_new_path(source, tmp_path):
    old, new = tmp_path / "old", tmp_path / "new"
    old.mkdir()
    source.watch(str(old))
    os.rename(old, new)
    source.watch(str(new))
    source.unwatch(str(old))
    read(source)
    (new / "a.py").touch()
    assert (Change.APPEARED, str(new), "a.py", False) in read(source)


def test_a_path_where_another_folder_stands_now_is_followed_anew(source, tmp_path):
    folder = tmp_path / "sub"
    folder.mkdir()
    source.watch(str(folder))
    os.rename(folder, tmp_path / "away")
    folder.mkdir()
    source.watch(str(folder))
    read(source)
    (tmp_path / "away/a.py").touch()
    (folder / "b.py").touch()
    assert {event.name for event in source.read()} == {"b.py"}


def test_a_folder_under_two_names_is_known_by_the_first(source, tmp_path):
    (tmp_path / "real").mkdir()
    (tmp_path / "link").symlink_to("real")
    source.watch(str(tmp_path / "real"))
    source.watch(str(tmp_path / "link"))
    (tmp_path / "real/a.py").touch()
    assert {event.folder for event in source.read()} == {str(tmp_path / "real")}
    source.unwatch(str(tmp_path / "link"))
    (tmp_path / "real/b.py").touch()
    assert {event.name for event in source.read()} == {"b.py"}


@pytest.mark.parametrize("code", [errno.ENOSPC, errno.ENOMEM])
def test_the_limit_of_watches_is_said(source, tmp_path, monkeypatch, code):
    def refuse(self, path, mask):
        raise OSError(code, os.strerror(code))

    monkeypatch.setattr(INotify, "add_watch", refuse)
    with pytest.raises(NoMoreWatchesError, match="max_user_watches" if code == 28 else "memory"):
        source.watch(str(tmp_path))


@pytest.mark.parametrize(
    ("failure", "text"),
    [
        (OSError(errno.EMFILE, "Too many open files"), "max_user_instances"),
        (OSError(errno.ENOSYS, "Function not implemented"), "Function not implemented"),
        (AttributeError("inotify_init1"), "inotify_init1"),
    ],
)
def test_a_system_without_inotify_is_said(monkeypatch, failure, text):
    def refuse(self, **options):
        raise failure

    monkeypatch.setattr(INotify, "__init__", refuse)
    with pytest.raises(NoMoreWatchesError, match=text):
        InotifySource()


def test_a_folder_that_cannot_be_followed_is_an_ordinary_error(source, tmp_path):
    with pytest.raises(FileNotFoundError):
        source.watch(str(tmp_path / "missing"))
    (tmp_path / "file").touch()
    with pytest.raises(NotADirectoryError):
        source.watch(str(tmp_path / "file"))


def test_an_overflow_of_the_queue_is_told(source, tmp_path):
    with open("/proc/sys/fs/inotify/max_queued_events") as file:
        length = int(file.read())
    files = [tmp_path / "a.py", tmp_path / "b.py"]
    for file in files:
        file.touch()
    source.watch(str(tmp_path))
    for number in range(length + 1):  # in turns, for the kernel makes one event of two equal ones
        os.utime(files[number % 2])
    events = []
    while some := list(source.read()):
        events += some
    assert events[-1] == Event(Change.LOST)


# --- the whole


def test_one_descriptor_whatever_the_number_of_folders(kernel):
    kernel.write(*[f"pkg{number}/sub/m.py" for number in range(100)])
    before = _inotify_descriptors()
    kernel.watch()
    kernel.write("later/deep/m.py")
    kernel.settle()
    assert _inotify_descriptors() - before == 1
    assert len(kernel.followed()) == 203


def _inotify_descriptors():
    found = 0
    for name in os.listdir("/proc/self/fd"):
        try:
            found += os.readlink(f"/proc/self/fd/{name}") == "anon_inode:inotify"
        except FileNotFoundError:
            continue
    return found


def test_a_whole_life_of_changes(kernel):
    kernel.write("a.py", "sub/b.py", "sub/deep/c.py")
    kernel.watch()
    assert kernel.names() == ["a.py", "sub/b.py", "sub/deep/c.py"]
    kernel.write("a.py", text=NEW)
    kernel.write("new/d.py")
    kernel.settle()
    assert kernel.take("scanned") == ["a.py", "new/d.py"]
    os.rename(kernel.path("sub"), kernel.path("moved"))
    os.unlink(kernel.path("a.py"))
    kernel.settle()
    assert kernel.names() == ["moved/b.py", "moved/deep/c.py", "new/d.py"]
    assert kernel.followed() == [".", "moved", "moved/deep", "new"]
    kernel.write("moved/deep/e.py")
    shutil.rmtree(kernel.path("new"))
    kernel.settle()
    assert kernel.names() == ["moved/b.py", "moved/deep/c.py", "moved/deep/e.py"]
    os.replace(kernel.path("moved/b.py"), kernel.path("moved/deep/c.py"))
    os.utime(kernel.path("moved/deep/e.py"))
    kernel.settle()
    assert kernel.names() == ["moved/deep/c.py", "moved/deep/e.py"]
    assert kernel.take("failed", "error") == []


def test_a_given_folder_goes_and_comes(kernel):
    kernel.write("root/a.py")
    kernel.watch(kernel.top / "root")
    shutil.rmtree(kernel.path("root"))
    kernel.settle()
    assert kernel.names() == []
    kernel.write("root/b.py")
    kernel.settle()
    assert kernel.names() == ["root/b.py"]
    kernel.write("root/c.py")
    kernel.settle()
    assert kernel.names() == ["root/b.py", "root/c.py"]
    os.rename(kernel.path("root"), kernel.path("elsewhere"))
    kernel.settle()
    assert kernel.names() == []
    os.rename(kernel.path("elsewhere"), kernel.path("root"))
    kernel.settle()
    assert kernel.names() == ["root/b.py", "root/c.py"]


class Vandal:
    """Does things to a tree, at random but the same for a seed."""

    def __init__(self, top, seed):
        self._top = top
        self._random = random.Random(seed)
        self._count = 0

    def act(self):
        operations = [self._write] * 4 + [self._delete, self._rename, self._touch] * 2
        operations += [self._remove_folder, self._move_folder, self._ignore, self._make_folder]
        try:
            self._random.choice(operations)()
        except OSError:
            pass  # it isn't there, or something is in the way

    def _name(self):
        return f"{self._random.choice('abc')}.py"

    def _folder(self):
        depth = self._random.randrange(3)
        return self._top.joinpath(*[self._random.choice("xyz") for _ in range(depth)])

    def _write(self):
        self._count += 1
        folder = self._folder()
        folder.mkdir(parents=True, exist_ok=True)
        (folder / self._name()).write_text(f"def f{self._count}():\n    pass\n")

    def _make_folder(self):
        self._folder().mkdir(parents=True, exist_ok=True)

    def _delete(self):
        (self._folder() / self._name()).unlink()

    def _touch(self):
        os.utime(self._folder() / self._name(), (1, self._random.randrange(1, 10**9)))

    def _rename(self):
        os.rename(self._folder() / self._name(), self._folder() / self._name())

    def _remove_folder(self):
        folder = self._folder()
        if folder != self._top:
            shutil.rmtree(folder)

    def _move_folder(self):
        old, new = self._folder(), self._folder()
        if old != self._top and new not in old.parents:
            os.rename(old, new)

    def _ignore(self):
        path = self._folder() / ".gitignore"
        if path.exists() and self._random.random() < 0.5:
            path.unlink()
        else:
            path.write_text(self._random.choice(["a.py\n", "/x\n", "*.py\n!b.py\n", "y/\n"]))

    def some(self, limit):
        return self._random.randrange(limit)


@pytest.mark.parametrize("seed", [*range(12), 384])
def test_in_the_end_the_database_is_what_a_fresh_scan_finds(kernel, seed):
    """Whatever is done to the tree, and however far the work has come when it is done."""
    vandal = Vandal(kernel.top, seed)
    for _ in range(15):
        vandal.act()
    kernel.watch()
    for _ in range(40):
        for _ in range(vandal.some(4)):
            vandal.act()
        if vandal.some(2):
            kernel.take_events()
        if vandal.some(2):
            kernel.main_loop.advance(0.06 * vandal.some(3))
        for _ in range(vandal.some(4)):
            kernel.main_loop.step()
    kernel.settle()
    kernel.settle()
    steps = list(walk([str(kernel.top)]))
    expected = {os.path.relpath(step.path, kernel.top) for step in steps if isinstance(step, Found)}
    stored = kernel.stored()
    assert set(stored) == expected
    for name in expected:
        text = (kernel.top / name).read_text()
        defined = text.split("def ")[1].split("(")[0]
        assert kernel.app.info_cache.GetScopeInfo(kernel.loc(name), defined) is not None
    assert kernel.session.failure is None
    assert not kernel.main_loop.idle
    assert kernel.main_loop.timers.next_due() is None


def test_memory_stays_what_it_is_however_long_it_goes_on(kernel):
    kernel.write("a.py", "b.py")
    kernel.watch(derived=True)

    def go_on(rounds):
        for number in range(rounds):
            kernel.write("a.py", text="def f(\n" if number % 3 else f"class C{number % 5}: pass\n")
            kernel.write(f"d{number % 5}/x.py")
            kernel.clock.now += 1.0
            kernel.settle()
            shutil.rmtree(kernel.path(f"d{(number + 2) % 5}"), ignore_errors=True)
        kernel.events.clear()
        gc.collect()

    go_on(30)
    tracemalloc.start()
    try:
        go_on(10)
        before, _ = tracemalloc.get_traced_memory()
        go_on(60)
        after, _ = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert after - before < 20_000  # a few hundred bytes for each round would be more
