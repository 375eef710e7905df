"""Write docs/reference.md from the type stubs: every module, class and operation, with its first line.

    make_reference.py           write it
    make_reference.py -         print it
"""

import ast
import sys
from pathlib import Path

kRoot = Path(__file__).resolve().parent.parent
kPage = kRoot / "docs" / "reference.md"
kModules = (
    *("pysource.scancoordinator", "pysource.usageordereddict", "pysource.symbolinfo"),
    *("pysource.strutils", "pysource._fastaccess", "loom._pyscan"),
)
kHead = """# Reference

Made from the type stubs by `scripts/make_reference.py`; the whole of each contract stands there, and
in the headers for C++. Names with one leading underscore are for inspection and for subclasses.
"""


def first_line(node: ast.AST) -> str:
    assert isinstance(node, ast.Module | ast.ClassDef | ast.FunctionDef)
    return (ast.get_docstring(node) or "").partition("\n\n")[0].replace("\n", " ")


def signature(function: ast.FunctionDef, method: bool) -> str:
    """The call as one writes it: names and defaults, without types."""
    arguments = function.args
    named = [*arguments.posonlyargs, *arguments.args]
    defaults = [None] * (len(named) - len(arguments.defaults)) + list(arguments.defaults)
    is_static = any(ast.unparse(each) == "staticmethod" for each in function.decorator_list)
    texts = []
    for number, (argument, default) in enumerate(zip(named, defaults, strict=True)):
        if not (method and number == 0 and not is_static):
            value = "" if default is None else f"={ast.unparse(default)}"
            texts.append(argument.arg + value)
    if arguments.vararg:
        texts.append(f"*{arguments.vararg.arg}")
    elif arguments.kwonlyargs:
        texts.append("*")
    for argument, keyword_default in zip(arguments.kwonlyargs, arguments.kw_defaults, strict=True):
        value = "" if keyword_default is None else f"={ast.unparse(keyword_default)}"
        texts.append(argument.arg + value)
    if arguments.kwarg:
        texts.append(f"**{arguments.kwarg.arg}")
    return f"{function.name}({', '.join(texts)})"


def row(name: str, text: str) -> str:
    escaped = text.replace("|", "\\|")
    return f"| `{name}` | {escaped} |"


def table(rows: list[str]) -> list[str]:
    return ["| | |", "|---|---|", *rows, ""] if rows else []


def is_property(function: ast.FunctionDef) -> bool:
    return any(ast.unparse(each).endswith("property") for each in function.decorator_list)


def is_setter(function: ast.FunctionDef) -> bool:
    return any(ast.unparse(each).endswith(".setter") for each in function.decorator_list)


def of_class(node: ast.ClassDef) -> list[str]:
    rows = []
    for member in node.body:
        if isinstance(member, ast.FunctionDef) and not is_setter(member):
            name = member.name if is_property(member) else signature(member, method=True)
            rows.append(row(name, first_line(member)))
        elif isinstance(member, ast.AnnAssign):
            rows.append(row(ast.unparse(member.target), ""))
        elif isinstance(member, ast.Assign):
            rows.append(row(ast.unparse(member), ""))
    bases = [ast.unparse(base) for base in node.bases]
    title = f"### {node.name}" + (f"({', '.join(bases)})" if bases else "")
    return [title, "", first_line(node), "", *table(rows)]


def of_module(name: str) -> list[str]:
    tree = ast.parse((kRoot / f"{name.replace('.', '/')}.pyi").read_text())
    text = [f"## {name}", ""]
    if first_line(tree):
        text += [first_line(tree), ""]
    constants, functions, classes = [], [], []
    for node in tree.body:
        if isinstance(node, ast.AnnAssign) and "TypeAlias" not in ast.unparse(node.annotation):
            constants.append(f"`{ast.unparse(node.target)}`")
        elif isinstance(node, ast.FunctionDef):
            functions.append(row(signature(node, method=False), first_line(node)))
        elif isinstance(node, ast.ClassDef):
            hidden = any("type_check_only" in ast.unparse(each) for each in node.decorator_list)
            classes += [] if hidden else of_class(node)
    if constants:
        text += [f"Constants: {', '.join(constants)}.", ""]
    return text + table(functions) + classes


def reference() -> str:
    lines = [kHead]
    for name in kModules:
        lines += of_module(name)
    return "\n".join(lines).rstrip() + "\n"


if __name__ == "__main__":
    if sys.argv[1:] == ["-"]:
        print(reference(), end="")
    else:
        kPage.write_text(reference())
