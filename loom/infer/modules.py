"""Modules: from the names in import statements to what stands in the module."""

from __future__ import annotations

import ast
from collections.abc import Iterator
from typing import TYPE_CHECKING

import singleton
from loombase.location import CLocation

from loom.infer.parts import DefPart, ExprPart, ImportPart, parse_expression
from loom.infer.values import Module, Symbol, Target

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = [
    "all_names",
    "builtins",
    "find_module",
    "follow",
    "imported",
    "is_stub",
    "module_attribute",
    "module_of",
    "name_in_file",
    "submodule",
    "with_source",
]

_kStar = "*"


def find_module(ctx: CInferenceContext, name: str, dirloc: CLocation | None) -> Module | None:
    """The module that `name`, which may begin with dots, means in the folder `dirloc`."""
    return ctx.answer(("module", name, dirloc), None, lambda: _find_module(name, dirloc))


def _find_module(name: str, dirloc: CLocation | None) -> Module | None:
    factory = singleton.GetSingletons().fAnalysisMgr.fAnalysisFactory
    locs = tuple(factory.GetAllLocsForName(name, dirloc, False))
    if not locs:
        return None
    if name.startswith("."):
        name = factory.GetModuleName(locs[0]) or name
    return Module(name, locs, dirloc)


def builtins(ctx: CInferenceContext) -> Module | None:
    """The module of the builtins."""
    return find_module(ctx, "builtins", None)


def module_of(ctx: CInferenceContext, loc: CLocation) -> Module:
    """The module that a file is, with its stub and its source if it has both."""
    return ctx.answer(("module of", loc), Module("", (loc,)), lambda: _module_of(ctx, loc))


def _module_of(ctx: CInferenceContext, loc: CLocation) -> Module:
    factory = singleton.GetSingletons().fAnalysisMgr.fAnalysisFactory
    name = factory.GetModuleName(loc)
    if name:
        module = find_module(ctx, name, loc.GetParentDir())
        if module is not None and loc in module.locs:
            return module
    return Module(name or "", (loc,), loc.GetParentDir())


def module_attribute(
    ctx: CInferenceContext, module: Module, name: str, source_first: bool = False
) -> Target | None:
    """What a module has under a name: a name bound in it, one of its star imports, a submodule.

    With `source_first` the source has the word if it knows the name, else the stub.
    """
    return ctx.answer(
        ("module attribute", module, name, source_first),
        None,
        lambda: _module_attribute(ctx, module, name, source_first),
    )


def _module_attribute(
    ctx: CInferenceContext, module: Module, name: str, source_first: bool
) -> Target | None:
    locs = module.locs[::-1] if source_first else module.locs
    for index, loc in enumerate(locs):
        found = name_in_file(ctx, loc, name, source_first)
        if isinstance(found, Symbol) and found.loc is not loc and is_stub(found.loc):
            # The source has it from a module without one; then the stubs of its own tell best.
            own = [name_in_file(ctx, other, name) for other in locs[index + 1 :]]
            found = next((other for other in own if other is not None), found)
        if found is not None:
            return found
    return submodule(ctx, module, name)


def is_stub(loc: CLocation) -> bool:
    """Whether a file is a stub."""
    return loc.fUrl.endswith(".pyi")


def name_in_file(
    ctx: CInferenceContext, loc: CLocation, name: str, source_first: bool = False
) -> Target | None:
    """What the top level of a file has under a name, star imports included."""
    record = ctx.engine.records.scope(ctx, loc, "")
    if record is None:
        return None
    parts = record.parts(name)
    if parts and name != _kStar:
        return Symbol(loc, "", name, parts)
    for part in reversed(record.parts(_kStar)):  # the last one has the word
        if isinstance(part, ImportPart):
            module = find_module(ctx, part.module, loc.GetParentDir())
            if module is not None and loc not in module.locs and _exports(ctx, module, name):
                found = module_attribute(ctx, module, name, source_first)
                if found is not None:
                    return found
    return None


def submodule(ctx: CInferenceContext, module: Module, name: str) -> Module | None:
    """The module `name` in a package."""
    if not module.name:
        return None
    dotted = f"{module.name}.{name}"
    found = find_module(ctx, dotted, module.dirloc)
    if found is None and module.source is not None:
        found = find_module(ctx, dotted, module.source.GetParentDir())
    return found


def with_source(ctx: CInferenceContext, module: Module) -> Module:
    """The module itself if its source is known; else what its package's source calls so.

    The stub of `os.path` is one file, for instance, its source that of another module.
    """
    package, _, name = module.name.rpartition(".")
    if not package or not all(is_stub(loc) for loc in module.locs):
        return module
    around = find_module(ctx, package, module.dirloc)
    for loc in around.locs if around is not None else ():
        found = None if is_stub(loc) else name_in_file(ctx, loc, name, True)
        for target in () if found is None else follow(ctx, found, source_first=True):
            if isinstance(target, Module) and target.locs:
                return target
    return module


def _exports(ctx: CInferenceContext, module: Module, name: str) -> bool:
    """Whether a star import brings the name along, if the module has it."""
    for loc in module.locs:
        names = all_names(ctx, loc)
        if names is not None:
            if name in names:
                return True
        elif not name.startswith("_"):
            return True
    return False


def all_names(ctx: CInferenceContext, loc: CLocation) -> frozenset[str] | None:
    """The names in a file's `__all__`, none if it has none or doesn't state it plainly."""
    return ctx.answer(("__all__", loc), None, lambda: _all_names(ctx, loc))


def _all_names(ctx: CInferenceContext, loc: CLocation) -> frozenset[str] | None:
    record = ctx.engine.records.scope(ctx, loc, "")
    if record is None:
        return None
    found: set[str] = set()
    parts = record.parts("__all__")
    for part in parts:
        node = parse_expression(part.text) if isinstance(part, ExprPart) else None
        if node is None or not all(_add_names(ctx, loc, item, found) for item in _terms(node)):
            return None
    return frozenset(found) if parts else None


def _terms(node: ast.expr) -> Iterator[ast.expr]:
    while isinstance(node, ast.BinOp) and isinstance(node.op, ast.Add):
        yield node.right
        node = node.left
    yield node


def _add_names(ctx: CInferenceContext, loc: CLocation, node: ast.expr, found: set[str]) -> bool:
    """Take in the names of a list of constants, or of another module's `__all__`."""
    if isinstance(node, ast.List | ast.Tuple):
        for item in node.elts:
            if isinstance(item, ast.Constant) and isinstance(item.value, str):
                found.add(item.value)
            else:
                return False
        return True
    if isinstance(node, ast.Name):
        return node.id == "__all__"
    if (
        isinstance(node, ast.Attribute)
        and node.attr == "__all__"
        and isinstance(node.value, ast.Name)
    ):
        symbol = name_in_file(ctx, loc, node.value.id)
        for target in follow(ctx, symbol) if symbol is not None else ():
            if isinstance(target, Module) and target.locs:
                names = all_names(ctx, target.locs[-1])
                if names is not None:
                    found |= names
                    return True
    return False


# --- through imports


def imported(
    ctx: CInferenceContext, loc: CLocation, part: ImportPart, source_first: bool = False
) -> Target | None:
    """What one import of a file brings: not followed any further."""
    dirloc = loc.GetParentDir()
    if part.name:
        module = find_module(ctx, part.module, dirloc)
        if module is not None:
            found = module_attribute(ctx, module, part.name, source_first)
            if isinstance(found, Symbol) and found.loc is loc:
                # A package that imports a module of its own.
                return submodule(ctx, module, part.name) or found
            return found
        joint = "" if part.module.endswith(".") else "."
        return find_module(ctx, f"{part.module}{joint}{part.name}", dirloc)
    if part.alias:
        return find_module(ctx, part.module, dirloc)
    top = part.module.partition(".")[0]
    found = find_module(ctx, top, dirloc)
    if found is None and find_module(ctx, part.module, dirloc) is not None:
        return Module(top, (), dirloc)  # a package that is a mere folder
    return found


def follow(
    ctx: CInferenceContext, target: Target, source_first: bool = False
) -> tuple[Target, ...]:
    """Where a name that may be imported is really defined; itself if it isn't imported.

    An import that leads nowhere is where the name is defined, as far as can be told.
    """
    if isinstance(target, Module):
        return (target,)
    return ctx.answer(
        ("follow", target.loc, target.scope_name, target.name, source_first),
        (target,),
        lambda: _follow(ctx, target, source_first),
    )


def _follow(ctx: CInferenceContext, symbol: Symbol, source_first: bool) -> tuple[Target, ...]:
    found: dict[Target, None] = {}
    if any(isinstance(part, DefPart) for part in symbol.parts):
        found[symbol] = None  # imports beside a definition bring what is like it
    lost = own = False
    for part in symbol.parts:
        if not isinstance(part, ImportPart):
            own = True
            continue
        target = imported(ctx, symbol.loc, part, source_first)
        if target is None or target == symbol:
            lost = True
            continue
        found.update(dict.fromkeys(follow(ctx, target, source_first)))
    if own or (lost and not found):
        found[symbol] = None
    return tuple(found)
