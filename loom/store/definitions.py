"""The packed form of a file's definitions: one line each, fields separated by tabs.

    scope index TAB kind TAB line number TAB name NEWLINE

UTF-8. The scope index counts the scopes of the file from 0, the module; the kind is a number. Names
hold no tab or newline. One text a file rather than one row a definition, since there are thousands
of them in a megabyte of source, and most are never asked for.
"""

from collections.abc import Iterable, Iterator
from typing import NamedTuple

__all__ = ["PackedDefinition", "names_in", "pack", "unpack"]


class PackedDefinition(NamedTuple):
    """One definition. `lineno` counts from 1."""

    scope_index: int
    kind: int
    lineno: int
    name: str


def pack(definitions: Iterable[tuple[int, str, int, int]]) -> bytes:
    """Pack (scope index, name, kind, line number) tuples."""
    return "".join(
        [f"{scope}\t{kind}\t{lineno}\t{name}\n" for scope, name, kind, lineno in definitions]
    ).encode()


def unpack(packed: bytes) -> Iterator[PackedDefinition]:
    """The definitions in their order. Raises `ValueError` if the text isn't of this form."""
    for line in packed.decode().split("\n")[:-1]:
        scope, kind, lineno, name = line.split("\t")
        yield PackedDefinition(int(scope), int(kind), int(lineno), name)


def names_in(packed: bytes) -> set[str]:
    """The names alone, each once."""
    return {line.rpartition("\t")[2] for line in packed.decode().split("\n")[:-1]}
