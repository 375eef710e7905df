"""Classes: their bases across files, the order in which these are searched, and attributes."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from typing import TYPE_CHECKING, Final

from pysource.symbolinfo import ParentScopeName

from loom.infer import hints, evaluate, modules
from loom.infer.parts import DefPart, ExprPart, HintPart, Part, TypeParamPart, parse_call
from loom.infer.values import (
    Class,
    Instance,
    Special,
    Symbol,
    TypeVariable,
    Value,
    Values,
)

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = [
    "bases",
    "builtin_class",
    "builtin_instance",
    "class_attribute",
    "instance_attribute",
    "is_enum",
    "linearization",
    "metaclass",
    "own_instance_attribute",
    "parameters",
]

# More bases than this are no program.
_kMostClasses: Final = 200


def builtin_class(
    ctx: CInferenceContext, name: str, args: tuple[Values, ...] = (), variadic: bool = False
) -> Class | None:
    """A class of the builtins."""
    module = modules.builtins(ctx)
    if module is None or not module.locs:
        return None
    return Class(module.locs[0], name, args, variadic)


def builtin_instance(
    ctx: CInferenceContext, name: str, args: tuple[Values, ...] = (), variadic: bool = False
) -> Values:
    """An object of a class of the builtins."""
    cls = builtin_class(ctx, name, args, variadic)
    return () if cls is None else (Instance(cls),)


def _base_values(ctx: CInferenceContext, cls: Class) -> tuple[Value, ...]:
    """What the arguments of a class definition are worth, in order; unknown ones are left out."""
    return ctx.answer(
        ("bases", cls.loc, cls.scope_name), (), lambda: _find_base_values(ctx, cls)
    )


def _find_base_values(ctx: CInferenceContext, cls: Class) -> tuple[Value, ...]:
    part = ctx.engine.records.definition(ctx, cls.loc, cls.scope_name)
    call = parse_call(part.bases) if part is not None else None
    if call is None:
        return ()
    parent = ParentScopeName(cls.scope_name)
    found: list[Value] = []
    for node in call.args[:_kMostClasses]:
        values = hints.class_values(ctx, cls.loc, parent, node, cls.scope_name)
        usable = [v for v in values if isinstance(v, Class | Special)]
        if usable == [Special("TypedDict")]:
            usable = [cls for cls in (builtin_class(ctx, "dict"),) if cls is not None]
        if usable:
            found.append(usable[0])
    return tuple(found)


def bases(ctx: CInferenceContext, cls: Class) -> tuple[Class, ...]:
    """The known direct bases, with the type arguments that `cls` has for their parameters."""
    found = tuple(v for v in _base_values(ctx, cls) if isinstance(v, Class))
    if not cls.args:
        return found
    mapping = hints.mapping_of(ctx, cls)
    return tuple(hints.substitute_class(base, mapping) for base in found)


def metaclass(ctx: CInferenceContext, cls: Class) -> Class | None:
    """The metaclass that the class or one of its bases states, else `type`."""
    for each in linearization(ctx, cls):
        part = ctx.engine.records.definition(ctx, each.loc, each.scope_name)
        call = parse_call(part.bases) if part is not None and "metaclass" in part.bases else None
        for keyword in call.keywords if call is not None else ():
            if keyword.arg == "metaclass":
                scope_name = ParentScopeName(each.scope_name)
                for value in evaluate.node_values(ctx, each.loc, scope_name, keyword.value):
                    if isinstance(value, Class):
                        return value
    return builtin_class(ctx, "type")


def parameters(ctx: CInferenceContext, cls: Class) -> tuple[TypeVariable, ...]:
    """The type parameters of a class, in order."""
    return ctx.answer(
        ("parameters", cls.loc, cls.scope_name), (), lambda: _parameters(ctx, cls)
    )


def _parameters(ctx: CInferenceContext, cls: Class) -> tuple[TypeVariable, ...]:
    record = ctx.engine.records.scope(ctx, cls.loc, cls.scope_name)
    declared = [
        TypeVariable(name, cls.loc, cls.scope_name)
        for name in (record.names if record is not None else ())
        if record is not None and any(isinstance(p, TypeParamPart) for p in record.parts(name))
    ]
    if declared:
        return tuple(declared)
    found: dict[TypeVariable, None] = {}
    for base in _base_values(ctx, cls):
        variables = dict.fromkeys(hints.variables_in(base))
        if isinstance(base, Special) and base.name in ("Generic", "Protocol") and variables:
            return tuple(variables)
        found.update(variables)
    return tuple(found)


# --- method resolution order


def linearization(ctx: CInferenceContext, cls: Class) -> tuple[Class, ...]:
    """The classes in which attributes are looked for, `cls` first, `object` last.

    The order is that of Python. Where there is none, because the bases contradict each other or a
    class is its own base, each class comes once in the order in which it is met.
    """
    return ctx.answer(("linearization", cls), (cls,), lambda: _linearization(ctx, cls))


def _linearization(ctx: CInferenceContext, cls: Class) -> tuple[Class, ...]:
    direct = bases(ctx, cls)
    sequences = [linearization(ctx, base) for base in direct]
    if len(direct) == 1:  # as merging would give
        merged = list(sequences[0])
    else:
        merged = _merge([list(s) for s in [*sequences, direct]])
    own = cls.bare
    order = [cls, *(each for each in merged if each.bare != own)]
    top = builtin_class(ctx, "object")
    if top is not None:
        order = [each for each in order if each.bare != top]
        order.append(top)
    return tuple(order[:_kMostClasses])


def _merge(sequences: list[list[Class]]) -> list[Class]:
    """The merge step of the C3 linearization, with classes told apart without their arguments."""
    merged: list[Class] = []
    sequences = [sequence for sequence in sequences if sequence]
    while sequences:
        tails = {each.bare for sequence in sequences for each in sequence[1:]}
        head = next((s[0] for s in sequences if s[0].bare not in tails), sequences[0][0])
        merged.append(head)
        bare = head.bare
        # A head that contradicts an order is taken out of all of it, so that this ends.
        sequences = [
            rest for s in sequences if (rest := [each for each in s if each.bare != bare])
        ]
    return merged


# --- attributes


def class_attribute(
    ctx: CInferenceContext, order: Sequence[Class], name: str
) -> tuple[Class, Symbol] | None:
    """The first class of an order that binds the name in its body, with what it says."""
    for cls in order:
        record = ctx.engine.records.scope(ctx, cls.loc, cls.scope_name)
        parts = record.parts(name) if record is not None else ()
        if parts and not all(isinstance(part, TypeParamPart) for part in parts):
            return cls, Symbol(cls.loc, cls.scope_name, name, parts)
    return None


def instance_attribute(
    ctx: CInferenceContext, order: Sequence[Class], name: str
) -> tuple[Class, tuple[Symbol, ...]] | None:
    """The first class of an order that gives its instances an attribute, in a method or its body.

    What methods assign comes first, `__init__` before the others.
    """
    for cls in order:
        found = list(own_instance_attribute(ctx, cls, name))
        record = ctx.engine.records.scope(ctx, cls.loc, cls.scope_name)
        parts = record.parts(name) if record is not None else ()
        if parts and not all(isinstance(part, TypeParamPart) for part in parts):
            symbol = Symbol(cls.loc, cls.scope_name, name, parts)
            # A property has the word, and a default; where the value comes from, otherwise.
            first = any(isinstance(part, DefPart) for part in parts) or (
                any(isinstance(part, HintPart) for part in parts)
                and any(isinstance(part, ExprPart) for part in parts)
            )
            found.insert(0 if first else len(found), symbol)
        if found:
            return cls, tuple(found)
    return None


def own_instance_attribute(
    ctx: CInferenceContext, cls: Class, name: str
) -> tuple[Symbol, ...]:
    """Where the methods of the class itself assign to an attribute of their instance."""
    nothing: _AttributeTable = {}
    table = ctx.answer(
        ("attributes", cls.loc, cls.scope_name), nothing, lambda: _attribute_table(ctx, cls)
    )
    found: list[Symbol] = []
    for scope_name, parts in table.get(name, ()):
        found.append(Symbol(cls.loc, scope_name, f"self.{name}", parts))
    return tuple(found)


_AttributeTable = dict[str, list[tuple[str, tuple[Part, ...]]]]


def _attribute_table(ctx: CInferenceContext, cls: Class) -> _AttributeTable:
    """Attributes of instances, by name: the methods that assign to them, and what."""
    table: _AttributeTable = {}
    for scope_name in _method_scopes(ctx, cls):
        record = ctx.engine.records.scope(ctx, cls.loc, scope_name)
        for name in record.names if record is not None else ():
            if record is not None and name.startswith("self."):
                table.setdefault(name[5:], []).append((scope_name, record.parts(name)))
        if ctx.OutOfTime():
            break
    return table


def _method_scopes(ctx: CInferenceContext, cls: Class) -> list[str]:
    """The scopes of a class's methods and of the functions in them; constructors first."""
    constructors: list[str] = []
    others: list[str] = []
    for scope_name in _function_scopes(ctx, cls, cls.scope_name, 0):
        name = scope_name[len(cls.scope_name) + 1 :].partition(".")[0].partition("#")[0]
        (constructors if name in ("__init__", "__new__") else others).append(scope_name)
    return constructors + others


def _function_scopes(
    ctx: CInferenceContext, cls: Class, scope_name: str, depth: int
) -> Iterator[str]:
    record = ctx.engine.records.scope(ctx, cls.loc, scope_name)
    if record is None or depth > 4 or modules.is_stub(cls.loc):
        return
    for name, info in record.names.items():
        if ctx.OutOfTime():
            return
        # Told by the bytes: most names of a scope are no functions.
        if b":m" in info or b":M" in info or b":F" in info:
            for part in record.parts(name):
                if isinstance(part, DefPart) and part.kind != "C":
                    if depth == 0 and "staticmethod" in part.decorators:
                        continue
                    yield part.scope_name
                    yield from _function_scopes(ctx, cls, part.scope_name, depth + 1)


def is_enum(ctx: CInferenceContext, cls: Class) -> bool:
    """Whether the names of the class's body are its only instances."""
    return any(
        each.scope_name == "Enum" and each.loc.fUrl.rpartition("/")[2] in ("enum.pyi", "enum.py")
        for each in linearization(ctx, cls)
    )
