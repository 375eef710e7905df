"""Expressions: what the nodes of a syntax tree are worth where they stand."""

from __future__ import annotations

import ast
from collections.abc import Mapping, Sequence
from functools import partial
from typing import TYPE_CHECKING, Final

from loombase.location import CLocation

from loom.infer import (
    hints,
    attributes,
    bindings,
    calls,
    classes,
    elements,
    modules,
    names,
)
from loom.infer.parts import parse_expression
from loom.infer.values import (
    Class,
    Instance,
    LambdaFunction,
    Special,
    Super,
    TypeVariable,
    Value,
    Values,
    union,
)

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["Env", "comprehension_env", "node_values", "target_values", "text_values"]

# Names that an expression binds itself: targets of comprehensions, arguments of a lambda.
Env = Mapping[str, Values]

_kNoEnv: Final[Env] = {}

_kConstants: Final = {str: "str", bytes: "bytes", int: "int", float: "float", complex: "complex"}

# The methods behind operators, where both sides don't have the same class anyway.
_kOperators: Final[dict[type[ast.operator], str]] = {
    ast.Add: "__add__",
    ast.Sub: "__sub__",
    ast.Mult: "__mul__",
    ast.Div: "__truediv__",
    ast.FloorDiv: "__floordiv__",
    ast.Mod: "__mod__",
    ast.Pow: "__pow__",
    ast.MatMult: "__matmul__",
    ast.BitAnd: "__and__",
    ast.BitOr: "__or__",
    ast.BitXor: "__xor__",
    ast.LShift: "__lshift__",
    ast.RShift: "__rshift__",
}

# Elements of a display that are looked at for their type.
_kMostElements: Final = 4


def text_values(ctx: CInferenceContext, loc: CLocation, scope_name: str, text: str) -> Values:
    """What the expression `text` is worth in a scope."""
    return ctx.answer(
        ("text", loc, scope_name, text),
        (),
        lambda: _parsed_values(ctx, loc, scope_name, text),
    )


def _parsed_values(ctx: CInferenceContext, loc: CLocation, scope_name: str, text: str) -> Values:
    node = parse_expression(text)
    return () if node is None else node_values(ctx, loc, scope_name, node)


def node_values(
    ctx: CInferenceContext,
    loc: CLocation,
    scope_name: str,
    node: ast.expr,
    env: Env = _kNoEnv,
) -> Values:
    """What an expression is worth in a scope; nothing if that isn't known."""
    if ctx.too_deep() or ctx.OutOfTime():
        return ()
    ctx.node_depth += 1
    try:
        return _Frame(ctx, loc, scope_name, env).values(node)
    finally:
        ctx.node_depth -= 1


class _Frame:
    """Where an expression stands, with the names that it binds itself."""

    def __init__(
        self, ctx: CInferenceContext, loc: CLocation, scope_name: str, env: Env
    ) -> None:
        self.ctx = ctx
        self.loc = loc
        self.scope_name = scope_name
        self.env = env

    def of(self, node: ast.expr, env: Env | None = None) -> Values:
        return node_values(
            self.ctx, self.loc, self.scope_name, node, self.env if env is None else env
        )

    def builtin(self, name: str, *args: Values, variadic: bool = False) -> Values:
        return classes.builtin_instance(self.ctx, name, args, variadic)

    def values(self, node: ast.expr) -> Values:
        match node:
            case ast.Name():
                return self.name(node.id)
            case ast.Attribute():
                base = self.of(node.value)
                return attributes.values_of(self.ctx, base, node.attr)
            case ast.Call():
                return self.call(node)
            case ast.Subscript():
                return self.subscript(node)
            case ast.Constant():
                return self.constant(node.value)
            case ast.JoinedStr():
                return self.builtin("str")
            case ast.BoolOp():
                return union(self.of(value) for value in node.values)
            case ast.IfExp():
                return union((self.of(node.body), self.of(node.orelse)))
            case ast.BinOp():
                return self.operation(node)
            case ast.UnaryOp():
                if isinstance(node.op, ast.Not):
                    return self.builtin("bool")
                return self.of(node.operand)
            case ast.Compare():
                return self.builtin("bool")
            case ast.NamedExpr():
                return self.of(node.value)
            case ast.Await():
                return elements.awaited(self.ctx, self.of(node.value))
            case ast.Starred():
                return self.of(node.value)
            case ast.Lambda():
                return (LambdaFunction(node, self.loc, self.scope_name, self.env),)
            case _:
                return self.display(node)

    def name(self, name: str) -> Values:
        known = self.env.get(name)
        if known is not None:
            return known
        target = names.lookup(self.ctx, self.loc, self.scope_name, name)
        return () if target is None else bindings.target_values(self.ctx, target)

    def constant(self, value: object) -> Values:
        if value is None:
            return (Special("None"),)
        if value is ...:
            return ()  # the scanner's mark for what was too long
        if isinstance(value, bool):
            return self.builtin("bool")
        return self.builtin(_kConstants[type(value)])

    def display(self, node: ast.expr) -> Values:
        """Lists, dictionaries and their like, comprehensions included."""
        match node:
            case ast.List() | ast.Set():
                name = "list" if isinstance(node, ast.List) else "set"
                return self.builtin(name, self.any_of(node.elts))
            case ast.Tuple():
                return self.tuple(node)
            case ast.Dict():
                keys = [key for key in node.keys if key is not None]
                values = [v for k, v in zip(node.keys, node.values, strict=True) if k is not None]
                return self.builtin("dict", self.any_of(keys), self.any_of(values))
            case ast.ListComp() | ast.SetComp() | ast.GeneratorExp():
                env = comprehension_env(
                    self.ctx, self.loc, self.scope_name, node.generators, self.env
                )
                element = self.of(node.elt, env)
                if isinstance(node, ast.GeneratorExp):
                    return _generator(self.ctx, element)
                return self.builtin("list" if isinstance(node, ast.ListComp) else "set", element)
            case ast.DictComp():
                env = comprehension_env(
                    self.ctx, self.loc, self.scope_name, node.generators, self.env
                )
                return self.builtin("dict", self.of(node.key, env), self.of(node.value, env))
            case _:
                return ()

    def any_of(self, nodes: Sequence[ast.expr]) -> Values:
        found: list[Values] = []
        for node in nodes[:_kMostElements]:
            if isinstance(node, ast.Starred):
                found.append(elements.iterated(self.ctx, self.of(node.value)))
            else:
                found.append(self.of(node))
        return union(found)

    def tuple(self, node: ast.Tuple) -> Values:
        if any(isinstance(item, ast.Starred) for item in node.elts) or len(node.elts) > 16:
            return self.builtin("tuple", self.any_of(node.elts), variadic=True)
        return self.builtin("tuple", *(self.of(item) for item in node.elts))

    def call(self, node: ast.Call) -> Values:
        if isinstance(node.func, ast.Name) and node.func.id == "super":
            found = self.super(node)
            if found:
                return found
        functions = self.of(node.func)
        variable = self.new_type_variable(node, functions)
        if variable is not None:
            return variable
        arguments = calls.Arguments(
            tuple(partial(self.of, arg) for arg in node.args),
            {k.arg: partial(self.of, k.value) for k in node.keywords if k.arg is not None},
        )
        return calls.results(self.ctx, functions, arguments)

    def super(self, node: ast.Call) -> Values:
        """`super()`, and `super(C, self)`, in a method."""
        scope_name = names.enclosing_class(self.ctx, self.loc, self.scope_name)
        if scope_name is None:
            return ()
        own = Class(self.loc, scope_name)
        cls = own
        if node.args:
            stated = [v for v in self.of(node.args[0]) if isinstance(v, Class)]
            cls = stated[0] if stated else own
        return (Super(cls, Instance(own)),)

    def new_type_variable(self, node: ast.Call, functions: Values) -> Values | None:
        """The result of `TypeVar("T")` and `NewType("N", C)`; none for any other call."""
        for value in functions:
            name = getattr(value, "scope_name", "")
            if name not in ("TypeVar", "ParamSpec", "TypeVarTuple", "NewType") or not node.args:
                continue
            first = node.args[0]
            if not isinstance(first, ast.Constant) or not isinstance(first.value, str):
                return None
            if name == "NewType":
                return self.of(node.args[1]) if len(node.args) > 1 else None
            bound: Values = ()
            for keyword in node.keywords:
                if keyword.arg == "bound":
                    bound = hints.hint_values(
                        self.ctx, self.loc, self.scope_name, keyword.value
                    )
            return (TypeVariable(first.value, self.loc, "", bound),)
        return None

    def subscript(self, node: ast.Subscript) -> Values:
        base = self.of(node.value)
        types = tuple(v for v in base if isinstance(v, Class | Special))
        found: list[Values] = []
        if types:
            found.append(
                hints.subscripted(self.ctx, self.loc, self.scope_name, types, node.slice)
            )
        objects: Values = tuple(v for v in base if not isinstance(v, Class | Special))
        if objects:
            found.append(elements.item(self.ctx, objects, node.slice))
        return union(found)

    def operation(self, node: ast.BinOp) -> Values:
        left, right = self.of(node.left), self.of(node.right)
        if isinstance(node.op, ast.BitOr):
            types = [v for v in left if isinstance(v, Class) or v == Special("None")]
            if types:
                sides = (left, right)
                return (
                    Special(
                        "Union", tuple(hints.instances_of(self.ctx, side) for side in sides)
                    ),
                )
        own: list[Value] = [v for v in left if isinstance(v, Instance)]
        if isinstance(node.op, ast.Add) and own == list(right):
            return left  # of one class, so that the result nearly always is, too
        found = calls.method_results(
            self.ctx, left, _kOperators[type(node.op)], calls.Arguments((lambda: right,), {})
        )
        return found or left or right


def _generator(ctx: CInferenceContext, element: Values) -> Values:
    module = modules.find_module(ctx, "typing", None)
    if module is None or not module.locs:
        return ()
    return (Instance(Class(module.locs[0], "Generator", (element, (), ()))),)


def comprehension_env(
    ctx: CInferenceContext,
    loc: CLocation,
    scope_name: str,
    generators: Sequence[ast.comprehension],
    env: Env,
) -> Env:
    """The names that comprehensions bind, with those around them."""
    result = dict(env)
    for generator in generators:
        values = node_values(ctx, loc, scope_name, generator.iter, result)
        element = elements.iterated(ctx, values)
        result.update(target_values(ctx, generator.target, element))
    return result


def target_values(
    ctx: CInferenceContext, target: ast.expr, values: Values
) -> dict[str, Values]:
    """What the names of a target get when `values` are assigned to it."""
    if isinstance(target, ast.Name):
        return {target.id: values}
    found: dict[str, Values] = {}
    if isinstance(target, ast.Tuple | ast.List):
        for index, item in enumerate(target.elts):
            if isinstance(item, ast.Starred):
                each = elements.iterated(ctx, values)
                found.update(
                    target_values(ctx, item.value, classes.builtin_instance(ctx, "list", (each,)))
                )
            else:
                found.update(target_values(ctx, item, elements.unpacked(ctx, values, index)))
    return found
