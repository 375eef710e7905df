"""Edits of buffers: which lines they touch, and where scopes are afterwards."""

import random
from collections.abc import Callable
from types import SimpleNamespace

import pytest
from cache.textcache import CTextCache, kNoColumn
from loombase.location import CLocalFileLocation
from scope_host import Host, line_of
from scope_samples import kSample

from loom._pyscan import SourceScanner
from pysource.analysis import CPySourceAnalysis

MakeFile = Callable[..., CLocalFileLocation]

kText = "a\nbc\nd\n"


def edits_of(buffer: CTextCache) -> list[tuple[int, int, int]]:
    edits: list[tuple[int, int, int]] = []
    buffer.connect("text-modified", lambda _, edit: edits.append(edit[:3]))
    return edits


# --- buffers


@pytest.mark.parametrize(
    ("start", "end", "replacement", "edit"),
    [
        (0, 0, "x", (1, 2, 2)),  # inside of a line
        (3, 4, "xy", (2, 3, 3)),
        (3, 3, "\n", (2, 3, 4)),  # a line split in two
        (3, 5, "x\ny\n", (2, 3, 4)),
        (0, 7, "a\nx\nd\n", (2, 3, 3)),  # what stays the same isn't replaced
        (4, 5, "", (2, 4, 3)),  # two lines joined
        (2, 2, "x\n", (2, 2, 3)),  # a whole line put in
        (2, 5, "", (2, 3, 2)),  # a whole line taken out
        (2, 5, "x\ny\n", (2, 3, 4)),
        (0, 7, "", (1, 4, 1)),
        (7, 7, "x\n", (4, 4, 5)),  # behind the last line
        (7, 7, "x", (4, 5, 5)),
        (1, 1, "\nx", (1, 2, 3)),
    ],
)
def test_edit_tells_which_lines_it_replaced(
    start: int, end: int, replacement: str, edit: tuple[int, int, int]
) -> None:
    buffer = CTextCache(CLocalFileLocation("/a.py"), kText)
    edits = edits_of(buffer)
    buffer.Replace(start, end, replacement)
    assert buffer.GetText() == kText[:start] + replacement + kText[end:]
    assert edits == [edit]
    assert (buffer.fVersion, buffer.IsModified()) == (1, True)


@pytest.mark.parametrize(
    ("old", "new", "column"),
    [
        ("  b", "  bb", 2),  # the line that it stands on
        ("  b", " b", 1),
        (" c\n", "", 1),
        ("a\n", "", 0),
        ("\td", "\tdd", 8),
        ("\n\n", "\n", kNoColumn),
        (" c\n", " c\n\n", kNoColumn),
        ("  b\n", "  b\n# x\n", 0),
    ],
)
def test_edit_tells_the_least_indentation_of_its_lines(old: str, new: str, column: int) -> None:
    text = "a\n  b\n c\n\td\n\n\ne\n"
    buffer = CTextCache(CLocalFileLocation("/a.py"), text)
    columns: list[int] = []
    buffer.connect("text-modified", lambda _, edit: columns.append(edit.column))
    buffer.SetText(text.replace(old, new, 1))
    assert columns == [column]


def test_range_of_a_new_text_is_the_part_that_differs() -> None:
    buffer = CTextCache(CLocalFileLocation("/a.py"), kText)
    edits = edits_of(buffer)
    buffer.SetText("a\nbcc\nd\n")
    buffer.SetText("a\nbcc\nd\n")
    buffer.SetText("a\nbcc\nx\nd\n")
    buffer.SetText("")
    buffer.SetText("x")
    assert edits == [(2, 3, 3), (3, 3, 4), (1, 5, 1), (1, 2, 2)]
    assert buffer.fVersion == 4


@pytest.mark.parametrize(("start", "end"), [(-1, 2), (3, 2), (0, 8), (8, 8)])
def test_range_that_is_none_changes_nothing(start: int, end: int) -> None:
    buffer = CTextCache(CLocalFileLocation("/a.py"), kText)
    edits = edits_of(buffer)
    with pytest.raises(ValueError, match="no range of a text of 7 characters"):
        buffer.Replace(start, end, "x")
    buffer.Replace(2, 2, "")
    buffer.Replace(0, 1, "a")
    assert (edits, buffer.fVersion, buffer.IsModified(), buffer.GetText()) == ([], 0, False, kText)


def test_edits_lead_from_lines_to_lines_whatever_the_line_ends() -> None:
    """An edit takes out lines and puts in lines, and all others stay: that is what it tells."""
    rng = random.Random(5)
    for _ in range(2_000):
        old = "".join(rng.choice("ab\n\r") for _ in range(rng.randrange(12)))
        start = rng.randrange(len(old) + 1)
        end = rng.randrange(start, len(old) + 1)
        buffer = CTextCache(CLocalFileLocation("/a.py"), old)
        edits = edits_of(buffer)
        buffer.Replace(start, end, "".join(rng.choice("c\n\r") for _ in range(rng.randrange(4))))
        before = old.encode().splitlines(keepends=True)
        after = buffer.GetText().encode().splitlines(keepends=True)
        for first, old_end, new_end in edits:
            assert 1 <= first <= old_end and first <= new_end
            # Line ends of two characters may be joined or parted, which moves no line behind.
            assert [line.rstrip() for line in before[old_end - 1 :]] == [
                line.rstrip() for line in after[new_end - 1 :]
            ]
            assert [line.rstrip() for line in before[: first - 1]] == [
                line.rstrip() for line in after[: first - 1]
            ]


def test_offset_of_a_line() -> None:
    buffer = CTextCache(CLocalFileLocation("/a.py"), "a\r\nb\x0cc\u2028d\re\n\nf")
    offsets = [buffer.OffsetOfLine(lineno) for lineno in range(1, 7)]
    text = buffer.GetText()
    assert [text[offset : offset + 1] for offset in offsets] == ["a", "b", "e", "\n", "f", ""]
    assert buffer.OffsetOfLine(100) == len(text)


def test_saving_is_told() -> None:
    buffer = CTextCache(CLocalFileLocation("/a.py"), "a")
    saved: list[object] = []
    buffer.connect("saved", saved.append)
    buffer.SetText("b")
    buffer.MarkSaved(3.0)
    assert (saved, buffer.IsModified(), buffer.fVersion) == ([buffer], False, 1)


# --- analyses


def scopes_of(text: str) -> list[tuple[str, int, int]]:
    source = SourceScanner(text.encode())
    source.scan(1 << 40)
    return [(row[0], row[3], row[4]) for row in source.scopes()]


class Open:
    """The sample, opened after a scan of the file."""

    def __init__(self, host: Host, make_file: MakeFile) -> None:
        self.host = host
        self.loc = make_file("sample.py", kSample)
        host.scan_file(self.loc)
        self.buffer = host.open(self.loc)
        self.analysis: CPySourceAnalysis = host.cache_mgr.GetAnalysis(self.loc, False)

    def edit(self, old: str, new: str) -> None:
        start = self.buffer.GetText().index(old)
        self.buffer.Replace(start, start + len(old), new)

    def right(self) -> bool:
        """Whether the analysis knows where scopes are, the module apart."""
        return self.analysis.GetScopeLines()[1:] == scopes_of(self.buffer.GetText())[1:]


@pytest.fixture
def sample(host: Host, make_file: MakeFile) -> Open:
    return Open(host, make_file)


def test_scope_of_a_line(sample: Open) -> None:
    find = sample.analysis.FindScopeContainingLine
    for part, scope in (
        ("import os", ""),
        ("inner = a", "first"),
        ("return c", "first.nested"),
        ("sides", "Shape"),
        ("@staticmethod", "Shape"),
        ("self.area = value", "Shape.size#2"),
        ("other = 2", "chosen#2"),
        ("last = 1", ""),
    ):
        assert find(line_of(kSample, part)) == scope
    assert find(10_000) == ""


def test_nothing_is_known_of_a_file_that_was_not_scanned(host: Host, make_file: MakeFile) -> None:
    loc = make_file("a.py", kSample)
    host.open(loc)
    analysis = host.cache_mgr.GetAnalysis(loc, False)
    assert analysis.FindScopeContainingLine(6) is None
    host.scan_file(loc)
    assert analysis.FindScopeContainingLine(6) == "first"


def test_scopes_move_with_an_edit_and_not_only_with_the_next_scan(sample: Open) -> None:
    sample.edit("import os\n", "import os\nimport re\n\nimport sys\n")
    assert sample.right()
    sample.edit("    inner = a\n", "    inner = a\n    more = 1\n")
    assert sample.right()
    sample.edit("import re\n\n", "")
    assert sample.right()
    sample.edit("        return c\n", "        return c(\n            1\n        )\n")
    assert sample.right()
    sample.edit("    sides = 0\n\n", "")
    assert sample.right()


def test_lines_of_the_cache_are_those_of_the_text_that_was_scanned(
    host: Host, make_file: MakeFile
) -> None:
    loc = make_file("sample.py", kSample)
    host.scan_file(loc)
    buffer = host.open(loc)
    buffer.Replace(0, 0, "# one\n# two\n")
    analysis = host.cache_mgr.GetAnalysis(loc, False)
    expected = scopes_of(buffer.GetText())[1:]
    assert analysis.GetScopeLines()[1:] == expected
    analysis.ReadCacheAgain()
    assert analysis.GetScopeLines()[1:] == expected
    host.cache_mgr._ClearEOLBlindCacheAndScans()
    assert analysis.GetScopeLines()[1:] == expected


def test_random_edits_keep_scopes_of_untouched_lines_right(sample: Open) -> None:
    """Lines of comment put in and blank lines taken out anywhere move scopes as a scan would."""
    rng = random.Random(1)
    for _ in range(200):
        lines = sample.buffer.GetText().splitlines(keepends=True)
        at = rng.randrange(len(lines) + 1)
        offset = len("".join(lines[:at]))
        if rng.random() < 0.6:
            sample.buffer.Replace(offset, offset, "# c\n" * rng.randrange(1, 4))
        else:
            while at < len(lines) and lines[at].strip() in ("", "# c"):
                sample.buffer.Replace(offset, offset + len(lines[at]), "")
                at += 1
        # A comment behind the last line of a scope is no part of it to a scan.
        by_scan = {name: first for name, first, _ in scopes_of(sample.buffer.GetText())[1:]}
        assert {name: first for name, first, _ in sample.analysis.GetScopeLines()[1:]} == by_scan


def test_scan_of_an_older_text_is_taken_with_the_edits_since(sample: Open) -> None:
    older = scopes_of(kSample)
    version = sample.buffer.fVersion
    sample.edit("import os\n", "import os\nimport re\n")
    sample.edit("    sides = 0\n", "    sides = 0\n    edges = 0\n")
    sample.analysis.TakeScopes(older, version)
    assert sample.right()
    sample.analysis.TakeScope([scope for scope in older if scope[0].startswith("first")], version)
    assert sample.right()


def test_modified_is_told_when_scopes_are_others_than_were_known(sample: Open) -> None:
    seen: list[object] = []
    sample.analysis.UpdateFromCache()
    sample.analysis.connect("modified", seen.append)
    sample.edit("import os\n", "import os\nimport re\n")  # moves them, and that is known
    assert seen == []
    scopes = scopes_of(sample.buffer.GetText())
    sample.analysis.TakeScopes(scopes, sample.buffer.fVersion)
    seen.clear()
    sample.analysis.TakeScopes(scopes, sample.buffer.fVersion)
    assert seen == []
    sample.analysis.TakeScopes(scopes[:-1], sample.buffer.fVersion)
    assert seen == [sample.analysis]
    sample.analysis.TakeScope([("Shape", 14, 40)], sample.buffer.fVersion)
    assert seen == [sample.analysis] * 2
    assert "Shape.Corner" not in [scope[0] for scope in sample.analysis.GetScopeLines()]


def test_caret_is_told_when_it_comes_to_another_line(sample: Open) -> None:
    seen: list[tuple[object, ...]] = []
    sample.analysis.connect("active-edit-lineno-changed", lambda *args: seen.append(args))
    for lineno in (3, 3, 4, -1, -1):
        sample.analysis.SetActiveLine(lineno)
    assert seen == [(sample.analysis, 3), (sample.analysis, 4), (sample.analysis, -1)]


@pytest.mark.parametrize(
    ("old", "new", "scopes"),
    [
        ("inner = a", "inner = b", ["first"]),
        ("return c\n", "return (\n            c)\n", ["first.nested"]),
        ("return c\n", "return c\n        x = 1\n", ["first"]),  # a line behind the last one
        ("    return nested\n", "    return nested\n    x = 1\n", [""]),  # that finds first longer
        ("sides = 0", "sides = 1", ["Shape"]),
        ("def nested(c)", "def nested(d)", ["first.nested", "first"]),
        ("class Shape(Base)", "class Shape", ["Shape", ""]),
        ("@staticmethod", "@classmethod", ["Shape"]),
        ("last = 1", "last = 2", [""]),
        ("import os\n", "import os\nimport re\n", [""]),
        ("import os\n", "import os\nimport re\nimport sys\n", ["*"]),
        ("    @staticmethod", "    # why\n    @staticmethod", ["Shape"]),
        ("    def make", "    # why\n    def make", ["Shape.make", "Shape"]),
        ("        self.area = 0\n\n    @staticmethod\n    def make", "    def make", ["Shape"]),
        ("    return nested\n\n\nclass Shape(Base)", "class Shape", ["*"]),
        (kSample, "x = 1\n", ["*"]),
    ],
)
def test_edit_asks_for_the_innermost_scope_around_it(
    sample: Open, monkeypatch: pytest.MonkeyPatch, old: str, new: str, scopes: list[str]
) -> None:
    asked: list[tuple[list[tuple[object, str]], bool]] = []

    def note(pairs: list[tuple[object, str]], first: bool = False) -> None:
        asked.append((pairs, first))

    monkeypatch.setattr(
        sample.host.app.ana_mgr,
        "fScanCoordinator",
        SimpleNamespace(
            AddPairsToPrimaryQueue=note, ClearLastScanInfo=lambda locs: None, destroy=lambda: None
        ),
    )
    sample.edit(old, new)
    assert asked == [([(sample.loc, scope) for scope in scopes], True)]
