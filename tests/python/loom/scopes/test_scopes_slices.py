"""Cutting one scope out of a text: what comes out is what a scan of the whole finds."""

import random
import sysconfig
from collections.abc import Mapping, Sequence
from pathlib import Path

import pytest
from scope_samples import kSample

from loom._pyscan import SourceScanner
from loom.store.records import ScopeRow
from pysource.scopescanner.headers import header_row
from pysource.scopescanner.scopeslice import ScopeSlice, cut_out, path_of_scope


def rows_of(data: bytes) -> list[ScopeRow]:
    source = SourceScanner(data)
    source.scan(1 << 40)
    return source.scopes()


def cut(data: bytes, name: str, known: Mapping[str, int]) -> ScopeSlice | None:
    path = path_of_scope(name)
    assert path is not None
    return cut_out(data.splitlines(keepends=True), path, known)


def lines_of(rows: Sequence[ScopeRow]) -> dict[str, int]:
    return {row[0]: row[3] for row in rows}


def rows_of_slice(piece: ScopeSlice) -> tuple[list[ScopeRow], int]:
    """What a scan of a slice finds, and the bytes that it walks."""
    source = SourceScanner(piece.text)
    source.scan(max(piece.body, 1))
    while source.may_grow(piece.scope):
        source.scan(100)
    return source.scopes(), source.position


def within(rows: Sequence[ScopeRow], name: str) -> list[tuple[object, ...]]:
    """The rows of a scope and those inside, without what depends on the other scopes."""
    return [(row[0], *row[2:]) for row in rows if row[0] == name or row[0].startswith(f"{name}.")]


def assert_agreement(
    data: bytes,
    row: ScopeRow,
    rows: Sequence[ScopeRow],
    known: Mapping[str, int] | None = None,
) -> bool:
    """Whether a scope of a text could be cut out, with the result of the whole scan."""
    piece = cut(data, row[0], lines_of(rows) if known is None else known)
    if piece is None:
        return False
    found, _ = rows_of_slice(piece)
    assert found[piece.scope][0] == row[0]
    assert piece.lineno == row[3]
    if header_row(data.splitlines(keepends=True), row[3] - 1) is None:
        return False  # the scanner of one scope turns to the whole text as well
    assert within(found, row[0]) == within(rows, row[0])
    return True


# --- names


@pytest.mark.parametrize(
    ("name", "path"),
    [
        ("f", [("f", 1)]),
        ("C.f#2", [("C", 1), ("f", 2)]),
        ("C#12.größe.x_1", [("C", 12), ("größe", 1), ("x_1", 1)]),
        ("", None),
        ("*", None),
        ("C()", None),
        ("f.<def>", None),
        ("List[int]", None),
        ("f#0", None),
        ("f#", None),
        ("a..b", None),
        ("1a", None),
    ],
)
def test_path_of_a_scope(name: str, path: list[tuple[str, int]] | None) -> None:
    assert path_of_scope(name) == path


# --- agreement


def test_each_scope_of_the_sample_comes_out_as_in_the_whole() -> None:
    data = kSample.encode()
    rows = rows_of(data)
    assert len(rows) == 12
    for row in rows[1:]:
        assert assert_agreement(data, row, rows), row[0]


def test_nothing_but_the_scope_is_walked() -> None:
    data = kSample.encode() + b"def other():\n    pass\n" * 5_000
    for name in ("first", "Shape.Corner", "chosen#2"):
        row = next(row for row in rows_of(data) if row[0] == name)
        piece = cut(data, name, lines_of(rows_of(data)))
        assert piece is not None
        lines = b"".join(data.splitlines(keepends=True)[row[3] - 1 : row[4]])
        _, walked = rows_of_slice(piece)
        # Blank lines in front, headers around, and the step in which the end is seen.
        assert walked < len(lines) + kSample.count("\n") + 400


def real_files(count: int) -> list[Path]:
    files = sorted(Path(sysconfig.get_path("stdlib")).rglob("*.py"))
    return random.Random(7).sample(files, count)


def test_each_scope_of_real_files_comes_out_as_in_the_whole() -> None:
    scopes = missed = 0
    for path in real_files(60):
        data = path.read_bytes()
        rows = rows_of(data)
        for row in rows[1:]:
            scopes += 1
            missed += not assert_agreement(data, row, rows)
    assert scopes > 800
    # Those behind texts with less indentation than their statement take a scan of the whole.
    assert missed < 0.04 * scopes


def test_scopes_of_real_files_are_found_again_after_edits_above_them() -> None:
    rng = random.Random(3)
    scopes = missed = 0
    for path in real_files(40):
        data = path.read_bytes()
        known = lines_of(rows_of(data))
        for _ in range(2):
            lines = data.splitlines(keepends=True)
            shift = 0
            at = rng.randrange(len(lines) // 2 + 1)
            if rng.random() < 0.5:
                shift = rng.randrange(1, 30)
                lines[at:at] = [b"# inserted\n"] * shift
            else:
                gone = next((n for n, line in enumerate(lines[at:], at) if line == b"\n"), None)
                if gone is not None:
                    del lines[gone]
                    shift = -1
            data = b"".join(lines)
        rows = rows_of(data)
        for row in rng.sample(rows[1:], min(5, len(rows) - 1)):
            scopes += 1
            missed += not assert_agreement(data, row, rows, known)
    assert scopes > 100
    assert missed < 0.08 * scopes


def test_scopes_of_damaged_files_are_right_or_missed() -> None:
    """Half-typed code inside of a scope: its own errors are read in the same way."""
    rng = random.Random(11)
    agreed = 0
    for path in real_files(40):
        lines = path.read_bytes().splitlines(keepends=True)
        rows = rows_of(b"".join(lines))[1:]
        if not rows:
            continue
        row = rng.choice(rows)
        at = rng.randrange(row[3] - 1, row[4])
        cut_short = lines[at].rstrip()
        lines[at] = cut_short[: rng.randrange(len(cut_short) + 1)] + b"\n"
        data = b"".join(lines)
        after = rows_of(data)
        for same in after:
            if same[0] == row[0] and same[3] == row[3]:
                agreed += assert_agreement(data, same, after)
    assert agreed > 20


# --- single cases


def names_in(text: str, name: str, **known: int) -> list[str] | None:
    """The scope and those inside of it, if it can be cut out; by the lines of a scan, or these."""
    data = text.encode()
    piece = cut(data, name, known or lines_of(rows_of(data)))
    return None if piece is None else [row[0] for row in within(rows_of_slice(piece)[0], name)]


def test_scope_that_ends_the_text_without_a_line_end() -> None:
    assert names_in("class A:\n    def f(self): pass", "A.f") == ["A.f"]


def test_scope_that_is_not_there() -> None:
    assert names_in("def f(): pass\n", "g") is None
    assert names_in("def f(): pass\n", "f#2") is None
    assert names_in("def f(): pass\n", "C.f") is None
    assert names_in("def f(): pass\n", "g", f=1, g=1) is None
    assert names_in("def f(): pass\n", "f", f=99) == ["f"]
    assert names_in("", "f", f=1) is None
    assert names_in("f = 1\n", "f", f=1) is None


def test_name_that_begins_with_the_one_that_is_looked_for_is_another() -> None:
    assert names_in("def first(): pass\ndef fir(): pass\n", "fir", fir=1) == ["fir"]


def test_of_equal_names_the_one_is_found_that_is_meant_however_wrong_the_lines() -> None:
    text = "".join(f"class C{n}:\n    def f(self): self.a{n} = 1\n" for n in range(9))
    for n in range(9):
        for lineno in (1, 5, 10, 18, 90):
            known = {f"C{n}": lineno, f"C{n}.f": lineno + 1}
            piece = cut(text.encode(), f"C{n}.f", known)
            assert piece is not None
            rows, _ = rows_of_slice(piece)
            assert piece.lineno == 2 * n + 2
            assert f"self.a{n}".encode() in rows[piece.scope][5]


def test_other_number_of_definitions_than_was_known_takes_a_scan_of_the_whole() -> None:
    text = "def f(): x = 1\ndef f(): y = 1\n"
    assert names_in(text, "f", f=7) is None
    assert cut(text.encode(), "f#2", {"f": 7, "f#2": 8}) is not None
    assert cut(text.encode(), "f#2", {"f": 7, "f#2": 8, "f#3": 9}) is None
    # Those that stand where they are known to be are believed.
    piece = cut(text.encode(), "f", {"f": 2})
    assert piece is not None and piece.lineno == 2


def test_definitions_of_a_name_are_counted_whatever_they_are() -> None:
    text = "def f(): pass\nclass f: pass\nif 1:\n    def f(): x = 1\nasync def f(): y = 2\n"
    rows = rows_of(text.encode())
    for number, lineno in ((1, 1), (2, 2), (3, 4), (4, 5)):
        piece = cut(text.encode(), f"f#{number}" if number > 1 else "f", lines_of(rows))
        assert piece is not None and piece.lineno == lineno
        assert rows_of_slice(piece)[0][piece.scope][0] in ("f", f"f#{number}")


def test_definitions_of_inner_scopes_are_not_counted() -> None:
    text = "def f():\n    def f(): pass\ndef g():\n    def f(): pass\ndef f(): x = 1\n"
    assert names_in(text, "f#2") == ["f#2"]
    assert names_in(text, "g.f") == ["g.f"]


def test_attributes_are_those_of_the_first_argument_of_the_method_around() -> None:
    text = (
        "class C:\n    def f(this, x):\n        def g(y):\n            this.a = 1\n"
        "        def h(this):\n            this.b = 1\n"
        "    @staticmethod\n    def s(this):\n        def g():\n            this.c = 1\n"
        "    @classmethod\n    def t(\n        cls,\n        other):\n        def g():\n"
        "            cls.d = 1\n"
    ).encode()
    rows = rows_of(data=text)
    for row in rows[1:]:
        assert assert_agreement(text, row, rows), row[0]
    attributes = {row[0] for row in rows for name in (b"this.", b"cls.") if name in row[5]}
    assert attributes == {"C.f.g", "C.t.g"}


def test_decorators_across_lines_and_comments() -> None:
    text = (
        b"class C:\n    @deco(\n        1,\n    )\n    # why\n\n    @abc.staticmethod\n"
        b"    def f(self):\n        self.x = 1\n"
    )
    rows = rows_of(text)
    assert rows[2][2] == ord("M")
    assert assert_agreement(text, rows[2], rows)


@pytest.mark.parametrize("newline", ["\r\n", "\r"])
def test_line_ends_of_other_systems(newline: str) -> None:
    data = kSample.replace("\n", newline).encode()
    rows = rows_of(data)
    for row in rows[1:]:
        assert assert_agreement(data, row, rows), row[0]


def test_indentation_by_tabs() -> None:
    data = kSample.replace("    ", "\t").encode()
    rows = rows_of(data)
    for row in rows[1:]:
        assert assert_agreement(data, row, rows), row[0]


def test_bracket_that_reaches_behind_the_scope_by_indentation() -> None:
    data = b"def f():\n    x = g(1,\n2)\n    y = '''\ntext\n'''\n    z = 3\nw = 1\n"
    rows = rows_of(data)
    assert rows[1][4] == 7
    assert assert_agreement(data, rows[1], rows)


def test_line_that_goes_on_with_a_scope_that_seemed_to_have_ended() -> None:
    data = b"def f():\n    x = 1\ny = 2\n    z = 3\nw = 4\ndef g():\n    pass\n"
    rows = rows_of(data)
    assert b"z" in rows[1][5]
    assert assert_agreement(data, rows[1], rows)


def test_text_that_looks_like_code_leads_to_nothing() -> None:
    text = 'class C:\n    def a(self):\n        x = """\nclass D:\n"""\n    def f(self): pass\n'
    assert names_in(text, "C.f") is None
    text = text.replace("class D", "    def f(self)")
    assert names_in(text, "C.f") == ["C.f"]
    assert cut(text.encode(), "C.f", {"C": 1, "C.f": 7}) is None


def test_header_as_a_scope_of_its_own() -> None:
    lines = b"x = 1\n    async def f(a,\n          b: int = 2) -> str: y = 1\n".splitlines(True)
    header = header_row(lines, 1)
    assert header is not None and (header[0], header[3], header[4]) == ("f", 1, 2)
    assert header_row(lines, 0) is None
    assert header_row([b"def f(a): pass"], 0) is not None
    for half_typed in (b"def f(a", b"def f(a)", b"class (:\n", b""):
        assert header_row([half_typed], 0) is None
