"""Annotations: what type expressions say of the objects that they annotate."""

from __future__ import annotations

import ast
from collections.abc import Callable, Iterator, Mapping
from dataclasses import replace
from typing import TYPE_CHECKING, Final

from loombase.location import CLocation

from loom.infer import classes, evaluate
from loom.infer.parts import parse_expression
from loom.infer.values import (
    BoundValue,
    Class,
    Instance,
    Special,
    TypeVariable,
    Value,
    Values,
    union,
)

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = [
    "Substitution",
    "class_values",
    "classes_of",
    "hint_values",
    "instances_of",
    "kSelf",
    "kSpecialNames",
    "mapping_of",
    "subscripted",
    "substitute",
    "substitute_class",
    "text_values",
    "variables_in",
]

# What the type variables, and `Self`, stand for.
Substitution = Mapping[Value, Values]

_Argument = Callable[[ast.expr], Values]

kSelf: Final = Special("Self")

# Forms of the typing module that aren't classes of objects.
kSpecialNames: Final = frozenset(
    """Annotated Any Callable ClassVar Concatenate Final Generic Literal LiteralString Never
    NoReturn NotRequired Optional Protocol ReadOnly Required Self Type TypeAlias TypedDict TypeGuard
    TypeIs Union Unpack""".split()
)

# Forms that say something of their first argument but its type.
_kTransparent: Final = frozenset(
    ("Annotated", "ClassVar", "Final", "NotRequired", "ReadOnly", "Required", "Unpack")
)

_kDeepest: Final = 12


def text_values(ctx: CInferenceContext, loc: CLocation, scope_name: str, text: str) -> Values:
    """What the annotation `text` in a scope says."""
    return ctx.answer(
        ("hint", loc, scope_name, text),
        (),
        lambda: hint_values(ctx, loc, scope_name, parse_expression(text)),
    )


def hint_values(
    ctx: CInferenceContext, loc: CLocation, scope_name: str, node: ast.expr | None
) -> Values:
    """The objects that an annotation allows."""
    if node is None:
        return ()
    return instances_of(ctx, class_values(ctx, loc, scope_name, node))


def class_values(
    ctx: CInferenceContext,
    loc: CLocation,
    scope_name: str,
    node: ast.expr,
    params_of: str | None = None,
) -> Values:
    """The classes and forms that a type expression is.

    `params_of` is the scope of a class whose bases are evaluated, for its type parameters.
    """
    if isinstance(node, ast.Constant):
        if node.value is None:
            return (Special("None"),)
        if isinstance(node.value, str):
            inner = parse_expression(node.value.strip())
            if inner is not None and not isinstance(inner, ast.Constant):
                return class_values(ctx, loc, scope_name, inner, params_of)
        return ()
    if isinstance(node, ast.BinOp) and isinstance(node.op, ast.BitOr):
        sides = [
            class_values(ctx, loc, scope_name, side, params_of) for side in (node.left, node.right)
        ]
        return (Special("Union", tuple(instances_of(ctx, side) for side in sides)),)
    if isinstance(node, ast.Subscript):
        base = class_values(ctx, loc, scope_name, node.value, params_of)
        return subscripted(ctx, loc, scope_name, base, node.slice, params_of)
    if isinstance(node, ast.List):  # the arguments of a callable
        return ()
    if params_of is not None and isinstance(node, ast.Name):
        values = evaluate.node_values(ctx, loc, params_of, node)
        if any(isinstance(value, TypeVariable) for value in values):
            return values
    return evaluate.node_values(ctx, loc, scope_name, node)


def subscripted(
    ctx: CInferenceContext,
    loc: CLocation,
    scope_name: str,
    base: Values,
    index: ast.expr,
    params_of: str | None = None,
) -> Values:
    """Type expressions with a subscript, such as `list[int]`."""
    items = index.elts if isinstance(index, ast.Tuple) else [index]

    def argument(node: ast.expr) -> Values:
        return instances_of(ctx, class_values(ctx, loc, scope_name, node, params_of))

    found: list[Values] = []
    for value in base:
        if isinstance(value, Class):
            found.append(_class_with(ctx, value, items, argument))
        elif isinstance(value, Special):
            found.append(_special_with(ctx, loc, scope_name, value, items, argument))
    return union(found)


def _class_with(
    ctx: CInferenceContext, cls: Class, items: list[ast.expr], argument: _Argument
) -> Values:
    if cls.args:  # a generic alias: its variables are what the subscript is for
        variables = list(dict.fromkeys(variables_in(cls)))
        mapping: dict[Value, Values] = {
            v: argument(item) for v, item in zip(variables, items, strict=False)
        }
        return (substitute_class(cls, mapping),)
    if _is_builtin(ctx, cls, "type"):
        return (Special("Type", (argument(items[0]),)),)
    variadic = False
    if _is_builtin(ctx, cls, "tuple") and len(items) == 2 and _is_ellipsis(items[1]):
        items, variadic = items[:1], True
    return (replace(cls, args=tuple(argument(item) for item in items), variadic=variadic),)


def _is_ellipsis(node: ast.expr) -> bool:
    return isinstance(node, ast.Constant) and node.value is ...


def _is_builtin(ctx: CInferenceContext, cls: Class, name: str) -> bool:
    own = classes.builtin_class(ctx, name)
    return own is not None and cls.bare == own


def _special_with(
    ctx: CInferenceContext,
    loc: CLocation,
    scope_name: str,
    form: Special,
    items: list[ast.expr],
    argument: _Argument,
) -> Values:
    name = form.name
    if name in _kTransparent:
        return (Special("Union", (argument(items[0]),)),)
    if name == "Optional":
        return (Special("Union", (argument(items[0]), (Special("None"),))),)
    if name in ("Union", "Generic", "Protocol"):
        return (Special(name, tuple(argument(item) for item in items)),)
    if name == "Type":
        return (Special("Type", (argument(items[0]),)),)
    if name == "Callable":
        return (Special("Callable", (argument(items[-1]),)),) if len(items) > 1 else (form,)
    if name == "Literal":
        values = [evaluate.node_values(ctx, loc, scope_name, item) for item in items]
        return (Special("Union", tuple(values)),)
    if name in ("TypeGuard", "TypeIs"):
        return (Special("Union", (classes.builtin_instance(ctx, "bool"),)),)
    return (form,)


def instances_of(ctx: CInferenceContext, values: Values) -> Values:
    """The objects of classes and forms."""
    found: list[Values] = []
    for value in values:
        if isinstance(value, Class):
            found.append((Instance(value),))
        elif isinstance(value, TypeVariable) or value == kSelf:
            found.append((value,))
        elif isinstance(value, Special):
            if value.name == "Union":
                found.extend(value.args)
            elif value.name == "Type":
                found.append(classes_of(value.args[0]) if value.args else ())
            elif value.name == "Callable":
                found.append((BoundValue(value.args[0] if value.args else ()),))
            elif value.name == "LiteralString":
                found.append(classes.builtin_instance(ctx, "str"))
            elif value.name == "None":
                found.append((value,))
    return union(found)


def classes_of(values: Values) -> Values:
    found: list[Value] = []
    for value in values:
        if isinstance(value, Instance):
            found.append(value.cls)
        elif isinstance(value, TypeVariable):
            found.append(replace(value, of_class=True))
        elif value == kSelf:
            found.append(Special("Type", ((kSelf,),)))
    return tuple(found)


# --- type variables


def variables_in(value: Value, depth: int = 0) -> Iterator[TypeVariable]:
    """The type variables that a value depends on, in order of appearance."""
    if isinstance(value, TypeVariable):
        yield value.bare
    elif depth < _kDeepest:
        args: tuple[Values, ...] = ()
        if isinstance(value, Instance):
            args = value.cls.args
        elif isinstance(value, Class | Special):
            args = value.args
        elif isinstance(value, BoundValue):
            args = (value.result,)
        for group in args:
            for each in group:
                yield from variables_in(each, depth + 1)


def mapping_of(ctx: CInferenceContext, cls: Class) -> dict[Value, Values]:
    """What the type parameters of a class stand for."""
    if not cls.args:
        return {}
    params = classes.parameters(ctx, cls)
    args = cls.args
    if len(params) == 1 and (len(args) > 1 or cls.variadic):  # a tuple: any of its elements
        args = (union(args),)
    return dict(zip(params, args, strict=False))


def substitute(values: Values, mapping: Substitution, depth: int = 0) -> Values:
    """The values with what is known of type variables put in."""
    if not mapping or depth > _kDeepest:
        return values
    found: list[Values] = []
    changed = False
    for value in values:
        new = _substituted(value, mapping, depth)
        changed = changed or new != (value,)
        found.append(new)
    return union(found) if changed else values


def _substituted(value: Value, mapping: Substitution, depth: int) -> Values:
    if isinstance(value, TypeVariable):
        known = mapping.get(value.bare)
        if known is None:
            return (value,)
        return classes_of(known) if value.of_class else known
    if value == kSelf:
        return mapping.get(kSelf, (value,))
    if isinstance(value, Instance):
        if not value.cls.args:
            return (value,)
        return (Instance(substitute_class(value.cls, mapping, depth)),)
    if isinstance(value, Class):
        return (substitute_class(value, mapping, depth),)
    if isinstance(value, BoundValue):
        return (BoundValue(substitute(value.result, mapping, depth + 1)),)
    if isinstance(value, Special) and value.name == "Type" and value.args:
        inner = substitute(value.args[0], mapping, depth + 1)
        return classes_of(inner) if inner != value.args[0] else (value,)
    return (value,)


def substitute_class(cls: Class, mapping: Substitution, depth: int = 0) -> Class:
    """A class with what is known of type variables put into its arguments."""
    if not cls.args or not mapping:
        return cls
    return replace(cls, args=tuple(substitute(arg, mapping, depth + 1) for arg in cls.args))
