"""Which function a call means, and what the type variables of its annotations stand for in it."""

from __future__ import annotations

from typing import TYPE_CHECKING

from loom.infer import bindings, calls, classes, elements, hints
from loom.infer.parts import DefPart
from loom.infer.values import (
    BoundValue,
    Class,
    Function,
    Instance,
    Special,
    Symbol,
    TypeVariable,
    Value,
    Values,
    union,
)

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["fits", "match_arguments"]

# Type arguments inside of type arguments.
_kDeepest = 6


def _own_params(ctx: CInferenceContext, function: Function) -> tuple[calls.Param, ...]:
    """The arguments that a caller gives: without the object that the function is bound to."""
    found = calls.params(ctx, function.loc, function.scope_name)
    if function.receiver is not None and found and found[0].by_position:
        return found[1:]
    return found


def fits(ctx: CInferenceContext, function: Function, arguments: calls.Arguments) -> bool:
    """Whether the function can be called with so many arguments of these names."""
    own = _own_params(ctx, function)
    by_position = [param for param in own if param.by_position]
    any_position = any(param.marks.endswith("*") and "**" not in param.marks for param in own)
    any_name = any("**" in param.marks for param in own)
    count = len(arguments.positional)
    if count > len(by_position) and not any_position:
        return False
    by_name = {param.name for param in own if param.by_name}
    if not any_name and any(name not in by_name for name in arguments.keywords):
        return False
    required = [p for p in by_position[count:] if p.default is None]
    required += [p for p in own if p.marks == "|" and p.default is None]
    return all(param.name in arguments.keywords for param in required)


def match_arguments(
    ctx: CInferenceContext,
    function: Function,
    arguments: calls.Arguments,
    mapping: dict[Value, Values],
) -> None:
    """Find out what the type variables in a function's annotations stand for in a call."""
    given: list[tuple[calls.Param, calls.Argument]] = []
    every = calls.params(ctx, function.loc, function.scope_name)
    own = _own_params(ctx, function)
    if len(own) < len(every) and function.receiver is not None and every[0].hint:
        receiver = function.receiver
        given.append((every[0], lambda: (receiver,)))
    positions = iter([p for p in own if p.by_position])
    rest = next((p for p in own if p.marks.endswith("*") and "**" not in p.marks), None)
    for argument in arguments.positional:
        param = next(positions, rest)
        if param is not None:
            given.append((param, argument))
    for param in own:
        keyword = arguments.keywords.get(param.name)
        if keyword is not None and param.by_name:
            given.append((param, keyword))
    for param, argument in given:
        if param.hint:
            pattern = calls.argument_hint(ctx, function.loc, function.scope_name, param.hint)
            if any(True for value in pattern for _ in hints.variables_in(value)):
                _match(ctx, pattern, argument(), mapping, 0)


def _match(
    ctx: CInferenceContext,
    pattern: Values,
    actual: Values,
    mapping: dict[Value, Values],
    depth: int,
) -> None:
    if depth > _kDeepest or not actual:
        return
    for each in pattern:
        if isinstance(each, TypeVariable):
            objects: Values
            if each.of_class:
                objects = tuple(Instance(a) for a in actual if isinstance(a, Class))
            else:
                objects = tuple(a for a in actual if a != Special("None"))
            if objects:
                mapping.setdefault(each.bare, objects)
        elif isinstance(each, BoundValue):
            made = calls.results(ctx, actual, calls.kNoArguments)
            _match(ctx, each.result, made, mapping, depth + 1)
        elif isinstance(each, Special) and each.name == "Type" and each.args:
            objects = tuple(Instance(a) for a in actual if isinstance(a, Class))
            _match(ctx, each.args[0], objects, mapping, depth + 1)
        elif isinstance(each, Instance) and each.cls.args:
            _match_instance(ctx, each.cls, actual, mapping, depth)


def _match_instance(
    ctx: CInferenceContext,
    pattern: Class,
    actual: Values,
    mapping: dict[Value, Values],
    depth: int,
) -> None:
    bare = pattern.bare
    for value in actual:
        if not isinstance(value, Instance | Class):
            continue
        cls = value.cls if isinstance(value, Instance) else value
        base = next((b for b in classes.linearization(ctx, cls) if b.bare == bare), None)
        if base is not None and isinstance(value, Instance):
            args = base.args
            if len(pattern.args) == 1 and len(args) > 1:
                args = (union(args),)
            for inner, known in zip(pattern.args, args, strict=False):
                _match(ctx, inner, known, mapping, depth + 1)
        elif pattern.scope_name in ("Coroutine", "Awaitable"):
            _match(ctx, pattern.args[-1], (value,), mapping, depth + 1)
        elif pattern.scope_name in ("Iterable", "Iterator", "SupportsIter", "Sequence"):
            _match(ctx, pattern.args[0], elements.iterated(ctx, (value,)), mapping, depth + 1)
        else:
            _match_protocol(ctx, pattern, value, mapping, depth)


def _match_protocol(
    ctx: CInferenceContext,
    pattern: Class,
    value: Instance | Class,
    mapping: dict[Value, Values],
    depth: int,
) -> None:
    """Find type variables by the results of the methods that a protocol asks for."""
    record = ctx.engine.records.scope(ctx, pattern.loc, pattern.scope_name)
    if record is None:
        return
    for name in list(record.names)[:4]:
        for part in record.parts(name):
            if isinstance(part, DefPart) and part.kind == "m":
                symbol = Symbol(pattern.loc, pattern.scope_name, name, record.parts(name))
                method = calls.bind(bindings.function_of(symbol, part), Instance(pattern))
                wanted = calls.results(ctx, (method,), calls.kNoArguments)
                made = calls.method_results(ctx, (value,), name)
                _match(ctx, wanted, made, mapping, depth + 1)
                break
