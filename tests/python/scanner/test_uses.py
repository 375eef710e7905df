"""Where names stand in a source, and whose they are."""

import pytest
from oracle import read_source
from scanning import Scanned
from test_agreement import SNIPPETS, chosen
from useoracle import EXPRESSION, NO_HOME, NOWHERE, use_differences

from loom._pyscan import SourceScanner


def test_uses_agree_with_the_tree() -> None:
    """Chains, kinds, places and homes are equal in every file of the sample."""
    compared = 0
    reports = []
    for path in chosen():
        text = read_source(path)
        try:
            found = None if text is None else use_differences(text)
        except RecursionError:
            continue  # the oracle's own
        if found is not None:
            compared += 1
        if found:
            reports.append("\n    ".join([str(path), *found[:3]]))
    assert not reports, "\n".join(reports)
    assert compared >= 100


@pytest.mark.parametrize("name", SNIPPETS)
def test_uses_of_a_snippet_agree_with_the_tree(name: str) -> None:
    """Small sources, one for each construct and quirk of the grammar."""
    assert use_differences(SNIPPETS[name]) == []


def uses(source: str) -> list[tuple[str, str, int, int, int]]:
    """(text, kind, home, line, column) of each use."""
    scanned = Scanned(source).with_uses()
    return [(text, kind, home, line, column) for _, home, text, kind, line, column in scanned.uses]


def reads(source: str) -> list[tuple[str, int]]:
    """(text, home) of what is read."""
    return [(text, home) for text, kind, home, _, _ in uses(source) if kind == "r"]


def test_a_small_source_from_end_to_end() -> None:
    """Each kind of use with its place."""
    source = "from a.b import c as d\nimport e.f\nx = d(e . f, k=1)\ny().z.w\n"
    assert uses(source) == [
        ("a.b", "i", NO_HOME, 1, 5),
        ("a.b c", "f", NO_HOME, 1, 16),
        ("d", "b", 0, 1, 21),
        ("e.f", "i", NO_HOME, 2, 7),
        ("x", "b", 0, 3, 0),
        ("d", "r", 0, 3, 4),
        ("e.f", "r", 0, 3, 6),
        ("k", "k", NO_HOME, 3, 13),
        ("y", "r", NOWHERE, 4, 0),
        (".z.w", "r", NO_HOME, 4, 4),
    ]


def test_used_names_each_once_and_no_variables_of_functions() -> None:
    """But what attributes they are asked for."""
    source = "def f(a):\n    b = a; c = b.x; b.x; g(b)\n    [d.y for d in a]\n    def g(): return h, h\n"
    assert Scanned(source).with_uses().used == [
        (0, "f", "b"),
        (1, "b.x", "r"),
        (EXPRESSION, "d.y", "r"),
        (NOWHERE, "h", "r"),
    ]


@pytest.mark.parametrize(
    ("source", "expected"),
    [
        ("[x for x in x]", [("x", EXPRESSION), ("x", NOWHERE)]),
        ("[y for x in a for y in x]", [("y", EXPRESSION), ("a", NOWHERE), ("x", EXPRESSION)]),
        ("{k: v for k, (v, w.x[i]) in a}", [("k", EXPRESSION), ("v", EXPRESSION)]),
        ("f(lambda x, y=x: x + y + z)", [("f", NOWHERE), ("x", NOWHERE)]),
        ("[lambda: x for x in y]", [("x", EXPRESSION), ("y", NOWHERE)]),
        ("f'{x!r:{y}} {[x for x in z]}'", [("x", NOWHERE), ("y", NOWHERE), ("x", EXPRESSION)]),
        ("f'{f'{a.b}'}'", [("a.b", NOWHERE)]),
        ("f'{x=}'", [("x", NOWHERE)]),
    ],
)
def test_names_that_expressions_bind(source: str, expected: list[tuple[str, int]]) -> None:
    """Comprehensions and lambdas, in f-strings as well."""
    assert reads(source)[: len(expected)] == expected


@pytest.mark.parametrize(
    ("source", "expected"),
    [
        ("x = 1\nclass C:\n  x = 2\n  def f(self): return x\n  y = x\n", [("x", 0), ("x", 1)]),
        ("def f():\n  x = 1\n  def g():\n    global x\n    x\n", [("x", 0)]),
        ("def f():\n  x = 1\n  def g():\n    nonlocal x\n    x\n", [("x", 1)]),
        ("class C[T](B[T]):\n  def f(self, a: T): pass\n", [("B", -1), ("T", 1), ("T", 1)]),
        ("def f(x=x): x\n", [("x", NOWHERE), ("x", 1)]),
        ("def f(): x; x = 1\n", [("x", 1)]),
        ("@x\nclass x: x\n", [("x", 0), ("x", 0)]),
    ],
)
def test_homes_of_names(source: str, expected: list[tuple[str, int]]) -> None:
    """By the rules of the language."""
    assert reads(source) == expected


def test_columns_count_bytes_of_utf_8() -> None:
    """From the begin of the physical line, without a byte order mark."""
    assert uses("\ufeffé = x\n'ü'; (y,\n  z)\r\tw") == [
        ("é", "b", 0, 1, 0),
        ("x", "r", NOWHERE, 1, 5),
        ("y", "r", NOWHERE, 2, 7),
        ("z", "r", NOWHERE, 3, 2),
        ("w", "r", NOWHERE, 4, 1),
    ]


@pytest.mark.parametrize("chunk", [1, 7])
def test_uses_do_not_depend_on_how_the_scan_was_divided(chunk: int) -> None:
    """Neither do all other results."""
    source = "\n".join(SNIPPETS.values())
    whole, divided = Scanned(source).with_uses(), Scanned(source).with_uses(chunk)
    assert whole.uses == divided.uses
    assert whole.used == divided.used


@pytest.mark.parametrize(
    "source",
    [
        "x = f'{(a",
        "x = f'{[a for a in (b\ndef f(): pass",
        "(a.b\nimport c\nd.e",
        "lambda x: (lambda y\n: x",
        "f'''{a}\n{b}''' c\nd",
        "[" * 300 + "x for x in y" + "]" * 300,
        "[x for " * 60 + "x in y" + "]" * 60,
        "f(" + ", ".join(f"lambda a{n}: a{n}" for n in range(200)) + ")",
        "import\nfrom\nfrom . import\nimport a.\nfrom a import (b as\n",
        "type X[\nmatch x:\n case",
        "a.b.\n.c\n...d",
    ],
)
def test_broken_sources_have_uses_too(source: str) -> None:
    """Each within its line, in order."""
    found = uses(source)
    lines = source.encode().split(b"\n")
    for text, _, _, line, column in found:
        first = text.lstrip(".").split(".")[0].split(" ")[0].encode()
        assert not first or lines[line - 1][column:].startswith((first, b".")) or " " in text
    assert [use[3:] for use in found] == sorted(use[3:] for use in found)


def test_work_for_nested_comprehensions_is_bounded() -> None:
    """What is nested deeper than any program is taken for plain names."""
    source = "[" * 100 + "x" + " for x in y]" * 100
    homes = {home for text, _, home, _, _ in uses(source) if text == "x"}
    assert homes == {EXPRESSION}
    deep = [home for text, _, home, _, _ in uses("(a for a in b" * 40 + ")" * 40) if text == "b"]
    assert deep == [NOWHERE] * 40


def test_uses_are_there_only_if_they_were_asked_for_and_the_scan_is_over() -> None:
    """Otherwise asking is an error; so is a wrong part."""
    scanner = SourceScanner(b"x = 1\n" * 100)
    scanner.scan(1 << 20)
    with pytest.raises(ValueError, match="recorded"):
        scanner.uses()
    scanner = SourceScanner(b"x = 1\n" * 100, uses=True)
    with pytest.raises(ValueError, match="end"):
        scanner.used()
    while not scanner.scan(1 << 20):
        pass
    assert len(scanner.uses()) == 100
    assert scanner.uses(98) == scanner.uses()[98:]
    assert scanner.uses(1, 2) == scanner.uses()[1:3]
    with pytest.raises(ValueError, match="first"):
        scanner.used(-1)
