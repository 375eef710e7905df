"""Which stored results hold: times and sizes, times that can't be trusted, digests, versions."""

import hashlib
import os
import sqlite3
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
from cache.textcache import CTextCache
from cache_samples import done, kSource
from loombase.location import CLocalFileLocation

from loom import freshness
from loom._pyscan import unpack_info
from loom.store import schema
from loom.store.records import FileRecord, FileTimes
from pysource.scopeinfo import CInfoCache, CScopeInfo, CScopeInfoKey
from pysource.scopescanner import kFinishedScanning, kScanAbandoned

MakeFile = Callable[..., CLocalFileLocation]
Scan = Callable[..., Any]
Rows = Callable[..., list[tuple[Any, ...]]]

kSecond = 1_000_000_000
kNow = 1_700_000_000 * kSecond


class Wall:
    """The clock of the file system."""

    def __init__(self) -> None:
        self.now = kNow

    def __call__(self) -> int:
        return self.now


@pytest.fixture
def wall(monkeypatch: pytest.MonkeyPatch) -> Wall:
    result = Wall()
    monkeypatch.setattr(freshness, "now_ns", result)
    return result


class Seen:
    """What became of files: those that were parsed, and those that were read for nothing."""

    def __init__(self, cache: CInfoCache) -> None:
        self.parsed: list[str] = []
        self.reread: list[str] = []
        cache.connect("file-stored", lambda _cache, loc, _record: self.parsed.append(loc.path))
        cache.connect("file-reread", lambda _cache, loc: self.reread.append(loc.path))

    def take(self) -> tuple[int, int]:
        """How many since the last call."""
        counts = len(self.parsed), len(self.reread)
        self.parsed.clear()
        self.reread.clear()
        return counts


@pytest.fixture
def seen(cache: CInfoCache) -> Seen:
    return Seen(cache)


def look(cache: CInfoCache, scan: Scan, loc: CLocalFileLocation) -> bool:
    """As a scan session does with a file: check, scan if need be. True if there was a scan."""
    if done(cache, loc):
        return False
    scan(loc)
    return True


# --- times that can be trusted, and others


@pytest.mark.parametrize(
    ("mtime_ns", "settled"),
    [
        (kNow - 2 * kSecond, True),
        (kNow - 2 * kSecond + 1, False),
        (kNow, False),
        (kNow + 1, False),
        (kNow + 1_000_000 * kSecond, False),
        (0, True),
        (-5 * kSecond, True),
        (-(1 << 63) + 1, True),
        (-(1 << 63), False),
    ],
)
def test_a_time_is_trusted_when_it_is_two_seconds_old(mtime_ns: int, settled: bool) -> None:
    assert freshness.is_settled(mtime_ns, kNow) is settled


@pytest.mark.parametrize("written", [False, True], ids=["waiting", "written"])
def test_a_young_file_is_read_again_until_its_time_can_be_trusted(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, wall: Wall, seen: Seen, written: bool
) -> None:
    loc = make_file("a.py", kSource, kNow - kSecond)
    scan(loc)
    assert seen.take() == (1, 0)
    for later in (0, 1, 2):
        wall.now = kNow + later * kSecond
        if written:
            cache.WriteEverything()
        assert look(cache, scan, loc) is (later < 2)
        assert seen.take() == (0, 1 if later < 2 else 0)


@pytest.mark.parametrize("written", [False, True], ids=["waiting", "written"])
def test_a_change_within_the_tick_of_the_clock_is_found(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, wall: Wall, seen: Seen, written: bool
) -> None:
    """Same size, same time, other content: written twice in one second."""
    loc = make_file("a.py", "before = 1\n", kNow)
    scan(loc)
    if written:
        cache.WriteEverything()
    make_file("a.py", "behind = 1\n", kNow)
    wall.now += 3_600 * kSecond
    assert look(cache, scan, loc)
    assert seen.take() == (2, 0)
    info = cache.GetScopeInfo(loc, "")
    assert info is not None and list(info.type_equivs) == ["behind"]
    assert not look(cache, scan, loc)


def test_a_file_system_that_counts_in_whole_seconds(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, wall: Wall, seen: Seen
) -> None:
    """The clock stands within the second that the file system has told last."""
    wall.now = kNow + 999_999_999
    loc = make_file("a.py", "x = 1\n", kNow)
    scan(loc)
    make_file("a.py", "y = 1\n", kNow)
    assert look(cache, scan, loc)
    make_file("a.py", "y = 2\n", kNow + kSecond)
    wall.now = kNow + 3 * kSecond
    assert look(cache, scan, loc)
    assert seen.take() == (3, 0)
    assert not look(cache, scan, loc)


def test_a_file_from_the_future_is_read_each_time_and_parsed_once(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, wall: Wall, seen: Seen
) -> None:
    loc = make_file("a.py", kSource, kNow + 3_600 * kSecond)
    for _ in range(3):
        assert look(cache, scan, loc)
        cache.WriteEverything()
    assert seen.take() == (1, 2)
    make_file("a.py", kSource.upper(), kNow + 3_600 * kSecond)
    assert look(cache, scan, loc)
    assert seen.take() == (1, 0)


def test_a_clock_that_is_set_back(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, wall: Wall, seen: Seen
) -> None:
    """Files of the old days become files of the future; a change then has an earlier time."""
    loc = make_file("a.py", "x = 1\n", kNow - 10 * kSecond)
    scan(loc)
    cache.WriteEverything()
    wall.now = kNow - 3_600 * kSecond
    assert not look(cache, scan, loc)  # it was trusted when it was read, and nothing has changed
    make_file("a.py", "y = 1\n", wall.now)
    assert look(cache, scan, loc)
    assert seen.take() == (2, 0)
    wall.now += kSecond
    make_file("a.py", "z = 1\n", wall.now - kSecond)
    assert look(cache, scan, loc)
    assert seen.take() == (1, 0)


@pytest.mark.parametrize("mtime_ns", [0, 1, -1, -2 * kSecond, -86_400 * kSecond])
def test_times_around_and_before_the_epoch(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, seen: Seen, mtime_ns: int
) -> None:
    loc = make_file("a.py", kSource, mtime_ns)
    assert cache.GetDiskMTime(loc) not in (0.0, -2.0)
    assert look(cache, scan, loc)
    assert not look(cache, scan, loc)
    cache.WriteEverything()
    assert not look(cache, scan, loc)
    make_file("a.py", kSource + "#", mtime_ns)
    assert look(cache, scan, loc)
    assert seen.take() == (2, 0)


@pytest.mark.parametrize("seconds", [1 << 34, -(1 << 40), 1 << 50])
def test_times_that_the_database_cannot_hold(
    cache: CInfoCache,
    make_file: MakeFile,
    scan: Scan,
    seen: Seen,
    rows: Rows,
    monkeypatch: pytest.MonkeyPatch,
    seconds: int,
) -> None:
    """Later than 2262 or earlier than 1677, which not every file system can hold."""
    loc = make_file("a.py", kSource)

    class Status:
        def __init__(self, status: os.stat_result) -> None:
            self.st_mode, self.st_size = status.st_mode, status.st_size
            self.st_mtime_ns = seconds * kSecond

    stat, fstat = os.stat, os.fstat

    def stat_far(path: Any, **options: Any) -> Any:
        return Status(stat(path)) if path == loc.path else stat(path, **options)

    with monkeypatch.context() as patch:
        patch.setattr(os, "stat", stat_far)
        patch.setattr(os, "fstat", lambda descriptor: Status(fstat(descriptor)))
        for _ in range(3):
            assert look(cache, scan, loc)
            cache.WriteEverything()
    assert seen.take() == (1, 2)
    assert rows("SELECT settled FROM files") == [(0,)]


# --- touched, moved, restored


@pytest.mark.parametrize("written", [False, True], ids=["waiting", "written"])
@pytest.mark.parametrize("mtime_ns", [kNow - 100 * kSecond, kNow - 10_000 * kSecond])
def test_a_touched_file_is_not_parsed(
    cache: CInfoCache,
    make_file: MakeFile,
    scan: Scan,
    seen: Seen,
    rows: Rows,
    written: bool,
    mtime_ns: int,
) -> None:
    """Also one whose time went backwards."""
    loc = make_file("a.py", kSource, kNow - 1_000 * kSecond)
    scan(loc)
    if written:
        cache.WriteEverything()
        before = rows("SELECT * FROM scopes"), rows("SELECT * FROM names")
    os.utime(loc.path, ns=(mtime_ns, mtime_ns))
    assert look(cache, scan, loc)
    assert seen.take() == (1, 1)
    assert done(cache, loc) == {loc: " primary "}
    info = cache.GetScopeInfo(loc, "")
    assert info is not None and info.disk_mtime == mtime_ns / 1e9
    cache.WriteEverything()
    assert done(cache, loc) == {loc: " primary "}
    assert rows("SELECT mtime_ns, settled FROM files") == [(mtime_ns, 1)]
    if written:
        assert (rows("SELECT * FROM scopes"), rows("SELECT * FROM names")) == before


def test_a_touched_file_follows_its_imports_and_wants_its_derived_scan(
    cache: CInfoCache, make_file: MakeFile, scan: Scan
) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    cache.WriteEverything()
    os.utime(loc.path, ns=(kNow, kNow))
    assert scan(loc) is kFinishedScanning  # which the scheduler follows up
    assert cache.GetAllImports([loc]) == [(loc, None, b":ios")]


def test_a_touched_file_that_is_no_source_is_not_looked_into_again(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, seen: Seen, rows: Rows
) -> None:
    loc = make_file("a.py", b"\0")
    assert scan(loc) is kScanAbandoned
    cache.WriteEverything()
    os.utime(loc.path, ns=(kNow, kNow))
    assert look(cache, scan, loc)
    assert seen.take() == (1, 1)
    cache.WriteEverything()
    assert rows("SELECT error FROM files") == [("not text: null byte at offset 0",)]
    assert not look(cache, scan, loc)


def test_scopes_that_were_added_go_with_a_touch(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, rows: Rows
) -> None:
    """They tell the time of what they were made from."""
    loc = make_file("a.py", kSource)
    scan(loc)
    key = CScopeInfoKey(loc, "Walker()", "primary", loc, "Walker()")
    cache.AddScopeInfo(CScopeInfo(key, b"", 1.0, False))
    cache.WriteEverything()
    os.utime(loc.path, ns=(kNow, kNow))
    scan(loc)
    assert cache.GetScopeInfo(loc, "Walker()") is None
    cache.AddScopeInfo(CScopeInfo(key, b"", 2.0, False))
    cache.WriteEverything()
    assert rows("SELECT name, disk_mtime FROM added_scopes") == [("Walker()", 2.0)]


def test_many_touched_files_are_written_in_few_transactions(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, rows: Rows
) -> None:
    locs = [make_file(f"{n}.py", kSource) for n in range(50)]
    for loc in locs:
        scan(loc)
    cache.WriteEverything()
    for loc in locs:
        os.utime(loc.path, ns=(kNow, kNow))
        scan(loc)
    statements: list[str] = []
    cache._fConnection.set_trace_callback(statements.append)
    cache.WriteEverything()
    assert statements.count("COMMIT") <= 2
    assert not any("INSERT" in text for text in statements)
    assert rows("SELECT DISTINCT mtime_ns FROM files") == [(kNow,)]
    assert cache._fWriter.pending_bytes == 0


def test_a_time_is_not_noted_for_what_another_process_has_written(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, db_path: Path, rows: Rows
) -> None:
    """This process read the old bytes; meanwhile they changed and another one scanned them."""
    loc = make_file("a.py", "old = 1\n")
    scan(loc)
    cache.WriteEverything()
    os.utime(loc.path, ns=(kNow, kNow))
    scan(loc)
    other = CInfoCache(db_path)
    other.AddFile(
        loc,
        FileRecord(loc.fUrl, 7, 8, " primary ", b"other", settled=True, scanner=1),
    )
    other.destroy()
    cache.WriteEverything()
    assert rows("SELECT mtime_ns, size, digest FROM files") == [(7, 8, b"other")]


def test_a_moved_file_is_scanned_in_its_new_place(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, seen: Seen, rows: Rows
) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    moved = CLocalFileLocation(loc.path.replace("a.py", "b.py"))
    os.rename(loc.path, moved.path)
    assert look(cache, scan, moved)
    assert done(cache, loc) == {}
    cache.WriteEverything()
    assert rows("SELECT url FROM files") == [(moved.fUrl,)]


def test_a_file_that_is_replaced_while_it_is_read_is_found_changed(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, monkeypatch: pytest.MonkeyPatch
) -> None:
    loc = make_file("a.py", "old = 1\n", kNow - 100 * kSecond)
    read = os.read

    def read_and_replace(descriptor: int, count: int) -> bytes:
        other = make_file("b.py", "new = 1\n", kNow - 50 * kSecond)
        os.rename(other.path, loc.path)
        return read(descriptor, count)

    with monkeypatch.context() as patch:
        patch.setattr(os, "read", read_and_replace)
        scan(loc)
    info = cache.GetScopeInfo(loc, "")
    assert info is not None and list(info.type_equivs) == ["old"]
    assert look(cache, scan, loc)
    info = cache.GetScopeInfo(loc, "")
    assert info is not None and list(info.type_equivs) == ["new"]


def test_a_file_that_is_written_while_it_is_read_is_found_changed(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, monkeypatch: pytest.MonkeyPatch
) -> None:
    loc = make_file("a.py", "old = 1\n")
    read = os.read

    def read_and_write(descriptor: int, count: int) -> bytes:
        data = read(descriptor, count)
        Path(loc.path).write_text("new = 1\n")  # with the time of the real clock
        return data

    with monkeypatch.context() as patch:
        patch.setattr(os, "read", read_and_write)
        scan(loc)
    assert look(cache, scan, loc)
    info = cache.GetScopeInfo(loc, "")
    assert info is not None and list(info.type_equivs) == ["new"]


# --- what stands in the place of a file


def test_a_folder_in_place_of_a_file_and_back(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, seen: Seen
) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    os.unlink(loc.path)
    os.mkdir(loc.path)
    os.utime(loc.path, ns=(kNow, kNow))
    assert look(cache, scan, loc)
    assert cache.GetScopeInfo(loc, "main") is None
    os.rmdir(loc.path)
    make_file("a.py", kSource)
    assert look(cache, scan, loc)
    assert cache.GetScopeInfo(loc, "main") is not None


def test_a_file_in_place_of_a_folder(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, tmp_path: Path, rows: Rows
) -> None:
    loc = make_file("pkg/a.py", kSource)
    scan(loc)
    cache.WriteEverything()
    os.unlink(loc.path)
    (tmp_path / "pkg").rmdir()
    (tmp_path / "pkg").write_text("")
    assert done(cache, loc) == {}
    cache.WriteEverything()
    assert rows("SELECT * FROM files") == []


def test_a_link_counts_as_what_it_leads_to(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, tmp_path: Path, seen: Seen
) -> None:
    first = make_file("first.txt", "one = 1\n", kNow - 100 * kSecond)
    second = make_file("second.txt", "two = 1\n", kNow - 200 * kSecond)
    link = CLocalFileLocation(tmp_path / "a.py")
    os.symlink(first.path, link.path)
    assert look(cache, scan, link)
    assert not look(cache, scan, link)
    os.unlink(link.path)
    os.symlink(second.path, link.path)
    assert look(cache, scan, link)
    info = cache.GetScopeInfo(link, "")
    assert info is not None and list(info.type_equivs) == ["two"]
    os.unlink(second.path)
    assert cache.GetDiskMTime(link) == 0.0
    assert cache.GetScopeInfo(link, "") is None
    assert seen.take() == (2, 0)


def test_a_file_that_becomes_readable_is_scanned(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A change of permissions doesn't show in the time."""
    loc = make_file("a.py", kSource)

    def refuse(path: str, flags: int) -> int:
        raise PermissionError(13, "Permission denied")

    with monkeypatch.context() as patch:
        patch.setattr("loom.sourcetext.os.open", refuse)
        assert look(cache, scan, loc)
        cache.WriteEverything()
        assert look(cache, scan, loc)
        cache.WriteEverything()
    assert look(cache, scan, loc)
    assert cache.GetScopeInfo(loc, "main") is not None
    assert not look(cache, scan, loc)


# --- unsaved text


def modified_buffer(loc: CLocalFileLocation, text: str) -> CTextCache:
    buffer = CTextCache(loc, "")
    buffer.SetText(text)
    return buffer


@pytest.mark.parametrize("written", [False, True], ids=["waiting", "written"])
@pytest.mark.parametrize("mtime_ns", [kNow, -1])
def test_unsaved_text_that_is_given_up_leaves_the_file(
    cache: CInfoCache,
    make_file: MakeFile,
    scan: Scan,
    buffers: Any,
    written: bool,
    mtime_ns: int,
) -> None:
    """Also if the text is that of the file, and the file has the time that stands for none."""
    loc = make_file("a.py", "saved = 1\n", mtime_ns)
    scan(loc)
    for text in ("other = 1\n", "saved = 1\n"):
        buffers.buffers[loc] = modified_buffer(loc, text)
        scan(loc)
        if written:
            cache.WriteEverything()
        del buffers.buffers[loc]
        assert look(cache, scan, loc)
        info = cache.GetScopeInfo(loc, "")
        assert info is not None and list(info.type_equivs) == ["saved"]
        assert not look(cache, scan, loc)


# --- versions


@pytest.mark.parametrize("written", [False, True], ids=["waiting", "written"])
def test_results_of_another_version_of_the_scanner_do_not_hold(
    cache: CInfoCache,
    make_file: MakeFile,
    scan: Scan,
    seen: Seen,
    monkeypatch: pytest.MonkeyPatch,
    written: bool,
) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    if written:
        cache.WriteEverything()
    for version in (freshness.kScannerVersion + 1, freshness.kScannerVersion):  # and back
        monkeypatch.setattr(freshness, "kScannerVersion", version)
        assert look(cache, scan, loc)
        assert seen.take()[0] >= 1
        if written:
            cache.WriteEverything()
        assert not look(cache, scan, loc)


def test_a_database_from_before_there_were_versions_is_scanned_again(
    db_path: Path, make_file: MakeFile, monkeypatch: pytest.MonkeyPatch
) -> None:
    loc = make_file("a.py", kSource)
    status = os.stat(loc.path)
    db_path.parent.mkdir()
    connection = sqlite3.connect(db_path, isolation_level=None)
    schema.migrate(connection, schema.kMigrations[:1])
    connection.execute(
        "INSERT INTO files VALUES(1, ?, ?, ?, x'00', ' primary ', NULL, 0, 1, 1, x'', 1)",
        (loc.fUrl, status.st_mtime_ns, status.st_size),
    )
    connection.close()
    cache = CInfoCache(db_path)
    assert done(cache, loc) == {}
    times = FileTimes(status.st_mtime_ns, status.st_size, True)
    assert not cache.RefreshFile(loc, "primary", b"\0", times)
    cache.destroy()


# Something of all that the scanner finds, and of what it makes of errors.
_kEverything = """\
from __future__ import annotations
import os.path as p, sys
from . import sibling as other
from .. a.b import *
type Pair[T] = tuple[T, T]
first, (second, *rest) = p.join("a", 'b'), [1, 2]
number: int = 1
number += 2

@decorator(1)
class Base[T: int](sys.Base, metaclass=Meta):
    field: "list[T]" = []
    __slots__ = ("x",)

    def __init__(self, /, a, b: int = 1, *args, c=2, **kwargs) -> None:
        self.x = a
        self.y: str = b
        super().__init__()

    @property
    def value(self): return self.x

    @staticmethod
    async def make(*, n):
        async with n as got:
            yield got
        return [i for i in range(3) if (last := i)]

def outer():
    global number
    def inner(z=lambda q: q):
        nonlocal_ = z
        return inner
    try:
        pass
    except (ValueError, TypeError) as error:
        raise
    match inner:
        case {"k": [v, *w], **u}:
            pass
    for i, j in enumerate(f"{inner!r}"):
        del i
    return inner

class Base: again = 1
def broken(a, (b:
    x = "never closed
def behind(): pass
"""

# The digest of all this for the present version of the scanner.
_kFound = {2: "8242c3cac636f26b"}


def test_a_change_of_what_is_found_is_a_new_version(
    cache: CInfoCache, make_file: MakeFile, scan: Scan
) -> None:
    """Who changes it on purpose raises `kScannerVersion` and records the new digest above."""
    stored: list[Any] = []
    cache.connect("file-stored", lambda _cache, _loc, record: stored.append(record))
    scan(make_file("a.py", _kEverything))
    [record] = stored
    found = (
        [row[:5] for row in record.scopes],
        [unpack_info(row[5]) for row in record.scopes],
        record.imports,
        record.definitions,
        record.names,
        (record.error, record.error_lineno, record.line_count, record.definition_count),
    )
    digest = hashlib.blake2b(repr(found).encode(), digest_size=8).hexdigest()
    assert {freshness.kScannerVersion: digest} == _kFound


def test_file_times_are_refreshed_only_for_a_scan_that_was_done(
    cache: CInfoCache, make_file: MakeFile, scan: Scan
) -> None:
    loc = make_file("a.py", kSource)
    digest = hashlib.blake2b(kSource.encode(), digest_size=16).digest()
    times = FileTimes(1, 2, True)
    assert not cache.RefreshFile(loc, "primary", digest, times)
    scan(loc)
    assert not cache.RefreshFile(loc, "derived", digest, times)
    assert not cache.RefreshFile(loc, "primary", b"", times)
    assert not cache.RefreshFile(loc, "primary", b"x" * 16, times)
    assert cache.RefreshFile(loc, "primary", digest, times)


def test_the_clock_is_that_of_the_system() -> None:
    assert abs(freshness.now_ns() - time.time_ns()) < 3_600 * kSecond
