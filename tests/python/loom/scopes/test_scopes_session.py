"""Editing an open file, with everything real: which scans follow, and what is known then."""

import os
import random
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
from loombase.location import CLocalFileLocation
from scope_host import Host, Scans, kOldTime
from scope_samples import kSample, replace, scribble, type_in

from pysource import scopescanner
from pysource.scopescanner import kFinishedScanning, kTimedOut
from pysource.symbolinfo import GetClassForInstanceName

MakeFile = Callable[..., CLocalFileLocation]

kBigLines = 5_000


def big_source() -> str:
    """A file of 5,000 lines: classes of ten methods each, and functions between them."""
    parts: list[str] = []
    for n in range(64):
        parts.append(f"class Class{n}:\n    kind = {n}\n\n    def __init__(self):\n")
        parts.append(f"        self.number = {n}\n\n")
        for m in range(9):
            parts.append(f"    def method{m}(self, value):\n        local{n}_{m} = value\n")
            parts.append(f"        self.field{m} = local{n}_{m}\n        return self.number\n\n")
        parts.append(f"\ndef function{n}(argument):\n    result = argument + {n}\n")
        parts.append("".join(f"    result += {k}\n" for k in range(15)))
        parts.append("    return result\n\n\n")
    text = "".join(parts)
    lines = text.count("\n")
    assert lines <= kBigLines
    return text + "# the end\n" * (kBigLines - lines)


@pytest.fixture
def big(host: Host, make_file: MakeFile) -> CLocalFileLocation:
    loc = make_file("big.py", big_source())
    host.scan_file(loc)
    return loc


@pytest.fixture
def sample(host: Host, make_file: MakeFile) -> CLocalFileLocation:
    loc = make_file("sample.py", kSample)
    host.scan_file(loc)
    return loc


def same_as_whole(host: Host, loc: CLocalFileLocation, text: str) -> None:
    """What is known of an edited file's scopes is what a whole scan of its text finds."""
    from loom._pyscan import SourceScanner

    source = SourceScanner(text.encode())
    source.scan(1 << 40)
    rows = source.scopes()
    for row in rows:
        info = host.cache.GetScopeInfo(loc, row[0])
        assert info is not None and not info.does_not_exist, row[0]
        known = {name: _without_lines(about) for name, about in info.type_equivs.items()}
        found = {
            name: _without_lines(about)
            for name, about in scopescanner.singlescope.unpack_info(row[5]).items()
        }
        assert known == found, row[0]
    names = {row[0] for row in rows}
    stored = {name for name, _, _ in host.cache.GetScopeLines(loc)}
    for name in (stored | host.cache.GetUnsavedNames(loc)) - names:
        info = host.cache.GetScopeInfo(loc, name)
        assert info is not None
        class_name = GetClassForInstanceName(name)
        assert info.does_not_exist == (class_name not in names), name
        if not info.does_not_exist:
            anew = host.app.coordinator.BuildInstanceScopeNoScanning(loc, name, 0.0)
            assert anew is not None and info.type_equivs.keys() == anew.type_equivs.keys()
    analysis = host.cache_mgr.GetAnalysis(loc, False)
    assert {name: first for name, first, _ in analysis.GetScopeLines()} == {
        row[0]: row[3] for row in rows
    }


def _without_lines(info: bytes) -> list[bytes]:
    # Lines in the records of scopes behind an edit stay those of their last scan.
    parts = info.split(b";")
    return [b" ".join(w for w in part.split(b" ") if not w.isdigit()) for part in parts]


# --- the scope with the caret


def test_edit_inside_of_a_method_leads_to_a_scan_of_the_method_and_of_its_instances(
    host: Host, big: CLocalFileLocation, scans: Scans
) -> None:
    buffer = host.open(big)
    assert host.run() == []
    analysis = host.cache_mgr.GetAnalysis(big, False)
    before = host.cache.GetScopeInfo(big, "Class40.method3")
    untouched = {
        name: host.cache.GetScopeInfo(big, name)
        for name in ("", "Class40", "Class40.method2", "Class40.method4", "Class63.method8")
    }
    lineno = buffer.GetText().count("\n", 0, buffer.GetText().index("local40_3 = value")) + 1
    analysis.SetActiveLine(lineno)
    scans.clear()

    replace(buffer, "local40_3 = value", "local40_3 = value\n        self.added = value")
    analysis.SetActiveLine(lineno + 1)
    assert analysis.FindScopeContainingLine(lineno + 1) == "Class40.method3"
    assert host.run() == [("Class40.method3", "primary"), ("Class40()", "primary")]

    assert scans.whole == []
    assert len(scans.slices) == 1
    # The scope is walked, and of the rest blank lines and the step in which its end is seen.
    lines = buffer.GetText().splitlines(keepends=True)
    assert scans.walked < lineno + 3 * scopescanner.singlescope._kStepBytes
    assert len(buffer.GetText()) > 10 * scans.walked / 2
    after = host.cache.GetScopeInfo(big, "Class40.method3")
    assert before is not None and after is not None
    assert "self.added" not in before.type_equivs and "self.added" in after.type_equivs
    for name, info in untouched.items():
        assert host.cache.GetScopeInfo(big, name) is info
    instance = host.cache.GetScopeInfo(big, "Class40()")
    assert instance is not None
    assert instance.type_equivs["added"] == b":sClass40.method3;:=value"
    assert lines[lineno].strip() == "self.added = value"
    same_as_whole(host, big, buffer.GetText())


def test_edit_inside_of_a_function_leads_to_a_scan_of_the_function(
    host: Host, big: CLocalFileLocation, scans: Scans
) -> None:
    buffer = host.open(big)
    scans.clear()
    replace(buffer, "result = argument + 50", "result = total = argument + 50")
    assert host.run() == [("function50", "primary")]
    assert (scans.whole, len(scans.slices)) == ([], 1)
    assert host.names(big, "function50") == ["argument", "result", "total", "return"]
    same_as_whole(host, big, buffer.GetText())


def test_scope_is_found_again_after_edits_above_it(
    host: Host, big: CLocalFileLocation, scans: Scans
) -> None:
    buffer = host.open(big)
    for n in range(0, 40, 5):
        replace(buffer, f"    kind = {n}\n", f"    kind = {n}\n    more = 1\n")
    host.run()
    scans.clear()
    replace(buffer, "local60_8 = value", "renamed = value")
    assert host.run() == [("Class60.method8", "primary"), ("Class60()", "primary")]
    assert scans.whole == []
    assert "renamed" in (host.names(big, "Class60.method8") or [])
    same_as_whole(host, big, buffer.GetText())


def test_edit_that_changes_nothing_that_is_known_ends_with_the_scan(
    host: Host, big: CLocalFileLocation
) -> None:
    buffer = host.open(big)
    replace(buffer, "        return self.number\n", "        # why\n        return self.number\n")
    assert host.run() == [("Class0.method0", "primary")]


def test_many_edits_lead_to_one_scan(host: Host, big: CLocalFileLocation) -> None:
    buffer = host.open(big)
    type_in(buffer, "result = argument + 50", " + another_argument")
    assert buffer.fVersion == len(" + another_argument")
    assert host.run() == [("function50", "primary")]


def test_edit_after_a_scan_is_scanned_at_once(host: Host, big: CLocalFileLocation) -> None:
    """Not only after the seconds that lie between two scans of a scope nobody edits."""
    buffer = host.open(big)
    for name in ("one", "two", "three"):
        replace(buffer, "result = argument + 50", f"{name} = result = argument + 50")
        assert host.run() == [("function50", "primary")]
        assert name in (host.names(big, "function50") or [])


# --- what an edit means for the scopes around


@pytest.mark.parametrize(
    ("old", "new"),
    [
        ("def __init__(self, name):", "def __init__(self, name, more=1):"),
        ("class Shape(Base):", "class Shape(Base, Other):"),
        ("class Shape(Base):", "class Form(Base):"),
        ("def make():", "def build():"),
        ("    @staticmethod\n", ""),
        ("    @property\n", "    @cached\n    @property\n"),
        ("def nested(c):", "def inner_one(c, d):"),
        ("def first(a, b=1):", "def first(\n    a,\n    b=2,\n):"),
        ("        self.area = 0\n", "        self.area = 0\n\n    def new(self):\n        pass\n"),
        ("        self.area = 0\n", "        self.area = 0\n    extra = 1\n"),
        ("        self.area = 0\n", "        self.area = 0\n\ndef new():\n    pass\n"),
        ("    return nested\n", "    return nested\n    late = 1\n"),
        ("last = 1\n", "last = 1\n\n\ndef new():\n    new_one = 1\n"),
        ("import os\n", "import os\n\n\ndef new():\n    new_one = 1\n"),
        ("    def nested(c):\n        return c\n", ""),
        ("    class Corner:\n        def where(self):\n            self.place = 1\n", ""),
        ("else:\n\n    def chosen():\n        other = 2\n        return other\n", ""),
        ("def chosen", "def first"),
        ("    sides = 0\n", "    sides = 0\n\n    def size(self): pass\n"),
        ("    return nested\n\n\nclass Shape(Base):\n", "    return nested\n\n\nif Base:\n"),
        ("        return c\n", "        return c\n\n    class Local:\n        def f(self): pass\n"),
        ("inner = a", "inner = (a"),
        ("def nested(c):", "def nested(c"),
        ('"""A shape."""', '"""A shape.'),
        ("    inner = a\n", "        inner = a\n"),
        ("\n    return nested\n", "\nreturn nested\n"),
    ],
)
def test_after_any_edit_everything_is_known_as_by_a_scan_of_the_whole(
    host: Host, sample: CLocalFileLocation, old: str, new: str
) -> None:
    buffer = host.open(sample)
    replace(buffer, old, new)
    host.run()
    same_as_whole(host, sample, buffer.GetText())
    buffer.SetText(kSample)
    host.run()
    same_as_whole(host, sample, kSample)


def test_typing_a_function_key_by_key(host: Host, sample: CLocalFileLocation) -> None:
    buffer = host.open(sample)
    at = kSample.index("\n\nclass Shape")
    for offset, key in enumerate("\n\ndef typed(one):\n    two = one\n    return two\n"):
        buffer.Replace(at + offset, at + offset, key)
        host.run()
    assert host.names(sample, "typed") == ["one", "two", "return"]
    same_as_whole(host, sample, buffer.GetText())


def test_random_changes_are_followed_and_saving_sets_right_what_was_not(
    host: Host, sample: CLocalFileLocation
) -> None:
    """Nearly always all is known as by a scan of the whole; and no scan leads to another forever."""
    rng = random.Random(8)
    edits = missed = 0
    buffer = host.open(sample)
    for _ in range(20):
        buffer.SetText(kSample)
        host.run()
        for _ in range(10):
            scribble(buffer, rng)
            assert host.main_loop.run_idle(100) < 100
            edits += 1
            try:
                same_as_whole(host, sample, buffer.GetText())
            except AssertionError:
                # A bracket that is closed elsewhere now can make code of any line below.
                missed += 1
                buffer.MarkSaved(kOldTime)
                Path(sample.path).write_text(buffer.GetText())
                host.run()
                same_as_whole(host, sample, buffer.GetText())
    assert missed <= edits // 50


# --- incomplete scopes


def test_scope_that_the_caret_leaves_half_typed_is_scanned_once_more(
    host: Host, sample: CLocalFileLocation
) -> None:
    buffer = host.open(sample)
    analysis = host.cache_mgr.GetAnalysis(sample, False)
    line = kSample[: kSample.index("inner = a")].count("\n") + 1
    analysis.SetActiveLine(line)
    replace(buffer, "inner = a", "inner = (a")
    assert host.run() == [("first", "primary")]
    incomplete = host.app.coordinator._fIncompleteScansByLoc[sample]
    assert incomplete == {"first"}
    analysis.SetActiveLine(line + 1)
    assert host.run() == []  # still in it
    analysis.SetActiveLine(1)
    assert host.run() == [("first", "primary")]
    replace(buffer, "inner = (a", "inner = a")
    assert host.run() == [("first", "primary")]
    assert incomplete == set()
    analysis.SetActiveLine(2)
    assert host.run() == []


# --- saving and closing


def test_saved_file_is_scanned_as_a_whole(
    host: Host, sample: CLocalFileLocation, scans: Scans
) -> None:
    buffer = host.open(sample)
    replace(buffer, "inner = a", "other = a")
    host.run()
    Path(sample.path).write_text(buffer.GetText())
    os.utime(sample.path, (kOldTime + 10, kOldTime + 10))
    scans.clear()
    buffer.MarkSaved(kOldTime + 10.0)
    assert ("*", "primary") in host.run()
    assert len(scans.whole) == 1
    info = host.cache.GetScopeInfo(sample, "first")
    assert info is not None and info.disk_mtime == kOldTime + 10
    assert "other" in info.type_equivs
    modtimes = {sample: host.cache.GetDiskMTime(sample)}
    assert sample in host.cache.GetScansDoneForMultipleFiles(modtimes)
    same_as_whole(host, sample, buffer.GetText())


def test_what_was_found_in_unsaved_text_goes_with_its_buffer(
    host: Host, sample: CLocalFileLocation, tmp_path: Path
) -> None:
    before = host.names(sample, "first")
    buffer = host.open(sample)
    replace(buffer, "inner = a", "other = a")
    replace(buffer, "self.area = 0", "self.extent = 0")
    host.run()
    assert "other" in (host.names(sample, "first") or [])
    assert "extent" in (host.names(sample, "Shape()") or [])
    # The database never gets it.
    host.cache.WriteEverything()
    assert host.cache._fLookup.scope(sample.fUrl, "Shape()") is None
    host.cache_mgr.CloseBuffer(sample)
    assert host.names(sample, "first") == before
    assert host.names(sample, "Shape()") is None
    assert ("*", "primary") not in host.run()  # the file's own results hold
    assert host.names(sample, "first") == before


def test_file_is_scanned_again_if_unsaved_text_took_its_place(
    host: Host, sample: CLocalFileLocation
) -> None:
    buffer = host.open(sample)
    buffer.SetText("x = 1\n")
    assert ("*", "primary") in host.run()
    assert host.names(sample, "") == ["x"]
    host.cache_mgr.CloseBuffer(sample)
    assert ("*", "primary") in host.run()
    assert host.names(sample, "") == ["os", "first", "Shape", "chosen", "last"]
    assert host.names(sample, "Shape.Corner.where") == ["self", "self.place"]


def test_closing_a_buffer_that_was_not_edited_scans_nothing(
    host: Host, sample: CLocalFileLocation
) -> None:
    host.open(sample)
    host.cache_mgr.CloseBuffer(sample)
    assert host.run() == []


@pytest.mark.parametrize("whole", [False, True])
def test_scan_under_way_turns_to_the_file_when_the_buffer_is_closed(
    host: Host, sample: CLocalFileLocation, whole: bool, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(scopescanner.singlescope, "_kStepBytes", 10)
    monkeypatch.setattr(scopescanner.wholefile, "_kStepBytes", 10)
    buffer = host.open(sample)
    replace(buffer, "inner = a", "other = a")
    scanner = new_scanner(sample, whole)
    assert scanner.Scan(0.0) is kTimedOut
    host.cache_mgr.CloseBuffer(sample)
    while scanner.Scan(0.0) is kTimedOut:
        pass
    assert scanner.fState is kFinishedScanning
    if not whole:
        assert scanner.SaveToInfoCache() is False
    info = host.cache.GetScopeInfo(sample, "first")
    assert info is not None and info.disk_mtime == kOldTime
    assert "inner" in info.type_equivs


@pytest.mark.parametrize("whole", [False, True])
def test_scan_under_way_begins_again_after_an_edit(
    host: Host, sample: CLocalFileLocation, whole: bool, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(scopescanner.singlescope, "_kStepBytes", 10)
    monkeypatch.setattr(scopescanner.wholefile, "_kStepBytes", 10)
    buffer = host.open(sample)
    scanner = new_scanner(sample, whole)
    if not whole:
        assert scanner.Scan(0.0) is kTimedOut
    replace(buffer, "inner = a", "other = a")
    for _ in range(10):
        scanner.Scan(0.0)
    replace(buffer, "other = a", "third = a")
    while scanner.Scan(0.0) is kTimedOut:
        pass
    assert scanner.fState is kFinishedScanning
    if not whole:
        assert scanner.SaveToInfoCache() is True
    assert "third" in (host.names(sample, "first") or [])


def test_nothing_is_stored_of_a_buffer_that_was_closed_before(
    host: Host, sample: CLocalFileLocation
) -> None:
    buffer = host.open(sample)
    replace(buffer, "inner = a", "other = a")
    scanner = new_scanner(sample, False)
    assert scanner.Scan(host.clock.now + 100.0) is kFinishedScanning
    host.cache_mgr.CloseBuffer(sample)
    assert scanner.SaveToInfoCache() is False
    assert "inner" in (host.names(sample, "first") or [])


def new_scanner(loc: CLocalFileLocation, whole: bool) -> Any:
    if whole:
        return scopescanner.CWholeFilePrimaryScanner(
            loc, "primary", incomplete_scope_set=set(), log=lambda *args: None
        )
    return scopescanner.CSingleScopePrimaryScanner(
        loc, "first", incomplete_scope_set=set(), log=lambda *args: None
    )
