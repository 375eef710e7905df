"""What the text of an expression evidently is worth, told without following calls.

A call is told by what is called: `module:f()` is an instance if that is a class, else what the
function returns, which the facts of its own file tell. So no answer depends on what stands inside
of functions, and each takes a few look-ups.
"""

from __future__ import annotations

import ast
import re
from collections.abc import Iterator
from typing import TYPE_CHECKING, Final

from loombase.location import CLocation

from loom.derive.facts import Namer
from loom.infer import modules, names
from loom.infer.parts import parse_expression
from loom.infer.values import Module, Symbol, Target

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["annotated", "assigned"]

_kDotted: Final = re.compile(r"[^\W\d]\w*(?:\.[^\W\d]\w*)*")
_kString: Final = re.compile(r"[rRbBuUfF]{0,2}(?:'[^'\\]*'|\"[^\"\\]*\")")
_kNumber: Final = re.compile(r"-?\d[\d_]*(\.\d*)?")

_kDisplays: Final[dict[type[ast.expr], str]] = {
    ast.List: "list",
    ast.ListComp: "list",
    ast.Dict: "dict",
    ast.DictComp: "dict",
    ast.Set: "set",
    ast.SetComp: "set",
    ast.Tuple: "tuple",
    ast.JoinedStr: "str",
    ast.GeneratorExp: "generator",
    ast.Compare: "bool",
}

# Longer ones are data; what they are is told by their first character.
_kLongestParsed: Final = 200

# Forms around a type that don't change it, or that allow for none besides.
_kAround: Final = frozenset(
    ("Annotated", "ClassVar", "Final", "NotRequired", "Optional", "ReadOnly", "Required", "Union")
)


def assigned(
    ctx: CInferenceContext, namer: Namer, loc: CLocation, scope_name: str, text: str
) -> Iterator[str]:
    """What an assigned value is, as targets."""
    if _kDotted.fullmatch(text):
        if text in ("True", "False"):
            yield "builtins:bool()"
        elif text != "None":
            yield from _dotted(ctx, namer, loc, scope_name, text)
        return
    if _kString.fullmatch(text):
        is_bytes = "b" in text[:2].lower().partition(text[-1])[0]
        yield "builtins:bytes()" if is_bytes else "builtins:str()"
        return
    number = _kNumber.fullmatch(text)
    if number is not None:
        yield "builtins:float()" if number[1] else "builtins:int()"
        return
    node = parse_expression(text) if len(text) <= _kLongestParsed else None
    if isinstance(node, ast.Call):
        called = _text_of(node.func)
        if called:
            for target in _dotted(ctx, namer, loc, scope_name, called):
                yield f"{target}()"
    elif isinstance(node, ast.Constant):
        if node.value is not None:
            yield f"builtins:{type(node.value).__name__}()"
    elif isinstance(node, ast.BoolOp | ast.IfExp):
        branches = node.values if isinstance(node, ast.BoolOp) else [node.body, node.orelse]
        for branch in branches:
            yield from assigned(ctx, namer, loc, scope_name, ast.unparse(branch))
    elif node is not None and type(node) in _kDisplays:
        yield f"builtins:{_kDisplays[type(node)]}()"


def annotated(
    ctx: CInferenceContext, namer: Namer, loc: CLocation, scope_name: str, text: str
) -> Iterator[str]:
    """What an annotation allows, as targets."""
    if not _kDotted.fullmatch(text):
        yield from _hinted(ctx, namer, loc, scope_name, parse_expression(text))
    elif text != "None":
        for target in _dotted(ctx, namer, loc, scope_name, text):
            yield f"{target}()"


def _hinted(
    ctx: CInferenceContext, namer: Namer, loc: CLocation, scope_name: str, node: ast.expr | None
) -> Iterator[str]:
    if isinstance(node, ast.Constant) and isinstance(node.value, str):
        yield from annotated(ctx, namer, loc, scope_name, node.value.strip())
    elif isinstance(node, ast.BinOp) and isinstance(node.op, ast.BitOr):
        yield from _hinted(ctx, namer, loc, scope_name, node.left)
        yield from _hinted(ctx, namer, loc, scope_name, node.right)
    elif isinstance(node, ast.Subscript):
        base = _text_of(node.value)
        if base.rpartition(".")[2] in _kAround:
            inner = node.slice
            parts = inner.elts if isinstance(inner, ast.Tuple) else [inner]
            for part in parts[:1] if base.endswith("Annotated") else parts:
                yield from _hinted(ctx, namer, loc, scope_name, part)
        elif base:
            yield from annotated(ctx, namer, loc, scope_name, base)
    elif node is not None:
        text = _text_of(node)
        if text:
            yield from annotated(ctx, namer, loc, scope_name, text)


def _text_of(node: ast.expr) -> str:
    """A dotted name as text; empty for any other expression."""
    parts: list[str] = []
    while isinstance(node, ast.Attribute):
        parts.append(node.attr)
        node = node.value
    if not isinstance(node, ast.Name):
        return ""
    parts.append(node.id)
    return ".".join(reversed(parts))


def _dotted(
    ctx: CInferenceContext, namer: Namer, loc: CLocation, scope_name: str, text: str
) -> Iterator[str]:
    """What a dotted name means; nothing for attributes of anything but modules and classes."""
    first, *attributes = text.split(".")
    start = names.lookup(ctx, loc, scope_name, first)
    if start is None or (isinstance(start, Symbol) and _is_local(ctx, start)):
        return
    targets = modules.follow(ctx, start)
    for number, attribute in enumerate(attributes):
        found: dict[Target, None] = {}
        for target in targets:
            if isinstance(target, Module):
                inside = modules.module_attribute(ctx, target, attribute)
                if inside is not None:
                    found.update(dict.fromkeys(modules.follow(ctx, inside)))
            else:
                # What the attributes of an object are is left to whoever asks.
                rest = ".".join(attributes[number:])
                yield f"{namer.target(target)}.{rest}"
        targets = tuple(found)
    for target in targets:
        yield namer.target(target)


def _is_local(ctx: CInferenceContext, symbol: Symbol) -> bool:
    """Whether a name is a variable of a function, which nobody else can name."""
    kind = ctx.engine.records.kind(ctx, symbol.loc, symbol.scope_name)
    return kind not in ("O", "C")
