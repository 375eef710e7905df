"""What is remembered of imports from one scan to the next, and when it isn't believed."""

import os
import sqlite3
import time
from collections.abc import Callable, Iterator
from dataclasses import replace
from pathlib import Path
from typing import Any

import pytest
from pysource import _fastaccess

from loom import following
from loom.app import App
from loom.ignore import parse_patterns
from loom.mainloop.stepped import SteppedMainLoop
from loom.scansession import ScanSession
from loom.services.modules import CAnalysisFactory

kOld = 1_600_000_000


def write(path: Path, content: str = "", mtime: float = kOld) -> None:
    """A file that is old, in folders that are old."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(content)
    os.utime(path, (mtime, mtime))


def make_old(top: Path, mtime: float = kOld) -> None:
    """Give all folders a time that can be trusted."""
    for folder, _, _ in os.walk(top):
        os.utime(folder, (mtime, mtime))


class World:
    """A project, installed packages, and scans of it in one database."""

    def __init__(self, folder: Path, main_loop: SteppedMainLoop, patch: pytest.MonkeyPatch) -> None:
        self.folder = folder
        self.project = folder / "project"
        self.site = folder / "site-packages"
        self.db_path = folder / "db" / "info.sqlite3"
        self.main_loop = main_loop
        self.seconds = 0
        self.names: list[str] = []  # that were looked for
        self.on_app: Callable[[App], object] = lambda app: None
        for name, content in {
            "project/pyproject.toml": "",
            "project/main.py": "import installed.mod, later\nfrom pkg import a\n",
            "project/pkg/__init__.py": "",
            "project/pkg/a.py": "from . import b\n",
            "project/pkg/b.py": "",
            "site-packages/installed/__init__.py": "",
            "site-packages/installed/mod.py": "import installed.deep\n",
            "site-packages/installed/deep.py": "",
            "site-packages/other.py": "",
        }.items():
            write(folder / name, content)
        self.db_path.parent.mkdir()
        make_old(folder)
        find = CAnalysisFactory._FindPrimaryLocsForNames

        def watched(factory: CAnalysisFactory, names: Any, dirloc: Any, follow: bool) -> Any:
            names = list(names)
            self.names += names
            return find(factory, names, dirloc, follow)

        patch.setattr(CAnalysisFactory, "_FindPrimaryLocsForNames", watched)

    def app(self) -> App:
        app = App(self.db_path, self.main_loop)
        environment = app.ana_mgr.fPyConfig.fEnvironment
        path = (*environment.stdlib, str(self.site))
        app.ana_mgr.fAnalysisFactory.SetEnvironment(replace(environment, path=path))
        return app

    def scan(
        self, *paths: Path, exclude: str = "", on_end: Callable[[ScanSession], None] | None = None
    ) -> set[str]:
        """One run; the result are the files that were scanned, but those of the library's stubs."""
        self.names.clear()
        app = self.app()
        scanned: list[str] = []
        app.info_cache.connect("file-stored", lambda _c, loc, _r: scanned.append(loc.path))
        self.on_app(app)
        patterns = parse_patterns([exclude]) if exclude else None
        session = ScanSession(app, [str(path) for path in paths or (self.project,)], patterns)
        if on_end is not None:
            session.connect("at-rest", on_end)
        session.start()
        self.main_loop.run_idle()
        self.counts = session.counts
        assert session.failure is None
        session.destroy()
        app.destroy()
        return {os.path.relpath(p, self.folder) for p in scanned if p.startswith(str(self.folder))}


@pytest.fixture
def world(
    tmp_path: Path, main_loop: SteppedMainLoop, monkeypatch: pytest.MonkeyPatch
) -> Iterator[World]:
    now = time.time()
    monkeypatch.setattr(_fastaccess, "__TimeFunc", lambda: now)  # slices without an end
    yield World(tmp_path, main_loop, monkeypatch)


kAll = {
    *("project/main.py", "project/pkg/__init__.py", "project/pkg/a.py", "project/pkg/b.py"),
    *("site-packages/installed/mod.py", "site-packages/installed/deep.py"),
}


@pytest.fixture
def followed(world: World) -> World:
    """All is scanned and remembered."""
    assert world.scan() == kAll
    assert world.names
    return world


def test_imports_of_unchanged_files_are_not_followed_again(followed: World) -> None:
    imported = followed.counts.imported.found
    for _ in range(2):
        assert followed.scan() == set()
        assert followed.names == []
        assert (followed.counts.found, followed.counts.unchanged) == (4, 4)
        assert followed.counts.imported.found == followed.counts.imported.unchanged == imported


def test_an_unchanged_tree_costs_one_look_a_file_and_one_query_for_26(
    world: World, monkeypatch: pytest.MonkeyPatch
) -> None:
    for number in range(100):
        write(world.project / f"pkg/m{number}.py", f"from . import m{number // 2}\n")
    make_old(world.folder)
    world.scan()
    looks: dict[object, int] = {}
    queries: list[str] = []
    look = os.stat

    def counted(path: Any, **options: Any) -> os.stat_result:
        looks[path] = looks.get(path, 0) + 1
        return look(path, **options)

    monkeypatch.setattr(os, "stat", counted)
    monkeypatch.setattr(
        world, "on_app", lambda app: app.info_cache._fConnection.set_trace_callback(queries.append)
    )
    assert world.scan() == set()
    files = [count for path, count in looks.items() if str(path).endswith((".py", ".pyi"))]
    assert set(files) == {1}
    assert len(files) == world.counts.found + world.counts.imported.found
    selects = [text for text in queries if text.startswith("SELECT") and "WHERE url IN" in text]
    assert len(selects) <= len(files) // 26 + 3
    assert not any(text.startswith(("BEGIN IMM", "UPDATE", "INSERT")) for text in queries)


def test_a_changed_file_outside_is_found_although_nothing_leads_there(followed: World) -> None:
    write(followed.site / "installed/deep.py", "import other\n", kOld + 1)
    assert followed.scan() == {"site-packages/installed/deep.py", "site-packages/other.py"}
    assert set(followed.names) == {"other"}
    assert followed.scan() == set()
    assert followed.names == []
    write(followed.site / "other.py", "x = 1\n", kOld + 1)
    assert followed.scan() == {"site-packages/other.py"}


def test_imports_of_a_changed_file_are_followed(followed: World) -> None:
    write(followed.project / "pkg/b.py", "import other\n", kOld + 1)
    assert followed.scan() == {"project/pkg/b.py", "site-packages/other.py"}
    assert set(followed.names) == {"other"}
    assert followed.scan() == set()
    assert followed.names == []


@pytest.mark.parametrize("place", ["site-packages/later.py", "project/later/__init__.py"])
def test_a_module_that_comes_is_found(followed: World, place: str) -> None:
    write(followed.folder / place)
    make_old(followed.folder, kOld + 1)
    assert followed.scan() == {place}
    assert "later" in followed.names
    assert followed.scan() == set()
    assert followed.names == []


def test_a_module_that_goes_gives_way_to_another(followed: World) -> None:
    write(followed.site / "pkg/__init__.py")
    write(followed.site / "pkg/a.py")
    followed.scan()
    for name in ("__init__", "a", "b"):
        (followed.project / f"pkg/{name}.py").unlink()
    (followed.project / "pkg").rmdir()
    assert followed.scan() == {"site-packages/pkg/__init__.py", "site-packages/pkg/a.py"}


def test_a_mark_of_a_project_that_comes_changes_what_names_mean(followed: World) -> None:
    write(followed.project / "pkg" / "pyproject.toml")
    make_old(followed.folder, kOld + 1)
    followed.scan()
    assert followed.names


def test_files_beside_what_was_looked_into_do_not_matter(followed: World) -> None:
    """The folders above a project, where marks were looked for, change all the time."""
    write(followed.folder / "something.txt")
    os.utime(followed.folder)
    assert followed.scan() == set()
    assert followed.names == []


def test_folders_that_are_young_are_not_relied_upon(world: World) -> None:
    os.utime(world.project / "pkg")
    world.scan()
    assert world.scan() == set()
    assert world.names
    os.utime(world.project / "pkg", (kOld, kOld))
    world.scan()
    assert world.scan() == set()
    assert world.names == []


def test_other_paths_and_patterns_and_environments_are_other_questions(followed: World) -> None:
    assert followed.scan(followed.project / "pkg") == set()
    assert followed.names
    followed.scan()
    followed.scan(exclude="b.py")
    assert followed.names
    followed.scan()
    followed.site = followed.folder / "elsewhere"
    write(followed.site / "installed/mod.py")
    make_old(followed.folder)
    assert followed.scan() == {"elsewhere/installed/mod.py"}
    assert "installed.mod" in followed.names


def test_another_version_of_the_rules_is_another_question(
    followed: World, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(following, "_VERSION", following._VERSION + 1)
    followed.scan()
    assert followed.names


def test_an_imported_file_that_is_left_out_of_the_walk_is_looked_at(followed: World) -> None:
    write(followed.project / ".gitignore", "b.py\n")
    make_old(followed.folder)
    followed.scan()
    write(followed.project / "pkg/b.py", "x = 1\n", kOld + 1)
    assert followed.scan() == {"project/pkg/b.py"}
    assert followed.counts.found == 3


def test_a_run_that_is_stopped_remembers_nothing(
    world: World, monkeypatch: pytest.MonkeyPatch
) -> None:
    app = world.app()
    session = ScanSession(app, [str(world.project)])
    app.info_cache.connect("file-stored", lambda *_: session.stop())
    session.start()
    world.main_loop.run_idle()
    session.destroy()
    app.destroy()
    world.scan()
    assert "installed.mod" in world.names
    world.scan()
    assert world.names == []


def test_what_another_process_wrote_meanwhile_is_followed(followed: World) -> None:
    """It may have scanned a file and been killed before it followed the file's imports."""
    write(followed.project / "pkg/b.py", "import other\n", kOld + 1)

    def write_beside(session: ScanSession) -> None:
        connection = sqlite3.connect(followed.db_path)
        connection.execute("UPDATE files SET followed = 0, imports = CAST(':iother' AS BLOB)")
        connection.commit()
        connection.close()

    app = followed.app()
    session = ScanSession(app, [str(followed.project)])
    app.info_cache.connect("file-stored", lambda *_: write_beside(session))
    session.start()
    followed.main_loop.run_idle()
    session.destroy()
    app.destroy()
    followed.scan()
    assert followed.names


def test_a_rewritten_row_is_followed_again(followed: World) -> None:
    """As after a kill: the file is known and fresh, and nobody has followed its imports."""
    connection = sqlite3.connect(followed.db_path)
    connection.execute("UPDATE files SET followed = 0 WHERE url LIKE '%/main.py'")
    connection.commit()
    connection.close()
    assert followed.scan() == set()
    assert "installed.mod" in followed.names and ".b" not in followed.names
    assert followed.scan() == set()
    assert followed.names == []


def test_without_imports_nothing_is_recalled_or_remembered(
    followed: World, monkeypatch: pytest.MonkeyPatch
) -> None:
    write(followed.site / "installed/deep.py", "x = 1\n", kOld + 1)
    app = followed.app()
    app.coordinator._fAnalyzeFoundImports = False
    scanned: list[object] = []
    app.info_cache.connect("file-stored", lambda *_: scanned.append(1))
    session = ScanSession(app, [str(followed.project)])
    session.start()
    followed.main_loop.run_idle()
    assert scanned == [] and session.counts.imported.found == 0
    session.destroy()
    app.destroy()


@pytest.mark.parametrize("statement", ["folders = x'ff'", "targets = x'7b'", "folders = x''"])
def test_a_row_that_cannot_be_read_is_not_believed(followed: World, statement: str) -> None:
    connection = sqlite3.connect(followed.db_path)
    connection.execute(f"UPDATE followed SET {statement}")
    connection.commit()
    connection.close()
    assert followed.scan() == set()
    assert followed.names
    assert followed.scan() == set()
    assert followed.names == []


def test_rows_that_are_no_longer_asked_for_go(followed: World) -> None:
    for number in range(25):
        followed.scan(exclude=f"nothing{number}.py")
    connection = sqlite3.connect(followed.db_path)
    [(count,)] = connection.execute("SELECT count(*) FROM followed").fetchall()
    connection.close()
    assert count == 20
