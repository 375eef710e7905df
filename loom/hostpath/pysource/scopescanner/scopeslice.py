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
from collections.abc import Mapping, Sequence
from typing import Final, NamedTuple

from .headers import blanks_before, header_row, indentation

__all__ = ["ScopeSlice", "cut_out", "path_of_scope"]

# (name, which definition of that name it is in its scope, from 1), from the outermost scope inwards.
ScopePath = Sequence[tuple[str, int]]

_component = re.compile(r"([^\W\d]\w*)(?:#([1-9]\d*))?")
_header = re.compile(
    rb"[ \t\f]*(?:async[ \t]+)?(def|class)[ \t]+([A-Za-z_\x80-\xff][\w\x80-\xff]*)"
)

# Lines that continue a statement, or hold nothing, tell nothing by their indentation.
_kContinuations: Final = (b"#", b")", b"]", b"}", b"\r", b"\n", b'"""', b"'''")


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


def cut_out(lines: Sequence[bytes], path: ScopePath, known: Mapping[str, int]) -> ScopeSlice | None:
    """The slice of a text, given in lines, for a scope.

    `known` has the line, from 1, of the header of each scope that was found when the text was last
    scanned. Headers that are no longer there are looked for: they are found if as many of their
    name stand in their scope as were known. Else the result is none.
    """
    chain: list[int] = []
    earlier: list[Sequence[int]] = []
    scope = ""
    for name, number in path:
        expected = _known_definitions(known, f"{scope}.{name}" if scope else name)
        if number > len(expected):
            return None
        found = _definitions(lines, name.encode(), expected, number, chain)
        if found is None:
            return None
        earlier.append(found[: number - 1])
        chain.append(found[number - 1])
        scope = f"{scope}.{name}" if scope else name
        if number > 1:
            scope += f"#{number}"
    return _assemble(lines, chain, earlier)


def _known_definitions(known: Mapping[str, int], scope_name: str) -> list[int]:
    """The indices of the lines on which a scope stands and others that only differ in number."""
    result = []
    name = scope_name
    while name in known:
        result.append(known[name] - 1)
        name = f"{scope_name}#{len(result) + 1}"
    return result


def _definitions(
    lines: Sequence[bytes],
    name: bytes,
    expected: Sequence[int],
    number: int,
    outer: Sequence[int],
) -> Sequence[int] | None:
    """The lines of the first `number` definitions of a name inside of the header chain `outer`."""

    def is_one(at: int) -> bool:
        return _defines(lines[at], name) and _chain(lines, at)[:-1] == outer

    if all(at < len(lines) and is_one(at) for at in expected[:number]):
        return expected
    start = outer[-1] + 1 if outer else 0
    found = [at for at in range(start, len(lines)) if name in lines[at] and is_one(at)]
    return found if len(found) == len(expected) else None


def _defines(line: bytes, name: bytes) -> bool:
    match = _header.match(line)
    return match is not None and match[2] == name


def _chain(lines: Sequence[bytes], at: int) -> list[int]:
    """The lines of the headers around the one on a line, and itself, the outermost first."""
    chain = [at]
    column = indentation(lines[at])
    while column > 0 and at > 0:
        deeper = b" " * column
        at -= 1
        while at > 0 and lines[at].startswith(deeper):
            at -= 1
        line = lines[at]
        if line.lstrip(b" \t\f").startswith(_kContinuations):
            continue
        outer = indentation(line)
        if outer < column:
            column = outer
            if _header.match(line):
                chain.append(at)
    return chain[::-1]


def _names(lines: Sequence[bytes], chain: Sequence[int]) -> list[bytes]:
    return [match[2] for at in chain if (match := _header.match(lines[at]))]


def _assemble(
    lines: Sequence[bytes], chain: Sequence[int], earlier: Sequence[Sequence[int]]
) -> ScopeSlice | None:
    pieces: list[bytes] = []
    next_line = 0
    scopes = 1  # the module
    for depth, (at, name) in enumerate(zip(chain, _names(lines, chain), strict=True)):
        start = _decorated(lines, at, next_line)
        indent = blanks_before(lines[at])
        # So that it counts as the definition of its name that it is.
        before = [b"%bdef %b(): 0\n" % (indent, name)] * len(earlier[depth])
        if indent and depth == 0:
            before.insert(0, b"if 1:\n")  # it stands in some block of the module
        if start - len(before) < next_line:
            return None
        # A line feed could join a carriage return before it.
        pieces.append(b"\r" * (start - len(before) - next_line))
        pieces += before
        scopes += len(earlier[depth])
        if at == chain[-1]:
            body = sum(map(len, pieces))
            pieces += lines[start:]
            return ScopeSlice(b"".join(pieces), scopes, at + 1, body)
        # Of the scopes around, arguments and decorators tell what is an attribute of the instance.
        header = header_row(lines, at)
        if header is None:
            return None
        next_line = at + header[4]
        pieces += lines[start:next_line]
        scopes += 1
    return None


def _decorated(lines: Sequence[bytes], at: int, first: int) -> int:
    """The line of the first decorator of the definition on a line, not above line `first`."""
    column = indentation(lines[at])
    deeper = b" " * (column + 1)
    start = at
    for other in range(at - 1, first - 1, -1):
        if lines[other].startswith(deeper):
            continue
        text = lines[other].lstrip(b" \t\f")
        if text.startswith(_kContinuations) or (indent := indentation(lines[other])) > column:
            continue
        if indent < column or not text.startswith(b"@"):
            break
        start = other
    return start
