"""Walks of remote trees, and sessions over them, with a network that answers when it is told to."""

import pytest
from fakeremote import SERVER, state_of
from loombase.inspection import CFileKind, CFileState
from loombase.location import CServerName, CSshFileLocation

from loom.app import App
from loom.ignore import parse_patterns
from loom.remote.files import RemoteFiles
from loom.remote.options import RemoteOptions, RemotePatience
from loom.remote.requests import FolderEntry, ListFolder, RemoteError
from loom.remote.walk import RemoteWalk
from loom.scansession import FileError, ScanSession
from loom.walk import FoundRemote, Problem, Waiting
from pysource.utils import IsPythonSource

URL = "ssh://far"


def far(path):
    return CSshFileLocation(SERVER, path)


@pytest.fixture
def files(main_loop, network):
    files = RemoteFiles(network.make, RemotePatience(give_up=30))
    yield files
    files.destroy()


class Run:
    """A walk that is driven step by step."""

    def __init__(self, files, network, *paths, exclude=None):
        self.network = network
        self.wakes = 0
        self.walk = RemoteWalk(files, [far(path) for path in paths], exclude, self.wake)
        self.steps = self.walk.steps()
        self.found = []
        self.problems = []

    def wake(self):
        self.wakes += 1

    def go_on(self):
        """Take steps until the walk waits. Returns false when it is over."""
        for step in self.steps:
            match step:
                case Waiting():
                    return True
                case FoundRemote():
                    self.found.append((step.loc.path, step.declare))
                case Problem():
                    self.problems.append(step)
        return False

    def to_the_end(self):
        while self.go_on():
            if self.network.made and not self.network.last.log:
                self.network.last.connect()
            wakes = self.wakes
            assert self.network.serve() > 0
            assert self.wakes > wakes
        return sorted(self.found)


def test_a_tree_is_walked(files, network):
    network.tree = {
        "/p/a.py": b"", "/p/sub/b.pyi": b"", "/p/sub/deep/c.pyw": b"", "/p/readme.txt": b"",
        "/p/script": b"#!/usr/bin/env python3\n", "/p/other": b"#!/bin/sh\n", "/q/out.py": b"",
    }
    run = Run(files, network, "/p")
    assert run.to_the_end() == [
        ("/p/a.py", False), ("/p/script", True), ("/p/sub/b.pyi", False),
        ("/p/sub/deep/c.pyw", False),
    ]
    assert run.problems == []
    assert run.walk.folder_roots == [far("/p")]
    assert run.walk.found_urls == {far(path).fUrl for path, _ in run.found}


def test_files_are_inspected_by_the_listing(files, network):
    network.tree = {"/p/a.py": b"x = 1\n"}
    loc = far("/p/a.py")
    Run(files, network, "/p").to_the_end()
    assert files.state_of(loc) == state_of(b"x = 1\n")
    assert "StatFile /p/a.py" not in network.last.log


def test_rules_of_the_tree_are_obeyed(files, network):
    network.tree = {
        "/p/.gitignore": b"ignored.py\nskipped/\n", "/p/ignored.py": b"", "/p/a.py": b"",
        "/p/skipped/b.py": b"", "/p/sub/ignored.py": b"", "/p/sub/.gitignore": b"!ignored.py\n",
        "/p/node_modules/c.py": b"", "/p/build/d.py": b"", "/p/build2/d.py": b"",
        "/p/env/pyvenv.cfg": b"", "/p/env/lib/e.py": b"", "/p/excluded.py": b"",
    }
    run = Run(files, network, "/p", exclude=parse_patterns(["excluded.py", "!node_modules"]))
    assert [path for path, _ in run.to_the_end()] == [
        "/p/a.py", "/p/build2/d.py", "/p/node_modules/c.py", "/p/sub/ignored.py",
    ]
    assert "ListFolder /p/skipped" not in network.last.log


def test_rules_of_the_repository_around_are_obeyed(files, network):
    network.tree = {
        "/r/.git/HEAD": b"", "/r/.git/info/exclude": b"private.py\n",
        "/r/.gitignore": b"gen_*.py\n", "/r/p/.gitignore": b"own.py\n",
        "/r/p/q/a.py": b"", "/r/p/q/gen_b.py": b"", "/r/p/q/private.py": b"",
        "/r/p/q/own.py": b"", "/.gitignore": b"a.py\n",
    }
    assert Run(files, network, "/r/p/q").to_the_end() == [("/r/p/q/a.py", False)]


def test_a_root_that_its_repository_leaves_out_was_asked_for(files, network):
    network.tree = {
        "/r/.git/HEAD": b"", "/r/.gitignore": b"p\n*.pyi\n", "/r/p/a.py": b"", "/r/p/b.pyi": b"",
    }
    assert [path for path, _ in Run(files, network, "/r/p").to_the_end()] == [
        "/r/p/a.py", "/r/p/b.pyi",
    ]


def test_links_to_files_are_followed_and_links_to_folders_are_not(files, network):
    network.tree = {"/p/a.py": b"", "/q/b.py": b"bb", "/q/script": b"#!python\n"}
    network.links = {
        "/p/link.py": "/q/b.py", "/p/folder": "/q", "/p/nowhere.py": "/gone", "/p/run": "/q/script",
    }
    network.tree["/p/run"] = b"#!python\n"  # what is read through the link
    assert Run(files, network, "/p").to_the_end() == [
        ("/p/a.py", False), ("/p/link.py", False), ("/p/run", True),
    ]


def test_a_file_is_taken_whatever_it_is_called_and_once(files, network):
    network.tree = {"/p/notes.txt": b"x = 1\n", "/p/a.py": b""}
    run = Run(files, network, "/p/notes.txt", "/p/a.py", "/p", "/p/notes.txt")
    assert run.to_the_end() == [("/p/a.py", True), ("/p/notes.txt", True)]


def test_what_can_not_be_looked_at_is_told(files, network):
    network.tree = {"/p/a.py": b"", "/p/closed/b.py": b"", "/p/dev": b""}
    network.errors = {
        "/p/closed": RemoteError("Permission denied"), "/no": RemoteError("Permission denied"),
    }
    run = Run(files, network, "/p", "/gone", "/no")
    run.to_the_end()
    assert [path for path, _ in run.found] == ["/p/a.py"]
    assert sorted(run.problems) == [
        Problem("ssh://far/gone", "No such file or directory"),
        Problem("ssh://far/no", "Permission denied"),
        Problem("ssh://far/p/closed", "Permission denied"),
    ]


def test_names_that_lead_elsewhere_are_not_followed(files, network, monkeypatch):
    network.tree = {"/p/a.py": b""}
    names = [b"../q.py", b"/etc/x.py", b"..", b".", b"", b"n\0l.py", b"ok.py", b"\xff.py"]
    monkeypatch.setattr(
        network, "_entries",
        lambda path: [FolderEntry(name, state_of(b""), False) for name in names],
    )
    run = Run(files, network, "/p")
    run.to_the_end()
    assert [path for path, _ in run.found] == ["/p/ok.py", "/p/\udcff.py"]
    assert [problem.path for problem in run.problems] == ["ssh://far/p"]


def test_many_folders_are_asked_for_at_once(files, network):
    network.tree = {f"/p/d{number}/a.py": b"" for number in range(20)}
    run = Run(files, network, "/p")
    run.go_on()
    network.last.connect()
    network.serve()
    run.go_on()
    network.serve()
    run.go_on()
    assert [type(request) for request in network.last.under_way] == [ListFolder] * 8
    assert len(run.to_the_end()) == 20


def test_a_crowd_of_reads_holds_the_walk_up(files, network):
    network.tree = {f"/p/d{number}/a.py": b"" for number in range(20)}
    run = Run(files, network, "/p")
    run.go_on()
    network.last.connect()
    server = files.server(SERVER)
    done = []
    pending = [files.read(far(f"/x{n}.py"), 100, lambda: done.append(1)) for n in range(256)]
    assert server.crowded()
    network.serve(most=1)
    for _ in range(3):
        assert run.go_on()
    asked = [entry for entry in network.last.log if entry.startswith("ListFolder")]
    assert asked == []
    for each in pending:
        each.close()
    assert not server.crowded()
    assert len(run.to_the_end()) == 20


def test_a_lost_connection_loses_nothing_of_a_walk(files, network, main_loop):
    network.tree = {f"/p/d{number}/a.py": b"" for number in range(20)}
    run = Run(files, network, "/p")
    run.go_on()
    network.last.connect()
    for _ in range(2):
        network.serve()
        run.go_on()
    network.last.lose()
    main_loop.advance(1)
    network.last.connect()
    assert [entry.split()[0] for entry in network.last.log] == ["ListFolder"] * 8
    assert len(run.to_the_end()) == 20 and run.problems == []


def test_a_server_given_up_is_one_problem_of_each_root(files, network, main_loop):
    network.tree = {f"/p/d{number}/a.py": b"" for number in range(20)} | {"/q/b.py": b""}
    run = Run(files, network, "/p", "/q")
    run.go_on()
    network.last.connect()
    for _ in range(2):
        network.serve()
        run.go_on()
    network.last.lose("pulled out", lasting=True)
    main_loop.run_idle()
    assert not run.go_on()
    # What was found of the other one holds.
    assert run.problems == [Problem(f"{URL}/p", "the server can't be reached: pulled out")]
    assert run.walk.lost_roots == {far("/p")} and ("/q/b.py", False) in run.found


# --- sessions


@pytest.fixture
def app(main_loop, network, tmp_path):
    app = App(tmp_path / "info.sqlite3", main_loop)
    app.coordinator._fAnalyzeFoundImports = False
    patience = RemotePatience(give_up=30)
    app.ana_mgr.fLocationDataCache.SetUpRemote(RemoteOptions(patience=patience), network.make)
    yield app
    app.destroy()


class Session:
    def __init__(self, app, network, main_loop, *paths):
        self.network, self.main_loop = network, main_loop
        self.session = ScanSession(app, [str(path) for path in paths])
        self.ended = []
        self.session.connect("finished", self.ended.append)
        self.session.start()
        main_loop.run_idle()

    def serve(self, rounds=1000):
        """Answer and scan until the session is over, or nothing more happens."""
        for _ in range(rounds):
            transport = self.network.last
            if not transport.closed and not transport.log:
                transport.connect()
            served = self.network.serve()
            self.main_loop.run_idle()
            if self.ended or not served:
                break
        return self.session.counts


def test_a_session_scans_a_remote_tree_and_a_second_one_nothing(app, network, main_loop):
    network.tree = {f"/p/d{number}/a.py": b"def f(): pass\n" for number in range(40)}
    network.tree["/p/script"] = b"#!/usr/bin/python\nx = 1\n"
    counts = Session(app, network, main_loop, f"{URL}/p").serve()
    assert (counts.found, counts.scanned, counts.errors) == (41, 41, [])
    reads = sum(entry.startswith("ReadFile") for entry in network.last.log)
    assert reads == 42  # the script's first line, too
    app.coordinator.ClearLastScanInfo([far(path) for path in network.tree])
    counts = Session(app, network, main_loop, f"{URL}/p").serve()
    assert (counts.found, counts.scanned, counts.unchanged, counts.reread) == (41, 0, 41, 0)
    reads = sum(entry.startswith("ReadFile") for entry in network.last.log)
    assert reads == 43
    assert IsPythonSource(far("/p/script"))


def test_scanning_goes_on_while_the_walk_does(app, network, main_loop):
    network.tree = {"/p/a.py": b"a = 1\n"} | {f"/p/z/{n}/b.py": b"" for n in range(3)}
    session = Session(app, network, main_loop, f"{URL}/p")
    network.last.connect()
    stored = []
    app.info_cache.connect("file-stored", lambda cache, loc, record: stored.append(loc.path))
    for _ in range(20):
        if stored:
            break
        network.serve(most=1)
        main_loop.run_idle()
    assert stored == ["/p/a.py"] and not session.session.counts.all_found
    assert session.serve().scanned == 4


def test_local_and_remote_paths_are_scanned_in_one_session(app, network, main_loop, tmp_path):
    network.tree = {"/p/a.py": b"a = 1\n"}
    other = CServerName("", "other", 0)
    (tmp_path / "b.py").write_text("b = 1\n")
    session = Session(app, network, main_loop, f"{URL}/p", tmp_path / "b.py", "ssh://other/p")
    assert [transport.name for transport in network.made] == [SERVER, other]
    assert session.session.counts.scanned == 1  # the local one is not held up
    network.made[0].connect()
    for _ in range(5):
        network.serve(network.made[0])
        main_loop.run_idle()
    assert session.session.counts.scanned == 2  # nor is a server by another
    assert not session.ended
    network.made[1].connect()
    for _ in range(5):
        network.serve(network.made[1])
        main_loop.run_idle()
    assert session.session.counts.scanned == 3 and session.ended


def test_a_server_given_up_ends_the_session_with_errors(app, network, main_loop):
    network.tree = {"/p/a.py": b"a = 1\n", "/p/b.py": b"b = 1\n"}
    session = Session(app, network, main_loop, f"{URL}/p")
    network.last.connect()
    while "ReadFile /p/a.py" not in network.last.log:
        network.serve(most=1)
        main_loop.run_idle()
    counts = session.session.counts
    session.session.update_queued()
    assert counts.queued == 2 and not session.ended
    network.last.lose("pulled out", lasting=True)
    main_loop.run_idle()
    assert session.ended
    assert sorted(counts.errors, key=lambda error: error.path) == [
        FileError(f"{URL}/p/a.py", "the server can't be reached"),
        FileError(f"{URL}/p/b.py", "the server can't be reached"),
    ]
    assert (counts.failed, counts.scanned, counts.queued) == (2, 0, 0)
    assert session.session.failure is None


def test_a_server_that_is_never_reached_is_one_error(app, network, main_loop):
    session = Session(app, network, main_loop, f"{URL}/p", f"{URL}/q")
    assert not session.ended
    for _ in range(100):
        main_loop.advance(1)
        main_loop.run_idle()
    assert session.ended
    errors = session.session.counts.errors
    assert [error.path for error in errors] == [f"{URL}/p", f"{URL}/q"]
    assert "no connection for" in errors[0].reason


def test_a_stopped_session_counts_what_waits_as_left(app, network, main_loop):
    network.tree = {"/p/a.py": b"a = 1\n", "/p/b.py": b"b = 1\n"}
    session = Session(app, network, main_loop, f"{URL}/p")
    network.last.connect()
    while "ReadFile /p/a.py" not in network.last.log:
        network.serve(most=1)
        main_loop.run_idle()
    session.session.stop()
    counts = session.session.counts
    assert (counts.found, counts.left, counts.unchanged) == (2, 2, 0)
    network.serve()
    main_loop.run_idle()
    assert counts.scanned == 0


def test_files_that_are_gone_are_forgotten_and_those_that_can_not_be_asked_for_are_not(
    app, network, main_loop
):
    network.tree = {"/p/a.py": b"a = 1\n", "/p/sub/b.py": b"b = 1\n", "/p/c.py": b"c = 1\n"}
    Session(app, network, main_loop, f"{URL}/p").serve()
    assert len(list(app.info_cache.StoredUrlsBelow(far("/p")))[0]) == 3
    del network.tree["/p/a.py"]
    network.errors["/p/sub"] = RemoteError("Permission denied")
    counts = Session(app, network, main_loop, f"{URL}/p").serve()
    assert [error.path for error in counts.errors] == [f"{URL}/p/sub"]
    (left,) = app.info_cache.StoredUrlsBelow(far("/p"))
    assert sorted(left) == [f"{URL}/p/c.py", f"{URL}/p/sub/b.py"]


def test_nothing_is_forgotten_of_a_server_that_is_away(app, network, main_loop):
    network.tree = {"/p/a.py": b"a = 1\n"}
    Session(app, network, main_loop, f"{URL}/p").serve()
    network.last.lose("away", lasting=True)
    session = Session(app, network, main_loop, f"{URL}/p")
    for _ in range(100):
        main_loop.advance(1)
        main_loop.run_idle()
    assert session.ended
    assert list(app.info_cache.StoredUrlsBelow(far("/p"))) == [[f"{URL}/p/a.py"]]


def test_relative_imports_of_remote_files_find_no_local_ones(app, network, main_loop, tmp_path):
    factory = app.ana_mgr.fAnalysisFactory
    (tmp_path / "helper.py").write_text("")
    dirloc = far(str(tmp_path))  # the very path that exists here, too
    names = ["helper", ".helper", ".", "..x", "pytest", "os", "os.path"]
    found = factory._FindPrimaryLocsForNames(names, dirloc, False)
    assert [loc is not None for loc in found] == [False] * 5 + [True] * 2
    assert factory.GetAllLocsForName("helper", dirloc, False) == []
    assert factory.GetAllLocsForName("pytest.x", dirloc, True) == []
    assert factory.GetSecondaryLocations(far("/p/a.pyi")) is None
