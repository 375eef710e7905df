"""The whole-file scanner: its states, its slices, and how a file can fail."""

import os
import sysconfig
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
from cache_samples import kSource
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation

from loom._pyscan import SourceScanner
from loom.store import queries
from loom.store.database import open_read_only
from pysource import scopescanner
from pysource.scopeinfo import CInfoCache
from pysource.scopescanner import (
    CScanner,
    ScopesOfLines,
    kFinishedScanning,
    kReadyToScan,
    kScanAbandoned,
    kTimedOut,
    kWaitingForData,
)

MakeFile = Callable[..., CLocalFileLocation]
Scan = Callable[..., Any]
Rows = Callable[..., list[tuple[Any, ...]]]


def file_row(rows: Rows, loc: CLocalFileLocation) -> tuple[Any, ...]:
    (row,) = rows("SELECT scans, error, error_lineno, size FROM files WHERE url = ?", loc.fUrl)
    return row


# --- states


def test_states_are_five_distinct_objects_that_show_their_names() -> None:
    names = ["kReadyToScan", "kWaitingForData", "kFinishedScanning", "kTimedOut", "kScanAbandoned"]
    states = [getattr(scopescanner, name) for name in names]
    assert [repr(state) for state in states] == names
    for state in states:
        assert [other for other in states if other == state] == [state]
        assert not isinstance(state, int)


def test_scanner_is_destroyable_and_declares_its_signal(
    cache: CInfoCache, make_file: MakeFile, new_scanner: Scan
) -> None:
    scanner = new_scanner(make_file("a.py"))
    assert isinstance(scanner, CScanner)
    assert isinstance(scanner, CDestroyable)
    calls: list[tuple[object, ...]] = []
    scanner.disconnect(scanner.connect("scan-state-changed", lambda *args: calls.append(args)))
    connection = scanner.connect("scan-state-changed", lambda *args: calls.append(args))
    scanner.emit("scan-state-changed", scanner)
    assert calls == [(scanner,)]
    assert connection is not None
    assert scanner.fState is kReadyToScan


# --- finished


def test_good_file_is_finished_in_one_slice(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, rows: Rows
) -> None:
    loc = make_file("a.py", kSource)
    incomplete = {"left.from.before"}
    assert scan(loc, incomplete) is kFinishedScanning
    assert incomplete == set()
    cache.WriteEverything()
    assert file_row(rows, loc) == (" primary ", None, 0, len(kSource))
    assert rows("SELECT line_count, definition_count FROM files")[0][0] == 6


def test_empty_file_is_finished(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, rows: Rows
) -> None:
    loc = make_file("a.py", "")
    assert scan(loc) is kFinishedScanning
    cache.WriteEverything()
    assert file_row(rows, loc) == (" primary ", None, 0, 0)
    info = cache.GetScopeInfo(loc, "")
    assert info is not None and info.type_equivs == {}


def test_definitions_are_found_by_name(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, db_path: Path
) -> None:
    loc = make_file("a.py", kSource)
    scan(loc)
    cache.WriteEverything()
    reader = open_read_only(db_path)
    assert [(d.url, d.qualified_name, d.lineno) for d in queries.find_name(reader, "walk")] == [
        (loc.fUrl, "Walker.walk", 3)
    ]
    reader.close()


def test_scan_that_is_over_stays_so(
    cache: CInfoCache, make_file: MakeFile, new_scanner: Scan, clock: Any
) -> None:
    stored: list[object] = []
    cache.connect("file-stored", lambda *args: stored.append(args))
    for content, state in ((kSource, kFinishedScanning), (b"\0", kScanAbandoned)):
        scanner = new_scanner(make_file("a.py", content))
        assert scanner.Scan(clock.now + 1_000.0) is state
        assert scanner.Scan(clock.now + 1_000.0) is state
        assert scanner.fState is state
    assert len(stored) == 2


def test_destroyed_scanner_scans_no_more(
    cache: CInfoCache, make_file: MakeFile, new_scanner: Scan, clock: Any
) -> None:
    scanner = new_scanner(make_file("a.py", kSource))
    assert scanner.Scan(clock.now) is kTimedOut
    scanner.destroy()
    scanner.destroy()
    with pytest.raises(RuntimeError, match="was destroyed"):
        scanner.Scan(clock.now)


def test_scanner_that_is_destroyed_while_it_reads_closes_its_file(
    cache: CInfoCache, make_file: MakeFile, new_scanner: Scan, clock: Any
) -> None:
    loc = make_file("a.py", b"#" * (5 * 1024 * 1024))
    before = len(os.listdir("/proc/self/fd"))
    scanner = new_scanner(loc)
    assert scanner.Scan(clock.now) is kTimedOut
    assert len(os.listdir("/proc/self/fd")) == before + 1
    scanner.destroy()
    assert len(os.listdir("/proc/self/fd")) == before


# --- slices


def test_each_call_does_a_step_however_late_it_is(
    cache: CInfoCache, make_file: MakeFile, new_scanner: Scan, clock: Any
) -> None:
    scanner = new_scanner(make_file("a.py", kSource * 5_000))
    states: list[object] = []
    while not states or states[-1] is kTimedOut:
        states.append(scanner.Scan(clock.now - 100.0))
        assert len(states) < 1_000
    assert len(states) > 10
    assert states[-1] is kFinishedScanning
    assert kReadyToScan not in states and kWaitingForData not in states


@pytest.mark.parametrize("step_bytes", [1, 7, 100, 64 * 1024])
@pytest.mark.parametrize("looks", [1, 3, 1_000_000])
def test_result_is_the_same_whatever_the_slices(
    cache: CInfoCache,
    make_file: MakeFile,
    new_scanner: Scan,
    clock: Any,
    step_bytes: int,
    looks: int,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    stored: list[Any] = []
    cache.connect("file-stored", lambda cache, loc, record: stored.append(record))
    source = kSource * 10 + "def broken(:\n    inside = 1\n" + kSource
    loc = make_file("a.py", source)
    incomplete: set[str] = set()
    assert new_scanner(loc, incomplete).Scan(clock.now + 1_000.0) is kFinishedScanning
    cache.ForgetFile(loc)
    monkeypatch.setattr(scopescanner.wholefile, "_kStepBytes", step_bytes)
    monkeypatch.setattr(scopescanner.wholefile, "_kItemsPerStep", 3)
    clock.per_look = 1.0
    scanner = new_scanner(loc, incomplete_again := set[str]())
    while scanner.Scan(clock.now + looks + 0.5) is kTimedOut:
        pass
    assert scanner.fState is kFinishedScanning
    assert stored[0] == stored[1]
    assert incomplete == incomplete_again


def test_slice_end_is_told_to_the_cache(
    cache: CInfoCache, make_file: MakeFile, new_scanner: Scan, clock: Any
) -> None:
    new_scanner(make_file("a.py", kSource)).Scan(clock.now + 0.05)
    assert cache._fSliceEnd == clock.now + 0.05


# --- files with errors


def test_file_with_a_syntax_error_is_finished_and_says_where(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, rows: Rows
) -> None:
    loc = make_file("a.py", "good = 1\ndef f():\n    x = '2\n")
    assert scan(loc) is kFinishedScanning
    cache.WriteEverything()
    scans, error, lineno, _ = file_row(rows, loc)
    assert scans == " primary "
    assert error
    assert lineno == 3


def test_incomplete_scopes_are_told_and_replaced_by_the_next_scan(
    cache: CInfoCache, make_file: MakeFile, scan: Scan
) -> None:
    loc = make_file("a.py", "good = 1\ndef f():\n    x = '2\ndef g():\n    y = 2\n")
    incomplete: set[str] = set()
    scan(loc, incomplete)
    assert incomplete == {"f"}
    make_file("a.py", kSource)
    scan(loc, incomplete)
    assert incomplete == set()


def test_warning_of_the_encoding_is_stored_with_the_result(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, rows: Rows
) -> None:
    loc = make_file("a.py", b"x = 1\nname = '\xe4'\n")
    assert scan(loc) is kFinishedScanning
    cache.WriteEverything()
    assert file_row(rows, loc)[:3] == (
        " primary ",
        "not valid utf-8 in line 2; bytes were replaced",
        2,
    )
    assert cache.GetScopeInfo(loc, "").type_equivs.keys() == {"x", "name"}  # type: ignore[union-attr]


def test_several_errors_are_counted(
    cache: CInfoCache,
    make_file: MakeFile,
    scan: Scan,
    rows: Rows,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    class Scanner:
        def __init__(self, source: bytes) -> None:
            self.real = SourceScanner(source)

        def __getattr__(self, name: str) -> object:
            return getattr(self.real, name)

        def errors(self) -> list[tuple[int, str]]:
            return [(4, "later"), (2, "sooner" * 100), (9, "last")]

    monkeypatch.setattr(scopescanner.wholefile, "SourceScanner", Scanner)
    loc = make_file("a.py", kSource)
    incomplete: set[str] = set()
    scan(loc, incomplete)
    assert incomplete == {"", "Walker", "Walker.walk"}
    cache.WriteEverything()
    _, error, lineno, _ = file_row(rows, loc)
    assert lineno == 2
    assert error.startswith("soonersooner")
    assert len(error) <= 300


def test_scopes_of_lines() -> None:
    scopes = [
        ("", -1, ord("O"), 1, 100, b""),
        ("C", 0, ord("C"), 10, 50, b""),
        ("C.f", 1, ord("M"), 12, 20, b""),
        ("C.f.g", 2, ord("F"), 14, 15, b""),
        ("C.h", 1, ord("M"), 30, 40, b""),
        ("k", 0, ord("F"), 60, 70, b""),
    ]

    def names(*lines: int) -> set[str]:
        return {scopes[index][0] for index in ScopesOfLines(scopes, lines)}

    assert names() == set()
    assert names(1) == names(9) == names(55) == names(100) == names(101) == names(0) == {""}
    assert names(10) == names(21) == names(50) == {"C"}
    assert names(14) == names(15) == {"C.f.g"}
    assert names(16) == {"C.f"}
    assert names(65, 35, 14, 14, 5) == {"k", "C.h", "C.f.g", ""}
    for line in range(1, 101):
        innermost = [s for s in scopes if s[3] <= line <= s[4]][-1]
        assert names(line) == {innermost[0]}


# --- files that can't be scanned


@pytest.mark.parametrize(
    ("content", "reason"),
    [
        (b"x = 1\n\0", "not text: null byte at offset 6"),
        (bytes(range(1, 256)) * 50, "not text: too many control characters"),
        (os.urandom(300_000) + b"\0", "not text: null byte"),
    ],
)
def test_file_that_is_no_text_is_abandoned_for_as_long_as_it_stays(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, rows: Rows, content: bytes, reason: str
) -> None:
    loc = make_file("a.py", content)
    incomplete = {"left"}
    assert scan(loc, incomplete) is kScanAbandoned
    assert incomplete == {"left"}
    cache.WriteEverything()
    scans, error, lineno, size = file_row(rows, loc)
    assert error.startswith(reason)
    assert (lineno, size) == (0, len(content))
    modtimes: dict[CLocation, float] = {loc: cache.GetDiskMTime(loc)}
    assert cache.GetScansDoneForMultipleFiles(modtimes) == {loc: " primary "}
    assert cache.GetScopeInfo(loc, "") is None
    assert cache.GetAllImports([loc]) == []


def test_100_mb_of_garbage(cache: CInfoCache, scan: Scan, rows: Rows, tmp_path: Path) -> None:
    with open(tmp_path / "a.py", "wb") as file:
        file.truncate(100 * 1024 * 1024)
    loc = CLocalFileLocation(tmp_path / "a.py")
    assert scan(loc) is kScanAbandoned
    cache.WriteEverything()
    assert file_row(rows, loc)[1].startswith("too big: 104,857,600 bytes")


@pytest.mark.parametrize("what", ["scopes", "definitions"])
def test_too_many_scopes_or_definitions(
    cache: CInfoCache,
    make_file: MakeFile,
    scan: Scan,
    rows: Rows,
    what: str,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr(scopescanner.wholefile, "_kMaxItems", 50)
    monkeypatch.setattr(scopescanner.wholefile, "_kItemsPerStep", 7)
    line = "def f(): pass\n" if what == "scopes" else "n{} = 1\n"
    good = make_file("a.py", "".join(line.format(n) for n in range(45)))
    bad = make_file("b.py", "".join(line.format(n) for n in range(60)))
    assert scan(good) is kFinishedScanning
    assert scan(bad) is kScanAbandoned
    cache.WriteEverything()
    assert file_row(rows, good)[1] is None
    assert file_row(rows, bad)[1] == f"too many {what}: more than 50"


def test_unreadable_file_is_tried_again(
    cache: CInfoCache,
    make_file: MakeFile,
    scan: Scan,
    rows: Rows,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    def refuse(path: str, flags: int) -> int:
        raise PermissionError(13, "Permission denied", path)

    loc = make_file("a.py", kSource)
    with monkeypatch.context() as patch:
        patch.setattr("loom.sourcetext.os.open", refuse)
        assert scan(loc) is kScanAbandoned
    cache.WriteEverything()
    assert file_row(rows, loc)[:2] == ("", "can't be read: Permission denied")
    modtimes: dict[CLocation, float] = {loc: cache.GetDiskMTime(loc)}
    assert cache.GetScansDoneForMultipleFiles(modtimes) == {}
    assert scan(loc) is kFinishedScanning
    cache.WriteEverything()
    assert file_row(rows, loc)[:2] == (" primary ", None)


def test_file_that_vanished_before_it_was_read(
    cache: CInfoCache, make_file: MakeFile, new_scanner: Scan, rows: Rows, clock: Any
) -> None:
    loc = make_file("a.py", kSource)
    scanner = new_scanner(loc)
    os.unlink(loc.path)
    assert scanner.fFileDoesntExist is False
    assert scanner.Scan(clock.now + 1_000.0) is kScanAbandoned
    assert scanner.fFileDoesntExist is True
    cache.WriteEverything()
    assert file_row(rows, loc)[:2] == ("", "can't be read: No such file or directory")
    assert cache.GetDiskMTime(loc) == 0.0
    cache.WriteEverything()
    assert rows("SELECT * FROM files") == []


def test_file_that_vanishes_in_mid_scan_is_scanned_to_its_end(
    cache: CInfoCache, make_file: MakeFile, new_scanner: Scan, clock: Any
) -> None:
    loc = make_file("a.py", kSource * 50_000)
    scanner = new_scanner(loc)
    assert scanner.Scan(clock.now) is kTimedOut
    os.unlink(loc.path)
    assert scanner.Scan(clock.now + 1_000.0) is kFinishedScanning
    assert scanner.fFileDoesntExist is False


@pytest.mark.parametrize("kind", ["pipe", "folder"])
def test_thing_that_is_no_file(
    cache: CInfoCache, tmp_path: Path, scan: Scan, rows: Rows, kind: str
) -> None:
    if kind == "pipe":
        os.mkfifo(tmp_path / "a.py")
    else:
        (tmp_path / "a.py").mkdir()
    loc = CLocalFileLocation(tmp_path / "a.py")
    assert scan(loc) is kScanAbandoned
    cache.WriteEverything()
    assert file_row(rows, loc)[1] == f"not a regular file, but a {kind}"


def test_fault_of_the_scanner_itself_ends_this_scan_only(
    cache: CInfoCache,
    make_file: MakeFile,
    scan: Scan,
    rows: Rows,
    monkeypatch: pytest.MonkeyPatch,
    caplog: pytest.LogCaptureFixture,
) -> None:
    class Scanner:
        def __init__(self, source: bytes) -> None:
            pass

        def scan(self, max_bytes: int) -> bool:
            raise ValueError("a fault of ours")

    loc = make_file("a.py", kSource)
    with monkeypatch.context() as patch:
        patch.setattr(scopescanner.wholefile, "SourceScanner", Scanner)
        assert scan(loc) is kScanAbandoned
    assert "a fault of ours" in caplog.text
    cache.WriteEverything()
    assert file_row(rows, loc)[:2] == (" primary ", "scanner failed: ValueError: a fault of ours")


def test_failure_to_store_reaches_the_caller(
    cache: CInfoCache, make_file: MakeFile, new_scanner: Scan, clock: Any
) -> None:
    def fail(*args: object) -> None:
        raise LookupError("a listener's fault")

    cache.connect("file-stored", fail)
    with pytest.raises(LookupError, match="a listener's fault"):
        new_scanner(make_file("a.py", kSource)).Scan(clock.now + 1_000.0)


def test_bad_files_between_good_ones(
    cache: CInfoCache, make_file: MakeFile, scan: Scan, rows: Rows
) -> None:
    contents = [kSource, b"\0", b"\xff\xfe", kSource, "x = (", b"# coding: nope\n", kSource, ""]
    for number, content in enumerate(contents):
        scan(make_file(f"{number}.py", content))
    cache.WriteEverything()
    assert rows("SELECT count(*) FROM files WHERE error IS NULL") == [(4,)]
    assert rows("SELECT count(*) FROM files WHERE scans = ' primary '") == [(8,)]


def test_real_files_of_the_standard_library(
    cache: CInfoCache, scan: Scan, db_path: Path, rows: Rows
) -> None:
    folder = Path(sysconfig.get_path("stdlib"))
    locs = [CLocalFileLocation(path) for path in sorted(folder.glob("a*.py"))]
    assert len(locs) >= 3
    for loc in locs:
        assert scan(loc) is kFinishedScanning
        cache.Trim()
    cache.WriteEverything()
    reader = open_read_only(db_path)
    found = queries.find_name(reader, "ArgumentParser.parse_args")
    assert [queries.path_of(definition.url) for definition in found] == [
        str(folder / "argparse.py")
    ]
    assert queries.stats(reader).errors == 0
    reader.close()
