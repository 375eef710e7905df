"""Plain names: from a scope outwards, by Python's rules."""

from __future__ import annotations

from typing import TYPE_CHECKING

from loombase.location import CLocation
from pysource.symbolinfo import ParentScopeName

from loom.infer import modules
from loom.infer.parts import OuterPart, Part, TypeParamPart
from loom.infer.values import Symbol, Target

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["enclosing_class", "lookup", "scopes_declaring"]

# Names that every module has without binding them.
_kModuleNames = frozenset(
    ("__name__", "__file__", "__doc__", "__package__", "__spec__", "__loader__", "__path__")
)


def lookup(ctx: CInferenceContext, loc: CLocation, scope_name: str, name: str) -> Target | None:
    """What a name means to code in a scope; none if nothing binds it.

    Scopes of classes count for the code that stands directly in them only. Behind the module come
    its star imports, then the builtins.
    """
    return ctx.answer(
        ("lookup", loc, scope_name, name),
        None,
        lambda: _lookup(ctx, loc, scope_name, name),
    )


def _lookup(ctx: CInferenceContext, loc: CLocation, scope_name: str, name: str) -> Target | None:
    records = ctx.engine.records
    innermost = True
    functions_only = False
    current = scope_name
    while current:
        record = records.scope(ctx, loc, current)
        parts = record.parts(name) if record is not None else ()
        if parts:
            is_class = records.kind(ctx, loc, current) == "C"
            outer = _outer(parts)
            if outer is not None:
                if outer.is_global:
                    found = modules.name_in_file(ctx, loc, name)
                    # A name that functions alone bind is still one of the module.
                    own = any(not isinstance(part, OuterPart) for part in parts)
                    return found or (Symbol(loc, current, name, parts) if own else None)
                functions_only = True
            elif not is_class or (innermost and not functions_only) or _is_type_param(parts):
                return Symbol(loc, current, name, parts)
        innermost = False
        current = ParentScopeName(current)
    found = modules.name_in_file(ctx, loc, name)
    if found is not None:
        return found
    module = modules.builtins(ctx)
    if module is None or loc in module.locs:
        return None
    if name in _kModuleNames:
        return _module_attribute(ctx, name)
    found = modules.module_attribute(ctx, module, name)
    if isinstance(found, Symbol):
        return found
    for declaring in scopes_declaring(ctx, loc, name):
        record = records.scope(ctx, loc, declaring)
        if record is not None:
            return Symbol(loc, declaring, name, record.parts(name))
    return None


def _module_attribute(ctx: CInferenceContext, name: str) -> Target | None:
    """An attribute of every module, as the class of modules has it."""
    module = modules.find_module(ctx, "types", None)
    if module is None or not module.locs:
        return None
    record = ctx.engine.records.scope(ctx, module.locs[0], "ModuleType")
    parts = record.parts(name) if record is not None else ()
    return Symbol(module.locs[0], "ModuleType", name, parts) if parts else None


def scopes_declaring(ctx: CInferenceContext, loc: CLocation, name: str) -> tuple[str, ...]:
    """The functions of a file that declare a name global. Their text is read for it."""
    if modules.is_stub(loc):
        return ()
    source = ctx.engine.sources.get(ctx, loc)
    return () if source is None else source.scopes_declaring(name)


def _outer(parts: tuple[Part, ...]) -> OuterPart | None:
    for part in parts:
        if isinstance(part, OuterPart):
            return part
    return None


def _is_type_param(parts: tuple[Part, ...]) -> bool:
    return any(isinstance(part, TypeParamPart) for part in parts)


def enclosing_class(ctx: CInferenceContext, loc: CLocation, scope_name: str) -> str | None:
    """The name of the class around a scope, or none."""
    current = scope_name
    while current:
        if ctx.engine.records.kind(ctx, loc, current) == "C":
            return current
        current = ParentScopeName(current)
    return None
