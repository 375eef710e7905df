"""A scan session inside of one process, step by step in virtual time of the main loop."""

import gc
import io
import os
import weakref
from pathlib import Path

import pytest
from guiutils import lgtk
from loombase.location import CLocalFileLocation
from pysource import scopescanner
from singleton import GetSingletons

from loom.app import App
from loom.cli import progress
from loom.measure import SliceLengths
from loom.scansession import FileError, ScanSession
from loom.store import queries
from loom.store.database import open_read_only
from loom.store.errors import StoreError


@pytest.fixture
def top(tmp_path):
    top = tmp_path / "tree"
    for name in ("a.py", "b.py", "sub/c.py"):
        path = top / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(f"def in_{path.stem}():\n    pass\n")
    return top


@pytest.fixture
def db_path(tmp_path):
    return tmp_path / "info.sqlite3"


@pytest.fixture
def app(main_loop, db_path):
    app = App(db_path, main_loop)
    yield app
    app.destroy()


def run(app, main_loop, *paths):
    """Run a session to its end."""
    session, ended = ScanSession(app, [str(path) for path in paths]), []
    session.connect("finished", ended.append)
    session.start()
    main_loop.run_idle()
    assert ended == [session]
    return session


def names_in(db_path, name):
    connection = open_read_only(db_path)
    try:
        return [Path(queries.path_of(d.url)).name for d in queries.find_name(connection, name)]
    finally:
        connection.close()


# --- the host as a whole


def test_one_host_at_a_time(app, main_loop, tmp_path):
    with pytest.raises(RuntimeError, match="another host"):
        App(tmp_path / "other.sqlite3", main_loop)
    assert GetSingletons().fAnalysisMgr is app.ana_mgr


def test_a_destroyed_host_leaves_nothing_and_another_may_follow(main_loop, db_path, top):
    for _ in range(2):
        app = App(db_path, main_loop)
        session = run(app, main_loop, top)
        app.destroy()
        table = GetSingletons()
        assert table.fAnalysisMgr is table.fCacheMgr is table.fFileAttribMgr is None
        with pytest.raises(RuntimeError):
            lgtk.GetMainLoop()
    assert session.counts.unchanged == 3


def test_a_database_of_no_use_leaves_no_half_host(main_loop, tmp_path):
    (tmp_path / "file").write_text("")
    with pytest.raises(StoreError):
        App(tmp_path / "file" / "info.sqlite3", main_loop)
    assert GetSingletons().fPrefMgr is None


def test_a_destroyed_host_is_garbage(main_loop, db_path, top):
    app = App(db_path, main_loop)
    session = run(app, main_loop, top)
    gone = [weakref.ref(thing) for thing in (app, app.coordinator, app.info_cache, session)]
    session.destroy()
    app.destroy()
    del app, session
    gc.collect()
    assert [ref() for ref in gone] == [None] * 4


def test_neither_scan_name_occurs_inside_the_other(app):
    primary, derived = app.ana_mgr.fPrimaryScanName, app.ana_mgr.fDerivedScanName
    assert primary not in derived
    assert derived not in primary


def test_the_scheduler_is_wired_to_the_host(app):
    coordinator, table = app.coordinator, GetSingletons()
    assert coordinator.fAnaMgr is table.fAnalysisMgr is app.ana_mgr
    assert coordinator.fCacheMgr is table.fCacheMgr
    assert coordinator._fScanQueue._fScansToOrder == {"primary": 0, "derived": 1}
    assert app.ana_mgr.fPyConfig.python_path_locs
    assert app.ana_mgr.fHelperProcessProxy is None


def test_the_inference_engine_answers_from_the_cache_within_its_deadline(app, main_loop, top):
    run(app, main_loop, top)
    engine, loc = app.ana_mgr.fInferenceEngine, CLocalFileLocation(top / "a.py")
    in_time = engine.NewContext(float("inf"))
    assert not in_time.OutOfTime()
    assert "in_a" in engine.GetScopeInfo(loc, "", in_time).type_equivs
    assert engine.GetScopeInfo(loc, "missing", in_time) is None
    assert engine.GetScopeInfo(loc, "", engine.NewContext(0.0)) is None


def test_the_analysis_of_an_open_file_knows_its_scopes(app, main_loop, top):
    run(app, main_loop, top)
    loc, seen = CLocalFileLocation(top / "a.py"), []
    cache_mgr = GetSingletons().fCacheMgr
    cache_mgr.OpenBuffer(loc, "", 0.0)
    analysis = cache_mgr.GetAnalysis(loc, True)
    analysis.connect("modified", seen.append)
    analysis.UpdateFromCache()
    analysis.UpdateFromCache()
    assert seen == [analysis]
    assert analysis.FindScopeContainingLine(2) == "in_a"
    assert analysis.FindScopeContainingLine(99) == ""  # behind the last line that holds anything


# --- runs


def test_a_run_scans_every_file_and_stores_it(app, main_loop, db_path, top):
    counts = run(app, main_loop, top).counts
    assert (counts.found, counts.scanned, counts.unchanged, counts.left) == (3, 3, 0, 0)
    assert counts.definitions == 3
    assert counts.bytes == sum(os.path.getsize(path) for path in top.rglob("*.py"))
    assert counts.errors == []
    assert not app.info_cache.HasUnwritten()  # without having been closed
    assert names_in(db_path, "in_c") == ["c.py"]
    assert app.coordinator.slices


def test_a_run_over_what_is_known_scans_nothing(app, main_loop, top):
    run(app, main_loop, top)
    counts = run(app, main_loop, top).counts
    assert (counts.found, counts.scanned, counts.unchanged) == (3, 0, 3)


def test_only_the_changed_file_is_scanned_again(app, main_loop, db_path, top):
    run(app, main_loop, top)
    (top / "b.py").write_text("def changed():\n    pass\n\n\nx = 1\n")
    app.coordinator.ClearLastScanInfo([CLocalFileLocation(top / "b.py")])
    counts = run(app, main_loop, top).counts
    assert (counts.scanned, counts.unchanged) == (1, 2)
    assert names_in(db_path, "changed") == ["b.py"]
    assert names_in(db_path, "in_b") == []


def test_files_that_are_gone_leave_the_database(app, main_loop, db_path, top):
    run(app, main_loop, top)
    (top / "sub/c.py").unlink()
    (top / "sub").rmdir()
    run(app, main_loop, top / "a.py")  # which says nothing of the other files
    assert names_in(db_path, "in_c") == ["c.py"]
    counts = run(app, main_loop, top).counts
    assert (counts.found, counts.errors) == (2, [])
    assert names_in(db_path, "in_c") == []
    assert names_in(db_path, "in_a") == ["a.py"]


def test_a_folder_that_cannot_be_looked_at_keeps_what_is_known_of_it(
    app, main_loop, db_path, top, monkeypatch
):
    run(app, main_loop, top)
    scandir = os.scandir

    def refuse(path):
        if path == str(top):
            raise OSError(5, "Input/output error")
        return scandir(path)

    (top / "b.py").unlink()
    monkeypatch.setattr(os, "scandir", refuse)
    run(app, main_loop, top)
    assert names_in(db_path, "in_b") == ["b.py"]


def test_nothing_to_scan_comes_to_an_end(app, main_loop, tmp_path):
    (tmp_path / "empty").mkdir()
    counts = run(app, main_loop, tmp_path / "empty").counts
    assert (counts.found, counts.all_found) == (0, True)


def test_finding_files_goes_on_while_scanning_is_under_way(app, main_loop, top, monkeypatch):
    """Files are scanned before all of them are found: a big tree doesn't hold up the start."""
    from loom import scansession

    monkeypatch.setattr(scansession, "_WALK_SECONDS", 0.0)  # nothing in a step but the first look
    session, order = ScanSession(app, [str(top / "a.py"), str(top)]), []
    monkeypatch.setattr(
        scansession, "perf_counter", iter(range(0, 100_000)).__next__
    )  # each look at the clock is a second later: one item a step
    monkeypatch.setattr(scansession, "_WALK_SECONDS", 1.5)
    app.info_cache.connect("file-stored", lambda cache, loc, record: order.append(loc.path))
    session.connect("finished", order.append)
    session.start()
    while not order:
        assert main_loop.step()
    assert not session.counts.all_found
    main_loop.run_idle()
    assert order[-1] is session
    assert session.counts.scanned == 3


def test_a_file_with_errors_is_recorded_and_the_rest_scanned(app, main_loop, db_path, top):
    (top / "bad.py").write_text("x = 1\n\nclass (:\n\ndef after():\n    pass\n")
    counts = run(app, main_loop, top).counts
    assert counts.scanned == 4
    [error] = counts.errors
    assert (error.path, error.lineno) == (str(top / "bad.py"), 3)
    assert names_in(db_path, "after") == ["bad.py"]


def test_a_file_that_goes_before_it_is_looked_at_is_recorded(app, main_loop, top):
    app.coordinator.connect("scheduled", (top / "b.py").unlink)
    counts = run(app, main_loop, top).counts
    assert (counts.scanned, counts.vanished, counts.unchanged) == (2, 1, 0)
    assert [Path(error.path).name for error in counts.errors] == ["b.py"]


def test_what_cannot_be_walked_is_recorded(app, main_loop, top):
    counts = run(app, main_loop, top / "missing", top).counts
    assert counts.scanned == 3
    assert counts.errors == [FileError(str(top / "missing"), "No such file or directory")]


def test_a_stopped_run_keeps_what_it_has_and_the_next_goes_on(main_loop, db_path, top, monkeypatch):
    app = App(db_path, main_loop)
    session = ScanSession(app, [str(top)])
    app.coordinator._fAnalyzeFoundImports = False
    app.info_cache.connect("file-stored", lambda *args: session.stop())
    session.start()
    main_loop.run_idle()
    assert session.stopped
    app.destroy()
    scanned = session.counts.scanned
    assert scanned >= 1
    app = App(db_path, main_loop)
    counts = run(app, main_loop, top).counts
    app.destroy()
    assert (counts.unchanged, counts.scanned) == (scanned, 3 - scanned)


def test_a_suspended_run_takes_no_time_and_goes_on_when_it_is_resumed(app, main_loop, top):
    session, ended = ScanSession(app, [str(top)]), []
    session.connect("finished", ended.append)
    session.start()
    app.coordinator.SuspendIdleScans()
    assert main_loop.run_idle() < 10
    assert (session.counts.all_found, session.counts.scanned, ended) == (True, 0, [])
    app.coordinator.ResumeIdleScans()
    main_loop.run_idle()
    assert (session.counts.scanned, ended) == (3, [session])


# --- failures of the engine


def test_a_scan_that_fails_leaves_the_queue_and_the_others_go_on(
    app, main_loop, top, monkeypatch, caplog
):
    scan = scopescanner.CWholeFilePrimaryScanner.Scan

    def fail_on_b(self, end_time):
        if self.fLocation.path.endswith("b.py"):
            raise ValueError("a fault")
        return scan(self, end_time)

    monkeypatch.setattr(scopescanner.CWholeFilePrimaryScanner, "Scan", fail_on_b)
    session = run(app, main_loop, top)
    counts = session.counts
    assert (counts.scanned, counts.failed, counts.unchanged, counts.left) == (2, 1, 0, 0)
    assert counts.errors == [FileError(str(top / "b.py"), "scan failed: ValueError: a fault")]
    assert session.failure is None
    assert "a fault" in caplog.text


def test_a_failure_outside_of_scans_does_not_end_the_run(app, main_loop, top, monkeypatch, caplog):
    trim, failures = app.info_cache.Trim, ["once"]

    def fail_once():
        if failures:
            raise ValueError(failures.pop())
        trim()

    monkeypatch.setattr(app.info_cache, "Trim", fail_once)
    session = run(app, main_loop, top)
    assert (session.counts.scanned, session.failure) == (3, None)


def test_a_run_that_fails_again_and_again_is_given_up(app, main_loop, top, monkeypatch, caplog):
    def fail():
        raise ValueError("always")

    monkeypatch.setattr(app.ana_mgr.fAnalysisFactory, "FindBuiltinMod", fail)
    session = run(app, main_loop, top)
    assert str(session.failure) == "always"
    assert session.counts.left == 3


def test_a_database_that_cannot_be_written_ends_the_run_at_once(
    app, main_loop, top, monkeypatch, caplog
):
    failures = []

    def fail():
        failures.append(1)
        raise StoreError("disk full")

    monkeypatch.setattr(app.info_cache, "Trim", fail)
    session = run(app, main_loop, top)
    assert str(session.failure) == "disk full"
    assert len(failures) == 1


def test_a_walk_that_fails_ends_the_run(app, main_loop, monkeypatch):
    def fail(paths, exclude):
        raise ValueError("walk")
        yield

    monkeypatch.setattr("loom.scansession.walk", fail)
    assert str(run(app, main_loop, ".").failure) == "walk"


# --- progress


def test_plain_progress_is_a_line_for_each_status_update(app, main_loop, top, monkeypatch):
    stderr = io.StringIO()
    monkeypatch.setattr("sys.stderr", stderr)
    app.coordinator._fAnalyzeFoundImports = False
    session = ScanSession(app, [str(top)])
    with progress.make_display(session, live=True):  # no terminal, so that it is lines
        session.start()
        app.coordinator.SuspendIdleScans()
        main_loop.run_idle()
        app.coordinator.ResumeIdleScans()
        main_loop.step()  # the first slice starts the status timer
        main_loop.advance(1)
    main_loop.advance(5)  # after the end nothing is shown any more
    lines = stderr.getvalue().splitlines()
    assert lines == ["loom: 3 of 3 files done"]


def test_slice_lengths():
    from array import array

    assert SliceLengths.of(array("d")) == SliceLengths(0, 0.0, 0.0, 0.0, 0.0)
    assert SliceLengths.of(array("d", [2.0])) == SliceLengths(1, 2.0, 2.0, 2.0, 2.0)
    hundred = SliceLengths.of(array("d", range(101)))
    assert (hundred.median, hundred.p99, hundred.longest) == (50.0, 99.0, 100.0)


def test_a_scan_that_the_scheduler_dropped_may_be_asked_for_again(app, main_loop, top):
    """It drops a scan that was over less than five seconds ago, without a word to anybody."""
    asked = []
    app.info_cache.connect("needs-scan-added", lambda cache, triples, priority: asked.append(triples))
    triple = (CLocalFileLocation(top / "a.py"), "in_a", "primary")
    for count in (1, 2, 3):
        app.info_cache.AddNeedsScan([triple])
        app.info_cache.AddNeedsScan([triple])
        assert asked == [{triple}] * count
        main_loop.run_idle()
