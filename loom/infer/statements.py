"""Statements: the one that stands at a line, cut out of the text and parsed by itself."""

from __future__ import annotations

import ast
import re
from dataclasses import dataclass
from typing import TYPE_CHECKING, Final

if TYPE_CHECKING:
    from loom.infer.sources import SourceFile

__all__ = ["Statement", "statement_at"]

# Longer statements are tables; they aren't parsed, which would take more than some 10 ms.
_kMostBytes: Final = 32 * 1024
# How far the start of a statement is looked for, and its end: some 10 ms.
_kMostSearched: Final = 512 * 1024

_kToken: Final = re.compile(
    rb"""(?P<string>(?:\"\"\"|'''|"|'))|(?P<comment>\#[^\n]*)|(?P<open>[(\[{])|(?P<close>[)\]}])"""
    rb"""|(?P<joined>\\\r?\n)|(?P<line>\n)"""
)
_kStringEnds: Final = {
    b'"""': re.compile(rb'(?:[^\\"]|\\.|"(?!""))*+"""', re.DOTALL),
    b"'''": re.compile(rb"(?:[^\\']|\\.|'(?!''))*+'''", re.DOTALL),
    b'"': re.compile(rb'(?:[^\\"\n]|\\.)*+"', re.DOTALL),
    b"'": re.compile(rb"(?:[^\\'\n]|\\.)*+'", re.DOTALL),
}

# What no expression holds at the start of a line: a bracket before it was never closed.
_kKeyword: Final = re.compile(
    rb"[ \t]*(?:def|class|import|return|while|with|try|except|finally|raise|pass|break|continue|del"
    rb"|global|nonlocal|assert|elif|@\w)\b|[ \t]*from\b[^\n]*\bimport\b"
)
_kFirstWord: Final = re.compile(rb"[ \t]*(@|[a-z]+)")

# A header is parsed with what must stand before it.
_kBefore: Final = {
    b"elif": b"if 0: pass\n",
    b"else": b"if 0: pass\n",
    b"except": b"try: pass\n",
    b"finally": b"try: pass\n",
}
_kBlocks: Final = frozenset(
    (
        *(b"if", b"elif", b"else", b"for", b"while", b"with", b"try", b"except", b"finally"),
        *(b"def", b"class", b"async", b"match", b"case"),
    )
)


@dataclass(frozen=True, slots=True)
class Statement:
    """A logical line, from line `first` to line `last`, and its syntax tree.

    Lines of the tree are those of the file minus `line_shift`; columns on the first line are those
    of the file minus `indent`, on other lines they are the same. The tree is none if the text can't
    be parsed.
    """

    first: int
    last: int
    text: bytes
    tree: ast.Module | None
    line_shift: int
    indent: int

    def position(self, line: int, column: int) -> tuple[int, int]:
        """The place in the tree of a place in the file; columns are bytes."""
        return line - self.line_shift, column - self.indent if line == self.first else column

    def file_position(self, line: int, column: int) -> tuple[int, int]:
        """The place in the file of a place in the tree."""
        line += self.line_shift
        return line, column + self.indent if line == self.first else column


def statement_at(source: SourceFile, line: int) -> Statement | None:
    """The statement that holds a line; none for a blank line or a comment."""
    first = source.statement_start_before(line)
    offset = source.offset_of(first)
    data = source.data
    if source.offset_of(line) - offset > _kMostSearched:
        first, offset = line, source.offset_of(line)  # as if a statement began there
    while True:
        end, lines = _end_of(data, offset)
        if first + lines > line or end >= len(data):
            break
        first += lines
        offset = end
    text = data[offset:end].rstrip()
    if not text.strip() or text.lstrip().startswith(b"#"):
        return None
    return _parsed(text, first, lines)


def _end_of(data: bytes, offset: int) -> tuple[int, int]:
    """Where the logical line that begins at an offset ends, and how many lines it has.

    One that is too long ends at any line.
    """
    depth = 0
    lines = 0
    position = offset
    while True:
        token = _kToken.search(data, position)
        if token is None:
            return len(data), lines + 1
        position = token.end()
        kind = token.lastgroup
        if kind == "string":
            end = _kStringEnds[token.group()].match(data, position)
            if end is not None:
                lines += data.count(b"\n", position, end.end())
                position = end.end()
        elif kind == "open":
            depth += 1
        elif kind == "close":
            depth = max(0, depth - 1)
        elif kind == "joined":
            lines += 1
        elif kind == "line":
            lines += 1
            if depth == 0 or _kKeyword.match(data, position) is not None:
                return position, lines
            if position - offset > _kMostSearched:
                return position, lines


def _parsed(text: bytes, first: int, lines: int) -> Statement:
    stripped = text.lstrip(b" \t\f")
    indent = len(text) - len(stripped)
    word_match = _kFirstWord.match(stripped)
    word = word_match.group(1) if word_match is not None else b""
    before, after = b"", b""
    if word == b"@":
        after = b"\ndef _(): pass"
    elif word in _kBlocks:
        before = _kBefore.get(word, b"")
        after = b"\n pass"
        if word == b"match":
            after = b"\n case _: pass"
        elif word == b"try":
            after += b"\nfinally: pass"
    for head, tail, shift in (
        (before, after, 0),
        (b"match 0:\n ", b"\n  pass", 1),
        (b"match 0:\n ", b"", 1),
        (before, b"\nfinally: pass" if word == b"try" else b"", 0),
        (b"", b"", 0),
    ):
        if shift and word != b"case":
            continue
        tree = _parse(head + stripped + tail)
        if tree is not None:
            count = head.count(b"\n")
            return Statement(
                first, first + lines - 1, text, tree, first - 1 - count, indent - shift
            )
    return Statement(first, first + lines - 1, text, None, first - 1, indent)


def _parse(text: bytes) -> ast.Module | None:
    if len(text) > _kMostBytes:
        return None
    try:
        return ast.parse(text)
    except (SyntaxError, ValueError, RecursionError, MemoryError):
        return None
