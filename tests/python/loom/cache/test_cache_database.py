"""The info cache and its database: writing, reopening, two at a time, locks, damage."""

import logging
import os
import sqlite3
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
from cache.textcache import CTextCache
from cache_samples import done, kSource, locations, record_of
from loombase.location import CLocalFileLocation

from loom.mainloop.stepped import SteppedMainLoop
from loom.store import database, queries
from loom.store.errors import ForeignDatabaseError, StoreError, StoreLockedError
from pysource import scopeinfo, scopescanner
from pysource.scopeinfo import CInfoCache

MakeFile = Callable[..., CLocalFileLocation]
Scan = Callable[..., Any]
Rows = Callable[..., list[tuple[Any, ...]]]

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
        infos = [
            of.GetScopeInfo(loc, name) for loc in locs for name in ("", "Walker", "main", "no")
        ]
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
    cache: CInfoCache,
    holder: sqlite3.Connection,
    clock: Any,
    rows: Rows,
    caplog: pytest.LogCaptureFixture,
) -> None:
    for loc in locations(20):
        cache.AddFile(loc, record_of(loc, 100_000))
    caplog.set_level("INFO")
    cache.Trim()
    assert "locked by another process\n" in caplog.text
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
    cache: CInfoCache,
    holder: sqlite3.Connection,
    rows: Rows,
    monkeypatch: pytest.MonkeyPatch,
    main_loop: SteppedMainLoop,
) -> None:
    monkeypatch.setattr(scopeinfo, "kLockWaitSeconds", 0.01)
    loc = locations(1)[0]
    cache.AddFile(loc, record_of(loc))
    with pytest.raises(
        StoreLockedError, match=r"info\.sqlite3 is locked by another process \(waited 0\.01 s\)"
    ):
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
    loc = make_file("a.py", "saved = 1\n")
    buffers.buffers[loc] = buffer = CTextCache(loc, "saved = 1\n")
    buffer.SetText("unsaved = 'ä \ud800'\n")
    assert scan(loc) is scopescanner.kFinishedScanning
    info = cache.GetScopeInfo(loc, "")
    assert info is not None and info.type_equivs.keys() == {"unsaved"}
    assert done(cache, loc) == {}
    assert cache.GetScansDoneForMultipleFiles({loc: -2}) == {}
    buffer.MarkSaved(1.0)
    scan(loc)
    info = cache.GetScopeInfo(loc, "")
    assert info is not None and info.type_equivs.keys() == {"saved"}
    assert done(cache, loc) == {loc: " primary "}
