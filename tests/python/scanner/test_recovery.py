"""A source with errors yields what stands before, after and around them.

Files of the standard library are broken at fixed random places, and what is found then is compared
with what was found before.
"""

import ast
import random
import sysconfig
from collections import Counter
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import pytest
from oracle import parse
from scanning import Scanned

STDLIB = Path(sysconfig.get_paths()["stdlib"])
FILES = [
    *("argparse.py", "ast.py", "bdb.py", "calendar.py", "codecs.py", "configparser.py", "csv.py"),
    *("dataclasses.py", "difflib.py", "enum.py", "fractions.py", "ftplib.py", "heapq.py"),
    *("inspect.py", "locale.py", "mailbox.py", "optparse.py", "pathlib.py", "pdb.py", "pickle.py"),
    *("platform.py", "pprint.py", "shutil.py", "smtplib.py", "socket.py", "statistics.py"),
    *("subprocess.py", "tarfile.py", "threading.py", "uuid.py", "weakref.py", "zipfile/__init__.py"),
]
ATTEMPTS = 80

type Lines = list[str]


@dataclass
class Broken:
    """A source with one damage, which begins on line `line`, counted from 0."""

    text: str
    line: int
    before: Scanned
    starts: list[int]  # first lines of all statements of the whole source


def delete_one(characters: str) -> Callable[[Lines, random.Random], int]:
    """Return a damage that takes away one of some characters."""

    def damage(lines: Lines, rng: random.Random) -> int:
        where = [n for n, line in enumerate(lines) if set(line) & set(characters)]
        n = rng.choice([n for n in where if '"""' not in lines[n] and "'''" not in lines[n]])
        at = rng.choice([at for at, c in enumerate(lines[n]) if c in characters])
        lines[n] = lines[n][:at] + lines[n][at + 1 :]
        return n

    return damage


def insert_one(characters: str) -> Callable[[Lines, random.Random], int]:
    """Return a damage that puts one of some characters somewhere."""

    def damage(lines: Lines, rng: random.Random) -> int:
        n = rng.randrange(len(lines))
        at = rng.randrange(len(lines[n]) + 1)
        lines[n] = lines[n][:at] + rng.choice(characters) + lines[n][at:]
        return n

    return damage


def insert_line(*texts: str, indent: bool = False) -> Callable[[Lines, random.Random], int]:
    """Return a damage that puts a line somewhere, at the depth of its neighbour if `indent`."""

    def damage(lines: Lines, rng: random.Random) -> int:
        n = rng.randrange(len(lines))
        depth = len(lines[n]) - len(lines[n].lstrip()) if indent else 0
        lines.insert(n, " " * depth + rng.choice(texts))
        return n

    return damage


def drop_colon(lines: Lines, rng: random.Random) -> int:
    n = rng.choice([n for n, line in enumerate(lines) if line.endswith(":")])
    lines[n] = lines[n][:-1]
    return n


def drop_triple_quote(lines: Lines, rng: random.Random) -> int:
    n = rng.choice([n for n, line in enumerate(lines) if '"""' in line])
    lines[n] = lines[n].replace('"""', "", 1)
    return n


def shift_line(lines: Lines, rng: random.Random) -> int:
    n = rng.choice([n for n, line in enumerate(lines) if line.startswith("    ")])
    lines[n] = lines[n][rng.randrange(1, 5) :]
    return n


def mark_conflict(lines: Lines, rng: random.Random) -> int:
    n = rng.choice([n for n, line in enumerate(lines) if '"""' not in line])
    lines[n : n + 1] = ["<<<<<<< HEAD", lines[n], "=======", lines[n], ">>>>>>> branch"]
    return n


HALF_TYPED = ["x = ", "x.", "foo(", "y = [1,", "import ", "from . import", "if x", "for x in", "@"]
HALF_DEFINED = ["def f(", "def f", "class A(", "class ", "def f(self, a", "async def"]

# For each damage: the share of files that must lose nothing at all, and the share of all bindings that
# may be lost over all files. Both leave some room: other versions have other files.
DAMAGES: dict[str, tuple[Callable[[Lines, random.Random], int], float, float]] = {
    "closing bracket deleted": (delete_one(")]}"), 0.9, 0.005),
    "opening bracket deleted": (delete_one("([{"), 0.7, 0.02),
    "quote deleted": (delete_one("'\""), 0.85, 0.01),
    "any character deleted": (delete_one("".join(map(chr, range(32, 127)))), 0.7, 0.02),
    "bracket inserted": (insert_one("([{"), 0.65, 0.02),
    "closing bracket inserted": (insert_one(")]}"), 0.75, 0.02),
    "quote inserted": (insert_one("'\""), 0.6, 0.03),
    "colon deleted": (drop_colon, 0.95, 0.005),
    "triple quote deleted": (drop_triple_quote, 0.8, 0.04),
    "indentation cut": (shift_line, 0.8, 0.02),
    "conflict marked": (mark_conflict, 0.85, 0.01),
    "junk at column 0": (insert_line("asdf qwer", "print 'x'", ")", '"abc', "x ="), 0.8, 0.02),
    "half-typed line": (insert_line(*HALF_TYPED, indent=True), 0.8, 0.01),
    "half-typed definition": (insert_line(*HALF_DEFINED, indent=True), 0.6, 0.03),
    "null byte": (insert_one("\0"), 0.6, 0.02),
}


def found(scanned: Scanned) -> Counter[tuple[str, str, str]]:
    """Return each binding with the name of its scope."""
    return Counter((scanned.scopes[s].name, name, kind) for s, name, kind, _ in scanned.names)


@pytest.fixture(scope="module")
def whole_files() -> list[tuple[str, Scanned, list[int]]]:
    """Sources with what is found in them and the first lines of their statements."""
    files = []
    for name in FILES:
        text = (STDLIB / name).read_text(encoding="utf-8")
        tree = parse(text)
        assert tree is not None
        starts = sorted(
            min([node.lineno, *(d.lineno for d in getattr(node, "decorator_list", []))])
            for node in ast.walk(tree)
            if isinstance(node, ast.stmt)
        )
        files.append((text, Scanned(text), starts))
    return files


def broken_files(
    files: list[tuple[str, Scanned, list[int]]],
    damage: Callable[[Lines, random.Random], int],
) -> list[Broken]:
    """Break files, the same way in each run."""
    rng = random.Random(11)
    broken = []
    for attempt in range(ATTEMPTS):
        text, before, starts = files[attempt % len(files)]
        lines = text.split("\n")
        line = damage(lines, rng)
        broken.append(Broken("\n".join(lines), line, before, starts))
    return broken


@pytest.mark.parametrize("name", DAMAGES)
def test_what_stands_before_the_damage_is_found_unchanged(
    name: str, whole_files: list[tuple[str, Scanned, list[int]]]
) -> None:
    """Every binding of the statements before the damaged one, with its line."""
    for broken in broken_files(whole_files, DAMAGES[name][0]):
        # The damaged statement, which may have begun on an earlier line.
        first = max((start for start in broken.starts if start <= broken.line + 1), default=1)
        after = Scanned(broken.text)

        def before_it(scanned: Scanned, first: int = first) -> list[tuple[str, str, str, int]]:
            return [
                (scanned.scopes[s].name, name, kind, line)
                for s, name, kind, line in scanned.names
                if line < first
            ]

        assert before_it(after) == before_it(broken.before)


@pytest.mark.parametrize("name", DAMAGES)
def test_what_stands_around_the_damage_is_found(
    name: str, whole_files: list[tuple[str, Scanned, list[int]]]
) -> None:
    """Most damages lose nothing beside themselves, and few lose more than that."""
    damage, intact_share, lost_share = DAMAGES[name]
    intact = lost = total = 0
    broken_sources = broken_files(whole_files, damage)
    for broken in broken_sources:
        before = found(broken.before)
        missing = (before - found(Scanned(broken.text))).total()
        intact += missing == 0
        lost += missing
        total += before.total()
    assert intact / len(broken_sources) >= intact_share
    assert lost / total <= lost_share


BEFORE = "a = 1\nclass C:\n    def f(self):\n        b = 1\n"
AFTER = "    def g(self):\n        c = 1\ndef h():\n    d = 1\n"


@pytest.mark.parametrize(
    ("line", "remark"),
    [
        ("        x = foo(1,", "'(' was never closed"),
        ("        x = [1, (2, 3", "'[' was never closed"),
        ("        x = {1: (2, ]", "unmatched ']'"),
        ("        x = 'abc", "unterminated string literal"),
        ("        x = foo('abc)", "unterminated string literal"),
        ("        x = f'{a", "unterminated f-string literal"),
        ("        x = f'{a!r:{b}", "unterminated f-string literal"),
        ("        x = f'a}'", "f-string: single '}' is not allowed"),
        ("        x = ", None),
        ("        x = 1)", "unmatched ')'"),
        ("        x = `a` $ ?", "invalid character"),
        ("        x = 1 + \\", "unexpected statement behind a line continuation"),
        ("        x = 1 \\ + 2", "unexpected character behind a line continuation"),
        ("      x = 1", "unindent does not match any outer indentation level"),
        ("          x = 1", "unexpected indent"),
        ("\tx = 1", "inconsistent use of tabs and spaces in indentation"),
        ("x = 1", "unexpected indent"),
        ("        if x", "expected ':'"),
        ("        if x:", "expected an indented block"),
        ("        def x(", "'(' was never closed"),
        ("        def", "expected the name of a function"),
        ("        class :", "expected the name of a class"),
        ("        def x(self", "'(' was never closed"),
        ("        class x(", "'(' was never closed"),
        ("        from . import", None),
        ("        import a.", None),
        ("        from a import (x,", "'(' was never closed"),
        ("<<<<<<< HEAD\n        x = 1\n=======\n        x = 2\n>>>>>>> b", "merge conflict marker"),
        ("        print 'x'; exec y", None),
        ("        x = 1\0", "source code cannot contain null bytes"),
        ('        x = """abc', "unterminated triple-quoted string literal"),
        ("        x = f'''abc{y}", "unterminated triple-quoted f-string literal"),
    ],
)
def test_one_broken_line(line: str, remark: str | None) -> None:
    """Everything around it is found in its scope, and the line is told."""
    scanned = Scanned(f"{BEFORE}{line}\n{AFTER}")
    found_names = {(scanned.scopes[s].name, name) for s, name, _, _ in scanned.names}
    assert {
        ("", "a"),
        ("", "C"),
        ("C", "f"),
        ("C.f", "b"),
        ("C", "g"),
        ("C.g", "c"),
        ("", "h"),
        ("h", "d"),
    } <= found_names
    if remark is None:
        assert scanned.errors == []
    else:
        assert remark in {text for _, text in scanned.errors}
        assert all(5 <= lineno <= 10 for lineno, _ in scanned.errors)


def test_missing_end_of_a_docstring() -> None:
    """The start of the next literal betrays it: no name stands behind a string."""
    scanned = Scanned(
        'def f():\n    """Do this.\n    x = 1\ndef g():\n    """Do that."""\n    y = 2\ndef h(): pass\n'
    )
    assert [scope.name for scope in scanned.scopes] == ["", "f", "g", "h"]
    assert [name for name, _, _ in scanned.bound("f")] == ["x"]
    assert scanned.errors == [(2, "unterminated triple-quoted string literal")]


def test_missing_start_of_a_docstring() -> None:
    """What is taken for its start is given up at the next one."""
    scanned = Scanned(
        'def f():\n    Do this.\n    """\n    x = 1\ndef g():\n    """Do that."""\n    y = 2\n'
    )
    assert [scope.name for scope in scanned.scopes] == ["", "f", "g"]
    assert [name for name, _, _ in scanned.bound("f")] == ["x"]
    assert [name for name, _, _ in scanned.bound("g")] == ["y"]


def test_keyword_inside_of_brackets_ends_them() -> None:
    """Whatever their depth, at whichever indentation."""
    scanned = Scanned("x = foo([{\n        def f():\n            y = 1\n")
    assert [scope.name for scope in scanned.scopes] == ["", "f"]
    assert scanned.errors == [(1, "'(' was never closed"), (2, "unexpected indent")]


@pytest.mark.parametrize(
    "source",
    [
        "x = (yield\n  from y)\ndef f(): pass\n",
        "x = [a\nfor b in c\nif d\nelse e]\ndef f(): pass\n",
        "x = (a\nand not b\nor c\nis d\nin e)\ndef f(): pass\n",
        "x = (await\na, lambda:\nb, None,\nasync_)\ndef f(): pass\n",
        "x = [a\nasync for b in c]\ndef f(): pass\n",
    ],
)
def test_keywords_of_expressions_do_not_end_brackets(source: str) -> None:
    """They go on with what the line before began."""
    assert Scanned(source).errors == []


def test_lines_behind_an_unclosed_bracket_are_scanned_again() -> None:
    """From the first that could start a statement; those that are indented more are its rest."""
    scanned = Scanned("x = foo(1,\n        y=2,\n    z=3\nw = 4\nv = 5\ndef f(): pass\n")
    assert [name for name, _, _ in scanned.bound()] == ["x", "w", "v", "f"]


def test_remarks_are_limited() -> None:
    """A file that is no Python at all has no more than 100."""
    scanned = Scanned(")\n" * 1000)
    assert scanned.errors == [(n, "unmatched ')'") for n in range(1, 101)]
