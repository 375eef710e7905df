"""The scanner of one scope, over files: what it finds and stores, and how it can fail."""

import os
from collections.abc import Callable
from typing import Any

import pytest
from loombase.location import CLocalFileLocation
from scope_host import Host, Scans, line_of
from scope_samples import kSample

from pysource import scopescanner
from pysource.logicalline import kClassDef, kFunctionDef
from pysource.scopescanner import kFinishedScanning, kScanAbandoned, kTimedOut

MakeFile = Callable[..., CLocalFileLocation]

kScopes = (
    "first first.nested Shape Shape.__init__ Shape.make Shape.size Shape.size#2 Shape.Corner"
    " Shape.Corner.where chosen chosen#2"
).split()


def stored(host: Host, loc: CLocalFileLocation) -> dict[str, tuple[bytes, bool]]:
    """What is stored of each scope of the sample: its information, and whether it is absent."""
    result = {}
    for name in ("", *kScopes):
        info = host.cache.GetScopeInfo(loc, name)
        if info is not None:
            result[name] = info.packed, info.does_not_exist
    return result


@pytest.fixture
def sample(host: Host, make_file: MakeFile) -> CLocalFileLocation:
    """The sample, scanned as a whole."""
    loc = make_file("sample.py", kSample)
    host.scan_file(loc)
    return loc


# --- what is found


@pytest.mark.parametrize("name", ["", *kScopes])
def test_cold_scan_stores_what_a_whole_scan_would(
    host: Host, sample: CLocalFileLocation, make_file: MakeFile, name: str
) -> None:
    whole = stored(host, sample)
    cold = make_file("cold.py", kSample)
    scanner, changed = host.scan_now(cold, name)
    assert (scanner.fState, changed) == (kFinishedScanning, True)
    expected = {name}
    if name:
        expected |= {each for each in kScopes if each.startswith(f"{name}.")}
    assert stored(host, cold) == {each: whole[each] for each in expected}
    assert scanner.fInfo.packed == whole[name][0]
    assert (scanner.fInfo.key.loc, scanner.fInfo.key.scope_name) == (cold, name)


@pytest.mark.parametrize("name", kScopes)
def test_scan_of_what_is_stored_already_changes_nothing_and_walks_the_scope_alone(
    host: Host, sample: CLocalFileLocation, scans: Scans, name: str
) -> None:
    scanner, changed = host.scan_now(sample, name)
    assert not changed
    assert scanner.fInfo.packed == stored(host, sample)[name][0]
    assert scans.whole == []
    assert len(scans.slices) == 1
    assert host.cache._fWriter.pending_scope(sample.fUrl, name) is None


def test_module_yields_its_own_names_only(
    host: Host, sample: CLocalFileLocation, scans: Scans
) -> None:
    before = stored(host, sample)
    text = kSample.replace("inner = a", "other = a").replace("last = 1", "final = 1")
    make_changed(sample, text)
    scanner, changed = host.scan_now(sample, "")
    assert changed
    assert list(scanner.fInfo.type_equivs) == ["os", "first", "Shape", "chosen", "final"]
    after = stored(host, sample)
    assert after.pop("") != before.pop("")
    assert after == before
    assert (scanner.fScopeDef, scanner.fContainingClassDef) == (None, None)
    assert len(scans.whole) == 1


def make_changed(loc: CLocalFileLocation, text: str) -> None:
    with open(loc.path, "w") as file:
        file.write(text)


def test_definitions_around_a_scope(host: Host, sample: CLocalFileLocation) -> None:
    def about(name: str) -> tuple[Any, ...]:
        scanner, _ = host.scan_now(sample, name)
        return scanner.fScopeDef, scanner.fContainingClassDef

    shape = (kClassDef, "Shape", line_of(kSample, "class Shape"))
    corner = (kClassDef, "Shape.Corner", line_of(kSample, "class Corner"))
    assert about("Shape") == (shape, None)
    assert about("Shape.Corner") == (corner, shape)
    assert about("Shape.make") == ((kFunctionDef, "Shape.make", 23), shape)
    assert about("Shape.Corner.where")[1] == corner
    assert about("first")[0][0] == kFunctionDef
    assert about("first")[1] is None
    assert about("first.nested")[1] is None


def test_def_line(host: Host, make_file: MakeFile) -> None:
    text = (
        "class C:\n    def f[T: int](self, a: str = 'x', *rest) -> T:\n        a = 2\n"
        "        b: float = a\n        return b\n"
    )
    loc = make_file("a.py", text)
    scanner, changed = host.scan_now(loc, "C.f.<def>")
    assert changed
    assert scanner.fInfo.type_equivs == {
        "T": b":pint",
        "self": b":r0",
        "a": b":r1='x';:Hstr",
        "rest": b":r2*",
        "return": b":HT",
    }
    assert (scanner.fScopeDef, scanner.fContainingClassDef) == (None, None)
    assert host.names(loc, "C.f.<def>") == ["T", "self", "a", "rest", "return"]
    assert host.names(loc, "C.f") is None
    assert not host.scan_now(loc, "C.f.<def>")[1]
    scanner, _ = host.scan_now(loc, "C.g.<def>")
    assert scanner.fInfo is None
    host.scan_now(loc, "C.f")
    host.scan_file(loc)
    assert (
        host.scan_now(loc, "C.f.<def>")[0].fInfo.packed
        == host.cache.GetScopeInfo(loc, "C.f.<def>").packed
    )  # type: ignore[union-attr]


def test_def_line_follows_scans_of_its_scope_in_an_edited_buffer(
    host: Host, sample: CLocalFileLocation
) -> None:
    host.scan_now(sample, "first.<def>")
    assert host.names(sample, "first.<def>") == ["a", "b"]
    buffer = host.open(sample)
    buffer.SetText(kSample.replace("a, b=1", "a, c=1"))
    host.scan_now(sample, "first.<def>")
    buffer.SetText(kSample.replace("a, b=1", "a, d=1"))
    host.run()
    assert host.names(sample, "first.<def>") == ["a", "d"]
    buffer.SetText(kSample.replace("def first", "def second"))
    host.run()
    assert host.names(sample, "first.<def>") is None


def test_specialized_scope_has_what_the_plain_one_has(
    host: Host, sample: CLocalFileLocation
) -> None:
    scanner, changed = host.scan_now(sample, "Shape[int].Corner")
    assert changed
    key = scanner.fInfo.key
    assert (key.scope_name, key.source_scope_name) == ("Shape[int].Corner", "Shape.Corner")
    assert scanner.fInfo.packed == stored(host, sample)["Shape.Corner"][0]
    assert host.names(sample, "Shape[int].Corner.where") is None


def test_wildcard_is_a_scan_of_the_whole_file(
    host: Host, make_file: MakeFile, sample: CLocalFileLocation
) -> None:
    loc = make_file("cold.py", kSample)
    files: list[object] = []
    host.cache.connect("file-stored", lambda cache, loc, record: files.append(loc))
    scanner, changed = host.scan_now(loc, "*")
    assert (scanner.fState, changed, files) == (kFinishedScanning, True, [loc])
    assert stored(host, loc) == stored(host, sample)
    modtimes = {loc: host.cache.GetDiskMTime(loc)}
    assert host.cache.GetScansDoneForMultipleFiles(modtimes) == {loc: " primary "}
    os.unlink(loc.path)
    scanner, changed = host.scan_now(loc, "*")
    assert (scanner.fState, scanner.fFileDoesntExist, changed) == (kScanAbandoned, True, False)
    scanner.destroy()


# --- what changed


def test_scope_and_those_inside_replace_what_was_stored_of_them(
    host: Host, sample: CLocalFileLocation, scans: Scans
) -> None:
    before = stored(host, sample)
    text = kSample.replace("place = 1", "spot = 1").replace("sides = 0", "edges = 0")
    make_changed(sample, text.replace("inner = a", "other = a"))
    scanner, changed = host.scan_now(sample, "Shape")
    assert changed and scans.whole == []
    after = stored(host, sample)
    assert {name for name in before if after[name] != before[name]} == {
        "Shape",
        "Shape.Corner.where",
    }
    assert "edges" in (host.names(sample, "Shape") or [])
    assert "self.spot" in (host.names(sample, "Shape.Corner.where") or [])
    assert "inner" in (host.names(sample, "first") or [])
    assert not host.scan_now(sample, "Shape")[1]


def test_scope_inside_that_is_gone_is_known_to_be_gone(
    host: Host, sample: CLocalFileLocation
) -> None:
    make_changed(sample, kSample.replace("class Corner", "class Edge"))
    assert host.scan_now(sample, "Shape")[1]
    for gone in ("Shape.Corner", "Shape.Corner.where"):
        info = host.cache.GetScopeInfo(sample, gone)
        assert info is not None and info.does_not_exist and info.type_equivs == {}
    assert host.names(sample, "Shape.Edge.where") == ["self", "self.place"]
    make_changed(sample, kSample)
    assert host.scan_now(sample, "Shape")[1]
    assert host.names(sample, "Shape.Corner.where") == ["self", "self.place"]


def test_news_inside_alone_are_news(host: Host, sample: CLocalFileLocation) -> None:
    make_changed(sample, kSample.replace("place = 1", "spot = 1"))
    packed = stored(host, sample)["Shape"]
    assert host.scan_now(sample, "Shape")[1]
    assert stored(host, sample)["Shape"] == packed


def test_scope_that_is_not_there_is_known_not_to_be_there(
    host: Host, sample: CLocalFileLocation
) -> None:
    for name in ("Shape.missing", "first#2", "C()", "Shape.Corner.where.deeper"):
        scanner, changed = host.scan_now(sample, name)
        assert (scanner.fState, changed, scanner.fInfo) == (kFinishedScanning, True, None)
        assert (scanner.fScopeDef, scanner.fFileDoesntExist) == (None, False)
        info = host.cache.GetScopeInfo(sample, name)
        assert info is not None and info.does_not_exist
        assert not host.scan_now(sample, name)[1]


def test_scope_is_found_again_after_changes_above_it(
    host: Host, sample: CLocalFileLocation, scans: Scans
) -> None:
    make_changed(sample, "# one\n# two\n" + kSample.replace("area = 0", "extent = 0"))
    scanner, changed = host.scan_now(sample, "Shape.__init__")
    assert changed and scans.whole == []
    assert list(scanner.fInfo.type_equivs) == ["self", "name", "self.name", "self.extent"]
    assert scanner.fScopeDef.fLineno == line_of(kSample, "def __init__") + 2


def test_scope_that_cannot_be_told_from_others_takes_a_scan_of_the_whole(
    host: Host, sample: CLocalFileLocation, scans: Scans
) -> None:
    text = kSample.replace("def first(", "def first():\n    early = 1\n\n\ndef first(")
    make_changed(sample, "# moved\n" + text)
    scanner, changed = host.scan_now(sample, "first")
    assert changed and len(scans.whole) == 1
    assert list(scanner.fInfo.type_equivs) == ["early"]


def test_stored_scopes_go_to_the_database(host: Host, make_file: MakeFile, tmp_path: Any) -> None:
    loc = make_file("a.py", kSample)
    host.scan_now(loc, "Shape")
    host.cache.WriteEverything()
    host.cache._Forget(loc)
    assert host.cache._fWriter.pending_scope(loc.fUrl, "Shape") is None
    assert host.names(loc, "Shape.Corner.where") == ["self", "self.place"]
    assert host.names(loc, "first") is None


def test_save_always_stores_what_is_known_already(host: Host, sample: CLocalFileLocation) -> None:
    scanner, changed = host.scan_now(sample, "first")
    assert not changed
    assert scanner.SaveToInfoCache(True) is False
    assert host.cache._fWriter.pending_scope(sample.fUrl, "first") is not None


# --- errors inside


def test_incomplete_scopes_are_told(host: Host, sample: CLocalFileLocation) -> None:
    make_changed(sample, kSample.replace("return c\n", "return (c\n"))
    scanner, _ = host.scan_now(sample, "first")
    assert host.incomplete == {"first.nested"}
    assert not scanner.fInfo.incomplete
    info = host.cache.GetScopeInfo(sample, "first.nested")
    assert info is not None and info.incomplete
    host.incomplete.add("Shape")
    make_changed(sample, kSample)
    scanner, _ = host.scan_now(sample, "first")
    assert host.incomplete == {"Shape"}
    info = host.cache.GetScopeInfo(sample, "first.nested")
    assert info is not None and not info.incomplete


def test_half_typed_header_is_read_as_in_the_whole(
    host: Host, sample: CLocalFileLocation, make_file: MakeFile, scans: Scans
) -> None:
    text = kSample.replace("def __init__(self, name):", "def __init__(self, na")
    make_changed(sample, text)
    host.scan_now(sample, "Shape.__init__")
    assert len(scans.whole) == 1
    other = make_file("other.py", text)
    host.scan_file(other)
    assert stored(host, sample)["Shape.__init__"] == stored(host, other)["Shape.__init__"]


# --- slices of time


@pytest.mark.parametrize("looks", [1, 2, 7])
@pytest.mark.parametrize("warm", [False, True])
def test_result_is_the_same_whatever_the_slices(
    host: Host,
    make_file: MakeFile,
    clock: Any,
    looks: int,
    warm: bool,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    loc = make_file("a.py", kSample)
    if warm:
        host.scan_file(loc)
    make_changed(loc, kSample.replace("place = 1", "spot = 1"))
    monkeypatch.setattr(scopescanner.singlescope, "_kStepBytes", 3)
    monkeypatch.setattr(scopescanner.singlescope, "_kWholeStepBytes", 3)
    scanner = scopescanner.CSingleScopePrimaryScanner(
        loc, "Shape", incomplete_scope_set=set(), log=lambda *args: None
    )
    clock.per_look = 1.0
    calls = 1
    while scanner.Scan(clock.now + looks + 0.5) is kTimedOut:
        calls += 1
    assert calls > 20 / looks
    assert scanner.SaveToInfoCache() is True
    assert host.names(loc, "Shape.Corner.where") == ["self", "self.spot"]
    assert scanner.Scan(0.0) is kFinishedScanning


def test_what_was_found_until_a_timeout_is_stored_if_nothing_is_known(
    host: Host, make_file: MakeFile, monkeypatch: pytest.MonkeyPatch
) -> None:
    loc = make_file("a.py", kSample)
    monkeypatch.setattr(scopescanner.singlescope, "_kWholeStepBytes", 40)
    incomplete: set[str] = set()
    scanner = scopescanner.CSingleScopePrimaryScanner(
        loc, "first", incomplete_scope_set=incomplete, log=lambda *args: None
    )
    steps = 0
    while host.names(loc, "first") is None:
        assert scanner.Scan(0.0) is kTimedOut
        scanner.SaveToInfoCache()
        steps += 1
        assert steps < 100
    info = host.cache.GetScopeInfo(loc, "first")
    assert info is not None and info.incomplete and "a" in info.type_equivs
    assert "nested" not in info.type_equivs
    assert incomplete == {"first"}
    # What is known isn't replaced by a part of it.
    assert scanner.SaveToInfoCache() is False
    while scanner.Scan(0.0) is kTimedOut:
        pass
    assert scanner.SaveToInfoCache() is True
    info = host.cache.GetScopeInfo(loc, "first")
    assert info is not None and not info.incomplete and "nested" in info.type_equivs
    assert incomplete == set()


def test_nothing_is_stored_before_anything_was_read(host: Host, make_file: MakeFile) -> None:
    loc = make_file("a.py", kSample)
    scanner = scopescanner.CSingleScopePrimaryScanner(
        loc, "first", incomplete_scope_set=set(), log=lambda *args: None
    )
    assert scanner.SaveToInfoCache() is False
    scanner.destroy()
    with pytest.raises(RuntimeError, match="was destroyed"):
        scanner.Scan(0.0)


# --- files that can't be scanned


def test_file_that_does_not_exist(host: Host, tmp_path: Any) -> None:
    loc = CLocalFileLocation(tmp_path / "missing.py")
    scanner, changed = host.scan_now(loc, "f")
    assert (scanner.fState, scanner.fFileDoesntExist, changed) == (kScanAbandoned, True, False)
    assert (scanner.fInfo, host.cache.GetScopeInfo(loc, "f")) == (None, None)


@pytest.mark.parametrize("content", [b"x = 1\0", bytes(range(1, 256)) * 50])
def test_file_that_is_no_text(host: Host, make_file: MakeFile, content: bytes) -> None:
    logged: list[tuple[object, ...]] = []
    scanner = scopescanner.CSingleScopePrimaryScanner(
        make_file("a.py", content),
        "f",
        incomplete_scope_set=set(),
        log=lambda *args: logged.append(args),
    )
    assert scanner.Scan(host.clock.now + 1_000.0) is kScanAbandoned
    assert (scanner.fFileDoesntExist, scanner.SaveToInfoCache()) == (False, False)
    assert "Abandoned primary scope scan" in str(logged[0][0])
    assert "not text" in str(logged[0])


def test_fault_of_the_scanner_itself_ends_this_scan_only(
    host: Host,
    sample: CLocalFileLocation,
    monkeypatch: pytest.MonkeyPatch,
    caplog: pytest.LogCaptureFixture,
) -> None:
    def fail(*args: object) -> None:
        raise ValueError("a fault of ours")

    before = stored(host, sample)
    with monkeypatch.context() as patch:
        patch.setattr(scopescanner.singlescope, "cut_out", fail)
        scanner, changed = host.scan_now(sample, "first")
    assert (scanner.fState, changed) == (kScanAbandoned, False)
    assert "a fault of ours" in caplog.text
    assert stored(host, sample) == before


def test_big_text_is_not_taken_apart(
    host: Host, sample: CLocalFileLocation, scans: Scans, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(scopescanner.singlescope, "_kMaxSliceBytes", 100)
    assert not host.scan_now(sample, "first.nested")[1]
    assert len(scans.whole) == 1
