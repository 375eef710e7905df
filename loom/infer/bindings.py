"""Bound names: what the parts of a scope's record make a name worth."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import replace
from typing import TYPE_CHECKING, Final

from pysource.symbolinfo import ParentScopeName

from loom.infer import (
    hints,
    calls,
    classes,
    counterparts,
    elements,
    evaluate,
    modules,
    names,
)
from loom.infer.parts import (
    ArgPart,
    DefPart,
    ExprPart,
    HintPart,
    ImportPart,
    OuterPart,
    Part,
    TypeParamPart,
    WithinPart,
)
from loom.infer.values import (
    Class,
    Function,
    Instance,
    Module,
    Special,
    Symbol,
    Target,
    TypeVariable,
    Values,
    union,
)

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["decorated", "function_of", "symbol_values", "target_values"]

# Files that define the forms of hints.
_kTypingFiles: Final = frozenset(
    ("typing.pyi", "typing_extensions.pyi", "typing.py", "typing_extensions.py")
)

# What the typing module has under a name of its own.
_kAliases: Final = {
    "ChainMap": ("collections", "ChainMap"),
    "Counter": ("collections", "Counter"),
    "DefaultDict": ("collections", "defaultdict"),
    "Deque": ("collections", "deque"),
    "Dict": ("builtins", "dict"),
    "FrozenSet": ("builtins", "frozenset"),
    "List": ("builtins", "list"),
    "OrderedDict": ("collections", "OrderedDict"),
    "Set": ("builtins", "set"),
    "Tuple": ("builtins", "tuple"),
}

# Decorators that leave a function what it is, as far as calls are concerned; others may replace it.
_kKeeping: Final = frozenset(
    """abstractmethod asynccontextmanager cache cached_property classmethod contextmanager
    coroutine deleter deprecated final getter lru_cache overload override property setter
    staticmethod type_check_only wraps abstractproperty no_type_check runtime_checkable""".split()
)


def target_values(ctx: CInferenceContext, target: Target) -> Values:
    """What a name that was looked up is worth."""
    return (target,) if isinstance(target, Module) else symbol_values(ctx, target)


def symbol_values(ctx: CInferenceContext, symbol: Symbol) -> Values:
    """What a bound name may be worth, all of its bindings taken together."""
    return ctx.answer(
        ("symbol", symbol.loc, symbol.scope_name, symbol.name),
        (),
        lambda: _symbol_values(ctx, symbol),
    )


def _symbol_values(ctx: CInferenceContext, symbol: Symbol) -> Values:
    special = _special_form(ctx, symbol)
    if special:
        return special
    hinted = _hinted(ctx, symbol)
    if hinted:
        return hinted
    found: list[Values] = []
    followed = False
    for part in symbol.parts:
        if isinstance(part, ImportPart):
            if not followed:
                followed = True
                found += [
                    target_values(ctx, target)
                    for target in modules.follow(ctx, symbol)
                    if target != symbol
                ]
        else:
            found.append(_part_values(ctx, symbol, part))
    values = union(found)
    if not symbol.scope_name and not any(v != Special("None") for v in values):
        values = union((values, _bound_by_functions(ctx, symbol)))
    if not any(v != Special("None") for v in values):
        # What the source leaves open, its stub may tell.
        if not modules.is_stub(symbol.loc) and not followed:
            for other in counterparts.other_symbol(ctx, symbol):
                values = union((values, symbol_values(ctx, other)))
    return values


def _bound_by_functions(ctx: CInferenceContext, symbol: Symbol) -> Values:
    """What functions that declare a name of the module global assign to it."""
    found: list[Values] = []
    for scope_name in names.scopes_declaring(ctx, symbol.loc, symbol.name):
        record = ctx.engine.records.scope(ctx, symbol.loc, scope_name)
        parts = record.parts(symbol.name) if record is not None else ()
        inner = Symbol(symbol.loc, scope_name, symbol.name, parts)
        found += [
            _part_values(ctx, inner, part) for part in parts if not isinstance(part, OuterPart)
        ]
    return union(found)


def _special_form(ctx: CInferenceContext, symbol: Symbol) -> Values:
    """What the typing module defines without a class; nothing for any other name."""
    if symbol.scope_name or symbol.loc.fUrl.rpartition("/")[2] not in _kTypingFiles:
        return ()
    if any(isinstance(part, ImportPart) for part in symbol.parts):
        return ()
    alias = _kAliases.get(symbol.name)
    if alias is not None:
        module = modules.find_module(ctx, alias[0], None)
        found = None if module is None else modules.module_attribute(ctx, module, alias[1])
        return () if found is None else target_values(ctx, found)
    if symbol.name in hints.kSpecialNames:
        return (Special(symbol.name),)
    for part in symbol.parts:
        if isinstance(part, HintPart) and part.text == "_SpecialForm":
            return (Special(symbol.name),)
    return ()


def _hinted(ctx: CInferenceContext, symbol: Symbol) -> Values:
    """What hints of the name say."""
    found: list[Values] = []
    argument = next((part for part in symbol.parts if isinstance(part, ArgPart)), None)
    for part in symbol.parts:
        if not isinstance(part, HintPart):
            continue
        if argument is None:
            found.append(hints.text_values(ctx, symbol.loc, symbol.scope_name, part.text))
        else:
            found.append(calls.argument_hint(ctx, symbol.loc, symbol.scope_name, part.text))
    values = union(found)
    return _starred(ctx, argument, values) if argument is not None and values else values


def _starred(ctx: CInferenceContext, argument: ArgPart, values: Values) -> Values:
    """What an argument holds in its function, by what each one passed to it is."""
    if argument.marks.endswith("**"):
        key = classes.builtin_instance(ctx, "str")
        return classes.builtin_instance(ctx, "dict", (key, values))
    if argument.marks.endswith("*"):
        return classes.builtin_instance(ctx, "tuple", (values,), variadic=True)
    return values


def _part_values(ctx: CInferenceContext, symbol: Symbol, part: Part) -> Values:
    loc, scope_name = symbol.loc, symbol.scope_name
    if isinstance(part, DefPart):
        if part.kind == "C":
            return (Class(loc, part.scope_name),)
        return _function_values(ctx, symbol, part)
    if isinstance(part, ExprPart):
        return evaluate.text_values(ctx, loc, scope_name, part.text)
    if isinstance(part, WithinPart):
        values = evaluate.text_values(ctx, loc, scope_name, part.text)
        return elements.along_path(ctx, values, part.path)
    if isinstance(part, ArgPart):
        return _argument_values(ctx, symbol, part)
    if isinstance(part, TypeParamPart):
        bound = hints.text_values(ctx, loc, ParentScopeName(scope_name), part.bound)
        return (TypeVariable(symbol.name, loc, scope_name, bound),)
    if isinstance(part, OuterPart):
        outer = names.lookup(ctx, loc, scope_name, symbol.name)
        if outer is not None and outer != symbol:
            return target_values(ctx, outer)
    return ()


# --- functions


def function_of(loc_symbol: Symbol, part: DefPart) -> Function:
    """The function that a part defines."""
    return Function(loc_symbol.loc, part.scope_name, part.kind, part.decorators)


def _last_name(decorator: str) -> str:
    return decorator.partition("(")[0].rpartition(".")[2]


def _function_values(ctx: CInferenceContext, symbol: Symbol, part: DefPart) -> Values:
    function = function_of(symbol, part)
    last_names = [_last_name(decorator) for decorator in part.decorators]
    if last_names and last_names[-1] in ("setter", "deleter"):
        return ()  # the getter is one of the other parts
    unknown = [
        decorator
        for decorator, name in zip(part.decorators, last_names, strict=True)
        if name not in _kKeeping and not name.endswith("property")
    ]
    if not unknown:
        return (function,)
    found = [(function,), decorated(ctx, function, unknown)]
    replaced = union(found)
    for value in replaced:
        if isinstance(value, Instance) and _is_property_class(ctx, value.cls):
            return (replace(function, decorators=("property",)),)
    return replaced


def decorated(
    ctx: CInferenceContext, function: Function, decorators: Sequence[str] | None = None
) -> Values:
    """The objects that decorators, all of them by default, make of a function."""
    found: list[Values] = []
    scope_name = ParentScopeName(function.scope_name)
    for decorator in function.decorators if decorators is None else decorators:
        makers = evaluate.text_values(ctx, function.loc, scope_name, decorator)
        made = calls.results(ctx, makers, calls.Arguments((lambda: (function,),), {}))
        found.append(tuple(value for value in made if isinstance(value, Instance)))
    return union(found)


def _is_property_class(ctx: CInferenceContext, cls: Class) -> bool:
    return any(
        each.scope_name in ("property", "cached_property")
        for each in classes.linearization(ctx, cls)
    )


def _argument_values(ctx: CInferenceContext, symbol: Symbol, part: ArgPart) -> Values:
    """An argument without an annotation."""
    records = ctx.engine.records
    parent = ParentScopeName(symbol.scope_name)
    if part.index == 0 and "*" not in part.marks and "|" not in part.marks:
        definition = records.definition(ctx, symbol.loc, symbol.scope_name)
        if (
            definition is not None
            and definition.kind == "m"
            and records.kind(ctx, symbol.loc, parent) == "C"
        ):
            cls = Class(symbol.loc, parent)
            return (cls,) if calls.takes_class(definition) else (Instance(cls),)
    if part.marks.endswith("*"):
        return _starred(ctx, part, ())
    if part.default is not None:
        values = evaluate.text_values(ctx, symbol.loc, parent, part.default)
        return tuple(value for value in values if value != Special("None"))
    return ()
