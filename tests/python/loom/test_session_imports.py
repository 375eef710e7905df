"""What a scan pulls in by itself: the builtins, imports, sources of stubs. In steps, in order."""

import time
from dataclasses import replace

import pytest
from loombase.location import CLocalFileLocation
from pysource import _fastaccess

from loom.app import App
from loom.resolve import typeshed
from loom.scancounts import FileError, Outcome, Tally
from loom.scansession import ScanSession
from pysource.scancoordinator import kBackgroundPriority, kInteractivePriority

BUILTINS = [
    f"{typeshed.stubs_folder()}/{name}.pyi"
    for name in (
        "builtins",
        "typing",
        "typing_extensions",
        "_typeshed/__init__",
        "sys/__init__",
        "types",
        "collections/__init__",
    )
]


@pytest.fixture(autouse=True)
def _slices_without_end(monkeypatch):
    """A slice does all there is to do, however busy the machine is."""
    now = time.time()
    monkeypatch.setattr(_fastaccess, "__TimeFunc", lambda: now)


@pytest.fixture
def app(main_loop, tmp_path):
    app = App(tmp_path / "info.sqlite3", main_loop)
    yield app
    app.destroy()


@pytest.fixture
def order(app):
    """The paths of the files that are scanned, in order."""
    order = []
    app.info_cache.connect("file-stored", lambda cache, loc, record: order.append(loc.path))
    return order


@pytest.fixture
def top(tmp_path):
    """A project whose files import from one another, and from what is installed."""
    project = write(
        tmp_path / "project",
        {
            "pyproject.toml": "",
            "main.py": "import json\nfrom pkg import a\nimport installed.mod\n",
            "pkg/__init__.py": "",
            "pkg/a.py": "from . import b\nfrom .sub import *\nimport nothing.at.all\n",
            "pkg/b.py": "import typed\n",
            "pkg/sub.py": "",
        },
    )
    return project


@pytest.fixture
def site(app, tmp_path):
    """Installed packages, which the app's environment has instead of this interpreter's."""
    site = write(
        tmp_path / "site-packages",
        {
            "installed/__init__.py": "",
            "installed/mod.py": "from installed import deep\n",
            "installed/deep.py": "import unfinished\n",
            "installed/unused.py": "",
            "unfinished.py": "class (:\n",
            "typed.pyi": "x: int\n",
            "typed.py": "import installed.late\nx = 1\n",
            "installed/late.py": "",
        },
    )
    environment = app.ana_mgr.fPyConfig.fEnvironment
    path = (*environment.stdlib, str(site))
    app.ana_mgr.fAnalysisFactory.SetEnvironment(replace(environment, path=path))
    return site


def write(top, files):
    for name, text in files.items():
        path = top / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    return top


def run(app, main_loop, *paths):
    session, ended = ScanSession(app, [str(path) for path in paths]), []
    session.connect("finished", ended.append)
    session.start()
    main_loop.run_idle()
    assert ended == [session]
    return session


def below(paths, folder):
    return sorted(path[len(str(folder)) + 1 :] for path in paths if path.startswith(f"{folder}/"))


# --- what is scanned, in which order


def test_builtins_come_first_then_what_is_asked_for_then_imports(app, main_loop, order, top, site):
    run(app, main_loop, top)
    assert [path for path in order if path in BUILTINS] == BUILTINS
    project = [i for i, path in enumerate(order) if path.startswith(f"{top}/")]
    installed = [i for i, path in enumerate(order) if path.startswith(f"{site}/")]
    json = order.index(f"{typeshed.stubs_folder()}/json/__init__.pyi")
    assert max(map(order.index, BUILTINS)) < min(project)
    assert len(project) == 5
    assert max(project) < min(installed)
    assert max(project) < json
    assert len(order) == len(set(order))


def test_imports_of_imports_are_followed_and_nothing_else(app, main_loop, order, top, site):
    run(app, main_loop, top)
    assert below(order, site) == [
        "installed/__init__.py",
        "installed/deep.py",
        "installed/late.py",  # which the source of a stub imports
        "installed/mod.py",
        "typed.py",
        "typed.pyi",
        "unfinished.py",
    ]


def test_imports_that_are_found_while_files_are_found_come_behind_all_files(
    app, main_loop, order, top, site, monkeypatch
):
    from loom import scansession

    # Each look at the clock is a second later: one file a step of the search.
    monkeypatch.setattr(scansession, "_WALK_SECONDS", 1.5)
    monkeypatch.setattr(scansession, "perf_counter", iter(range(0, 100_000)).__next__)
    session = ScanSession(app, [str(top)])
    early = []

    def note(cache, loc, record):
        if not session.counts.all_found and loc.path.startswith(str(top)):
            early.append(loc.path)

    app.info_cache.connect("file-stored", note)
    session.start()
    main_loop.run_idle()
    assert early, "files are scanned before all are found"
    assert app.coordinator.held_count == 0
    project = [i for i, path in enumerate(order) if path.startswith(f"{top}/")]
    installed = [i for i, path in enumerate(order) if path.startswith(f"{site}/")]
    assert len(installed) == 7
    assert max(project) < min(installed)


def test_imports_of_what_the_user_looks_at_are_not_held(app, main_loop, order, top, site):
    coordinator = app.coordinator
    coordinator.hold_followed()
    coordinator.ask_for([CLocalFileLocation(top / "pkg/b.py")], kInteractivePriority)
    coordinator.ask_for([CLocalFileLocation(top / "main.py")], kBackgroundPriority)
    main_loop.run_idle()
    assert below(order, site) == ["installed/late.py", "typed.py", "typed.pyi"]
    assert coordinator.held_count > 0
    coordinator.release_followed()
    main_loop.run_idle()
    assert "installed/mod.py" in below(order, site)


def test_without_imports_exactly_the_files_are_scanned(app, main_loop, order, top, site):
    app.coordinator._fAnalyzeFoundImports = False
    counts = run(app, main_loop, top).counts
    assert sorted(order) == sorted(str(path) for path in top.rglob("*.py"))
    assert (counts.found, counts.imported.found) == (5, 0)
    assert app.coordinator._fAllBasicModuleQueued is False


def test_a_file_given_by_name_pulls_its_project_in(app, main_loop, order, top, site):
    counts = run(app, main_loop, top / "main.py").counts
    assert below(order, top) == ["main.py", "pkg/__init__.py", "pkg/a.py", "pkg/b.py", "pkg/sub.py"]
    assert (counts.found, counts.scanned) == (1, 1)


# --- how it is counted


def test_what_is_asked_for_and_what_comes_with_it_are_counted_apart(
    app, main_loop, order, top, site
):
    counts = run(app, main_loop, top).counts
    assert (counts.found, counts.scanned, counts.unchanged, counts.left) == (5, 5, 0, 0)
    imported = counts.imported
    assert (imported.found, imported.scanned, imported.left) == (len(order) - 5, len(order) - 5, 0)
    assert counts.total == counts.done == len(order)
    assert counts.bytes == sum(path.stat().st_size for path in top.rglob("*.py"))
    assert imported.bytes > counts.bytes
    assert imported.definitions > counts.definitions


def test_errors_of_imported_files_are_not_those_of_the_project(app, main_loop, top, site):
    counts = run(app, main_loop, top).counts
    assert counts.errors == []
    [error] = counts.imported.errors
    assert (error.path, error.lineno) == (str(site / "unfinished.py"), 1)


def test_the_second_run_scans_nothing_of_either(app, main_loop, order, top, site, tmp_path):
    first = run(app, main_loop, top).counts
    app.info_cache.WriteToDatabase()
    order.clear()
    # As another process would, which remembers no check.
    app.coordinator.FlushQueue()
    counts = run(app, main_loop, top).counts
    assert order == []
    assert (counts.found, counts.scanned, counts.unchanged) == (5, 0, 5)
    assert counts.imported.found == counts.imported.unchanged == first.imported.found


def test_a_file_that_is_imported_before_it_is_found_is_counted_once(
    app, main_loop, order, top, site, monkeypatch
):
    """`zzz` is imported by the first file and found last."""
    write(top, {"aaa.py": "import zzz\n", "zzz.py": "def f():\n    pass\n"})
    zzz = CLocalFileLocation(top / "zzz.py")
    app.coordinator.AddPairsToPrimaryQueue([(zzz, "*")], True, kInteractivePriority)
    session = ScanSession(app, [str(top)])
    session._count_followed([zzz])
    session.start()
    main_loop.run_idle()
    counts = session.counts
    assert (counts.found, counts.scanned, counts.unchanged) == (7, 7, 0)
    assert order.count(zzz.path) == 1
    assert counts.total == len(order)


def test_progress_never_runs_ahead_of_what_is_known(app, main_loop, top, site):
    session = ScanSession(app, [str(top)])
    session.start()
    shares = []
    while main_loop.step():
        session.update_queued()
        counts = session.counts
        assert 0 <= counts.done <= counts.total
        shares.append((counts.done, counts.total))
    assert len(shares) > 3
    assert shares[-1][0] == shares[-1][1] == counts.total
    assert shares == sorted(shares)  # neither number ever goes back


@pytest.mark.parametrize("stop_in", ["project", "site-packages"])
def test_a_stopped_run_says_what_is_left_of_each(
    app, main_loop, order, top, site, tmp_path, monkeypatch, stop_in
):
    # Each file takes a second, so that a slice is over with it.
    monkeypatch.setattr(_fastaccess, "__TimeFunc", lambda: time.time() + len(order))
    session = ScanSession(app, [str(top)])
    session.start()
    while not below(order, tmp_path / stop_in):
        assert main_loop.step()
    session.stop()
    counts = session.counts
    assert counts.found == 5
    assert (counts.left > 0) is (stop_in == "project")
    assert counts.imported.left > 0
    for group in (counts, counts.imported):
        assert group.scanned + group.left == group.found
    main_loop.run_idle()
    assert len(order) == counts.scanned + counts.imported.scanned


def test_a_session_that_is_given_up_lets_go_of_what_it_held(app, main_loop, top, monkeypatch):
    def fail(paths, exclude):
        raise ValueError("walk")
        yield

    monkeypatch.setattr("loom.scansession.walk", fail)
    session = run(app, main_loop, top)
    assert str(session.failure) == "walk"
    assert app.coordinator._holders == 0


# --- an import that changes


def test_a_module_that_comes_into_being_is_found_by_the_next_scan_of_its_importer(
    app, main_loop, order, top, site
):
    run(app, main_loop, top)
    order.clear()
    write(site, {"nothing/__init__.py": "", "nothing/at/__init__.py": "", "nothing/at/all.py": ""})
    write(top, {"pkg/a.py": "import nothing.at.all\nx = 1\n"})
    app.coordinator.ClearLastScanInfo([CLocalFileLocation(top / "pkg/a.py")])
    run(app, main_loop, top)
    assert below(order, site) == ["nothing/at/all.py"]


# --- the tally itself


def loc(name):
    return CLocalFileLocation(f"/tally/{name}.py")


def test_a_file_changes_sides_with_all_that_is_known_of_it():
    tally, error = Tally(), FileError("/tally/a.py", "odd", 3)
    tally.follow([loc("a"), loc("b"), loc("a")])
    tally.settle(loc("a"), Outcome(scanned=1, definitions=4, bytes=9, error=error))
    tally.ask(loc("a"))
    tally.ask(loc("a"))
    tally.follow([loc("a")])
    counts = tally.counts
    assert (counts.found, counts.scanned, counts.definitions, counts.bytes) == (1, 1, 4, 9)
    assert counts.errors == [error]
    assert (counts.imported.found, counts.imported.scanned, counts.imported.errors) == (1, 0, [])


def test_the_last_word_about_a_file_counts():
    tally = Tally()
    tally.ask(loc("a"))
    tally.settle(loc("a"), Outcome(scanned=1, bytes=5, error=FileError("/tally/a.py", "odd", 1)))
    tally.settle(loc("a"), Outcome(scanned=1, bytes=7))
    counts = tally.counts
    assert (counts.scanned, counts.bytes, counts.errors, counts.unchanged) == (1, 7, [], 0)
    tally.settle(loc("a"), Outcome(reread=1))
    assert (counts.scanned, counts.reread) == (1, 0)
    tally.settle(loc("a"), Outcome(vanished=1))
    assert (counts.scanned, counts.vanished, counts.bytes) == (0, 1, 0)


def test_a_scan_that_nobody_queued_is_counted_as_imported():
    tally = Tally()
    tally.settle(loc("a"), Outcome(scanned=1))
    assert (tally.counts.found, tally.counts.imported.found) == (0, 1)


def test_a_split_tally_goes_on_with_what_is_left():
    tally = Tally()
    for name in "abc":
        tally.ask(loc(name))
    tally.follow([loc("x"), loc("y")])
    tally.counts.all_found = True
    tally.counts.queued = 3
    tally.settle(loc("a"), Outcome(scanned=1))
    left = {loc("b"), loc("c"), loc("y")}
    rest, taken = tally.split(left.__contains__)
    assert (taken.found, taken.left, taken.scanned, taken.imported.left) == (3, 2, 1, 1)
    counts = rest.counts
    assert (counts.found, counts.scanned, counts.imported.found) == (2, 0, 1)
    assert counts.all_found
    rest.settle(loc("a"), Outcome(scanned=1))
    assert counts.imported.scanned == 1
