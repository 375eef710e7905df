"""Cutting one scope out of a text, so that it can be scanned without the rest.

What is cut out is a text of its own in which the scope comes out under the same name, of the same
kind and on the same lines as in the whole: blank lines take the place of what is left out, the
headers of the scopes around it and of earlier ones of its name stand on their lines, and the text
goes on behind the scope, for whoever scans it to stop there.

Where a scope stands is judged by indentation and by what the headers say. A text that can mislead
that (a bracket or a literal across lines, with less indentation than its statement) leads to
nothing being found, in which case the whole text must be scanned.
"""

from __future__ import annotations

import re
from collections.abc import Iterator, Sequence
from typing import Final, NamedTuple

from loom._pyscan import SourceScanner
from loom.store.records import ScopeRow

__all__ = ["ScopeSlice", "cut_out", "header_row", "path_of_scope"]

# (name, which definition of that name it is in its scope, from 1), from the outermost scope inwards.
ScopePath = Sequence[tuple[str, int]]

_component = re.compile(r"([^\W\d]\w*)(?:#([1-9]\d*))?")
_header = re.compile(
    rb"[ \t\f]*(?:async[ \t]+)?(def|class)[ \t]+([A-Za-z_\x80-\xff][\w\x80-\xff]*)"
)

_kTabSize: Final = 8
# Lines that continue a statement, or hold nothing, tell nothing by their indentation.
_kContinuations: Final = (b"#", b")", b"]", b"}", b"\r", b"\n", b'"""', b"'''")

# Lines away from where the scope is expected in which its header is looked for.
_kMaxDistance: Final = 2000
# The longest header that is followed line by line.
_kMaxHeaderLines: Final = 200


class ScopeSlice(NamedTuple):
    """`text`, in which the scope has the index `scope` and begins on line `lineno`, from 1.

    `body` is where in the text the decorators and the header of the scope begin.
    """

    text: bytes
    scope: int
    lineno: int
    body: int


def path_of_scope(scope_name: str) -> ScopePath | None:
    """The way to a scope that a text can define; none for the module and other kinds of scopes."""
    path = []
    for component in scope_name.split("."):
        match = _component.fullmatch(component)
        if match is None:
            return None
        path.append((match[1], int(match[2] or 1)))
    return path


def cut_out(lines: Sequence[bytes], path: ScopePath, lineno: int) -> ScopeSlice | None:
    """The slice of a text, given in lines, for the scope that stands on line `lineno` or nearby.

    None if it isn't there, or if that can't be told.
    """
    name = path[-1][0].encode()
    for at in _candidates(lines, name, lineno - 1):
        chain = _chain(lines, at)
        if _names(lines, chain) == [name.encode() for name, _ in path]:
            earlier = _earlier_siblings(lines, chain)
            if [len(ats) + 1 for ats in earlier] == [number for _, number in path]:
                return _assemble(lines, chain, earlier)
    return None


def _candidates(lines: Sequence[bytes], name: bytes, expected: int) -> Iterator[int]:
    """Lines with a definition of the name, those near the expected one first."""
    for distance in range(_kMaxDistance):
        for at in {expected - distance, expected + distance}:
            if 0 <= at < len(lines) and name in lines[at] and _defines(lines[at], name):
                yield at


def _defines(line: bytes, name: bytes) -> bool:
    match = _header.match(line)
    return match is not None and match[2] == name


def _chain(lines: Sequence[bytes], at: int) -> list[int]:
    """The lines of the headers around the one on a line, and itself, the outermost first."""
    chain = [at]
    column = _column(lines[at])
    while column > 0 and at > 0:
        deeper = b" " * column
        at -= 1
        while at > 0 and lines[at].startswith(deeper):
            at -= 1
        line = lines[at]
        if line.lstrip(b" \t\f").startswith(_kContinuations):
            continue
        outer = _column(line)
        if outer < column:
            column = outer
            if _header.match(line):
                chain.append(at)
    return chain[::-1]


def _column(line: bytes) -> int:
    blanks = len(line) - len(line.lstrip(b" "))
    if line[blanks : blanks + 1] not in (b"\t", b"\f"):
        return blanks
    column = 0
    for byte in line:
        if byte == 0x20:
            column += 1
        elif byte == 0x09:
            column = (column // _kTabSize + 1) * _kTabSize
        elif byte == 0x0C:
            column = 0
        else:
            break
    return column


def _names(lines: Sequence[bytes], chain: Sequence[int]) -> list[bytes]:
    return [match[2] for at in chain if (match := _header.match(lines[at]))]


def _earlier_siblings(lines: Sequence[bytes], chain: Sequence[int]) -> list[list[int]]:
    """For each header of the chain, the lines of earlier definitions of its name in its scope."""
    result = []
    for depth, (at, name) in enumerate(zip(chain, _names(lines, chain), strict=True)):
        outer = chain[:depth]
        start = outer[-1] + 1 if outer else 0
        result.append(
            [
                other
                for other in range(start, at)
                if name in lines[other]
                and _defines(lines[other], name)
                and _chain(lines, other)[:-1] == outer
            ]
        )
    return result


def _assemble(
    lines: Sequence[bytes], chain: Sequence[int], earlier: Sequence[Sequence[int]]
) -> ScopeSlice | None:
    pieces: list[bytes] = []
    next_line = 0
    scopes = 1  # the module

    def put(at: int, *put_lines: bytes) -> bool:
        nonlocal next_line
        if at < next_line:
            return False
        pieces.append(b"\n" * (at - next_line))
        pieces.extend(put_lines)
        next_line = at + len(put_lines)
        return True

    names = _names(lines, chain)
    first_indent = _indentation(lines[chain[0]])
    if first_indent:
        # It stands in a block of the module, which has begun above it.
        first = min(chain[0], _decorated(lines, chain[0], 0), *earlier[0])
        if first == 0 or not put(first - 1, b"if 1:\n"):
            return None
    for depth, at in enumerate(chain):
        indent = _indentation(lines[at])
        for sibling in earlier[depth]:
            if not put(sibling, b"%bdef %b(): 0\n" % (indent, names[depth])):
                return None
            scopes += 1
        start = _decorated(lines, at, chain[depth - 1] + 1 if depth else 0)
        if depth == len(chain) - 1:
            if not put(start):
                return None
            body = sum(map(len, pieces))
            pieces.extend(lines[start:])
            return ScopeSlice(b"".join(pieces), scopes, at + 1, body)
        if lines[at].lstrip().startswith(b"class"):
            done = put(at, b"%bclass %b:\n" % (indent, names[depth]))
        else:
            # Its arguments and decorators tell what is an attribute of the instance.
            header = header_row(lines, at)
            done = header is not None and put(start, *lines[start : at + header[4]])
        if not done:
            return None
        scopes += 1
    return None


def _indentation(line: bytes) -> bytes:
    return line[: len(line) - len(line.lstrip(b" \t\f"))]


def _decorated(lines: Sequence[bytes], at: int, first: int) -> int:
    """The line of the first decorator of the definition on a line, not above line `first`."""
    column = _column(lines[at])
    start = at
    for other in range(at - 1, first - 1, -1):
        text = lines[other].lstrip(b" \t\f")
        if text.startswith(_kContinuations) or (indent := _column(lines[other])) > column:
            continue
        if indent < column or not text.startswith(b"@"):
            break
        start = other
    return start


def header_row(lines: Sequence[bytes], at: int) -> ScopeRow | None:
    """What the header on a line defines in its scope, as if the text began on that line."""
    text = b"".join(lines[at : at + _kMaxHeaderLines])
    source = SourceScanner(text[len(_indentation(text)) :])
    while not source.scan(1):
        if rows := source.scopes(1, 1):
            return rows[0]
    return None
