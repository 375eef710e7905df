"""What is known of a dotted name."""

from __future__ import annotations

import ast
from dataclasses import dataclass
from typing import TYPE_CHECKING

from loombase.location import CLocation

from loom.infer import attributes, bindings, calls, classes, counterparts, modules, names
from loom.infer.parts import DefPart
from loom.infer.places import Place, places_of
from loom.infer.render import class_text, signature, values_text
from loom.infer.sources import SourceFile
from loom.infer.statements import statement_at
from loom.infer.values import Class, Instance, Module, Symbol, Target, Values

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["Description", "describe_name"]


@dataclass(frozen=True, slots=True)
class Description:
    """What is known of a name. What isn't known, or makes no sense for it, is empty.

    `kind` is that of its place. `signature` is a function's, or that of the class's constructor;
    where there are overloads, there is one for each. `mro` are the classes in which attributes of a
    class are looked for, itself first. `type` says what objects the name stands for. `doc` is the
    first line of the documentation.
    """

    name: str
    kind: str
    place: Place | None
    signatures: tuple[str, ...] = ()
    bases: str = ""
    mro: tuple[str, ...] = ()
    type: str = ""
    doc: str = ""


def describe_name(
    name: str, dirloc: CLocation | None, file: CLocation | None, ctx: CInferenceContext
) -> tuple[Description, ...]:
    """What a dotted name means: usually one thing.

    It begins with a name of the module `file`, if that is given and has it, or with the name of a
    module as seen from the folder `dirloc`. Empty if there is no such thing.
    """
    steps = name.split(".")
    if not all(step.isidentifier() for step in steps):
        return ()
    targets: tuple[Target, ...] = ()
    if file is not None:
        first = names.lookup(ctx, file, "", steps[0])
        targets = () if first is None else modules.follow(ctx, first, source_first=True)
    if not targets:
        module = modules.find_module(ctx, steps[0], dirloc)
        if module is None and modules.find_module(ctx, name.rpartition(".")[0], dirloc):
            module = Module(steps[0], (), dirloc)
        if module is None:
            own = modules.builtins(ctx)
            found = None if own is None else modules.module_attribute(ctx, own, steps[0])
            targets = () if found is None else (found,)
        else:
            targets = (module,)
    for step in steps[1:]:
        targets = _step(ctx, targets, step)
    return tuple(_described(ctx, name, target) for target in targets)


def _step(ctx: CInferenceContext, targets: tuple[Target, ...], name: str) -> tuple[Target, ...]:
    """What an attribute of the targets means; of a class, also what its instances have."""
    for target in targets:
        values = bindings.target_values(ctx, target)
        objects: Values = tuple(Instance(value) for value in values if isinstance(value, Class))
        for base in (values, objects):
            found: dict[Target, None] = {}
            for each in attributes.targets_of(ctx, base, name):
                found.update(dict.fromkeys(modules.follow(ctx, each, source_first=True)))
            if found:
                return tuple(found)
    return ()


def _described(ctx: CInferenceContext, name: str, target: Target) -> Description:
    places = places_of(ctx, target)
    place = places[0] if places else None
    kind = place.kind if place is not None else "module"
    source = ctx.engine.sources.get(ctx, place.loc) if place is not None else None
    if isinstance(target, Module):
        doc = "" if source is None else _doc_from(source, 1)
        return Description(name, "module", place, doc=doc)
    doc = ""
    if source is not None and place is not None and kind in ("class", "function", "method"):
        statement = statement_at(source, place.line)
        doc = "" if statement is None else _doc_from(source, statement.last + 1)
    definitions = _definitions(ctx, target)
    for symbol, part in definitions:
        if part.kind == "C":
            cls = Class(symbol.loc, part.scope_name)
            order = classes.linearization(ctx, cls)
            return Description(
                name,
                kind,
                place,
                _constructors(ctx, order),
                part.bases,
                tuple(class_text(each) for each in order),
                doc=doc,
            )
    if definitions:
        functions = [(symbol.loc, part.scope_name) for symbol, part in definitions]
        signatures = tuple(dict.fromkeys(signature(ctx, *each) for each in functions))
        made = calls.results(ctx, bindings.symbol_values(ctx, target), calls.kNoArguments)
        return Description(name, kind, place, signatures, type=values_text(made), doc=doc)
    return Description(name, kind, place, type=values_text(bindings.symbol_values(ctx, target)))


def _definitions(ctx: CInferenceContext, target: Symbol) -> list[tuple[Symbol, DefPart]]:
    """The functions or classes that a name stands for: overloads, if there are any, alone.

    What a stub tells is told in full, so it has the word.
    """
    for symbol in (*_stubs(ctx, target), target):
        found = [(symbol, part) for part in symbol.parts if isinstance(part, DefPart)]
        if any("overload" in d for _, part in found for d in part.decorators):
            # In a source the last one is what the others are overloads of.
            return found if modules.is_stub(symbol.loc) else found[:-1] or found
        getters = [each for each in found if not any(".setter" in d for d in each[1].decorators)]
        if found:
            return getters[-1:] or found[-1:]
    return []


def _stubs(ctx: CInferenceContext, symbol: Symbol) -> tuple[Symbol, ...]:
    return () if modules.is_stub(symbol.loc) else counterparts.other_symbol(ctx, symbol)


def _constructors(ctx: CInferenceContext, order: tuple[Class, ...]) -> tuple[str, ...]:
    for name in ("__init__", "__new__"):
        found = classes.class_attribute(ctx, order[:-1], name)
        if found is not None:
            parts = [part for part in found[1].parts if isinstance(part, DefPart)]
            texts = [signature(ctx, found[1].loc, part.scope_name) for part in parts]
            return tuple(dict.fromkeys(texts))
    return ()


def _doc_from(source: SourceFile, line: int) -> str:
    """The first line of the text that stands at the first statement from a line on."""
    last = min(source.line_count, line + 50)
    while line <= last:
        text = source.line(line).strip()
        if text and not text.startswith(b"#"):
            break
        line += 1
    else:
        return ""
    statement = statement_at(source, line)
    body = statement.tree.body if statement is not None and statement.tree is not None else []
    if body and isinstance(body[0], ast.Expr) and isinstance(body[0].value, ast.Constant):
        value = body[0].value.value
        if isinstance(value, str):
            return next((text.strip() for text in value.splitlines() if text.strip()), "")
    return ""
