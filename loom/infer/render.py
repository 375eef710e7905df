"""Values and definitions as text for people, in the manner of annotations."""

from __future__ import annotations

from typing import TYPE_CHECKING, Final

from loombase.location import CLocation
from pysource.symbolinfo import RemoveAllScopeNameSubscripts

from loom.infer import calls
from loom.infer.parts import HintPart
from loom.infer.values import (
    BoundValue,
    Class,
    Function,
    Instance,
    LambdaFunction,
    Module,
    Special,
    Super,
    TypeVariable,
    Value,
    Values,
)

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["class_text", "signature", "values_text"]

_kDeepest: Final = 4


def class_text(cls: Class, depth: int = 0) -> str:
    """A class with its type arguments, by its own name."""
    name = RemoveAllScopeNameSubscripts(cls.scope_name)
    name = ".".join(part.partition("#")[0] for part in name.split("."))
    if not cls.args or depth >= _kDeepest:
        return name
    args = [values_text(arg, depth + 1) or "Any" for arg in cls.args]
    if cls.variadic:
        args.append("...")
    return f"{name}[{', '.join(args)}]"


def values_text(values: Values, depth: int = 0) -> str:
    """What objects these are, as an annotation would say it; empty if nothing is known."""
    texts = dict.fromkeys(_value_text(value, depth) for value in values)
    # None stands last, as people write it.
    return " | ".join(sorted((t for t in texts if t), key=lambda text: text == "None"))


def _value_text(value: Value, depth: int) -> str:
    match value:
        case Instance():
            return class_text(value.cls, depth)
        case Class():
            return f"type[{class_text(value, depth)}]"
        case Module():
            return f"module {value.name}"
        case Function() | BoundValue() | LambdaFunction():
            return "function"
        case TypeVariable():
            return f"type[{value.name}]" if value.of_class else value.name
        case Super():
            return "super"
        case Special():
            return value.name


def signature(ctx: CInferenceContext, loc: CLocation, scope_name: str) -> str:
    """The arguments and the result of a function, as its head has them."""
    texts: list[str] = []
    by_position_only = by_name_only = False
    for param in calls.params(ctx, loc, scope_name):
        stars = param.marks.lstrip("/|")
        if by_position_only and "/" not in param.marks:
            texts.append("/")
        by_position_only = "/" in param.marks
        if param.marks == "|" and not by_name_only:
            texts.append("*")
        by_name_only = by_name_only or param.marks == "|" or stars == "*"
        text = f"{stars}{param.name}"
        if param.hint:
            text += f": {param.hint}"
        if param.default is not None:
            text += f" = {param.default}" if param.hint else f"={param.default}"
        texts.append(text)
    if by_position_only:
        texts.append("/")
    record = ctx.engine.records.scope(ctx, loc, scope_name)
    parts = record.parts("return") if record is not None else ()
    result = next((f" -> {part.text}" for part in parts if isinstance(part, HintPart)), "")
    return f"({', '.join(texts)}){result}"
