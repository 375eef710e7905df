"""Branches of a statement: which lines can't have run when another line runs."""

from __future__ import annotations

import re
from typing import TYPE_CHECKING, Final

if TYPE_CHECKING:
    from loom.infer.sources import SourceFile

__all__ = ["is_left", "other_branches"]

_kWord: Final = re.compile(rb"([ \t]*)([^\W\d]\w*|\S)")

# What such a header can follow, and what of that excludes it.
_kFollows: Final = {
    b"elif": (b"if", b"elif"),
    b"else": (b"if", b"elif", b"except", b"for", b"while", b"try"),
    b"except": (b"except", b"try"),
    b"case": (b"case",),
}
# The body of these may have run, in part at least.
_kShared: Final = frozenset((b"for", b"while", b"try"))

# What a block ends with that isn't left at its end.
_kLeaving: Final = frozenset((b"return", b"raise", b"continue", b"break"))

# How far back branches are looked for.
_kMostLines: Final = 2000


def other_branches(source: SourceFile, line: int) -> list[tuple[int, int]]:
    """(first, last) line of each branch that isn't run if the line is.

    By indentation alone, so that it only tells what is likely: text within brackets and literals is
    taken for what it looks like.
    """
    found: list[tuple[int, int]] = []
    indent = _word(source, line)[0]
    lowest = max(1, line - _kMostLines)
    number = line
    while number > lowest and indent > 0:
        number -= 1
        depth, word = _word(source, number)
        if not word or depth >= indent:
            continue
        indent = depth
        if word in _kFollows:
            found += _siblings(source, number, depth, word, lowest)
    return found


def is_left(source: SourceFile, line: int, later: int) -> bool:
    """Whether the block around a line is left, by a jump, before it comes to a later line."""
    indent = _word(source, line)[0]
    last = b""
    for number in range(line, min(later, line + _kMostLines)):
        depth, word = _word(source, number)
        if not word or depth > indent:
            continue
        if depth < indent:
            return last in _kLeaving
        last = word
    return False


def _siblings(
    source: SourceFile, header: int, indent: int, word: bytes, lowest: int
) -> list[tuple[int, int]]:
    """The branches before the one that a header begins, which exclude it."""
    found: list[tuple[int, int]] = []
    last = header - 1
    for number in range(header - 1, lowest - 1, -1):
        depth, before = _word(source, number)
        if not before or depth > indent:
            continue
        if depth < indent or before not in _kFollows[word]:
            break
        if before not in _kShared:
            found.append((number + 1, last))
        last = number - 1
        if before not in _kFollows:
            break
    return found


def _word(source: SourceFile, line: int) -> tuple[int, bytes]:
    """The indentation of a line and its first word; no word for a blank line or a comment."""
    match = _kWord.match(source.line(line))
    if match is None or match[2] == b"#":
        return 0, b""
    return len(match[1].expandtabs()), match[2]
