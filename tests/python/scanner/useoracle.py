"""Where names stand in a source and whose they are, read from Python's own syntax tree.

The bindings of each scope are taken from the scanner, whose own test compares them with the symbol
table; everything else is worked out from the tree, by the rules of the language.
"""

import ast
import unicodedata
import warnings
from collections.abc import Iterator
from dataclasses import dataclass, field

from scanning import Scanned

NOWHERE, EXPRESSION, NO_HOME = -1, -2, -3

# (text, kind, line, column, home)
Use = tuple[str, str, int, int, int]


@dataclass(frozen=True)
class Place:
    """Where an expression is evaluated."""

    scope: int
    local: frozenset[str] = frozenset()  # bound by the expressions around
    header: dict[str, int] = field(default_factory=dict, hash=False)  # type parameters


class UseOracle:
    """Collects the uses of a module."""

    def __init__(self, tree: ast.Module, scanned: Scanned) -> None:
        self.scanned = scanned
        self.uses: set[Use] = set()
        self.bindings: list[dict[str, set[str]]] = [{} for _ in scanned.scopes]
        for scope, name, kind, _ in scanned.names:
            self.bindings[scope].setdefault(normal(name), set()).add(kind)
        self.scopes: dict[tuple[int, str], list[int]] = {}
        for index, scope in enumerate(scanned.scopes[1:], 1):
            leaf = scope.name.rpartition(".")[2].partition("#")[0]
            self.scopes.setdefault((scope.lineno, normal(leaf)), []).append(index)
        self.walk(tree, Place(0))

    def home(self, name: str, place: Place) -> int:
        if name in place.local:
            return EXPRESSION
        if name in place.header:
            return place.header[name]
        scope = start = place.scope
        while scope >= 0:
            kinds = self.bindings[scope].get(name, set())
            visible = scope == start or self.scanned.scopes[scope].kind != "C" or "p" in kinds
            if "o" in kinds:
                return 0
            if kinds and visible and "n" not in kinds:
                return scope
            scope = self.scanned.scopes[scope].parent
        return NOWHERE

    def walk_all(self, nodes: list[ast.AST | None], place: Place) -> None:
        for node in nodes:
            if node is not None:
                self.walk(node, place)

    def walk(self, node: ast.AST, place: Place) -> None:
        method = getattr(self, f"walk_{type(node).__name__}", None)
        if method is not None:
            method(node, place)
        else:
            self.walk_all(list(ast.iter_child_nodes(node)), place)

    # Names and attributes.

    def walk_Name(self, node: ast.Name, place: Place) -> None:
        if isinstance(node.ctx, ast.Load):
            self.read(node, [], place)
        elif node.id not in place.local:
            home = self.home(node.id, place)
            self.uses.add((node.id, "b", node.lineno, node.col_offset, home))

    def walk_Attribute(self, node: ast.Attribute, place: Place) -> None:
        attributes = [node.attr]
        inner: ast.expr = node.value
        last = node
        while isinstance(inner, ast.Attribute) and not self.bracketed(inner, last):
            attributes.append(inner.attr)
            last, inner = inner, inner.value
        attributes.reverse()
        if isinstance(inner, ast.Name) and not self.bracketed(inner, last):
            self.read(inner, attributes, place)
            return
        column = last.end_col_offset - len(last.attr.encode())
        text = "".join(f".{name}" for name in attributes)
        self.uses.add((text, "r", last.end_lineno, column, NO_HOME))
        self.walk(inner, place)

    def bracketed(self, inner: ast.expr, around: ast.expr) -> bool:
        """Whether the beginning of a chain stands in brackets of its own, which end it."""
        return around.col_offset != inner.col_offset or around.lineno != inner.lineno

    def read(self, name: ast.Name, attributes: list[str], place: Place) -> None:
        text = ".".join([name.id, *attributes])
        home = self.home(name.id, place)
        self.uses.add((text, "r", name.lineno, name.col_offset, home))

    def walk_keyword(self, node: ast.keyword, place: Place) -> None:
        if node.arg is not None:
            self.uses.add((node.arg, "k", node.lineno, node.col_offset, NO_HOME))
        self.walk(node.value, place)

    # Expressions that bind.

    def walk_Lambda(self, node: ast.Lambda, place: Place) -> None:
        arguments = node.args
        self.walk_all([*arguments.defaults, *arguments.kw_defaults], place)
        names = {argument.arg for argument in all_arguments(arguments)}
        names |= {n.target.id for n in ast.walk(node.body) if isinstance(n, ast.NamedExpr)}
        self.walk(node.body, Place(place.scope, place.local | names, place.header))

    def walk_ListComp(self, node: ast.ListComp, place: Place) -> None:
        generators = node.generators
        self.walk(generators[0].iter, place)
        names = {
            n.id
            for generator in generators
            for n in ast.walk(generator.target)
            if isinstance(n, ast.Name) and isinstance(n.ctx, ast.Store)
        }
        inside = Place(place.scope, place.local | names, place.header)
        results = [node.key, node.value] if isinstance(node, ast.DictComp) else [node.elt]
        self.walk_all(results, inside)
        for number, generator in enumerate(generators):
            self.walk(generator.target, inside)
            self.walk_all(generator.ifs, inside)
            if number:
                self.walk(generator.iter, inside)

    walk_SetComp = walk_GeneratorExp = walk_DictComp = walk_ListComp

    def walk_AnnAssign(self, node: ast.AnnAssign, place: Place) -> None:
        if node.simple or node.value is not None or not isinstance(node.target, ast.Name):
            self.walk(node.target, place)  # "(x): int" does nothing with x
        self.walk_all([node.annotation, node.value], place)

    # Statements that open scopes.

    def walk_FunctionDef(self, node: ast.FunctionDef, place: Place) -> None:
        scope = self.scopes[node.lineno, node.name].pop(0)
        self.walk_all(node.decorator_list, place)
        header = self.type_parameters(node.type_params, scope, place)
        arguments = node.args
        self.walk_all([*arguments.defaults, *arguments.kw_defaults, node.returns], header)
        self.walk_all([argument.annotation for argument in all_arguments(arguments)], header)
        self.walk_all(node.body, Place(scope))

    walk_AsyncFunctionDef = walk_FunctionDef

    def walk_ClassDef(self, node: ast.ClassDef, place: Place) -> None:
        scope = self.scopes[node.lineno, node.name].pop(0)
        self.walk_all(node.decorator_list, place)
        header = self.type_parameters(node.type_params, scope, place)
        self.walk_all([*node.bases, *node.keywords], header)
        self.walk_all(node.body, Place(scope))

    def type_parameters(self, parameters: list[ast.AST], scope: int, place: Place) -> Place:
        header = Place(place.scope, place.local, {parameter.name: scope for parameter in parameters})
        self.walk_all(parameters, header)
        return header

    def walk_TypeAlias(self, node: ast.TypeAlias, place: Place) -> None:
        self.walk(node.name, place)
        names = {parameter.name for parameter in node.type_params}
        self.walk_all([*node.type_params, node.value], Place(place.scope, place.local | names))

    # Imports.

    def walk_Import(self, node: ast.Import, place: Place) -> None:
        for alias in node.names:
            self.uses.add((alias.name, "i", alias.lineno, alias.col_offset, NO_HOME))

    def walk_ImportFrom(self, node: ast.ImportFrom, place: Place) -> None:
        module = "." * node.level + (node.module or "")
        for alias in node.names:
            text = f"{module} {alias.name}"
            self.uses.add((text, "f", alias.lineno, alias.col_offset, NO_HOME))


def all_arguments(arguments: ast.arguments) -> list[ast.arg]:
    found = [*arguments.posonlyargs, *arguments.args, *arguments.kwonlyargs]
    return found + [argument for argument in (arguments.vararg, arguments.kwarg) if argument]


def normal(text: str) -> str:
    return text if text.isascii() else unicodedata.normalize("NFKC", text)


# Bindings and module names that the tree has no position for.
KINDS = {"r", "k", "f"}


def use_differences(text: str) -> list[str] | None:
    """How the uses that were scanned differ from those of the tree; None if it isn't Python."""
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        try:
            tree = ast.parse(text)
        except (SyntaxError, ValueError, MemoryError):
            return None
    scanned = Scanned(text).with_uses()
    return list(compare(tree, scanned))


def compare(tree: ast.Module, scanned: Scanned) -> Iterator[str]:
    expected = UseOracle(tree, scanned).uses
    listed = [
        (normal(text), kind, line, column, home)
        for _, home, text, kind, line, column in scanned.uses
    ]
    found = set(listed)
    if len(found) != len(listed):
        yield f"listed twice: {sorted(use for use in found if listed.count(use) > 1)}"
    exact = {use for use in expected if use[1] in KINDS}
    got = {use for use in found if use[1] in KINDS}
    # Attributes in class patterns are strings in the tree.
    extra = {use for use in got - exact if not (use[1] == "k" and use[2] in pattern_lines(tree))}
    if exact - got or extra:
        yield f"missing {sorted(exact - got)[:9]}, found instead {sorted(extra)[:9]}"
    bound = {use for use in expected if use[1] in "bi"}
    if bound - found:
        yield f"bindings missing {sorted(bound - found)[:9]}"
    used = {(home, text, kind) for _, home, text, kind, _, _ in scanned.uses}
    local = {
        (home, text, kind)
        for home, text, kind in used
        if "." not in text and (home == EXPRESSION or home >= 0 and scanned.scopes[home].kind in "FmM")
    }
    if set(scanned.used) != used - local or len(set(scanned.used)) != len(scanned.used):
        yield f"used: {set(scanned.used) ^ (used - local)}"


def pattern_lines(tree: ast.Module) -> set[int]:
    return {
        line
        for node in ast.walk(tree)
        if isinstance(node, ast.match_case)
        for line in range(node.pattern.lineno, node.pattern.end_lineno + 1)
    }
