"""What comes out of containers and their like: items, elements, entered and awaited objects."""

from __future__ import annotations

import ast
import re
from typing import TYPE_CHECKING, Final

from loom.infer import calls, classes
from loom.infer.values import BoundValue, Class, Instance, Value, Values, union

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["along_path", "awaited", "entered", "item", "iterated", "unpacked"]

_kStep: Final = re.compile(
    r"\[(?P<every>\*)\]|\[(?P<index>-?\d+)\]|\[(?P<rest>-?\d*:-?\d*)\]"
    r"|(?P<enter>\.__enter__\(\))|(?P<aenter>\.__aenter__\(\))|(?P<call>\(\))"
)

# What `await` takes its result from, by the position of that in the class's arguments.
_kAwaitables: Final = {"Coroutine": 2, "Awaitable": 0, "Future": 0, "Task": 0}


def along_path(ctx: CInferenceContext, values: Values, path: str) -> Values:
    """What a path leads to (docs/scanner.md); nothing if it is a shortened one."""
    position = 0
    while position < len(path):
        step = _kStep.match(path, position)
        if step is None:
            return ()
        position = step.end()
        if step["every"]:
            values = iterated(ctx, values)
        elif step["index"]:
            values = unpacked(ctx, values, int(step["index"]))
        elif step["rest"]:
            first, _, last = step["rest"].partition(":")
            part = slice(int(first or 0), int(last) if last else None)
            values = classes.builtin_instance(ctx, "list", (_rest(ctx, values, part),))
        elif step["enter"]:
            values = entered(ctx, values, "__enter__")
        elif step["aenter"]:
            values = entered(ctx, values, "__aenter__")
        else:
            values = _caught(ctx, values)
    return values


def _rest(ctx: CInferenceContext, values: Values, part: slice) -> Values:
    """The elements that a starred target takes."""
    found: list[Values] = []
    for value in values:
        args = _tuple_args(ctx, value)
        found.append(iterated(ctx, (value,)) if args is None else union(args[part]))
    return union(found)


def _caught(ctx: CInferenceContext, values: Values) -> Values:
    """The exceptions that `except` with a class, or a tuple of classes, catches."""
    found: list[Value] = []
    for value in values:
        if isinstance(value, Class):
            found.append(Instance(value))
        elif isinstance(value, Instance):
            for group in value.cls.args:
                found += [Instance(each) for each in group if isinstance(each, Class)]
    return union([tuple(found)])


def _tuple_args(ctx: CInferenceContext, value: Value) -> tuple[Values, ...] | None:
    """The elements of a tuple of known length, as far as they are known."""
    if isinstance(value, Instance):
        top = classes.builtin_class(ctx, "tuple")
        for cls in classes.linearization(ctx, value.cls):
            if cls.bare == top and cls.args and not cls.variadic:
                return cls.args
    return None


def unpacked(ctx: CInferenceContext, values: Values, index: int) -> Values:
    """The element `index` of what is unpacked."""
    found: list[Values] = []
    for value in values:
        args = _tuple_args(ctx, value)
        if args is None:
            found.append(iterated(ctx, (value,)))
        elif -len(args) <= index < len(args):
            found.append(args[index])
    return union(found)


def iterated(ctx: CInferenceContext, values: Values) -> Values:
    """What iteration over the values gives."""
    found: list[Values] = []
    for value in values:
        args = _tuple_args(ctx, value)
        if args is not None:
            found.append(union(args))
            continue
        if isinstance(value, Class) and classes.is_enum(ctx, value):
            found.append((Instance(value),))
            continue
        for enter, following in (("__iter__", "__next__"), ("__aiter__", "__anext__")):
            iterators = calls.method_results(ctx, (value,), enter)
            got = calls.method_results(ctx, iterators, following)
            if got:
                found.append(awaited(ctx, got) if following == "__anext__" else got)
                break
        else:
            found.append(calls.method_results(ctx, (value,), "__getitem__"))
    return union(found)


def entered(ctx: CInferenceContext, values: Values, method: str) -> Values:
    """What `with` gives for the values; themselves where that isn't told."""
    found: list[Values] = []
    for value in values:
        if isinstance(value, Instance):
            got = calls.method_results(ctx, (value,), method)
            found.append(awaited(ctx, got) if method == "__aenter__" else got)
    return union(found) or tuple(value for value in values if isinstance(value, Instance))


def awaited(ctx: CInferenceContext, values: Values) -> Values:
    """What `await` gives for the values.

    A call of a coroutine function is worth what it returns already, so anything else is itself.
    """
    found: list[Values] = []
    for value in values:
        if isinstance(value, Instance):
            name = value.cls.scope_name
            position = _kAwaitables.get(name)
            if position is not None:
                if position < len(value.cls.args):
                    found.append(value.cls.args[position])
                continue
        found.append((value,))
    return union(found)


def item(ctx: CInferenceContext, values: Values, index: ast.expr) -> Values:
    """What a subscript of the values gives."""
    found: list[Values] = []
    for value in values:
        args = _tuple_args(ctx, value)
        number = _number(index)
        if args is not None and number is not None:
            found.append(args[number] if -len(args) <= number < len(args) else ())
        elif isinstance(index, ast.Slice) and isinstance(value, Instance):
            found.append((value,))
        elif isinstance(value, BoundValue):
            continue
        else:
            found.append(calls.method_results(ctx, (value,), "__getitem__"))
    return union(found)


def _number(node: ast.expr) -> int | None:
    if isinstance(node, ast.UnaryOp) and isinstance(node.op, ast.USub):
        inner = _number(node.operand)
        return None if inner is None else -inner
    if isinstance(node, ast.Constant) and isinstance(node.value, int):
        return node.value
    return None
