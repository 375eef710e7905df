"""The questions that others ask of the inference.

Each takes a context, which `CInferenceEngine.NewContext` makes: its deadline holds for the answer,
and its `partial` and `needs_scan` tell afterwards whether and what was missing.
"""

from __future__ import annotations

import ast
from typing import TYPE_CHECKING

from loombase.location import CLocation

from loom.infer import attributes, bindings, classes, evaluate, modules, names
from loom.infer.parts import ImportPart, parse_expression
from loom.infer.values import Class, Instance, Target, Value, Values

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = [
    "attribute_targets",
    "class_mro",
    "class_of",
    "evaluate_expression",
    "resolve_chain",
    "resolve_expression",
    "resolve_import",
    "resolve_name",
    "type_of_name",
]


def resolve_name(
    loc: CLocation, scope_name: str, name: str, context: CInferenceContext, follow: bool = True
) -> tuple[Target, ...]:
    """What a plain name means to code in a scope: symbols and modules, the likeliest first.

    With `follow`, imports are followed to where the name is really defined; an import that leads
    nowhere is its own definition. Without, it is the name that the code sees. Empty if nothing
    binds it.
    """
    target = names.lookup(context, loc, scope_name, name)
    if target is None:
        return ()
    return modules.follow(context, target, source_first=True) if follow else (target,)


def resolve_expression(
    loc: CLocation, scope_name: str, expression: str, context: CInferenceContext
) -> tuple[Target, ...]:
    """What a name or a chain of attributes such as "a.b().c" means in a scope, imports followed.

    Empty for any other expression.
    """
    node = parse_expression(expression)
    if isinstance(node, ast.Name):
        return resolve_name(loc, scope_name, node.id, context)
    if not isinstance(node, ast.Attribute):
        return ()
    base = evaluate.node_values(context, loc, scope_name, node.value)
    return attribute_targets(base, node.attr, context)


def resolve_chain(
    loc: CLocation, scope_name: str, chain: str, context: CInferenceContext
) -> tuple[tuple[Target, ...], ...]:
    """What each name of a dotted chain such as "a.b.c" means in a scope, imports followed.

    One entry for each name; empty where it isn't known, and so for all names behind it.
    """
    first, *others = chain.split(".")
    found = [resolve_name(loc, scope_name, first, context)]
    values = type_of_name(loc, scope_name, first, context) if others else ()
    for index, name in enumerate(others):
        found.append(attribute_targets(values, name, context) if values else ())
        if index + 1 < len(others):
            values = attributes.values_of(context, values, name)
    return tuple(found)


def attribute_targets(
    base: Values, name: str, context: CInferenceContext
) -> tuple[Target, ...]:
    """Where an attribute of any of the values is defined, imports followed."""
    found: dict[Target, None] = {}
    for target in attributes.targets_of(context, base, name):
        found.update(dict.fromkeys(modules.follow(context, target, source_first=True)))
    return tuple(found)


def resolve_import(
    loc: CLocation, module: str, name: str, context: CInferenceContext
) -> tuple[Target, ...]:
    """Where `from module import name` in a file leads, or `import module` if `name` is empty.

    Imports are followed; empty if there is no such module or name.
    """
    part = ImportPart(module, name, "" if name else module)
    target = modules.imported(context, loc, part, source_first=True)
    return () if target is None else modules.follow(context, target, source_first=True)


def evaluate_expression(
    loc: CLocation, scope_name: str, expression: str, context: CInferenceContext
) -> Values:
    """What an expression is worth in a scope; empty if that isn't known, or it isn't one."""
    return evaluate.text_values(context, loc, scope_name, expression)


def type_of_name(
    loc: CLocation, scope_name: str, name: str, context: CInferenceContext
) -> Values:
    """What a name is worth to code in a scope."""
    target = names.lookup(context, loc, scope_name, name)
    return () if target is None else bindings.target_values(context, target)


def class_mro(
    loc: CLocation, scope_name: str, context: CInferenceContext
) -> tuple[Class, ...]:
    """The classes in which attributes of a class are looked for, itself first, `object` last."""
    return classes.linearization(context, Class(loc, scope_name))


def class_of(value: Value) -> Class | None:
    """The class of an object, or the class that the value is; none for what is neither."""
    if isinstance(value, Instance):
        return value.cls
    return value if isinstance(value, Class) else None
