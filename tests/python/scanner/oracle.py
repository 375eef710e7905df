"""What a source defines, read from Python's own syntax tree and symbol table.

Written from the language, without a look at the scanner: its answers are what the scanner must give.
"""

import ast
import io
import sys
import symtable
import tokenize
import unicodedata
import warnings
from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path

from scanning import Scanned

# The tree of a generated module can be deep.
sys.setrecursionlimit(max(sys.getrecursionlimit(), 20_000))


@dataclass
class Expected:
    """One scope with what it binds; `loose` bindings have no line in the tree."""

    name: str
    parent: int
    kind: str
    lineno: int
    end_lineno: int
    exact: Counter[tuple[str, str, int]] = field(default_factory=Counter)
    loose: Counter[tuple[str, str]] = field(default_factory=Counter)
    self_name: str | None = None
    definitions: Counter[str] = field(default_factory=Counter)


class Oracle(ast.NodeVisitor):
    """Collects scopes, bindings and imports of a module."""

    def __init__(self, tree: ast.Module) -> None:
        self.scopes = [Expected("", -1, "O", 1, 0)]
        self.current = 0
        self.imports: dict[str, None] = {}
        for statement in tree.body:
            self.visit(statement)

    # Bindings.

    def bind(self, name: str, kind: str, node: ast.AST) -> None:
        self.scopes[self.current].exact[name, kind, node.lineno] += 1

    def bind_loosely(self, name: str | None, kind: str) -> None:
        if name is not None:
            self.scopes[self.current].loose[name, kind] += 1

    def target(self, node: ast.expr, kind: str) -> None:
        if isinstance(node, ast.Name):
            self.bind(node.id, kind, node)
        elif isinstance(node, ast.Tuple | ast.List):
            for element in node.elts:
                self.target(element, kind if kind == "g" else "w")
        elif isinstance(node, ast.Starred):
            self.target(node.value, kind)
        elif isinstance(node, ast.Attribute) and kind != "g":
            self_name = self.scopes[self.current].self_name
            if isinstance(node.value, ast.Name) and node.value.id == self_name:
                # A bracketed "(self).x" can't be told from the tree; no file has been seen with one.
                self.bind(f"{self_name}.{node.attr}", kind, node)

    def generic_visit(self, node: ast.AST) -> None:
        """Visit the statements inside of a statement and what its own expressions bind."""
        for child in ast.iter_child_nodes(node):
            if isinstance(child, ast.stmt | ast.excepthandler | ast.match_case):
                self.visit(child)
            else:
                self.walruses(child)

    def walruses(self, *nodes: ast.AST | None) -> None:
        todo = [node for node in nodes if node is not None]
        while todo:
            node = todo.pop()
            if isinstance(node, ast.NamedExpr):
                self.bind(node.target.id, "=", node.target)
            if isinstance(node, ast.Lambda):
                todo += [*node.args.defaults, *(d for d in node.args.kw_defaults if d is not None)]
            else:
                todo += ast.iter_child_nodes(node)

    # Statements.

    def visit_Assign(self, node: ast.Assign) -> None:
        for target in node.targets:
            self.target(target, "=")
        self.generic_visit(node)

    def visit_AugAssign(self, node: ast.AugAssign) -> None:
        self.target(node.target, "=")
        self.generic_visit(node)

    def visit_AnnAssign(self, node: ast.AnnAssign) -> None:
        if node.simple or isinstance(node.target, ast.Attribute):
            self.target(node.target, "H")
        if node.value is not None:
            self.target(node.target, "=")
        self.generic_visit(node)

    def visit_For(self, node: ast.For | ast.AsyncFor) -> None:
        self.target(node.target, "w")
        self.generic_visit(node)

    visit_AsyncFor = visit_For

    def visit_withitem(self, node: ast.withitem) -> None:
        if node.optional_vars is not None:
            self.target(node.optional_vars, "w")

    def visit_With(self, node: ast.With | ast.AsyncWith) -> None:
        for item in node.items:
            self.visit_withitem(item)
        self.generic_visit(node)

    visit_AsyncWith = visit_With

    def visit_ExceptHandler(self, node: ast.ExceptHandler) -> None:
        self.bind_loosely(node.name, "w")
        self.generic_visit(node)

    def visit_match_case(self, node: ast.match_case) -> None:
        for part in ast.walk(node.pattern):
            if isinstance(part, ast.MatchAs | ast.MatchStar):
                self.bind_loosely(part.name, "w")
            elif isinstance(part, ast.MatchMapping):
                self.bind_loosely(part.rest, "w")
        self.generic_visit(node)

    def visit_Delete(self, node: ast.Delete) -> None:
        for target in node.targets:
            self.target(target, "g")
        self.generic_visit(node)

    def visit_Global(self, node: ast.Global) -> None:
        for name in node.names:
            self.bind_loosely(name, "o")

    def visit_Nonlocal(self, node: ast.Nonlocal) -> None:
        for name in node.names:
            self.bind_loosely(name, "n")

    def visit_Import(self, node: ast.Import) -> None:
        for alias in node.names:
            self.imports[f":i{alias.name}"] = None
            self.bind(alias.asname or alias.name.partition(".")[0], "i", alias)

    def visit_ImportFrom(self, node: ast.ImportFrom) -> None:
        for alias in node.names:
            self.imports[f":f{'.' * node.level}{node.module or ''} {alias.name}"] = None
            self.bind(alias.asname or alias.name, "f", alias)

    def visit_TypeAlias(self, node: ast.AST) -> None:
        self.bind(node.name.id, "G", node.name)

    # Scopes.

    def open(self, node: ast.AST, kind: str) -> Expected:
        parent = self.scopes[self.current]
        parent.definitions[node.name] += 1
        count = parent.definitions[node.name]
        leaf = node.name if count == 1 else f"{node.name}#{count}"
        name = f"{parent.name}.{leaf}" if parent.name else leaf
        self.bind(node.name, kind, node)
        scope = Expected(name, self.current, kind, node.lineno, node.end_lineno)
        self.scopes.append(scope)
        return scope

    def body(self, node: ast.AST, index: int) -> None:
        outside, self.current = self.current, index
        for parameter in getattr(node, "type_params", ()):
            self.bind(parameter.name, "p", parameter)
        if not isinstance(node, ast.ClassDef):
            for argument in arguments_of(node.args):
                self.bind(argument.arg, "r", argument)
        for statement in node.body:
            self.visit(statement)
        self.current = outside

    def visit_FunctionDef(self, node: ast.FunctionDef | ast.AsyncFunctionDef) -> None:
        parent = self.scopes[self.current]
        kind = "F"
        if parent.kind == "C":
            kind = "M" if any(is_static(decorator) for decorator in node.decorator_list) else "m"
        self.walruses(*node.decorator_list, node.args, node.returns)
        scope = self.open(node, kind)
        names = [argument.arg for argument in arguments_of(node.args)]
        positional = [*node.args.posonlyargs, *node.args.args]
        if kind == "m":
            scope.self_name = positional[0].arg if positional else None
        elif kind == "F" and parent.self_name not in names:
            scope.self_name = parent.self_name
        self.body(node, len(self.scopes) - 1)

    visit_AsyncFunctionDef = visit_FunctionDef

    def visit_ClassDef(self, node: ast.ClassDef) -> None:
        self.walruses(*node.decorator_list, *node.bases, *node.keywords)
        self.open(node, "C")
        self.body(node, len(self.scopes) - 1)


def arguments_of(arguments: ast.arguments) -> list[ast.arg]:
    """Return all arguments of a function."""
    found = [*arguments.posonlyargs, *arguments.args, arguments.vararg]
    found += [*arguments.kwonlyargs, arguments.kwarg]
    return [argument for argument in found if argument is not None]


def is_static(decorator: ast.expr) -> bool:
    """Tell whether a decorator is that of static methods."""
    text = ast.unparse(decorator)
    return text == "staticmethod" or text.endswith(".staticmethod")


def normal(name: str) -> str:
    """Return an identifier as the compiler takes it."""
    return name if name.isascii() else unicodedata.normalize("NFKC", name)


def read_source(path: Path) -> str | None:
    """Return the text of a source file, or None if Python could not decode it."""
    data = path.read_bytes()
    try:
        encoding, _ = tokenize.detect_encoding(io.BytesIO(data).readline)
        return data.decode(encoding)
    except (SyntaxError, UnicodeDecodeError, LookupError):
        return None


def parse(text: str) -> ast.Module | None:
    """Return the syntax tree, or None if there is none."""
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        try:
            return ast.parse(text)
        except (SyntaxError, ValueError, MemoryError):
            return None


def differences(text: str) -> list[str] | None:
    """Compare a scan of `text` with its syntax tree and symbol table; None if it isn't Python."""
    tree = parse(text)
    if tree is None:
        return None
    scanned = Scanned(text.encode("utf-8", "surrogatepass"))
    return [
        *(f"line {line}: remark {remark!r}" for line, remark in scanned.errors),
        *tree_differences(Oracle(tree), scanned),
        *table_differences(text, scanned),
    ]


def tree_differences(oracle: Oracle, scanned: Scanned) -> Iterator[str]:
    """Yield how scopes, bindings and imports differ from those of the syntax tree."""
    expected_scopes = [tuple(vars(s).values())[:5] for s in oracle.scopes]
    found_scopes = [
        (normal(s.name), s.parent, s.kind, s.lineno, s.end_lineno if s.parent >= 0 else 0)
        for s in scanned.scopes
    ]
    if found_scopes != expected_scopes:
        for found, expected in zip(found_scopes, expected_scopes):
            if found != expected:
                yield f"scope {found}, should be {expected}"
                break
        yield f"{len(found_scopes)} scopes, should be {len(expected_scopes)}"
        return
    found_names: list[Counter[tuple[str, str, int]]] = [Counter() for _ in scanned.scopes]
    for scope, name, kind, line in scanned.names:
        found_names[scope][normal(name), kind, line] += 1
    for expected, found in zip(oracle.scopes, found_names):
        if missing := expected.exact - found:
            yield f"in scope {expected.name!r} missing {sorted(missing)}"
        rest = found - expected.exact
        loose = Counter((name, kind) for name, kind, _ in rest.elements())
        if loose != expected.loose:
            yield (
                f"in scope {expected.name!r} beside those with lines {sorted(rest)}, "
                f"should be {sorted(expected.loose)}"
            )
    found_imports = [normal(i.decode()) for i in scanned.imports]
    if found_imports != list(oracle.imports):
        yield f"imports {found_imports}, should be {list(oracle.imports)}"


# The symbol table.

NO_SCOPES = {"lambda", "genexpr", "listcomp", "setcomp", "dictcomp"}
COMPREHENSION_VARIABLE = 2 << 8  # symtable has no name for it
BOUND = symtable.DEF_BOUND | symtable.DEF_GLOBAL | symtable.DEF_NONLOCAL | symtable.DEF_ANNOT


def table_differences(text: str, scanned: Scanned) -> Iterator[str]:
    """Yield how the names of each scope differ from those of the symbol table."""
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        try:
            module = symtable.symtable(text, "source", "exec")
        except (SyntaxError, RecursionError, MemoryError):
            return  # a tree that can't be compiled has no table
    names: list[set[str]] = [set() for _ in scanned.scopes]
    type_parameters: list[set[str]] = [set() for _ in scanned.scopes]
    for scope, name, kind, _ in scanned.names:
        if kind == "p":
            type_parameters[scope].add(mangled(normal(name), class_of(scanned, scope)))
        elif "." not in name and name != "*" and not (scope == 0 and kind == "o"):
            names[scope].add(mangled(normal(name), class_of(scanned, scope)))
    tables = list(walk(module, set()))
    if len(tables) != len(scanned.scopes):
        yield f"{len(scanned.scopes)} scopes, the symbol table has {len(tables)}"
        return
    for index, (table, parameters) in enumerate(tables):
        scope = scanned.scopes[index]
        if index and (table.get_lineno() != scope.lineno):
            yield f"{scope.name!r}: line {scope.lineno}, the symbol table has {table.get_lineno()}"
        wanted = bound_names(table)
        if index == 0:
            # Of a module, the table also has the names that functions declare global, and has no more
            # than that of names that ":=" binds in comprehensions.
            wanted = (wanted & names[0]) | bound_names(table, BOUND & ~symtable.DEF_GLOBAL)
        if names[index] != wanted:
            yield (
                f"{scope.name!r}: only scanned {sorted(names[index] - wanted)}, "
                f"only in the symbol table {sorted(wanted - names[index])}"
            )
        if type_parameters[index] != parameters:
            yield f"{scope.name!r}: type parameters {type_parameters[index]}, should be {parameters}"


def walk(
    table: symtable.SymbolTable, parameters: set[str]
) -> Iterator[tuple[symtable.SymbolTable, set[str]]]:
    """Yield the tables of definitions in order, each with its type parameters."""
    yield table, parameters
    # The compiler takes the "else" of a "try" before its "except".
    for child in sorted(table.get_children(), key=symtable.SymbolTable.get_lineno):
        kind = str(child.get_type())
        if "type param" in kind:
            of_definition = bound_names(child)
            for inner in child.get_children():
                if is_definition(inner) and inner.get_name() == child.get_name():
                    yield from walk(inner, of_definition)
        elif is_definition(child):
            yield from walk(child, set())


def is_definition(table: symtable.SymbolTable) -> bool:
    """Tell whether a table belongs to a "def" or "class"."""
    kind = str(table.get_type())
    # A comprehension has the argument ".0".
    no_scope = table.get_name() in NO_SCOPES and (
        table.get_name() == "lambda" or ".0" in table.get_identifiers()
    )
    return kind == "class" or (kind == "function" and not no_scope)


def bound_names(table: symtable.SymbolTable, flags: int = BOUND) -> set[str]:
    """Return the names that are bound or declared in a scope, but for the compiler's own."""
    return {
        symbol.get_name()
        for symbol in table.get_symbols()
        if symbol._Symbol__flags & flags
        and not symbol._Symbol__flags & COMPREHENSION_VARIABLE
        and not symbol.get_name().startswith(".")
        and symbol.get_name() != "__type_params__"
    }


def class_of(scanned: Scanned, index: int) -> str:
    """Return the name of the innermost class around or at a scope, or ""."""
    while index > 0:
        scope = scanned.scopes[index]
        if scope.kind == "C":
            return scope.name.rpartition(".")[2].partition("#")[0]
        index = scope.parent
    return ""


def mangled(name: str, class_name: str) -> str:
    """Return the name that the compiler gives to a private name."""
    stripped = class_name.lstrip("_")
    if not stripped or not name.startswith("__") or name.endswith("__"):
        return name
    return f"_{stripped}{name}"
