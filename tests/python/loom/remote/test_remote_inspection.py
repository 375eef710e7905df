"""The location data cache and the scan queue over a fake network, in virtual time."""

import time

import pytest
from fakeremote import SERVER, state_of
from loombase.inspection import CFileKind, CFileState, GetInspector, StateOf
from loombase.location import CLocalFileLocation, CSshFileLocation, _WaitForInspectMultiple
from loombase.location import IsAsyncInspectLocation as is_async
from loomutils.reflect import GetFailureReporter

from loom.app import App
from loom.remote.options import RemoteOptions, RemotePatience
from loom.remote.requests import FileContent, RemoteError
from loom.services.locationdata import CLocationDataCache
from pysource.scancoordinator import kBackgroundPriority


def far(path):
    return CSshFileLocation(SERVER, path)


@pytest.fixture
def cache(main_loop, network):
    cache = CLocationDataCache()
    cache.SetUpRemote(RemoteOptions(patience=RemotePatience(give_up=30)), network.make)
    yield cache
    cache.destroy()


@pytest.fixture
def signals(cache):
    """What the cache told, in order: the signal's name and the paths that it names."""
    signals = []
    for name in ("now-tree-branch-ready", "inspect-failed", "cleared"):
        def note(emitter, locs=(), name=name):
            assert emitter is cache
            signals.append((name, sorted(loc.path for loc in locs)))

        cache.connect(name, note)
    return signals


# --- the cache


def test_the_cache_is_the_inspector_for_as_long_as_it_lives(main_loop, network):
    cache = CLocationDataCache()
    assert GetInspector() is cache
    cache.destroy()
    assert GetInspector() is None


def test_what_is_local_is_ready_and_costs_no_connection(cache, network):
    assert cache.TreeBranchReady(CLocalFileLocation("/x.py"), True)
    assert cache.StateOf(CLocalFileLocation("/x.py")) is None
    assert network.made == []


def test_asking_without_inspecting_changes_nothing(cache, network, main_loop):
    assert not cache.TreeBranchReady(far("/a.py"), False)
    main_loop.run_idle()
    assert network.made == []


def test_branches_become_ready_together_and_each_is_asked_for_once(
    cache, network, main_loop, signals
):
    network.tree = {"/a.py": b"a", "/b.py": b"bb"}
    a, b, gone = far("/a.py"), far("/b.py"), far("/gone.py")
    for loc in (a, b, a, gone):
        assert not cache.TreeBranchReady(loc, True)
    network.last.connect()
    network.serve()
    assert signals == []  # nobody is called from inside of the connection
    main_loop.run_idle()
    assert signals == [("now-tree-branch-ready", ["/a.py", "/b.py", "/gone.py"])]
    assert cache.TreeBranchReady(a, True) and a.IsReady()
    assert StateOf(a) == state_of(b"a")
    assert StateOf(gone).kind is CFileKind.ABSENT
    assert sorted(network.last.log) == ["StatFile /a.py", "StatFile /b.py", "StatFile /gone.py"]


def test_what_nobody_holds_is_forgotten(cache, network, main_loop):
    loc = far("/a.py")
    cache.TreeBranchReady(loc, True)
    network.last.connect()
    network.serve()
    main_loop.run_idle()
    files = cache.GetRemoteFiles()
    assert len(files._states) == 1
    del loc
    assert len(files._states) == 0


def test_a_server_that_is_given_up_fails_its_locations(cache, network, main_loop, signals):
    loc = far("/a.py")
    cache.TreeBranchReady(loc, True)
    network.last.lose("no key", lasting=True)
    main_loop.run_idle()
    assert signals == [("inspect-failed", ["/a.py"])]
    assert not loc.IsReady()
    cache.TreeBranchReady(loc, True)  # and again when it is asked for again
    main_loop.run_idle()
    assert signals == [("inspect-failed", ["/a.py"])] * 2


def test_a_place_that_may_not_be_looked_at_is_ready_and_says_so(cache, network, main_loop):
    loc = far("/secret.py")
    network.errors["/secret.py"] = RemoteError("Permission denied")
    cache.TreeBranchReady(loc, True)
    network.last.connect()
    network.serve()
    assert StateOf(loc) == CFileState(CFileKind.CLOSED, reason="Permission denied")


def test_a_lost_connection_clears_what_was_found(cache, network, main_loop, signals):
    network.tree = {"/a.py": b"a"}
    loc = far("/a.py")
    cache.TreeBranchReady(loc, True)
    network.last.connect()
    network.serve()
    main_loop.run_idle()
    network.last.lose()
    assert signals[-1] == ("cleared", [])
    assert not loc.IsReady()
    network.tree["/a.py"] = b"other"
    assert not cache.TreeBranchReady(loc, True)
    network.last.connect()
    network.serve()
    main_loop.run_idle()
    assert signals[-1] == ("now-tree-branch-ready", ["/a.py"])
    assert StateOf(loc).size == 5


def test_what_is_cleared_before_it_is_told_is_not_told_as_ready(
    cache, network, main_loop, signals
):
    loc = far("/a.py")
    cache.TreeBranchReady(loc, True)
    network.last.connect()
    network.serve()
    cache.Clear()
    main_loop.run_idle()
    assert signals == [("cleared", [])]
    cache.Clear()
    assert signals == [("cleared", [])]  # nothing was left


def test_remote_files_are_set_up_once(cache, network):
    with pytest.raises(RuntimeError, match="in use"):
        cache.SetUpRemote()


def test_without_asyncio_there_is_no_ssh(main_loop):
    cache = CLocationDataCache()
    with pytest.raises(RuntimeError, match="AsyncioMainLoop"):
        cache.TreeBranchReady(far("/a.py"), True)
    cache.destroy()


# --- waiting for several


def wait(locs, force=False):
    aborts = []
    _WaitForInspectMultiple(locs, aborts.append, force)
    return aborts


def test_waiting_ends_once_when_the_last_is_inspected(cache, network, main_loop):
    aborts = wait([far("/a.py"), far("/b.py"), CLocalFileLocation("/c.py"), far("/a.py")])
    network.last.connect()
    network.serve(most=1)
    assert aborts == []
    network.serve()
    assert aborts == [False]
    main_loop.run_idle()
    main_loop.advance(100)
    assert aborts == [False]


def test_waiting_aborts_once_when_the_server_is_given_up(cache, network, main_loop):
    first, second = far("/a.py"), far("/b.py")
    aborts, other = wait([first, second]), wait([second])
    network.last.connect()
    network.serve(most=1)
    network.last.lose("no key", lasting=True)
    assert aborts == other == []
    main_loop.run_idle()
    assert aborts == other == [True]
    main_loop.advance(1000)
    main_loop.run_idle()
    assert aborts == other == [True]


def test_waiting_goes_on_over_a_lost_connection(cache, network, main_loop):
    loc = far("/a.py")
    aborts = wait([loc])
    network.last.connect()
    network.last.lose()
    main_loop.advance(1)
    network.last.connect()
    network.serve()
    assert aborts == [False]


def test_force_asks_again(cache, network, main_loop):
    network.tree = {"/a.py": b"a"}
    loc = far("/a.py")
    wait([loc])
    network.last.connect()
    network.serve()
    network.tree["/a.py"] = b"longer"
    assert wait([loc]) == [False]
    assert StateOf(loc).size == 1
    aborts = wait([loc], force=True)
    assert aborts == []
    network.serve()
    assert aborts == [False]
    assert StateOf(loc).size == 6


def test_a_callback_that_fails_keeps_no_other_from_being_called(cache, network):
    loc = far("/a.py")
    failures = []
    GetFailureReporter().connect_while_alive("failure-reported", failures.append, cache)

    def fail(abort):
        raise ValueError("mine")

    _WaitForInspectMultiple([loc], fail, False)
    aborts = wait([loc])
    network.last.connect()
    network.serve()
    assert aborts == [False] and len(failures) == 1


def test_the_end_of_the_host_calls_nobody(main_loop, network):
    cache = CLocationDataCache()
    cache.SetUpRemote(None, network.make)
    loc = far("/a.py")
    aborts = wait([loc])
    network.last.connect()
    cache.destroy()
    main_loop.run_idle()
    assert aborts == []
    assert network.last.closed


# --- the scheduler's queue


@pytest.fixture
def app(main_loop, network, tmp_path):
    app = App(tmp_path / "info.sqlite3", main_loop)
    app.coordinator._fAnalyzeFoundImports = False  # nothing but what the test asks for
    patience = RemotePatience(give_up=30)
    app.ana_mgr.fLocationDataCache.SetUpRemote(RemoteOptions(patience=patience), network.make)
    yield app
    app.destroy()


@pytest.fixture
def stored(app):
    """What scans stored: (path, error)."""
    stored = []
    app.info_cache.connect(
        "file-stored", lambda cache, loc, record: stored.append((loc.path, record.error))
    )
    return stored


def scan(app, *locs, first=False):
    app.coordinator.AddPairsToPrimaryQueue([(loc, "*") for loc in locs], first, kBackgroundPriority)


def waiting(app):
    return app.coordinator.GetStatus().waiting_count


def test_a_file_is_inspected_then_read_then_scanned(app, network, main_loop, stored):
    network.tree = {"/a.py": b"def f(): pass\n"}
    loc = far("/a.py")
    scan(app, loc)
    assert is_async(loc) and waiting(app) == 1
    main_loop.run_idle()
    assert waiting(app) == 1 and app.coordinator.QueuesEmpty(include_waiting=False)
    network.last.connect()
    network.serve()  # the inspection
    main_loop.run_idle()
    assert network.last.log == ["StatFile /a.py", "ReadFile /a.py"]
    assert waiting(app) == 1 and stored == []
    assert not app.coordinator.QueuesEmpty()
    network.serve()  # the content
    main_loop.run_idle()
    assert waiting(app) == 0 and stored == [("/a.py", None)]
    assert app.coordinator.QueuesEmpty()
    assert app.info_cache.GetScopeInfo(loc, "").type_equivs["f"].startswith(b":F")


def test_one_that_is_up_to_date_is_not_read(app, network, main_loop, stored):
    network.tree = {"/a.py": b"x = 1\n"}
    loc = far("/a.py")
    scan(app, loc)
    network.last.connect()
    for _ in range(2):
        network.serve()
        main_loop.run_idle()
    app.coordinator.ClearLastScanInfo([loc])
    scan(app, loc)
    main_loop.run_idle()
    assert network.last.log.count("ReadFile /a.py") == 1
    assert waiting(app) == 0 and len(stored) == 1


@pytest.mark.parametrize("count", [1, 30])
def test_a_dead_server_parks_its_scans_while_local_ones_are_done(
    app, network, main_loop, stored, tmp_path, count
):
    local = []
    for name in ("one.py", "two.py"):
        (tmp_path / name).write_text("y = 1\n")
        local.append(CLocalFileLocation(tmp_path / name))
    remote = [far(f"/r{number}.py") for number in range(count)]
    scan(app, *remote, *local)
    main_loop.run_idle()
    assert sorted(path for path, _ in stored) == [loc.path for loc in local]
    assert waiting(app) == count
    network.last.connect()  # and never an answer
    scan(app, *local)
    main_loop.run_idle()
    assert waiting(app) == count
    # Parked scans cost nothing: no idle work, and only the connection's own watch.
    assert not main_loop.idle


def test_parked_scans_go_on_when_the_server_is_back(app, network, main_loop, stored):
    network.tree = {"/a.py": b"a = 1\n", "/b.py": b"b = 1\n", "/c.py": b"c = 1\n"}
    a, b, c = (far(path) for path in network.tree)
    scan(app, a, b)
    network.last.connect()
    network.serve()
    main_loop.run_idle()  # both are inspected, and wait to be read
    scan(app, c)  # waits to be inspected
    network.last.lose()
    main_loop.run_idle()
    assert waiting(app) == 3 and stored == []
    main_loop.advance(2)
    network.last.connect()
    for _ in range(4):
        network.serve()
        main_loop.run_idle()
    assert sorted(stored) == [("/a.py", None), ("/b.py", None), ("/c.py", None)]
    assert waiting(app) == 0 and app.coordinator.QueuesEmpty()


def test_a_queued_scan_whose_file_is_not_ready_any_more_waits_again(
    app, network, main_loop, stored
):
    network.tree = {"/a.py": b"a = 1\n"}
    loc = far("/a.py")
    app.coordinator.SuspendIdleScans()
    scan(app, loc)
    network.last.connect()
    network.serve()
    main_loop.run_idle()
    assert app.coordinator.LocationInPrimaryScanQueue(loc)
    network.last.lose()
    app.coordinator.ResumeIdleScans()
    main_loop.run_idle()
    assert waiting(app) == 1 and not app.coordinator.LocationInPrimaryScanQueue(loc)
    network.last.connect()
    for _ in range(2):
        network.serve()
        main_loop.run_idle()
    assert stored == [("/a.py", None)]


def test_a_server_given_up_keeps_what_was_known_and_wakes_its_scanners(
    app, network, main_loop, stored
):
    network.tree = {"/a.py": b"old = 1\n"}
    loc = far("/a.py")
    scan(app, loc)
    network.last.connect()
    for _ in range(2):
        network.serve()
        main_loop.run_idle()
    app.coordinator.ClearLastScanInfo([loc])
    network.tree["/a.py"] = b"new = 100\n"
    app.ana_mgr.fLocationDataCache.Clear()
    failed = []
    data_cache = app.ana_mgr.fLocationDataCache
    data_cache.connect("inspect-failed", lambda cache, locs: failed.extend(locs))
    scan(app, loc)
    network.serve()
    main_loop.run_idle()  # waits to be read
    network.last.lose("gone", lasting=True)
    main_loop.run_idle()
    assert failed == [loc]
    assert len(stored) == 1
    assert b":=1" in app.info_cache.GetScopeInfo(loc, "").type_equivs["old"]
    # Nobody will come back for it: whoever is in charge takes it out.
    assert waiting(app) == 1
    app.coordinator.RemoveLocationsFromQueue([loc])
    assert app.coordinator.QueuesEmpty()


def test_a_scanner_that_was_left_behind_goes_on_when_its_server_is_back(
    app, network, main_loop, stored
):
    network.tree = {"/a.py": b"a = 1\n"}
    loc = far("/a.py")
    scan(app, loc)
    network.last.connect()
    network.serve()
    main_loop.run_idle()  # waits to be read
    network.last.lose("gone", lasting=True)
    main_loop.run_idle()
    app.coordinator.RemoveLocationsFromQueue([loc])
    main_loop.advance(60)
    scan(app, loc)
    network.last.connect()
    for _ in range(3):
        network.serve()
        main_loop.run_idle()
    assert stored == [("/a.py", None)] and waiting(app) == 0


def test_a_file_that_vanishes_before_it_is_read(app, network, main_loop, stored):
    network.tree = {"/a.py": b"a = 1\n"}
    loc = far("/a.py")
    scan(app, loc)
    network.last.connect()
    network.serve()
    main_loop.run_idle()
    del network.tree["/a.py"]
    network.serve()
    main_loop.run_idle()
    assert stored == [("/a.py", "can't be read: No such file")]
    assert StateOf(loc).kind is CFileKind.ABSENT


def test_a_file_that_is_not_there_leaves_the_queue_and_the_cache(app, network, main_loop):
    network.tree = {"/a.py": b"a = 1\n"}
    loc = far("/a.py")
    scan(app, loc)
    network.last.connect()
    for _ in range(2):
        network.serve()
        main_loop.run_idle()
    app.coordinator.ClearLastScanInfo([loc])
    del network.tree["/a.py"]
    app.ana_mgr.fLocationDataCache.Clear()
    scan(app, loc)
    network.serve()
    main_loop.run_idle()
    assert app.coordinator.QueuesEmpty()
    assert app.info_cache.GetScopeInfo(loc, "") is None


@pytest.mark.parametrize(
    "kind, reason",
    [(CFileKind.FOLDER, "not a regular file, but a folder"), (CFileKind.OTHER, "neither a file")],
)
def test_what_is_no_file_is_never_opened(app, network, main_loop, stored, kind, reason):
    loc = far("/pipe.py")
    scan(app, loc)
    network.last.connect()
    network.last.answer(CFileState(kind))
    main_loop.run_idle()
    ((_, error),) = stored
    assert reason in error
    assert network.last.log == ["StatFile /pipe.py"]


def test_a_file_that_is_too_big_is_not_read(app, network, main_loop, stored):
    loc = far("/big.py")
    scan(app, loc)
    network.last.connect()
    network.last.answer(CFileState(CFileKind.FILE, 1, 30_000_000))
    main_loop.run_idle()
    ((_, error),) = stored
    assert "too big" in error
    assert network.last.log == ["StatFile /big.py"]


def test_one_that_grew_beyond_the_limit_meanwhile_is_too_big_as_well(
    app, network, main_loop, stored
):
    loc = far("/big.py")
    scan(app, loc)
    network.last.connect()
    network.last.answer(CFileState(CFileKind.FILE, 1, 10))
    main_loop.run_idle()
    network.last.answer(FileContent(CFileState(CFileKind.FILE, 1, 10), b"x" * 10, False))
    main_loop.run_idle()
    ((_, error),) = stored
    assert "too big" in error


def test_a_touched_file_is_read_and_not_parsed(app, network, main_loop, stored):
    network.tree = {"/a.py": b"a = 1\n"}
    loc = far("/a.py")
    reread = []
    app.info_cache.connect("file-reread", lambda cache, loc: reread.append(loc))
    scan(app, loc)
    network.last.connect()
    for _ in range(2):
        network.serve()
        main_loop.run_idle()
    app.coordinator.ClearLastScanInfo([loc])
    network.mtimes["/a.py"] = 1_600_000_500
    app.ana_mgr.fLocationDataCache.Clear()
    scan(app, loc)
    for _ in range(2):
        network.serve()
        main_loop.run_idle()
    assert reread == [loc] and len(stored) == 1


def test_contents_are_released_whatever_becomes_of_their_scan(app, network, main_loop, stored):
    network.tree = {"/a.py": b"a = 1\n", "/b.py": b"\0"}
    scan(app, far("/a.py"), far("/b.py"))
    network.last.connect()
    for _ in range(2):
        network.serve()
        main_loop.run_idle()
    assert len(stored) == 2
    (server,) = app.ana_mgr.fLocationDataCache.GetRemoteFiles().servers()
    assert server._held_bytes == server._reserved_bytes == 0


def test_the_end_with_scans_waiting_everywhere_is_quiet(main_loop, network, tmp_path, caplog):
    app = App(tmp_path / "info.sqlite3", main_loop)
    app.coordinator._fAnalyzeFoundImports = False
    app.ana_mgr.fLocationDataCache.SetUpRemote(None, network.make)
    network.tree = {"/a.py": b"a = 1\n"}
    a, b = far("/a.py"), far("/b.py")
    scan(app, a)
    network.last.connect()
    network.serve()
    main_loop.run_idle()
    scan(app, b)
    app.destroy()
    assert network.last.closed
    assert not caplog.records


def test_a_scope_that_is_needed_at_once_is_scanned_when_its_text_is_there(
    app, network, main_loop
):
    network.tree = {"/a.py": b"def f(): x = 1\n"}
    loc = far("/a.py")
    primary = app.ana_mgr.fPrimaryScanName
    end = time.time() + 100
    app.coordinator.TryToScanNow(loc, "f", [primary], end)  # nothing is known of the file yet
    network.last.connect()
    network.serve()
    main_loop.run_idle()
    app.coordinator.TryToScanNow(loc, "f", [primary], end)  # it would have to wait for the text
    for _ in range(4):
        network.serve()
        main_loop.run_idle()
    assert app.info_cache.GetScopeInfo(loc, "f").type_equivs["x"] == b":=1"
    assert app.coordinator.QueuesEmpty()
