"""Places: where in a file a name is bound."""

from __future__ import annotations

import ast
import re
from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING, Final

from loombase.location import CLocation

from loom.infer import counterparts, modules
from loom.infer.branches import is_left, other_branches
from loom.infer.parts import ArgPart, DefPart, ImportPart
from loom.infer.sources import SourceFile
from loom.infer.statements import statement_at
from loom.infer.values import Module, Symbol, Target

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["Place", "Use", "name_column", "places_of", "sources_first", "word_of"]

_kWords: Final = {
    "=": "variable",
    "H": "variable",
    "w": "variable",
    "g": "variable",
    "o": "variable",
    "n": "variable",
    "r": "argument",
    "F": "function",
    "m": "method",
    "M": "method",
    "C": "class",
    "G": "type alias",
    "p": "type parameter",
    "i": "import",
    "f": "import",
}

# Declarations and deletions say where a name is not bound.
_kNoBindings: Final = frozenset("ong")

_kDefinitions: Final = frozenset("FmMC")
_kDefinitionWords: Final = frozenset(("class", "function", "method", "module"))


@dataclass(frozen=True, slots=True)
class Place:
    """Where something is defined.

    `scope_name` is the scope that binds `name`; that of a module is "", and so is its name there.
    `line` counts from 1, `column` from 0 in characters. `kind` is a word: "module", "class",
    "function", "method", "variable", "attribute", "argument", "import", "type alias",
    "type parameter".
    """

    loc: CLocation
    scope_name: str
    name: str
    line: int
    column: int
    kind: str


@dataclass(frozen=True, slots=True)
class Use:
    """Where a name is used: its own bindings before that line come first."""

    loc: CLocation
    scope_name: str
    line: int


def places_of(
    ctx: CInferenceContext, target: Target, use: Use | None = None
) -> tuple[Place, ...]:
    """Where a target is bound, the likeliest place first; in the source if it has one."""
    if isinstance(target, Module):
        module = modules.with_source(ctx, target)
        loc = module.source
        return () if loc is None else (Place(loc, "", module.name, 1, 0, "module"),)
    found: dict[Place, None] = {}
    for each in counterparts.source_target(ctx, target):
        if isinstance(each, Module):
            found.update(dict.fromkeys(places_of(ctx, each, use)))
        else:
            found.update(dict.fromkeys(_symbol_places(ctx, each, use)))
    return tuple(found)


def sources_first(places: Iterable[Place]) -> tuple[Place, ...]:
    """Each place once; where a source has a definition, what stubs tell comes behind."""
    found = tuple(dict.fromkeys(places))
    if any(p.kind in _kDefinitionWords and not modules.is_stub(p.loc) for p in found):
        return tuple(sorted(found, key=lambda place: modules.is_stub(place.loc)))
    return found


def _symbol_places(
    ctx: CInferenceContext, symbol: Symbol, use: Use | None
) -> Iterator[Place]:
    leaf = symbol.name.rpartition(".")[2]
    source = ctx.engine.sources.get(ctx, symbol.loc)
    if source is None:  # as far as the record tells
        for part in symbol.parts:
            line = part.line if isinstance(part, DefPart) else 0
            yield Place(symbol.loc, symbol.scope_name, leaf, line, 0, _word(symbol, part))
            return
        return
    sites = [
        site
        for site in source.bindings(symbol.scope_name, symbol.name)
        if site[1] not in _kNoBindings
    ]
    for line, kind in _ordered(symbol, _telling(symbol, sites, use), source, use):
        column = name_column(source, line, leaf, kind)
        word = "attribute" if symbol.name != leaf else word_of(kind)
        yield Place(symbol.loc, symbol.scope_name, leaf, line, column, word)


def word_of(kind: str) -> str:
    """What a binding of a kind is called."""
    return _kWords.get(kind, "variable")


def _word(symbol: Symbol, part: object) -> str:
    if isinstance(part, DefPart):
        return _kWords[part.kind]
    if isinstance(part, ArgPart):
        return "argument"
    if isinstance(part, ImportPart):
        return "import"
    return "attribute" if "." in symbol.name else "variable"


def _is_inside(symbol: Symbol, use: Use | None) -> bool:
    return use is not None and (use.loc, use.scope_name) == (symbol.loc, symbol.scope_name)


def _telling(
    symbol: Symbol, sites: Sequence[tuple[int, str]], use: Use | None
) -> Sequence[tuple[int, str]]:
    """The bindings that say what a name is.

    Seen from outside of its function, an argument is one whatever is assigned to it later. An
    import stands for what it brings; where that was found, other bindings are left.
    """
    if not _is_inside(symbol, use):
        arguments = [site for site in sites if site[1] == "r"]
        if arguments:
            return arguments
    others = [site for site in sites if site[1] not in "if"]
    return others or sites


def _ordered(
    symbol: Symbol, sites: Sequence[tuple[int, str]], source: SourceFile, use: Use | None
) -> list[tuple[int, str]]:
    """Bindings by how likely a use means them.

    In the scope of the use these are the ones before it, the nearest first, but for those in other
    branches of the same statement. Elsewhere the last one has the word; of an instance's attribute
    the first, and of a property its getter.
    """
    by_line = dict(reversed([(line, kind) for line, kind in sites]))  # the first kind on a line
    ordered = sorted(by_line.items())
    if symbol.name.startswith("self."):
        return ordered
    if use is not None and _is_inside(symbol, use):
        before = [site for site in reversed(ordered) if site[0] < use.line]
        if len(before) > 1:
            elsewhere = other_branches(source, use.line)
            before.sort(
                key=lambda site: any(first <= site[0] <= last for first, last in elsewhere)
                or is_left(source, site[0], use.line)
            )
        return before + [site for site in ordered if site[0] >= use.line]
    if _is_property(symbol):
        return ordered
    return ordered[::-1]


def _is_property(symbol: Symbol) -> bool:
    decorators = [d for part in symbol.parts if isinstance(part, DefPart) for d in part.decorators]
    return any(decorator.endswith((".setter", ".deleter")) for decorator in decorators)


# --- columns


def name_column(source: SourceFile, line: int, name: str, kind: str) -> int:
    """Where in a line a name is bound, in characters from 0."""
    text = source.line(line)
    encoded = name.encode("utf-8", "replace")
    pattern = rb"(?<![\w\x80-\xff])" + re.escape(encoded) + rb"(?![\w\x80-\xff])"
    starts = [match.start() for match in re.finditer(pattern, text)]
    if not starts:
        return 0
    column = starts[0]
    if len(starts) > 1:
        column = _exact_column(source, line, name, kind, starts)
    return len(text[:column].decode("utf-8", "replace"))


def _exact_column(
    source: SourceFile, line: int, name: str, kind: str, starts: Sequence[int]
) -> int:
    """Which of several places in a line binds the name."""
    if kind in _kDefinitions:
        head = re.search(rb"\b(?:def|class)\s+", source.line(line))
        if head is not None and head.end() in starts:
            return head.end()
    statement = statement_at(source, line)
    if statement is None or statement.tree is None:
        return starts[0]
    for bound, tree_line, tree_column in _bindings_in(statement.tree):
        if bound == name:
            found, column = statement.file_position(tree_line, tree_column)
            if found == line and column in starts:
                return column
    if kind in "ifw":  # a name without a node of its own, such as that of `except`
        text = source.line(line)
        for start in starts:
            if re.search(rb"\bas\s+$", text[:start]) is not None:
                return start
        if kind == "f":
            return next((s for s in starts if b"import" in text[:s]), starts[0])
    return starts[0]


def _bindings_in(tree: ast.AST) -> Iterator[tuple[str, int, int]]:
    """(name, line, column) of what a statement binds."""
    for node in ast.walk(tree):
        if isinstance(node, ast.Name) and isinstance(node.ctx, ast.Store):
            yield node.id, node.lineno, node.col_offset
        elif isinstance(node, ast.Attribute) and isinstance(node.ctx, ast.Store):
            end = (node.end_col_offset or 0) - len(node.attr.encode())
            yield node.attr, node.end_lineno or node.lineno, end
        elif isinstance(node, ast.arg):
            yield node.arg, node.lineno, node.col_offset
        elif isinstance(node, ast.alias):
            if node.asname is None:
                yield node.name.partition(".")[0], node.lineno, node.col_offset
            else:
                end = (node.end_col_offset or 0) - len(node.asname.encode())
                yield node.asname, node.end_lineno or node.lineno, end
