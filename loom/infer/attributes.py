"""Attributes of values: where they are defined, and what they are worth."""

from __future__ import annotations

from collections.abc import Iterator
from functools import partial
from typing import TYPE_CHECKING, Final

from loom.infer import hints, bindings, calls, classes, counterparts, modules
from loom.infer.parts import DefPart, ExprPart, HintPart
from loom.infer.values import (
    BoundValue,
    Class,
    Function,
    Instance,
    LambdaFunction,
    Module,
    Special,
    Super,
    Symbol,
    Target,
    TypeVariable,
    Value,
    Values,
    union,
)

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["is_property", "targets_of", "values_of"]

_kPropertyEnds: Final = ("property", "getter", "setter", "deleter")
_kPropertyNames: Final = frozenset(("DynamicClassAttribute", "reify", "classproperty"))

# Where a class binds a name, or a method of it that of an instance: the class as it is looked at,
# with its type arguments, and what the scopes say.
_Found = tuple[Class, tuple[Symbol, ...]]


def values_of(ctx: CInferenceContext, base: Values, name: str) -> Values:
    """What the attribute is worth on any of the values."""
    return union(
        ctx.answer(("attribute", value, name), (), partial(_values, ctx, value, name))
        for value in base
    )


def targets_of(ctx: CInferenceContext, base: Values, name: str) -> tuple[Target, ...]:
    """Where the attribute is defined, in the source if that has it; not through imports."""
    found: dict[Target, None] = {}
    for value in base:
        found.update(dict.fromkeys(_targets(ctx, value, name)))
    return tuple(found)


def is_property(function: Function) -> bool:
    """Whether the function is called when the attribute is read."""
    for decorator in function.decorators:
        last = decorator.partition("(")[0].rpartition(".")[2]
        if last.endswith(_kPropertyEnds) or last in _kPropertyNames:
            return True
    return False


# --- where


def _targets(ctx: CInferenceContext, value: Value, name: str) -> tuple[Target, ...]:
    if isinstance(value, Module):
        found = modules.module_attribute(ctx, value, name, source_first=True)
        if found is not None:
            return (found,)
        module_type = _module_type(ctx)
        if module_type is not None:
            value = Instance(module_type)
    for order, of_instance in _searches(ctx, value):
        for _, symbols in _found_in(ctx, order, name, of_instance, source_first=True):
            return symbols
    return ()


def _module_type(ctx: CInferenceContext) -> Class | None:
    module = modules.find_module(ctx, "types", None)
    return None if module is None or not module.locs else Class(module.locs[0], "ModuleType")


def _searches(
    ctx: CInferenceContext, value: Value
) -> Iterator[tuple[tuple[Class, ...], bool]]:
    """The classes to be searched in turn, and whether attributes of instances count."""
    if isinstance(value, Instance):
        yield classes.linearization(ctx, value.cls), True
        other = counterparts.other_class(ctx, value.cls)
        if other is not None:
            yield classes.linearization(ctx, other), True
    elif isinstance(value, Class):
        yield classes.linearization(ctx, value), False
        meta = classes.metaclass(ctx, value)
        if meta is not None:
            yield classes.linearization(ctx, meta), True
    elif isinstance(value, Super):
        receiver = value.receiver.cls if isinstance(value.receiver, Instance) else value.receiver
        order = classes.linearization(ctx, receiver)
        bares = [cls.bare for cls in order]
        if value.cls.bare in bares:
            order = order[bares.index(value.cls.bare) + 1 :]
        else:
            order = classes.linearization(ctx, value.cls)[1:]
        yield order, True
    elif isinstance(value, TypeVariable):
        for bound in value.bound:
            if value.of_class and isinstance(bound, Instance):
                yield from _searches(ctx, bound.cls)
            else:
                yield from _searches(ctx, bound)
    elif isinstance(value, Function | LambdaFunction | BoundValue):
        cls = classes.builtin_class(ctx, "function")
        if cls is not None:
            yield classes.linearization(ctx, cls), True
        if isinstance(value, Function):
            for made in bindings.decorated(ctx, value):
                yield from _searches(ctx, made)


def _found_in(
    ctx: CInferenceContext,
    order: tuple[Class, ...],
    name: str,
    of_instance: bool,
    source_first: bool,
) -> Iterator[_Found]:
    """Each class of the order that has the name, in its stub or in its source.

    With `source_first`, a class whose stub alone has it comes behind those whose source does: what
    it inherits there, its stub may tell more of.
    """
    only_in_stub: list[_Found] = []
    for cls in order:
        other = counterparts.other_class(ctx, cls)
        both = [cls] if other is None else [cls, other]
        if other is not None and source_first and modules.is_stub(cls.loc):
            both.reverse()
        for each in both:
            symbols: tuple[Symbol, ...] = ()
            if of_instance:
                found = classes.instance_attribute(ctx, (each,), name)
                symbols = () if found is None else found[1]
            else:
                symbol = classes.class_attribute(ctx, (each,), name)
                symbols = () if symbol is None else (symbol[1],)
            if symbols and source_first and other is not None and modules.is_stub(each.loc):
                only_in_stub.append((cls, symbols))
            elif symbols:
                yield cls, symbols
    yield from only_in_stub


# --- what


def _values(ctx: CInferenceContext, value: Value, name: str) -> Values:
    if isinstance(value, Module):
        target = modules.module_attribute(ctx, value, name)
        if target is not None:
            return bindings.target_values(ctx, target)
        return ()
    if isinstance(value, Function) and name == "__self__":
        return () if value.receiver is None else (value.receiver,)
    if isinstance(value, Special) and value.name == "Type" and value.args:
        return values_of(ctx, hints.classes_of(value.args[0]), name)
    if name == "__class__" and isinstance(value, Instance):
        return (value.cls,)
    for order, of_instance in _searches(ctx, value):
        owner: Class | None = None
        for cls, symbols in _found_in(ctx, order, name, of_instance, source_first=False):
            if owner is not None and cls != owner:
                break  # the first class that has the name hides the others
            owner = cls
            got = union(_bound(ctx, value, cls, symbol) for symbol in symbols)
            if got:
                return got
        if owner is not None:
            return ()
    return ()


def _bound(ctx: CInferenceContext, value: Value, owner: Class, symbol: Symbol) -> Values:
    """What a symbol of the class `owner` is worth as an attribute of the value."""
    receiver = _receiver(value)
    mapping = dict(hints.mapping_of(ctx, owner))
    if receiver is not None:
        mapping[hints.kSelf] = (
            (receiver,) if isinstance(receiver, Instance) else (Instance(receiver),)
        )
    if isinstance(value, Class) and _is_enum_member(ctx, owner, symbol):
        return (Instance(value),)
    found: list[Values] = []
    on_class = not symbol.name.startswith("self.")
    for each in bindings.symbol_values(ctx, symbol):
        if isinstance(each, Function) and on_class and receiver is not None:
            found.append(_bound_function(ctx, each, receiver))
        elif isinstance(each, Instance) and on_class and isinstance(value, Instance):
            found.append(_through_descriptor(ctx, each, symbol))
        else:
            found.append((each,))
    return hints.substitute(union(found), mapping)


def _receiver(value: Value) -> Instance | Class | None:
    if isinstance(value, Instance | Class):
        return value
    if isinstance(value, Super):
        return value.receiver
    return None


def _bound_function(
    ctx: CInferenceContext, function: Function, receiver: Instance | Class
) -> Values:
    names = {d.partition("(")[0].rpartition(".")[2] for d in function.decorators}
    cls = receiver.cls if isinstance(receiver, Instance) else receiver
    if is_property(function):
        if isinstance(receiver, Class):
            return classes.builtin_instance(ctx, "property")
        return calls.results(ctx, (calls.bind(function, receiver),), calls.kNoArguments)
    if function.kind == "M" or "staticmethod" in names:
        return (function,)
    if "classmethod" in names or "abstractclassmethod" in names:
        return (calls.bind(function, cls),)
    if isinstance(receiver, Class):
        return (function,)
    return (calls.bind(function, receiver),)


def _through_descriptor(ctx: CInferenceContext, value: Instance, symbol: Symbol) -> Values:
    """What a class attribute gives when it is read of an instance."""
    if any(isinstance(part, HintPart) for part in symbol.parts):
        return (value,)
    if classes.class_attribute(ctx, classes.linearization(ctx, value.cls), "__get__") is None:
        return (value,)
    got = calls.method_results(ctx, (value,), "__get__")
    return tuple(v for v in got if v != Special("None")) or (value,)


def _is_enum_member(ctx: CInferenceContext, owner: Class, symbol: Symbol) -> bool:
    if symbol.name.startswith("_") or not classes.is_enum(ctx, owner):
        return False
    if any(isinstance(part, DefPart) for part in symbol.parts):
        return False
    return modules.is_stub(symbol.loc) or any(
        isinstance(part, ExprPart) for part in symbol.parts
    )
