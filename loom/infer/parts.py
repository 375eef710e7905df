"""Information strings taken apart: what a scope record says of one name."""

from __future__ import annotations

import ast
from dataclasses import dataclass
from functools import lru_cache
from typing import Final

from pysource.symbolinfo import NonNestedSplit

__all__ = [
    "AliasPart",
    "ArgPart",
    "DefPart",
    "ExprPart",
    "HintPart",
    "ImportPart",
    "OuterPart",
    "Part",
    "TypeParamPart",
    "WithinPart",
    "parse_call",
    "parse_expression",
    "parts_of",
]

# What the scanner writes where an expression was too long for it, or not to be read.
_kShortened: Final = "..."


@dataclass(frozen=True, slots=True)
class DefPart:
    """A function or class. `kind` is "F", "m", "M" or "C", `line` that of "def" or "class".

    `bases` are those of a class with their brackets, or empty; `decorators` are expressions.
    """

    kind: str
    scope_name: str
    line: int
    bases: str
    decorators: tuple[str, ...]


@dataclass(frozen=True, slots=True)
class ImportPart:
    """An import. `name` is empty for `import module`; `alias` is empty if there is none."""

    module: str
    name: str
    alias: str


@dataclass(frozen=True, slots=True)
class ExprPart:
    """An assigned value."""

    text: str


@dataclass(frozen=True, slots=True)
class WithinPart:
    """Something within the value of an expression, found along a path."""

    path: str
    text: str


@dataclass(frozen=True, slots=True)
class HintPart:
    """An annotation."""

    text: str


@dataclass(frozen=True, slots=True)
class ArgPart:
    """An argument; `marks` are of "/", "|", "*" and "**", `default` is none if it has none."""

    index: int
    marks: str
    default: str | None


@dataclass(frozen=True, slots=True)
class TypeParamPart:
    """A type parameter."""

    marks: str
    bound: str
    default: str | None


@dataclass(frozen=True, slots=True)
class AliasPart:
    """A type alias; its value follows as an `ExprPart`."""

    type_params: str


@dataclass(frozen=True, slots=True)
class OuterPart:
    """A declaration: the name is that of the module, or of an enclosing function."""

    is_global: bool


Part = (
    DefPart
    | ImportPart
    | ExprPart
    | WithinPart
    | HintPart
    | ArgPart
    | TypeParamPart
    | AliasPart
    | OuterPart
)


@lru_cache(maxsize=32768)
def parts_of(info: bytes) -> tuple[Part, ...]:
    """The parts of an information string, in order. What isn't understood is left out."""
    found: list[Part] = []
    for raw in NonNestedSplit(info, b";"):
        text = raw.decode("utf-8", "replace")
        kind, rest = text[1:2], text[2:]
        if not text.startswith(":"):
            if text:
                found.append(ExprPart(text))
        elif kind == "=":
            found.append(ExprPart(rest))
        elif kind in "FmMC" and kind:
            found.append(_definition(kind, rest))
        elif kind == "r":
            found.append(_argument(rest))
        elif kind == "H":
            found.append(HintPart(rest))
        elif kind == "w":
            path, _, expression = rest.partition(" ")
            found.append(WithinPart(path, expression))
        elif kind == "i":
            found.append(ImportPart(rest, "", ""))
        elif kind == "f":
            module, _, name = rest.partition(" ")
            found.append(ImportPart(module, name, ""))
        elif kind in ("o", "n"):
            found.append(OuterPart(kind == "o"))
        elif kind == "p":
            found.append(_type_param(rest))
        elif kind == "G":
            found.append(AliasPart(rest))
        elif found:
            _extend(found, kind, rest)
    return tuple(found)


def _extend(found: list[Part], kind: str, rest: str) -> None:
    """Take in a part that says more of the one before it."""
    last = found[-1]
    if kind == "a" and isinstance(last, ImportPart):
        found[-1] = ImportPart(last.module, last.name, rest)
    elif kind == "@" and isinstance(last, DefPart):
        found[-1] = DefPart(
            last.kind, last.scope_name, last.line, last.bases, (*last.decorators, rest)
        )


def _definition(kind: str, rest: str) -> DefPart:
    scope_name, _, rest = rest.partition(" ")
    line, _, bases = rest.partition(" ")
    return DefPart(kind, scope_name, int(line) if line.isdigit() else 0, bases, ())


def _argument(rest: str) -> ArgPart:
    head, equals, default = rest.partition("=")
    digits = head.rstrip("/|*")
    return ArgPart(
        int(digits) if digits.isdigit() else 0, head[len(digits) :], default if equals else None
    )


def _type_param(rest: str) -> TypeParamPart:
    stripped = rest.lstrip("*")
    marks = rest[: len(rest) - len(stripped)]
    bound, equals, default = stripped.partition("=")
    return TypeParamPart(marks, bound, default if equals else None)


@lru_cache(maxsize=16384)
def parse_expression(text: str) -> ast.expr | None:
    """The syntax tree of an expression; none for what isn't one, or was shortened."""
    if not text or text == _kShortened:
        return None
    if text == "{...}":  # nearly always a dictionary
        text = "{}"
    try:
        return ast.parse(text, mode="eval").body
    except (SyntaxError, ValueError, RecursionError, MemoryError):
        return None


def parse_call(arguments: str) -> ast.Call | None:
    """The arguments of a class definition, with their brackets, as those of a call."""
    node = parse_expression("_" + arguments) if arguments else None
    return node if isinstance(node, ast.Call) else None
