"""Uses of names in real code, drawn by lot, and what kind of use each is.

The kinds are told from the syntax tree of the file alone, so that neither contestant has a say.
"""

import ast
import builtins
import random
import sysconfig
from collections.abc import Iterator, Sequence
from dataclasses import asdict, dataclass
from pathlib import Path
from typing import Any, Final

__all__ = ["Use", "draw"]

# How many uses of each kind.
WANTED: Final = {
    "import": 450,
    "class": 350,
    "function": 350,
    "attribute of self": 450,
    "attribute of a module": 300,
    "other attribute": 200,
    "local variable": 150,
    "argument": 150,
    "module variable": 100,
    "builtin": 50,
    "keyword argument": 100,
}
_FILES: Final = 240
_MOST_OF_A_FILE: Final = 30
_MOST_BYTES: Final = 400_000
_SKIPPED: Final = frozenset(("test", "tests", "idlelib", "lib2to3", "site-packages", "__pycache__"))


@dataclass(frozen=True)
class Use:
    """A name at a line, from 1, and a column, in characters from 0."""

    path: str
    line: int
    column: int
    name: str
    kind: str

    def as_row(self) -> dict[str, Any]:
        return asdict(self)


def draw(seed: int) -> list[Use]:
    """The sample: the same for the same files and seed."""
    lot = random.Random(seed)
    files = _files()
    lot.shuffle(files)
    by_kind: dict[str, list[Use]] = {kind: [] for kind in WANTED}
    taken = 0
    for path in files:
        uses = list(_uses_in(path))
        if len(uses) < 20:
            continue
        lot.shuffle(uses)
        counts: dict[str, int] = {}
        for use in uses:
            # A file gives a share of each kind, so that no single one makes up a kind.
            if counts.get(use.kind, 0) < _MOST_OF_A_FILE // 6:
                counts[use.kind] = counts.get(use.kind, 0) + 1
                by_kind[use.kind].append(use)
        taken += 1
        if taken == _FILES:
            break
    sample: list[Use] = []
    for kind, wanted in WANTED.items():
        found = by_kind[kind]
        lot.shuffle(found)
        sample += found[:wanted]
    return sorted(sample, key=lambda use: (use.path, use.line, use.column))


def _files() -> list[Path]:
    """Sources of the standard library and as many of what is installed."""
    standard = _sources_below(Path(sysconfig.get_path("stdlib")))
    installed = _sources_below(Path(sysconfig.get_path("purelib")))
    lot = random.Random(0)
    lot.shuffle(standard)
    lot.shuffle(installed)
    share = min(len(standard), len(installed), 400)
    return standard[:share] + installed[:share]


def _sources_below(top: Path) -> list[Path]:
    found = []
    for path in sorted(top.rglob("*.py")):
        parts = path.relative_to(top).parts
        if not _SKIPPED.intersection(parts) and path.stat().st_size <= _MOST_BYTES:
            found.append(path)
    return found


def _uses_in(path: Path) -> Iterator[Use]:
    try:
        text = path.read_text(encoding="utf-8")
        tree = ast.parse(text)
    except (SyntaxError, UnicodeDecodeError, ValueError):
        return
    lines = text.split("\n")
    yield from _Walk(str(path), lines).uses(tree)


@dataclass
class _Scope:
    """The names of a function, class or module, by what binds them."""

    is_class: bool
    names: dict[str, str]


_SCOPES: Final = (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef, ast.Lambda)


class _Walk:
    def __init__(self, path: str, lines: Sequence[str]) -> None:
        self.path = path
        self.lines = lines
        self.scopes: list[_Scope] = []

    def uses(self, tree: ast.Module) -> Iterator[Use]:
        self.scopes.append(_Scope(False, _bound(tree.body)))
        for node in tree.body:
            yield from self.walk(node)

    def use(self, line: int, column: int, name: str, kind: str) -> Iterator[Use]:
        text = self.lines[line - 1]
        start = len(text.encode()[:column].decode(errors="replace"))
        if text[start : start + len(name)] == name:
            yield Use(self.path, line, start, name, kind)

    def walk(self, node: ast.AST) -> Iterator[Use]:
        if isinstance(node, ast.Name) and isinstance(node.ctx, ast.Load):
            kind = self.kind_of(node.id)
            if kind is not None:
                yield from self.use(node.lineno, node.col_offset, node.id, kind)
        elif isinstance(node, ast.Attribute) and isinstance(node.ctx, ast.Load):
            line, end = node.end_lineno or 0, node.end_col_offset or 0
            column = end - len(node.attr.encode())
            yield from self.use(line, column, node.attr, self.kind_of_attribute(node))
        elif isinstance(node, ast.ImportFrom):
            for alias in node.names:
                if alias.name != "*":
                    yield from self.use(alias.lineno, alias.col_offset, alias.name, "import")
        elif isinstance(node, ast.Call):
            for keyword in node.keywords:
                if keyword.arg:
                    yield from self.use(
                        keyword.lineno, keyword.col_offset, keyword.arg, "keyword argument"
                    )
        if isinstance(node, _SCOPES):
            yield from self.walk_scope(node)
        else:
            for child in ast.iter_child_nodes(node):
                yield from self.walk(child)

    def walk_scope(self, node: ast.AST) -> Iterator[Use]:
        body = node.body if isinstance(node, _SCOPES) else []
        inner = body if isinstance(body, list) else [body]
        for child in ast.iter_child_nodes(node):
            if child not in inner:
                yield from self.walk(child)
        names = {}
        if not isinstance(node, ast.ClassDef):
            names = {arg.arg: "argument" for arg in ast.walk(node.args) if isinstance(arg, ast.arg)}
        names.update(_bound(inner))
        self.scopes.append(_Scope(isinstance(node, ast.ClassDef), names))
        for child in inner:
            yield from self.walk(child)
        self.scopes.pop()

    def kind_of(self, name: str) -> str | None:
        for depth, scope in enumerate(reversed(self.scopes)):
            kind = scope.names.get(name)
            if kind is None or (scope.is_class and depth > 0):
                continue
            if kind == "variable":
                if scope is self.scopes[0]:
                    return "module variable"
                return "local variable" if not scope.is_class else None
            return kind
        return "builtin" if hasattr(builtins, name) else None

    def kind_of_attribute(self, node: ast.Attribute) -> str:
        if isinstance(node.value, ast.Name):
            if node.value.id == "self":
                return "attribute of self"
            if self.kind_of(node.value.id) == "import":
                return "attribute of a module"
        return "other attribute"


def _bound(body: Sequence[ast.AST]) -> dict[str, str]:
    """The names that statements bind in their own scope."""
    found: dict[str, str] = {}
    todo: list[ast.AST] = list(body)
    while todo:
        node = todo.pop()
        if isinstance(node, ast.ClassDef):
            found[node.name] = "class"
        elif isinstance(node, ast.FunctionDef | ast.AsyncFunctionDef):
            found[node.name] = "function"
        elif isinstance(node, ast.Import | ast.ImportFrom):
            for alias in node.names:
                found.setdefault(alias.asname or alias.name.partition(".")[0], "import")
        elif isinstance(node, ast.Name) and isinstance(node.ctx, ast.Store):
            found.setdefault(node.id, "variable")
        elif isinstance(node, ast.ExceptHandler) and node.name:
            found.setdefault(node.name, "variable")
        if not isinstance(node, _SCOPES):
            todo += ast.iter_child_nodes(node)
    return found
