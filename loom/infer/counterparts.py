"""A stub and its source: the same class or function in the other file."""

from __future__ import annotations

from typing import TYPE_CHECKING

from loombase.location import CLocation
from pysource.symbolinfo import SplitScopeNameFromSuffixes

from loom.infer import classes, modules
from loom.infer.modules import is_stub
from loom.infer.parts import DefPart
from loom.infer.values import Class, Symbol, Target

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["other_class", "other_scope", "other_symbol", "source_target"]


def _other_locs(ctx: CInferenceContext, loc: CLocation) -> tuple[CLocation, ...]:
    wanted = not is_stub(loc)
    return tuple(
        each for each in modules.module_of(ctx, loc).locs if is_stub(each) == wanted
    )


def other_scope(
    ctx: CInferenceContext, loc: CLocation, scope_name: str
) -> tuple[CLocation, str] | None:
    """The scope of the same dotted name in the stub of a source, or in the source of a stub.

    It may stand in another file, from which the module imports it.
    """
    if not _other_locs(ctx, loc):
        return None
    return ctx.answer(
        ("other scope", loc, scope_name), None, lambda: _other_scope(ctx, loc, scope_name)
    )


def _other_scope(
    ctx: CInferenceContext, loc: CLocation, scope_name: str
) -> tuple[CLocation, str] | None:
    steps = [SplitScopeNameFromSuffixes(part)[0] for part in scope_name.split(".")]
    for other in _other_locs(ctx, loc):
        if not scope_name:
            return other, ""
        found = modules.name_in_file(ctx, other, steps[0], not is_stub(other))
        place = None if found is None else _scope_of(ctx, found)
        for step in steps[1:]:
            if place is None:
                break
            record = ctx.engine.records.scope(ctx, *place)
            parts = record.parts(step) if record is not None else ()
            place = _scope_of(ctx, Symbol(*place, step, parts)) if parts else None
        if place is not None and place[0] is not loc:
            return place
    return None


def _scope_of(ctx: CInferenceContext, target: Target) -> tuple[CLocation, str] | None:
    """The scope that a name defines, through imports."""
    for each in modules.follow(ctx, target, source_first=True):
        if isinstance(each, Symbol):
            for part in each.parts:
                if isinstance(part, DefPart):
                    return each.loc, part.scope_name
    return None


def other_class(ctx: CInferenceContext, cls: Class) -> Class | None:
    """The same class in the stub, or in the source; its type arguments stay behind."""
    place = other_scope(ctx, cls.loc, cls.scope_name)
    if place is None or ctx.engine.records.kind(ctx, *place) != "C":
        return None
    return Class(*place)


def other_symbol(ctx: CInferenceContext, symbol: Symbol) -> tuple[Symbol, ...]:
    """The same name in the stub, or in the source; nothing if it isn't there."""
    if not _other_locs(ctx, symbol.loc):
        return ()
    name = symbol.name
    if not symbol.scope_name:
        for other in _other_locs(ctx, symbol.loc):
            found = modules.name_in_file(ctx, other, name, not is_stub(other))
            targets = () if found is None else modules.follow(ctx, found, not is_stub(other))
            symbols = tuple(t for t in targets if isinstance(t, Symbol) and t.loc is not symbol.loc)
            if symbols:
                return symbols
        return ()
    place = other_scope(ctx, symbol.loc, symbol.scope_name)
    if place is None:
        return ()
    record = ctx.engine.records.scope(ctx, *place)
    parts = record.parts(name) if record is not None else ()
    if parts:
        return (Symbol(*place, name, parts),)
    if ctx.engine.records.kind(ctx, *place) == "C":
        return classes.own_instance_attribute(ctx, Class(*place), name)
    return ()


def source_target(ctx: CInferenceContext, target: Target) -> tuple[Target, ...]:
    """Where the source defines what a stub tells of; the stub's own place if it doesn't."""
    if isinstance(target, Symbol) and is_stub(target.loc):
        found = other_symbol(ctx, target)
        if found:
            return found
    return (target,)
