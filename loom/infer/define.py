"""Where the name at a position is defined."""

from __future__ import annotations

import ast
from collections.abc import Iterable
from dataclasses import dataclass
from typing import TYPE_CHECKING

from loombase.location import CLocation
from pysource.symbolinfo import ParentScopeName

from loom.infer import attributes, bindings, calls, classes, evaluate, modules, names
from loom.infer.cursor import Spot, bound_names, spot_at
from loom.infer.parts import ImportPart
from loom.infer.places import Place, Use, places_of, sources_first, word_of
from loom.infer.sources import SourceFile
from loom.infer.values import Class, Function, Instance, Symbol, Target, Values

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["Answer", "definitions_at"]


@dataclass(frozen=True, slots=True)
class Answer:
    """Where the name at a position is defined, the likeliest place first.

    `name` is what was asked for, empty if no name stands there. `partial` tells that time was up,
    or a file couldn't be looked at, before all was known.
    """

    name: str
    places: tuple[Place, ...]
    partial: bool


def definitions_at(
    loc: CLocation,
    line: int,
    column: int,
    context: CInferenceContext,
    stop_at_import: bool = False,
) -> Answer:
    """The definitions of the name at a line, from 1, and column, in characters from 0.

    Imports are followed to where the name is really defined. With `stop_at_import` they aren't:
    the import itself is the definition then.
    """
    source = context.engine.sources.get(context, loc)
    if source is None:
        return Answer("", (), context.partial)
    text = source.line(line).decode("utf-8", "replace")
    spot = spot_at(source, line, len(text[: max(column, 0)].encode()))
    if spot is None:
        return Answer("", (), False)
    finder = _Finder(context, source, spot, stop_at_import)
    return Answer(spot.name, sources_first(finder.places()), context.partial)


class _Finder:
    """From what stands at a position to where it is defined."""

    def __init__(
        self, ctx: CInferenceContext, source: SourceFile, spot: Spot, stop_at_import: bool
    ) -> None:
        self.ctx = ctx
        self.source = source
        self.loc = source.loc
        self.spot = spot
        self.stop_at_import = stop_at_import
        self.use = Use(self.loc, spot.scope_name, spot.line)

    def places(self) -> Iterable[Place]:
        spot = self.spot
        match spot.kind:
            case "name":
                return self.of_name()
            case "attribute":
                assert isinstance(spot.node, ast.Attribute)
                base = self.values(spot.node.value)
                return self.of_targets(attributes.targets_of(self.ctx, base, spot.name))
            case "keyword":
                assert spot.node is not None
                return self.of_keyword(self.values(spot.node))
            case "module" | "from" | "alias":
                return self.of_import()
            case "outer":
                target = self.outer()
                return () if target is None else self.of_targets([target])
            case _:
                return (self.here(),)

    def of_name(self) -> Iterable[Place]:
        spot = self.spot
        for binder in reversed(spot.binders):
            for name, line, column in bound_names(binder):
                if name == spot.name and spot.statement is not None:
                    kind = "argument" if isinstance(binder, ast.Lambda) else "variable"
                    return (self.place(*spot.statement.file_position(line, column), kind),)
        target = names.lookup(self.ctx, self.loc, spot.scope_name, spot.name)
        return () if target is None else self.of_targets([target])

    def values(self, node: ast.expr) -> Values:
        env: evaluate.Env = {}
        for binder in self.spot.binders:
            if isinstance(binder, ast.Lambda):
                env = {**env, **{name: () for name, _, _ in bound_names(binder)}}
            else:
                env = evaluate.comprehension_env(
                    self.ctx, self.loc, self.spot.scope_name, binder.generators, env
                )
        return evaluate.node_values(self.ctx, self.loc, self.spot.scope_name, node, env)

    def of_targets(self, targets: Iterable[Target]) -> Iterable[Place]:
        found: list[Place] = []
        for target in targets:
            ends = (
                (target,)
                if self.stop_at_import
                else modules.follow(self.ctx, target, source_first=True)
            )
            for end in ends:
                found += places_of(self.ctx, end, self.use)
        return found

    def of_import(self) -> Iterable[Place]:
        spot = self.spot
        if self.stop_at_import and spot.kind != "module":
            return (self.here("import"),)
        target: Target | None
        if spot.kind == "module" or not spot.name:
            target = modules.find_module(
                self.ctx, spot.name or spot.module, self.loc.GetParentDir()
            )
        else:
            part = ImportPart(spot.module, spot.name, "")
            target = modules.imported(self.ctx, self.loc, part, source_first=True)
        if target is None:
            # An import that leads nowhere is the definition of the name that it binds.
            return (self.here("import"),) if spot.kind != "module" else ()
        return self.of_targets([target])

    def outer(self) -> Target | None:
        spot = self.spot
        return names.lookup(self.ctx, self.loc, spot.scope_name, spot.name)

    # --- arguments by keyword

    def of_keyword(self, functions: Values) -> Iterable[Place]:
        found: list[Place] = []
        for value in functions:
            found += self.keyword_of(value)
        return found

    def keyword_of(self, value: object) -> Iterable[Place]:
        name = self.spot.name
        if isinstance(value, Function):
            return self.argument(value)
        if isinstance(value, Instance):
            callables = attributes.values_of(self.ctx, (value,), "__call__")
            return [place for each in callables for place in self.keyword_of(each)]
        if not isinstance(value, Class):
            return ()
        order = classes.linearization(self.ctx, value)
        for method in ("__init__", "__new__"):
            made = classes.class_attribute(self.ctx, order[:-1], method)
            if made is not None:
                makers = bindings.symbol_values(self.ctx, made[1])
                found = [
                    place
                    for maker in makers
                    if isinstance(maker, Function)
                    for place in self.argument(maker)
                ]
                if found:
                    return found
        # A field of a data class, a named tuple or a typed dictionary.
        field = classes.class_attribute(self.ctx, order, name)
        return () if field is None else self.of_targets([field[1]])

    def argument(self, function: Function) -> Iterable[Place]:
        name = self.spot.name
        found = self.argument_of(function.loc, function.scope_name, name)
        return () if found is None else places_of(self.ctx, found)

    def argument_of(self, loc: CLocation, scope_name: str, name: str) -> Symbol | None:
        if not any(p.name == name for p in calls.params(self.ctx, loc, scope_name)):
            return None
        record = self.ctx.engine.records.scope(self.ctx, loc, scope_name)
        return None if record is None else Symbol(loc, scope_name, name, record.parts(name))

    # --- what stands there

    def here(self, kind: str = "") -> Place:
        """The name at the position as its own definition."""
        return self.place(self.spot.line, self.spot.column, kind or self.kind_here())

    def kind_here(self) -> str:
        spot = self.spot
        for scope_name in (spot.scope_name, ParentScopeName(spot.scope_name)):
            for prefix in ("", "self."):
                for line, kind in self.source.bindings(scope_name, prefix + spot.name):
                    if line == spot.line:
                        return "attribute" if prefix else word_of(kind)
        return "attribute" if isinstance(spot.node, ast.Attribute) else "variable"

    def place(self, line: int, column: int, kind: str) -> Place:
        text = self.source.line(line)[:column].decode("utf-8", "replace")
        spot = self.spot
        return Place(self.loc, spot.scope_name, spot.name, line, len(text), kind)
