"""Calls: what functions return, and what classes make."""

from __future__ import annotations

import ast
from collections.abc import Callable, Mapping
from dataclasses import dataclass, replace
from typing import TYPE_CHECKING, Final, NamedTuple

from loombase.location import CLocation
from pysource.symbolinfo import ParentScopeName

from loom.infer import (
    hints,
    matching,
    attributes,
    bindings,
    classes,
    counterparts,
    elements,
    evaluate,
    modules,
)
from loom.infer.parts import (
    ArgPart,
    DefPart,
    ExprPart,
    HintPart,
    WithinPart,
    parse_expression,
)
from loom.infer.values import (
    BoundValue,
    Class,
    Function,
    Instance,
    LambdaFunction,
    Special,
    TypeVariable,
    Value,
    Values,
    union,
)

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = [
    "Argument",
    "Arguments",
    "Param",
    "argument_hint",
    "bind",
    "kNoArguments",
    "method_results",
    "params",
    "results",
    "takes_class",
]

# An argument is evaluated only if it matters for the result.
Argument = Callable[[], Values]


@dataclass(frozen=True, slots=True)
class Arguments:
    """The arguments of a call. Starred ones count as one positional argument."""

    positional: tuple[Argument, ...]
    keywords: Mapping[str, Argument]


kNoArguments: Final = Arguments((), {})

# Methods that are called with a class, whether they say so or not.
_kClassMethods: Final = frozenset(("__new__", "__init_subclass__", "__class_getitem__"))

# Overloads of one name that are looked at.
_kMostOverloads: Final = 6


class Param(NamedTuple):
    """One argument that a function takes. `hint` is its annotation, or empty."""

    name: str
    position: int
    marks: str
    default: str | None
    hint: str

    @property
    def by_position(self) -> bool:
        return "|" not in self.marks and "*" not in self.marks

    @property
    def by_name(self) -> bool:
        return "/" not in self.marks and "*" not in self.marks


def bind(function: Function, receiver: Instance | Class) -> Function:
    """The function as a method of an object or class."""
    return replace(function, receiver=receiver)


def takes_class(definition: DefPart) -> bool:
    """Whether the first argument of a method is the class."""
    name = definition.scope_name.rpartition(".")[2].partition("#")[0]
    return name in _kClassMethods or any(
        decorator.rpartition(".")[2] in ("classmethod", "abstractclassmethod")
        for decorator in definition.decorators
    )


def params(ctx: CInferenceContext, loc: CLocation, scope_name: str) -> tuple[Param, ...]:
    """The arguments that a function takes, in order."""
    return ctx.answer(("params", loc, scope_name), (), lambda: _params(ctx, loc, scope_name))


def _params(ctx: CInferenceContext, loc: CLocation, scope_name: str) -> tuple[Param, ...]:
    record = ctx.engine.records.scope(ctx, loc, scope_name)
    if record is None:
        return ()
    found: list[Param] = []
    for name, info in record.names.items():
        if b":r" not in info:
            continue
        parts = record.parts(name)
        for part in parts:
            if isinstance(part, ArgPart):
                hint = next((p.text for p in parts if isinstance(p, HintPart)), "")
                found.append(Param(name, part.index, part.marks, part.default, hint))
                break
    return tuple(sorted(found, key=lambda param: param.position))


def method_results(
    ctx: CInferenceContext, values: Values, name: str, arguments: Arguments = kNoArguments
) -> Values:
    """What a method of the values gives."""
    return results(ctx, attributes.values_of(ctx, values, name), arguments)


def results(ctx: CInferenceContext, functions: Values, arguments: Arguments) -> Values:
    """What calling any of the values gives."""
    candidates = [f for f in functions if isinstance(f, Function)]
    if len(candidates) > 1:
        fitting = [f for f in candidates if matching.fits(ctx, f, arguments)][:_kMostOverloads]
        rest = [f for f in functions if not isinstance(f, Function)]
        functions = (*(fitting or candidates[:1]), *rest)
    return union(_result(ctx, function, arguments) for function in functions)


def _result(ctx: CInferenceContext, value: Value, arguments: Arguments) -> Values:
    if isinstance(value, Function):
        return _function_result(ctx, value, arguments)
    if isinstance(value, Class):
        return _new_object(ctx, value, arguments)
    if isinstance(value, Instance):
        return method_results(ctx, (value,), "__call__", arguments)
    if isinstance(value, BoundValue):
        return value.result
    if isinstance(value, LambdaFunction):
        return ctx.unless_open(value.node, (), lambda: _lambda_result(ctx, value, arguments))
    if isinstance(value, TypeVariable) and value.of_class:
        return (value.bare,)
    if isinstance(value, Special) and value.name == "Type" and value.args:
        return value.args[0]
    return ()


def _lambda_result(
    ctx: CInferenceContext, function: LambdaFunction, arguments: Arguments
) -> Values:
    args = function.node.args
    env = dict(function.env)
    for index, arg in enumerate((*args.posonlyargs, *args.args)):
        given = index < len(arguments.positional)
        env[arg.arg] = arguments.positional[index]() if given else ()
    return evaluate.node_values(
        ctx, function.loc, function.scope_name, function.node.body, env
    )


# --- objects of classes


def _new_object(ctx: CInferenceContext, cls: Class, arguments: Arguments) -> Values:
    if cls.bare == classes.builtin_class(ctx, "type") and len(arguments.positional) == 1:
        return hints.classes_of(arguments.positional[0]())
    own = Instance(cls)
    variables = () if cls.args else classes.parameters(ctx, cls)
    if not variables or not (arguments.positional or arguments.keywords):
        return (own,)
    mapping: dict[Value, Values] = {}
    order = classes.linearization(ctx, cls)
    for name in ("__init__", "__new__"):
        found = classes.class_attribute(ctx, order, name)
        if found is None:
            continue
        makers = [f for f in bindings.symbol_values(ctx, found[1]) if isinstance(f, Function)]
        for maker in makers[:_kMostOverloads]:
            bound = bind(maker, own)
            if matching.fits(ctx, bound, arguments):
                matching.match_arguments(ctx, bound, arguments, mapping)
                if mapping:
                    break
        if mapping:
            break
    if not mapping:
        return (own,)
    return (Instance(Class(cls.loc, cls.scope_name, tuple(mapping.get(v, ()) for v in variables))),)


# --- functions


def _function_result(ctx: CInferenceContext, function: Function, arguments: Arguments) -> Values:
    raw = returned(ctx, function)
    names = {d.partition("(")[0].rpartition(".")[2] for d in function.decorators}
    if names & {"contextmanager", "asynccontextmanager"}:
        raw = _manager_of(ctx, raw, "asynccontextmanager" in names)
    mapping: dict[Value, Values] = {}
    receiver = function.receiver
    if receiver is not None:
        cls = receiver.cls if isinstance(receiver, Instance) else receiver
        mapping[hints.kSelf] = (Instance(cls),)
        parent = Class(function.loc, ParentScopeName(function.scope_name))
        for each in classes.linearization(ctx, cls) if cls.args or parent != cls else ():
            if each.bare == parent:
                mapping.update(hints.mapping_of(ctx, each))
    if any(variable not in mapping for value in raw for variable in hints.variables_in(value)):
        matching.match_arguments(ctx, function, arguments, mapping)
    return hints.substitute(raw, mapping)


def returned(ctx: CInferenceContext, function: Function) -> Values:
    """What a function returns by its annotation, else by what it evidently does, else by its stub.

    Type variables stand for themselves.
    """
    return ctx.answer(
        ("returned", function.loc, function.scope_name), (), lambda: _returned(ctx, function)
    )


def _returned(ctx: CInferenceContext, function: Function) -> Values:
    loc, scope_name = function.loc, function.scope_name
    record = ctx.engine.records.scope(ctx, loc, scope_name)
    if record is None:
        return ()
    parts = record.parts("return")
    for part in parts:
        if isinstance(part, HintPart):
            hinted = argument_hint(ctx, loc, scope_name, part.text)
            if hinted:
                return hinted
    yielded = [_evident(ctx, function, p) for p in record.parts("yield")]
    if yielded:
        module = modules.find_module(ctx, "typing", None)
        if module is None:
            return ()
        return (Instance(Class(module.locs[0], "Generator", (union(yielded), (), ()))),)
    evident = union(_evident(ctx, function, part) for part in parts)
    if any(value != Special("None") for value in evident):
        return evident
    if not modules.is_stub(loc):
        other = counterparts.other_scope(ctx, loc, scope_name)
        if other is not None:
            stub = returned(ctx, Function(*other, function.kind))
            return stub or evident
    return evident


def _evident(ctx: CInferenceContext, function: Function, part: object) -> Values:
    if isinstance(part, ExprPart):
        own = _own_object(ctx, function, part.text)
        return own or evaluate.text_values(ctx, function.loc, function.scope_name, part.text)
    if isinstance(part, WithinPart):
        values = evaluate.text_values(ctx, function.loc, function.scope_name, part.text)
        return elements.along_path(ctx, values, part.path)
    return ()


def _own_object(ctx: CInferenceContext, function: Function, text: str) -> Values:
    """What a method returns by `return self`, or a class method by `return cls(...)`."""
    definition = ctx.engine.records.definition(ctx, function.loc, function.scope_name)
    if definition is None or definition.kind != "m":
        return ()
    first = next(iter(params(ctx, function.loc, function.scope_name)), None)
    if first is None or not text.startswith(first.name):
        return ()
    if not takes_class(definition):
        return (hints.kSelf,) if text == first.name else ()
    node = parse_expression(text)
    if isinstance(node, ast.Call) and isinstance(node.func, ast.Name):
        return (hints.kSelf,) if node.func.id == first.name else ()
    return ()


def _manager_of(ctx: CInferenceContext, raw: Values, is_async: bool) -> Values:
    """The context manager that a generator function is made into."""
    module = modules.find_module(ctx, "contextlib", None)
    if module is None or not module.locs:
        return raw
    name = "AbstractAsyncContextManager" if is_async else "AbstractContextManager"
    return (Instance(Class(module.locs[0], name, (elements.iterated(ctx, raw), ()))),)


def argument_hint(ctx: CInferenceContext, loc: CLocation, scope_name: str, text: str) -> Values:
    """What an annotation in the head of a function says: it is read outside of the function."""
    return ctx.answer(
        ("head", loc, scope_name, text),
        (),
        lambda: _argument_hint(ctx, loc, scope_name, text),
    )


def _argument_hint(ctx: CInferenceContext, loc: CLocation, scope_name: str, text: str) -> Values:
    node = parse_expression(text)
    if node is None:
        return ()
    parent = ParentScopeName(scope_name)
    own = scope_name if _has_type_params(ctx, loc, scope_name) else None
    return hints.instances_of(
        ctx, hints.class_values(ctx, loc, parent, node, own)
    )


def _has_type_params(ctx: CInferenceContext, loc: CLocation, scope_name: str) -> bool:
    record = ctx.engine.records.scope(ctx, loc, scope_name)
    return record is not None and any(info.startswith(b":p") for info in record.names.values())
