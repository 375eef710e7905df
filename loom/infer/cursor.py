"""From a position in a statement to what stands there."""

from __future__ import annotations

import ast
import re
from collections.abc import Iterator
from dataclasses import dataclass, replace
from typing import Final

from pysource.symbolinfo import ParentScopeName

from loom.infer.parts import parse_expression
from loom.infer.sources import SourceFile
from loom.infer.statements import Statement, statement_at

__all__ = ["Binder", "Spot", "bound_names", "spot_at"]

Comprehension = ast.ListComp | ast.SetComp | ast.GeneratorExp | ast.DictComp
# What binds names for a part of an expression only.
Binder = ast.Lambda | Comprehension

_kIdentifier: Final = re.compile(rb"[A-Za-z_\x80-\xff][A-Za-z0-9_\x80-\xff]*")
_kClosing: Final = {b")": b"(", b"]": b"[", b"}": b"{"}

# How far the expression around a position is looked for in a line that can't be parsed.
_kMostChain: Final = 1000


@dataclass(frozen=True, slots=True)
class Spot:
    """What stands at a position, in which scope, and what binds names around it.

    `kind` says how the rest is to be read:

    - "name", "attribute": a use; `node` is an `ast.Name` or `ast.Attribute`
    - "keyword": `name` is the name of an argument, `node` what is called
    - "module": `name` is the name of a module as the file sees it
    - "from": `name` is imported from the module `module`; "alias": likewise, bound to the name that
      stands there; where `name` is empty it is the module itself
    - "binding": `name` is bound right there, as an argument, variable, function and so on
    - "outer": `name` is declared to be one of an outer scope

    `line` and `column` are where the name begins, in lines from 1 and bytes from 0.
    """

    kind: str
    name: str
    scope_name: str
    line: int
    column: int
    node: ast.expr | None = None
    module: str = ""
    binding: str = ""
    binders: tuple[Binder, ...] = ()
    statement: Statement | None = None


def spot_at(source: SourceFile, line: int, column: int) -> Spot | None:
    """What stands at a line, from 1, and column, in bytes from 0; none if it is no name.

    A position right behind a name counts as on it.
    """
    statement = statement_at(source, line)
    if statement is None:
        return None
    if statement.tree is None:
        return _spot_in_text(source, statement, line, column)
    return _Search(source, statement, line, column).spot()


class _Search:
    """The walk from the root of a statement's tree to what stands at a position."""

    def __init__(self, source: SourceFile, statement: Statement, line: int, column: int) -> None:
        self.source = source
        self.statement = statement
        self.line, self.column = statement.position(line, column)
        self.binders: list[Binder] = []
        self.scope_name = source.scope_at(statement.first)
        # Where the text of the literal begins that is being looked into.
        self.quoted_at: tuple[int, int] | None = None

    def spot(self) -> Spot | None:
        assert self.statement.tree is not None
        return self.among(self.statement.tree.body)

    def among(self, nodes: Iterator[ast.AST] | list[ast.stmt]) -> Spot | None:
        for node in nodes:
            if self.may_hold(node):
                found = self.within(node)
                if found is not None:
                    return found
        return None

    def may_hold(self, node: ast.AST) -> bool:
        first = getattr(node, "lineno", None)
        if first is None:
            return True
        last = getattr(node, "end_lineno", first)
        if not first <= self.line <= last:
            # Decorators stand before the line of their definition.
            return bool(getattr(node, "decorator_list", None))
        if self.line == last and self.column > getattr(node, "end_col_offset", self.column):
            return False
        return not (self.line == first and self.column < getattr(node, "col_offset", 0))

    def on(self, line: int, column: int, name: str) -> bool:
        """Whether the position is on a name that begins at a place."""
        return line == self.line and column <= self.column <= column + len(name.encode())

    def make(
        self,
        kind: str,
        name: str,
        line: int,
        column: int,
        node: ast.expr | None = None,
        module: str = "",
        binding: str = "",
    ) -> Spot:
        if self.quoted_at is not None:
            line, column = self.quoted_at[0], self.quoted_at[1] + column
        line, column = self.statement.file_position(line, column)
        binders = tuple(self.binders)
        return Spot(
            *(kind, name, self.scope_name, line, column, node, module, binding),
            binders,
            self.statement,
        )

    def within(self, node: ast.AST) -> Spot | None:
        match node:
            case ast.Name():
                if not self.on(node.lineno, node.col_offset, node.id):
                    return None
                kind = "binding" if isinstance(node.ctx, ast.Store) else "name"
                return self.make(kind, node.id, node.lineno, node.col_offset, node=node)
            case ast.Attribute():
                return self.attribute(node)
            case ast.FunctionDef() | ast.AsyncFunctionDef() | ast.ClassDef():
                return self.definition(node)
            case ast.Lambda():
                found = self.among(iter([*node.args.defaults, *_present(node.args.kw_defaults)]))
                self.binders.append(node)
                found = found or self.among(iter([*_all_args(node.args), node.body]))
            case ast.ListComp() | ast.SetComp() | ast.GeneratorExp() | ast.DictComp():
                found = self.comprehension(node)
            case ast.Call():
                found = self.call(node)
            case ast.Import() | ast.ImportFrom():
                return self.imports(node)
            case ast.arg():
                if self.on(node.lineno, node.col_offset, node.arg):
                    return self.make("binding", node.arg, node.lineno, node.col_offset)
                return None
            case ast.AnnAssign():
                found = self.among(iter([node.target, *_present([node.value])]))
                return found or self.annotation(node.annotation)
            case ast.Global() | ast.Nonlocal():
                return self.word("outer", node.names)
            case ast.ExceptHandler() | ast.MatchAs() | ast.MatchStar():
                found = self.among(ast.iter_child_nodes(node))
                return found or self.word("binding", [node.name] if node.name else [])
            case ast.MatchMapping():
                found = self.among(ast.iter_child_nodes(node))
                return found or self.word("binding", [node.rest] if node.rest else [])
            case ast.TypeVar() | ast.ParamSpec() | ast.TypeVarTuple():
                found = self.among(ast.iter_child_nodes(node))
                return found or self.word("binding", [node.name])
            case _:
                return self.among(ast.iter_child_nodes(node))
        return found

    def annotation(self, node: ast.expr) -> Spot | None:
        """An annotation, or a part of it, that may be quoted."""
        found = self.among(iter([node]))
        if found is not None:
            return found
        for each in ast.walk(node):
            if isinstance(each, ast.Constant) and isinstance(each.value, str):
                if self.may_hold(each) and each.lineno == each.end_lineno:
                    return self.quoted(each, each.value)
        return None

    def quoted(self, node: ast.Constant, text: str) -> Spot | None:
        """What stands in a literal that holds an expression as it is."""
        inner = parse_expression(text)
        quotes = (node.end_col_offset or 0) - node.col_offset - len(text.encode())
        if inner is None or quotes not in (2, 6):
            return None  # with a prefix or an escape positions don't fit
        place = self.line, self.column
        start = node.col_offset + quotes // 2
        self.quoted_at = node.lineno, start
        self.line, self.column = 1, self.column - start
        try:
            return self.among(iter([inner]))
        finally:
            self.quoted_at = None
            self.line, self.column = place

    def word(self, kind: str, names: list[str]) -> Spot | None:
        """One of some names that have no node of their own, if the position is on it."""
        line, column = self.statement.file_position(self.line, self.column)
        for match in _kIdentifier.finditer(self.source.line(line)):
            if match.start() <= column <= match.end() and match.group().decode() in names:
                start = self.statement.position(line, match.start())
                return self.make(kind, match.group().decode(), *start)
        return None

    def attribute(self, node: ast.Attribute) -> Spot | None:
        # A name never goes over a line's end, so it ends where the node does.
        line, end = node.end_lineno or node.lineno, node.end_col_offset or 0
        start = end - len(node.attr.encode())
        if self.on(line, start, node.attr):
            kind = "binding" if isinstance(node.ctx, ast.Store) else "attribute"
            return self.make(kind, node.attr, line, start, node=node)
        return self.among(iter([node.value]))

    def call(self, node: ast.Call) -> Spot | None:
        for keyword in node.keywords:
            if keyword.arg and self.on(keyword.lineno, keyword.col_offset, keyword.arg):
                place = (keyword.lineno, keyword.col_offset)
                return self.make("keyword", keyword.arg, *place, node=node.func)
        return self.among(ast.iter_child_nodes(node))

    def comprehension(self, node: Comprehension) -> Spot | None:
        first, *others = node.generators
        found = self.among(iter([first.iter]))  # evaluated outside
        if found is not None:
            return found
        self.binders.append(node)
        inner: list[ast.AST] = [first.target, *first.ifs, *others]
        inner += [node.key, node.value] if isinstance(node, ast.DictComp) else [node.elt]
        found = self.among(iter(inner))
        if found is None:
            self.binders.pop()
        return found

    def definition(
        self, node: ast.FunctionDef | ast.AsyncFunctionDef | ast.ClassDef
    ) -> Spot | None:
        found = self.among(iter(node.decorator_list))
        if found is not None:
            return found
        own = self.scope_name
        outer = ParentScopeName(own)
        file_line, _ = self.statement.file_position(node.lineno, node.col_offset)
        row = self.source.scope_row(own)
        if not own or row is None or row[3] != file_line:
            outer = own  # the scanner has no scope for it
        self.scope_name = outer
        line, column = self.statement.file_position(node.lineno, node.col_offset)
        head = re.compile(rb"(?:async\s+)?(?:def|class)\s+").match(self.source.line(line), column)
        if head is not None:
            start = self.statement.position(line, head.end())
            if self.on(*start, node.name):
                return self.make("binding", node.name, *start)
        hints: list[ast.expr] = []
        inside: list[ast.AST] = []
        if isinstance(node, ast.ClassDef):
            outside = [*node.bases, *(k.value for k in node.keywords)]
        else:
            inside += _all_args(node.args)
            outside = [*node.args.defaults, *_present(node.args.kw_defaults)]
            hints = [arg.annotation for arg in _all_args(node.args) if arg.annotation is not None]
            hints += _present([node.returns])
        found = self.among(iter(outside))
        for hint in hints:
            found = found or self.annotation(hint)
        if found is not None:
            # The type parameters are known in the head already.
            own_names = {param.name for param in node.type_params if hasattr(param, "name")}
            return replace(found, scope_name=own) if found.name in own_names else found
        self.scope_name = own
        return self.among(iter([*node.type_params, *inside, *node.body]))

    def imports(self, node: ast.Import | ast.ImportFrom) -> Spot | None:
        module = ""
        if isinstance(node, ast.ImportFrom):
            module = "." * node.level + (node.module or "")
            found = self.module_of(node)
            if found is not None:
                return found
        for alias in node.names:
            if not self.may_hold(alias):
                continue
            binding = alias.asname or alias.name.partition(".")[0]
            if self.on(alias.lineno, alias.col_offset, alias.name):
                place = (alias.lineno, alias.col_offset)
                if isinstance(node, ast.ImportFrom):
                    return self.make(
                        "from", alias.name, *place, module=module, binding=binding
                    )
                behind = self.column - alias.col_offset
                return self.make("module", _component(alias.name, behind), *place, binding=binding)
            if alias.asname is not None:
                start = (alias.end_col_offset or 0) - len(alias.asname.encode())
                place = (alias.end_lineno or alias.lineno, start)
                if self.on(*place, alias.asname):
                    if isinstance(node, ast.ImportFrom):
                        return self.make(
                            "alias", alias.name, *place, module=module, binding=binding
                        )
                    return self.make("alias", "", *place, module=alias.name, binding=binding)
        return None

    def module_of(self, node: ast.ImportFrom) -> Spot | None:
        """The module of `from module import ...`, which has no node of its own."""
        line, column = self.statement.file_position(node.lineno, node.col_offset)
        head = re.compile(rb"from\s*").match(self.source.line(line), column)
        name = node.module or ""
        if head is None or not name:
            return None
        dots = head.end()
        text = self.source.line(line)
        while text[dots : dots + 1] in (b".", b" "):
            dots += 1
        start = self.statement.position(line, dots)
        if not self.on(*start, name):
            return None
        part = "." * node.level + _component(name, self.column - start[1])
        return self.make("module", part, *start)


def _component(name: str, behind: int) -> str:
    """A dotted name up to the component that the byte `behind` its start is in."""
    end = name.encode().find(b".", behind)
    return name if end < 0 else name.encode()[:end].decode()


def _present(nodes: list[ast.expr | None]) -> list[ast.expr]:
    return [node for node in nodes if node is not None]


def _all_args(args: ast.arguments) -> list[ast.arg]:
    found = [*args.posonlyargs, *args.args, *args.kwonlyargs]
    return found + [arg for arg in (args.vararg, args.kwarg) if arg is not None]


def bound_names(binder: Binder) -> Iterator[tuple[str, int, int]]:
    """(name, line, column) of each name that a binder binds, as its tree has them."""
    if isinstance(binder, ast.Lambda):
        for arg in _all_args(binder.args):
            yield arg.arg, arg.lineno, arg.col_offset
        return
    for generator in binder.generators:
        for node in ast.walk(generator.target):
            if isinstance(node, ast.Name):
                yield node.id, node.lineno, node.col_offset


# --- without a tree


def _spot_in_text(
    source: SourceFile, statement: Statement, line: int, column: int
) -> Spot | None:
    """The chain of names that ends at a position in a line that can't be parsed."""
    text = source.line(line)
    word = None
    for match in _kIdentifier.finditer(text):
        if match.start() <= column <= match.end():
            word = match
    if word is None:
        return None
    start = _chain_start(text, word.start())
    node = parse_expression(text[start : word.end()].decode("utf-8", "replace"))
    kind = "name" if isinstance(node, ast.Name) else "attribute"
    if not isinstance(node, ast.Name | ast.Attribute):
        return None
    name = node.id if isinstance(node, ast.Name) else node.attr
    return Spot(kind, name, source.scope_at(line), line, word.start(), node=node)


def _chain_start(text: bytes, start: int) -> int:
    """Where the expression begins whose last attribute begins at `start`."""
    limit = max(0, start - _kMostChain)
    while start > limit and text[start - 1 : start] == b".":
        position = start - 1
        while position > limit and text[position - 1 : position] in _kClosing:
            position = _opening(text, position - 1, limit)
            if position < 0:
                return start
        while position > limit and _kIdentifier.fullmatch(text, position - 1, position) or (
            position > limit and text[position - 1 : position].isdigit()
        ):
            position -= 1
        if position == start - 1:
            break
        start = position
    return start


def _opening(text: bytes, closing: int, limit: int) -> int:
    """Where the bracket opens that closes at a position, or -1."""
    depth = 0
    for position in range(closing, limit - 1, -1):
        char = text[position : position + 1]
        if char in _kClosing:
            depth += 1
        elif char in (b"(", b"[", b"{"):
            depth -= 1
            if depth == 0:
                return position
    return -1
