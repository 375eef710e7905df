"""Headers of definitions: where a line begins, and what a header says of its scope."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Final

from pysource.symbolinfo import (
    GetInfoBytesKind,
    IsDefOrClassKind,
    NonNestedSplit,
    UnpackDefInfoStr,
    kArgPrefix,
    kDecoratorPrefix,
    kTypeHintPrefix,
    kTypeParameterPrefix,
)

from loom._pyscan import SourceScanner, pack_info, unpack_info
from loom.store.records import ScopeRow

__all__ = ["blanks_before", "def_line_info", "header_parts", "header_row", "indentation"]

_kTabSize: Final = 8

# The longest header that is followed line by line.
_kMaxHeaderLines: Final = 200

_kDefLineParts: Final = (kArgPrefix, kTypeHintPrefix, kTypeParameterPrefix)


def indentation(line: bytes) -> int:
    """The column, from 0, in which a line begins."""
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


def blanks_before(line: bytes) -> bytes:
    """The blanks that a line begins with."""
    return line[: len(line) - len(line.lstrip(b" \t\f"))]


def header_row(lines: Sequence[bytes], at: int) -> ScopeRow | None:
    """What the header on a line defines in its scope, as if the text began on that line.

    None if something is wrong with it.
    """
    text = b"".join(lines[at : at + _kMaxHeaderLines])
    source = SourceScanner(text[len(blanks_before(text)) :])
    at_end = False
    while not at_end:
        at_end = source.scan(1)
        if rows := source.scopes(1, 1):
            return rows[0] if rows[0][3] == 1 and not source.errors() else None
    return None


def def_line_info(row: ScopeRow, lines: Sequence[bytes]) -> bytes:
    """The names that stand in the header of a scope, packed; none if the header is half-typed."""
    header = header_row(lines, row[3] - 1)
    own: dict[str, bytes] = {}
    for bound, info in unpack_info(header[5]).items() if header is not None else ():
        parts = NonNestedSplit(info, ";")
        if bound == "return" or parts[0].startswith((kArgPrefix, kTypeParameterPrefix)):
            of_header = [part for part in parts if part.startswith(_kDefLineParts)]
            if of_header:
                own[bound] = b";".join(of_header)
    return pack_info(own)


def header_parts(info: bytes, scope_name: str) -> set[bytes]:
    """What the scope around says of a header, without its line: kind, bases, decorators."""
    parts: set[bytes] = set()
    of_scope = False
    for part in NonNestedSplit(info, ";"):
        if IsDefOrClassKind(GetInfoBytesKind(part)):
            definition = UnpackDefInfoStr(part)
            of_scope = definition.scope_name == scope_name
            if of_scope:
                parts.add(f"{definition.kind} {definition.bases}".encode())
        elif of_scope and part.startswith(kDecoratorPrefix):
            parts.add(part)
    return parts
