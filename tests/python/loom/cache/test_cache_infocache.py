"""The info cache's answers, its signals, and its memory."""

import os
import sqlite3
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
from cache_samples import done, kSource, locations, record_of
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation

from loom._pyscan import pack_info
from loom.store import queries
from pysource import scopeinfo
from pysource.scopeinfo import CInfoCache, CScopeInfo, CScopeInfoKey

MakeFile = Callable[..., CLocalFileLocation]
Scan = Callable[..., Any]
Rows = Callable[..., list[tuple[Any, ...]]]

# --- frame


def test_cache_is_destroyable_and_declares_its_signals(cache: CInfoCache) -> None:
    assert isinstance(cache, CDestroyable)
    calls: list[tuple[object, ...]] = []
    cache.connect("needs-scan-added", lambda *args: calls.append(args))
    cache.connect("file-stored", lambda *args: calls.append(args))
    assert calls == []


def test_location_cache_wants_nothing_derived(cache: CInfoCache, make_file: MakeFile) -> None:
    assert cache.fLocCache.WantDerivedInfo(make_file("a.py")) is False


# --- GetDiskMTime


def test_disk_mtime_of_a_file(cache: CInfoCache, make_file: MakeFile) -> None:
    loc = make_file("a.py", "x", 1_700_000_000_123_456_789)
    assert cache.GetDiskMTime(loc) == 1_700_000_000.1234567
    assert isinstance(cache.GetDiskMTime(loc), float)


def test_disk_mtime_of_no_file_is_0(cache: CInfoCache, tmp_path: Path) -> None:
    (tmp_path / "file").write_text("")
    for path in (tmp_path / "no.py", tmp_path / "file" / "below.py"):
        assert cache.GetDiskMTime(CLocalFileLocation(path)) == 0.0


def test_disk_mtime_of_a_loop_of_links_is_0(cache: CInfoCache, tmp_path: Path) -> None:
    (tmp_path / "a.py").symlink_to("b.py")
    (tmp_path / "b.py").symlink_to("a.py")
    assert cache.GetDiskMTime(CLocalFileLocation(tmp_path / "a.py")) == 0.0


def test_disk_mtime_of_a_location_that_is_no_local_file(cache: CInfoCache) -> None:
    assert cache.GetDiskMTime(CLocation()) == 0.0


@pytest.mark.parametrize("mtime_ns", [0, -2_000_000_000])
def test_disk_mtime_never_means_something_else(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, mtime_ns: int
) -> None:
    loc = make_file("a.py", "x", mtime_ns)
    assert cache.GetDiskMTime(loc) not in (0.0, -2.0)
    scan(loc)
    assert done(cache, loc) == {loc: " primary "}
    cache.WriteEverything()
    assert done(cache, loc) == {loc: " primary "}


# --- GetScansDoneForMultipleFiles


@pytest.mark.parametrize("written", [False, True], ids=["waiting", "written"])
def test_scans_done_of_files_that_are_up_to_date(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, written: bool
) -> None:
    scanned, unknown = make_file("a.py", kSource), make_file("b.py", kSource)
    scan(scanned)
    if written:
        cache.WriteEverything()
    result = done(cache, scanned, unknown)
    assert list(result) == [scanned]
    assert "primary" in result[scanned]
    assert "derived" not in result[scanned]


@pytest.mark.parametrize("written", [False, True], ids=["waiting", "written"])
def test_scans_done_of_changed_files_are_missing(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, written: bool
) -> None:
    loc = make_file("a.py", kSource, 1_700_000_000_000_000_000)
    scan(loc)
    if written:
        cache.WriteEverything()
    assert done(cache, loc) == {loc: " primary "}
    # A nanosecond is less than the time as a double can tell.
    make_file("a.py", kSource, 1_700_000_000_000_000_001)
    assert done(cache, loc) == {}
    make_file("a.py", kSource + "#", 1_700_000_000_000_000_000)
    assert done(cache, loc) == {}
    make_file("a.py", kSource, 1_700_000_000_000_000_000)
    assert done(cache, loc) == {loc: " primary "}


def test_scans_done_by_a_time_that_others_told(
    cache: CInfoCache, make_file: MakeFile, scan: Scan
) -> None:
    loc = make_file("a.py", kSource, 1_700_000_000_123_456_789)
    scan(loc)
    told = os.stat(loc.path).st_mtime
    assert cache.GetScansDoneForMultipleFiles({loc: told}) == {loc: " primary "}
    assert cache.GetScansDoneForMultipleFiles({loc: told + 0.01}) == {}
    assert cache.GetScansDoneForMultipleFiles({loc: -2}) == {}


def test_scans_done_of_a_batch_is_one_query(
    cache: CInfoCache, make_file: MakeFile, scan: Scan
) -> None:
    locs = [make_file(f"{number}.py", "x") for number in range(26)]
    for loc in locs:
        scan(loc)
    cache.WriteEverything()
    modtimes: dict[CLocation, float] = {loc: cache.GetDiskMTime(loc) for loc in locs}
    statements: list[str] = []
    cache._fConnection.set_trace_callback(statements.append)
    assert len(cache.GetScansDoneForMultipleFiles(modtimes)) == 26
    assert len([text for text in statements if text.startswith("SELECT")]) == 1


def test_scans_done_of_nothing(cache: CInfoCache) -> None:
    assert cache.GetScansDoneForMultipleFiles({}) == {}


def test_file_that_is_gone_is_forgotten(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, rows: Rows
) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    cache.WriteEverything()
    assert cache.GetScopeInfo(loc, "main") is not None
    os.unlink(loc.path)
    assert done(cache, loc) == {}
    assert cache.GetScopeInfo(loc, "main") is None
    assert cache.GetAllImports([loc]) == []
    assert cache.GetScopeLines(loc) == []
    cache.WriteEverything()
    assert rows("SELECT count(*) FROM files") == [(0,)]
    assert rows("SELECT count(*) FROM names") == [(0,)]


def test_files_that_vanished_below_a_folder_are_forgotten(
    cache: CInfoCache,
    make_file: MakeFile,
    scan: Scan,
    tmp_path: Path,
    rows: Rows,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr(scopeinfo, "_kVanishedStep", 3)
    names = [f"src/{n}.py" for n in range(10)] + ["src.py", "src-2/a.py", "srcs/a.py", "src/b/c.py"]
    locs = [make_file(name, "x = 1\n") for name in names]
    for loc in locs:
        scan(loc)
    cache.WriteEverything()
    for name in ("src/3.py", "src/7.py", "src/b/c.py", "src-2/a.py"):
        os.unlink(tmp_path / name)
    assert len(list(cache.ForgetVanishedBelow(CLocalFileLocation(tmp_path / "src")))) == 4
    cache.WriteEverything()
    left = {queries.path_of(url) for (url,) in rows("SELECT url FROM files")}
    gone = {str(tmp_path / name) for name in ("src/3.py", "src/7.py", "src/b/c.py")}
    assert left == {loc.path for loc in locs} - gone
    assert list(cache.ForgetVanishedBelow(CLocalFileLocation("/"))) != []
    cache.WriteEverything()
    assert rows("SELECT count(*) FROM files") == [(10,)]


def test_files_that_were_just_found_are_not_looked_at_for_having_vanished(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, tmp_path: Path, rows: Rows
) -> None:
    found, other, gone, replaced = (make_file(f"src/{name}.py") for name in "abcd")
    waiting = make_file("src/e.py")
    for loc in (found, other, gone, replaced):
        scan(loc)
    cache.WriteEverything()
    scan(waiting)
    for loc in (found, gone, replaced):
        os.unlink(loc.path)
    os.mkdir(replaced.path)
    steps = cache.ForgetVanishedBelow(
        CLocalFileLocation(tmp_path / "src"), found={found.fUrl, waiting.fUrl}
    )
    assert [loc for step in steps for loc in step] == [other]
    cache.WriteEverything()
    assert {url for (url,) in rows("SELECT url FROM files")} == {
        loc.fUrl for loc in (found, other, waiting)
    }


# --- GetAllImports


@pytest.mark.parametrize("written", [False, True], ids=["waiting", "written"])
def test_all_imports(cache: CInfoCache, make_file: MakeFile, scan: Scan, written: bool) -> None:
    many = make_file("many.py", "import os\nimport sys, a.b as c\n")
    none = make_file("none.py", "x = 1\n")
    one = make_file("one.py", "import re\n")
    for loc in (many, none, one):
        scan(loc)
    if written:
        cache.WriteEverything()
    unknown = CLocalFileLocation("/nowhere/x.py")
    records = cache.GetAllImports([one, none, unknown, many])
    assert [(record[0], record[1]) for record in records] == [(one, None), (many, None)]
    assert records[0][2] == b":ire"
    assert [part[:2] for part in records[1][2].split(b";")] == [b":i"] * 3
    assert cache.GetAllImports([]) == []


# --- GetScopeInfo and AddScopeInfo


@pytest.mark.parametrize("written", [False, True], ids=["waiting", "written"])
def test_scope_info_of_a_scanned_file(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, written: bool
) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    if written:
        cache.WriteEverything()
    info = cache.GetScopeInfo(loc, "")
    assert isinstance(info, CScopeInfo)
    assert info.key == CScopeInfoKey(loc, "", "primary", loc, "")
    assert info.disk_mtime == cache.GetDiskMTime(loc)
    assert info.does_not_exist is False
    assert list(info.type_equivs) == [
        name for name in ("os", "Walker", "main") if name in info.type_equivs
    ]
    assert {"Walker", "main"} <= set(info.type_equivs)
    assert all(isinstance(value, bytes) for value in info.type_equivs.values())
    inner = cache.GetScopeInfo(loc, "Walker.walk")
    assert inner is not None and "step" in inner.type_equivs
    assert cache.GetScopeInfo(loc, "Walker.run") is None
    assert cache.GetScopeInfo(CLocalFileLocation("/nowhere/x.py"), "") is None
    assert cache.GetScopeInfo(loc, "") is info


def test_scope_info_is_unpacked_when_it_is_asked_for(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, monkeypatch: pytest.MonkeyPatch
) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    calls: list[bytes] = []

    def unpack(packed: bytes) -> dict[str, bytes]:
        calls.append(packed)
        return {}

    monkeypatch.setattr(scopeinfo, "unpack_info", unpack)
    info = cache.GetScopeInfo(loc, "")
    assert info is not None
    assert calls == []
    assert info.type_equivs is info.type_equivs
    assert len(calls) == 1


def test_info_bytes(make_file: MakeFile) -> None:
    loc = make_file("a.py")
    packed = pack_info({"x": b":=1", "self.y": b":=2"})
    info = CScopeInfo(CScopeInfoKey(loc, "C", "primary", loc, "C"), packed, 1.0, False)
    assert info.GetInfoBytes("x") == b":=1"
    assert info.GetInfoBytes("y") is None
    assert info.GetInfoBytes("y", b"no") == b"no"
    assert info.GetInfoBytes("y", inst=True) == b":=2"
    assert info.GetInfoBytes("x", inst=True) == b":=1"
    assert info.GetInfoBytes("z", default=b"no", inst=True) == b"no"
    assert repr(info) == f"CScopeInfo({loc!r}, 'C', 'primary')"


def test_record_that_says_that_a_scope_does_not_exist(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, db_path: Path
) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    key = CScopeInfoKey(loc, "No", "primary", loc, "No")
    info = CScopeInfo(key, b"", 12.5, False, does_not_exist=True)
    assert info.type_equivs == {}
    cache.AddScopeInfo(info)
    assert cache.GetScopeInfo(loc, "No") is info
    cache.Close()
    again = CInfoCache(db_path)
    stored = again.GetScopeInfo(loc, "No")
    assert stored is not None
    assert (stored.key, stored.disk_mtime, stored.does_not_exist) == (key, 12.5, True)
    again.destroy()


def test_added_scope_goes_when_the_file_is_scanned_again(
    cache: CInfoCache, make_file: MakeFile, scan: Scan
) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    key = CScopeInfoKey(loc, "Walker()", "primary", loc, "Walker()")
    cache.AddScopeInfo(CScopeInfo(key, pack_info({"x": b":=1"}), 1.0, False))
    cache.WriteEverything()
    assert cache.GetScopeInfo(loc, "Walker()") is not None
    scan(loc)
    assert cache.GetScopeInfo(loc, "Walker()") is None
    cache.WriteEverything()
    assert cache.GetScopeInfo(loc, "Walker()") is None


def test_scope_info_after_a_new_scan_is_the_new_one(
    cache: CInfoCache, make_file: MakeFile, scan: Scan
) -> None:
    loc = make_file("a.py", "old = 1\n", 1_000_000_000)
    scan(loc)
    cache.WriteEverything()
    assert cache.GetScopeInfo(loc, "").type_equivs.keys() == {"old"}  # type: ignore[union-attr]
    make_file("a.py", "new = 1\n", 2_000_000_000)
    scan(loc)
    assert cache.GetScopeInfo(loc, "").type_equivs.keys() == {"new"}  # type: ignore[union-attr]


@pytest.mark.parametrize("written", [False, True], ids=["waiting", "written"])
def test_scope_lines(cache: CInfoCache, make_file: MakeFile, scan: Scan, written: bool) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    if written:
        cache.WriteEverything()
    lines = cache.GetScopeLines(loc)
    assert [(name, first) for name, first, _ in lines] == [
        ("", 1),
        ("Walker", 2),
        ("Walker.walk", 3),
        ("main", 5),
    ]
    assert [last for _, _, last in lines][1:] == [4, 4, 6]


# --- signals


def test_each_result_is_told(cache: CInfoCache, make_file: MakeFile, scan: Scan) -> None:
    calls: list[tuple[Any, ...]] = []
    cache.connect("file-stored", lambda *args: calls.append(args))
    good, bad = make_file("a.py", kSource), make_file("b.py", b"\0")
    scan(good)
    scan(bad)
    assert [(args[0], args[1]) for args in calls] == [(cache, good), (cache, bad)]
    assert [args[2].error for args in calls] == [None, "not text: null byte at offset 0"]
    assert calls[0][2].size == len(kSource)


def test_scan_is_asked_for_once_until_it_is_finished(
    cache: CInfoCache, make_file: MakeFile
) -> None:
    loc = make_file("a.py")
    calls: list[tuple[Any, ...]] = []
    cache.connect("needs-scan-added", lambda *args: calls.append(args))
    first, second = (loc, "f", "primary"), (loc, "g", "primary")
    cache.AddNeedsScan([first])
    cache.AddNeedsScan([first, second], priority=1)
    cache.AddNeedsScan([second])
    assert calls == [(cache, {first}, None), (cache, {second}, 1)]
    cache.FinishedWithScans(loc, "f", "primary")
    cache.FinishedWithScans(loc, "f", "primary")
    cache.AddNeedsScan([first, second])
    assert calls[2:] == [(cache, {first}, None)]


# --- memory


def test_trim_writes_nothing_while_little_waits(cache: CInfoCache, rows: Rows) -> None:
    cache.AddFile(locations(1)[0], record_of(locations(1)[0]))
    cache.Trim()
    assert cache.HasUnwritten()
    assert rows("SELECT count(*) FROM files") == [(0,)]


def test_trim_bounds_what_waits(cache: CInfoCache, rows: Rows) -> None:
    most = 0
    for loc in locations(200):
        cache.AddFile(loc, record_of(loc, 50_000))
        cache.Trim()
        most = max(most, cache._fWriter.pending_bytes)
    assert most < 1_200_000
    assert rows("SELECT count(*) FROM files")[0][0] > 150
    cache.WriteEverything()
    assert rows("SELECT count(*), sum(length(info)) FROM scopes") == [(200, 200 * 50_000)]


def test_trim_writes_in_one_transaction_for_10_ms_at_most(
    cache: CInfoCache, clock: Any, rows: Rows
) -> None:
    clock.per_look = 0.001
    for loc in locations(300):
        cache.AddFile(loc, record_of(loc, 5_000))
    statements: list[str] = []
    cache._fConnection.set_trace_callback(statements.append)
    before = clock.now
    cache.Trim()
    assert clock.now - before <= 0.015
    assert [s for s in statements if "BEGIN" in s or "COMMIT" in s] == ["BEGIN IMMEDIATE", "COMMIT"]
    assert 5 <= rows("SELECT count(*) FROM files")[0][0] <= 12


def test_trim_keeps_to_the_end_of_the_slice(cache: CInfoCache, clock: Any, rows: Rows) -> None:
    clock.per_look = 0.001
    for loc in locations(300):
        cache.AddFile(loc, record_of(loc, 5_000))
    cache.NoteSliceEnd(clock.now + 0.012)
    cache.Trim()
    written = rows("SELECT count(*) FROM files")[0][0]
    assert 1 <= written <= 6
    cache.NoteSliceEnd(clock.now + 0.002)
    cache.Trim()
    assert rows("SELECT count(*) FROM files")[0][0] == written


def test_a_lock_of_another_process_is_a_warning_only_if_it_lasts(
    cache: CInfoCache, clock: Any, caplog: pytest.LogCaptureFixture
) -> None:
    other = sqlite3.connect(cache.fPath, isolation_level=None)
    levels = []
    with caplog.at_level("INFO"):
        for is_locked in (True, True, False, True):
            for loc in locations(300):
                cache.AddFile(loc, record_of(loc, 5_000))
            if is_locked:
                other.execute("BEGIN IMMEDIATE")
            caplog.clear()
            cache.Trim()
            levels.append([r.levelname for r in caplog.records if "wait to be written" in r.msg])
            if is_locked:
                other.execute("ROLLBACK")
            clock.now += 2.0
    other.close()
    assert levels == [["INFO"], ["WARNING"], [], ["INFO"]]


def test_trim_writes_beyond_the_slice_when_very_much_waits(
    cache: CInfoCache, clock: Any, rows: Rows
) -> None:
    for loc in locations(20):
        cache.AddFile(loc, record_of(loc, 1_000_000))
    clock.per_look = 0.001
    cache.NoteSliceEnd(clock.now - 1.0)
    before = clock.now
    cache.Trim()
    assert clock.now - before <= 0.010
    assert rows("SELECT count(*) FROM files")[0][0] >= 1


def test_trim_merges_names_when_many_are_staged(
    cache: CInfoCache, rows: Rows, monkeypatch: pytest.MonkeyPatch
) -> None:
    from loom.store import nameindex

    monkeypatch.setattr(nameindex, "kMergeAtPairs", 100)
    for number, loc in enumerate(locations(20)):
        names = [f"name_{number}_{n}" for n in range(20)]
        cache.AddFile(loc, record_of(loc, 300_000, names=names))
        cache.Trim()
    assert rows("SELECT count(*) FROM names")[0][0] >= 100


def test_scope_records_in_memory_are_bounded(
    cache: CInfoCache, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(scopeinfo, "_kRecordBytes", 100_000)
    for loc in locations(100):
        cache.AddFile(loc, record_of(loc, 1_000))
        assert cache.GetScopeInfo(loc, "") is not None
        assert cache._fRecordBytes <= 100_000
    assert 10 <= len(cache._fRecords) <= 30


def test_least_recently_used_record_goes_first(
    cache: CInfoCache, monkeypatch: pytest.MonkeyPatch
) -> None:
    first, second, third = locations(3)
    for loc in (first, second, third):
        cache.AddFile(loc, record_of(loc, 1_000))
    infos = [cache.GetScopeInfo(first, ""), cache.GetScopeInfo(second, "")]
    assert cache.GetScopeInfo(first, "") is infos[0]
    monkeypatch.setattr(scopeinfo, "_kRecordBytes", 10_000)
    cache.GetScopeInfo(third, "")
    assert cache.GetScopeInfo(first, "") is infos[0]
    assert cache.GetScopeInfo(second, "") is not infos[1]


def test_disk_states_are_bounded(
    cache: CInfoCache, make_file: MakeFile, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(scopeinfo, "_kMaxDiskStates", 10)
    for number in range(30):
        cache.GetDiskMTime(make_file(f"{number}.py"))
        cache.Trim()
        assert len(cache._fDiskStates) <= 11
