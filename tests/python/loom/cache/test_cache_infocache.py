"""The info cache's answers, its memory, and its database."""

import logging
import os
import sqlite3
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation

from loom._pyscan import pack_info
from loom.mainloop.stepped import SteppedMainLoop
from loom.store import database, queries
from loom.store.errors import ForeignDatabaseError, StoreError, StoreLockedError
from loom.store.records import FileRecord
from pysource import scopeinfo, scopescanner
from pysource.scopeinfo import CInfoCache, CScopeInfo, CScopeInfoKey

MakeFile = Callable[..., CLocalFileLocation]
Scan = Callable[..., Any]
Rows = Callable[..., list[tuple[Any, ...]]]

kSource = """\
import os
class Walker:
    def walk(self):
        step = 1
def main():
    pass
"""


def done(cache: CInfoCache, *locs: CLocalFileLocation) -> dict[CLocation, str]:
    """Asks as a whole-file check does."""
    return cache.GetScansDoneForMultipleFiles({loc: cache.GetDiskMTime(loc) for loc in locs})


def record_of(loc: CLocalFileLocation, size: int = 1_000, **fields: Any) -> FileRecord:
    """A record with one scope of `size` bytes."""
    scopes = [("", -1, ord("O"), 1, 1, b"x" * size)]
    values: dict[str, Any] = {"url": loc.fUrl, "mtime_ns": 1, "size": 1, "scans": " primary "}
    return FileRecord(**(values | {"scopes": scopes} | fields))


def locations(count: int) -> list[CLocalFileLocation]:
    return [CLocalFileLocation(f"/nowhere/{number}.py") for number in range(count)]


# --- frame


def test_cache_is_destroyable_and_declares_its_signals(cache: CInfoCache) -> None:
    assert isinstance(cache, CDestroyable)
    calls: list[tuple[object, ...]] = []
    cache.connect("needs-scan-added", lambda *args: calls.append(args))
    cache.connect("file-stored", lambda *args: calls.append(args))
    assert calls == []


def test_location_cache_wants_nothing_derived(cache: CInfoCache, make_file: MakeFile) -> None:
    assert cache.fLocCache.GetBuiltinLoc() is None
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
    cache: CInfoCache, make_file: MakeFile, scan: Scan, tmp_path: Path, rows: Rows,
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
    assert len(list(cache.ForgetVanishedBelow(CLocalFileLocation(tmp_path / "src")))) == 3
    cache.WriteEverything()
    left = {queries.path_of(url) for (url,) in rows("SELECT url FROM files")}
    gone = {str(tmp_path / name) for name in ("src/3.py", "src/7.py", "src/b/c.py")}
    assert left == {loc.path for loc in locs} - gone
    assert list(cache.ForgetVanishedBelow(CLocalFileLocation("/"))) != []
    cache.WriteEverything()
    assert rows("SELECT count(*) FROM files") == [(10,)]


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
    assert list(info.type_equivs) == [name for name in ("os", "Walker", "main") if name in info.type_equivs]
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
        ("", 1), ("Walker", 2), ("Walker.walk", 3), ("main", 5)
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


# --- writing


def test_write_to_database_writes_and_indexes(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, rows: Rows, main_loop: SteppedMainLoop
) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    assert cache.HasUnwritten()
    cache.WriteToDatabase()
    main_loop.run_idle()
    assert not cache.HasUnwritten()
    assert rows("SELECT url, indexed FROM files") == [(loc.fUrl, 1)]


def test_long_write_goes_on_in_idle_calls_of_40_ms(
    cache: CInfoCache, clock: Any, main_loop: SteppedMainLoop
) -> None:
    for number, loc in enumerate(locations(200)):
        cache.AddFile(loc, record_of(loc, 10_000, names=[f"n{number}_{n}" for n in range(5)]))
    clock.per_look = 0.001
    before = clock.now
    cache.WriteToDatabase()
    assert clock.now - before <= 0.050
    assert cache.HasUnwritten()
    cache.WriteToDatabase()  # one idle call is enough
    calls = 0
    while True:
        before = clock.now
        if not main_loop.step():
            break
        calls += 1
        assert clock.now - before <= 0.050
    assert 3 <= calls <= 12
    assert not cache.HasUnwritten()


def test_write_with_nothing_waiting_touches_nothing(
    cache: CInfoCache, main_loop: SteppedMainLoop
) -> None:
    cache.GetDiskMTime(locations(1)[0])
    cache.WriteEverything()
    statements: list[str] = []
    cache._fConnection.set_trace_callback(statements.append)
    cache.WriteToDatabase()
    assert statements == []
    assert main_loop.run_idle() == 0


def test_destroyed_cache_takes_its_idle_call_along(
    cache: CInfoCache, clock: Any, main_loop: SteppedMainLoop, rows: Rows
) -> None:
    for loc in locations(200):
        cache.AddFile(loc, record_of(loc, 10_000))
    clock.per_look = 0.001
    cache.WriteToDatabase()
    cache.destroy()
    assert main_loop.run_idle() == 0
    assert rows("SELECT count(*) FROM files") == [(200,)]


def test_close_twice(cache: CInfoCache, rows: Rows) -> None:
    loc = locations(1)[0]
    cache.AddFile(loc, record_of(loc))
    cache.Close()
    cache.Close()
    cache.destroy()
    assert rows("SELECT url FROM files") == [(loc.fUrl,)]


def test_reopened_cache_gives_the_same_answers(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, db_path: Path
) -> None:
    locs = [make_file(f"{n}.py", f"import m{n}\n" + kSource) for n in range(30)]
    for loc in locs:
        scan(loc)

    def answers(of: CInfoCache) -> list[object]:
        infos = [of.GetScopeInfo(loc, name) for loc in locs for name in ("", "Walker", "main", "no")]
        return [
            done(of, *locs),
            of.GetAllImports(locs),
            [of.GetScopeLines(loc) for loc in locs],
            [info and (info.key, info.packed, info.disk_mtime, info.type_equivs) for info in infos],
        ]

    waiting = answers(cache)
    cache.WriteEverything()
    assert answers(cache) == waiting
    cache.Close()
    again = CInfoCache(db_path)
    assert again.fMessages == []
    assert answers(again) == waiting
    again.destroy()


def test_urls_of_queries_are_those_of_locations(tmp_path: Path) -> None:
    for name in (b"a b.py", b"50%#?;.py", "ä数".encode(), b"\xff\xfe.py", b"~'(x).py"):
        path = os.fsdecode(os.fsencode(tmp_path) + b"/" + name)
        assert queries.url_of(path) == CLocalFileLocation(path).fUrl
        assert queries.path_of(queries.url_of(path)) == path


# --- two at a time


def test_two_caches_on_one_database(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, db_path: Path
) -> None:
    other = CInfoCache(db_path)
    loc = make_file("a.py", "old = 1\n", 1_000_000_000)
    scan(loc)
    assert done(other, loc) == {}
    cache.WriteEverything()
    assert done(other, loc) == {loc: " primary "}
    info = other.GetScopeInfo(loc, "")
    assert info is not None and info.type_equivs.keys() == {"old"}
    make_file("a.py", "new = 1\n", 2_000_000_000)
    scan(loc)
    cache.WriteEverything()
    assert done(other, loc) == {loc: " primary "}
    info = other.GetScopeInfo(loc, "")
    assert info is not None and info.type_equivs.keys() == {"new"}
    other.destroy()


def test_reader_beside_a_cache(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, db_path: Path
) -> None:
    reader = database.open_read_only(db_path)
    scan(make_file("a.py", kSource))
    assert queries.find_name(reader, "Walker") == []
    cache.WriteEverything()
    assert [d.lineno for d in queries.find_name(reader, "Walker")] == [2]
    reader.close()


@pytest.fixture
def holder(cache: CInfoCache, db_path: Path) -> Any:
    """Another process that holds the lock for writing."""
    connection = sqlite3.connect(db_path, isolation_level=None)
    connection.execute("BEGIN IMMEDIATE")
    yield connection
    connection.close()


def test_trim_goes_on_when_the_database_is_locked(
    cache: CInfoCache, holder: sqlite3.Connection, clock: Any, rows: Rows,
    caplog: pytest.LogCaptureFixture,
) -> None:
    for loc in locations(20):
        cache.AddFile(loc, record_of(loc, 100_000))
    cache.Trim()
    assert "locked by another process" in caplog.text
    caplog.clear()
    cache.Trim()  # too early for another try
    assert caplog.text == ""
    holder.execute("ROLLBACK")
    cache.Trim()
    assert rows("SELECT count(*) FROM files") == [(0,)]
    clock.now += 1.5
    cache.Trim()
    assert rows("SELECT count(*) FROM files") == [(20,)]


def test_trim_fails_when_too_much_waits_for_a_locked_database(
    cache: CInfoCache, holder: sqlite3.Connection, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(scopeinfo, "_kMustWriteAtBytes", 1_000_000)
    for loc in locations(20):
        cache.AddFile(loc, record_of(loc, 150_000))
    with pytest.raises(StoreLockedError, match="locked by another process"):
        cache.Trim()
    holder.execute("ROLLBACK")
    cache.WriteEverything()
    assert not cache.HasUnwritten()


def test_write_to_a_locked_database_is_a_clear_error_and_loses_nothing(
    cache: CInfoCache, holder: sqlite3.Connection, rows: Rows, monkeypatch: pytest.MonkeyPatch,
    main_loop: SteppedMainLoop,
) -> None:
    monkeypatch.setattr(scopeinfo, "kLockWaitSeconds", 0.01)
    loc = locations(1)[0]
    cache.AddFile(loc, record_of(loc))
    with pytest.raises(StoreLockedError, match="info.sqlite3 is locked by another process"):
        cache.WriteToDatabase()
    assert main_loop.run_idle() == 0
    assert cache.HasUnwritten()
    assert cache.GetScopeInfo(loc, "") is not None
    holder.execute("ROLLBACK")
    cache.WriteToDatabase()
    main_loop.run_idle()
    assert rows("SELECT count(*) FROM files") == [(1,)]


def test_idle_write_that_fails_can_be_asked_for_again(
    cache: CInfoCache, clock: Any, main_loop: SteppedMainLoop, monkeypatch: pytest.MonkeyPatch
) -> None:
    for loc in locations(200):
        cache.AddFile(loc, record_of(loc, 10_000))
    clock.per_look = 0.001
    cache.WriteToDatabase()

    def fail(*args: object) -> bool:
        raise sqlite3.OperationalError("disk I/O error")

    with monkeypatch.context() as patch:
        patch.setattr(cache._fWriter, "write", fail)
        with pytest.raises(StoreError, match="disk I/O error"):
            cache._CB_GoOnWriting()
    cache.WriteToDatabase()
    main_loop.run_idle()
    assert not cache.HasUnwritten()


def test_locked_database_at_the_start_is_a_clear_error(
    db_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(database, "kLockWaitSeconds", 0.01)
    db_path.parent.mkdir()
    connection = sqlite3.connect(db_path, isolation_level=None)
    connection.execute("BEGIN EXCLUSIVE")
    with pytest.raises(StoreLockedError, match="locked by another process"):
        CInfoCache(db_path)
    connection.close()


def test_foreign_database_is_refused(db_path: Path) -> None:
    db_path.parent.mkdir()
    connection = sqlite3.connect(db_path)
    connection.execute("CREATE TABLE mails(x)")
    connection.commit()
    connection.close()
    with pytest.raises(ForeignDatabaseError):
        CInfoCache(db_path)


# --- damage


def test_damaged_database_is_rebuilt_at_the_start(
    db_path: Path, caplog: pytest.LogCaptureFixture, clock: Any, main_loop: SteppedMainLoop
) -> None:
    db_path.parent.mkdir()
    db_path.write_bytes(b"garbage" * 1000)
    with caplog.at_level(logging.WARNING, "loom.store"):
        cache = CInfoCache(db_path)
    assert len(cache.fMessages) == 1
    assert "set aside as info.sqlite3.damaged-1" in cache.fMessages[0]
    assert cache.fMessages[0] in caplog.text
    loc = locations(1)[0]
    cache.AddFile(loc, record_of(loc))
    cache.Close()
    again = CInfoCache(db_path)
    assert again.fMessages == []
    assert again.GetScopeInfo(loc, "") is not None
    again.destroy()


def damage(db_path: Path) -> None:
    """Overwrite all pages but the first, below the cache's feet."""
    connection = sqlite3.connect(db_path)
    connection.execute("PRAGMA wal_checkpoint(TRUNCATE)")
    connection.close()
    content = bytearray(db_path.read_bytes())
    content[8192:] = b"\xff" * (len(content) - 8192)
    db_path.write_bytes(content)


@pytest.mark.parametrize("question", ["scans", "imports", "scope", "lines"])
def test_damage_that_shows_in_a_question(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, db_path: Path, question: str
) -> None:
    locs = [make_file(f"{n}.py", kSource * 20) for n in range(20)]
    for loc in locs:
        scan(loc)
    cache.Close()
    damage(db_path)
    again = CInfoCache(db_path)
    loc = locs[0]
    ask: dict[str, Callable[[], object]] = {
        "scans": lambda: done(again, loc),
        "imports": lambda: again.GetAllImports([loc]),
        "scope": lambda: again.GetScopeInfo(loc, "main"),
        "lines": lambda: again.GetScopeLines(loc),
    }
    answer = ask[question]()
    assert not answer
    assert len(again.fMessages) == 1
    assert "damaged-1" in again.fMessages[0]
    assert db_path.with_name("info.sqlite3.damaged-1").exists()
    again.AddFile(loc, record_of(loc))
    again.WriteEverything()
    assert len(again.GetScopeLines(loc)) == 1
    again.destroy()


def test_damage_that_shows_in_a_write_loses_nothing_that_waits(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, db_path: Path, rows: Rows
) -> None:
    for number in range(20):
        scan(make_file(f"{number}.py", kSource * 20))
    cache.Close()
    damage(db_path)
    again = CInfoCache(db_path)
    locs = locations(5)
    for loc in locs:
        again.AddFile(loc, record_of(loc, 300_000))
    again.Trim()
    again.WriteEverything()
    assert "damaged-1" in again.fMessages[0]
    assert rows("SELECT url FROM files ORDER BY url") == [(loc.fUrl,) for loc in locs]
    again.destroy()
    assert rows("PRAGMA integrity_check") == [("ok",)]


def test_other_failure_of_a_question_is_a_clear_error(
    cache: CInfoCache, monkeypatch: pytest.MonkeyPatch
) -> None:
    def fail(*args: object) -> None:
        raise sqlite3.OperationalError("disk I/O error")

    monkeypatch.setattr(cache._fLookup, "states", fail)
    with pytest.raises(StoreError, match=r"info\.sqlite3 can't be used: disk I/O error"):
        cache.GetScansDoneForMultipleFiles({locations(1)[0]: 1.0})


# --- unsaved text


def test_unsaved_text_is_scanned_and_never_taken_for_the_file(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, buffers: Any
) -> None:
    class Buffer:
        modified = True

        def IsModified(self) -> bool:
            return self.modified

        def GetText(self) -> str:
            return "unsaved = 'ä \ud800'\n"

    loc = make_file("a.py", "saved = 1\n")
    buffers.buffers[loc] = buffer = Buffer()
    assert scan(loc) is scopescanner.kFinishedScanning
    info = cache.GetScopeInfo(loc, "")
    assert info is not None and info.type_equivs.keys() == {"unsaved"}
    assert done(cache, loc) == {}
    assert cache.GetScansDoneForMultipleFiles({loc: -2}) == {}
    buffer.modified = False
    scan(loc)
    info = cache.GetScopeInfo(loc, "")
    assert info is not None and info.type_equivs.keys() == {"saved"}
    assert done(cache, loc) == {loc: " primary "}
