"""What a derived scan finds of a file, and its packed form.

The packed form has one fact a line, with fields separated by tabs, in UTF-8:

    i TAB scope index TAB name TAB targets   where an imported name comes from
    b TAB scope index TAB targets            in which classes a class's attributes are looked for
    t TAB scope index TAB name TAB targets   what a name is worth

A name that is imported under another one has a second fact, in which the name is "module name". The
name "return" stands for the result of a function. Scope index -1 stands for names that star imports
bring.

Targets are separated by blanks. A target is named by its module and its scope, `module:scope.name`,
and by the module alone as `module:`; an instance of a class has `()` behind it. The module is the
name that it is imported by, or the URL of a file that can't be imported.
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import NamedTuple, Protocol

from loombase.location import CLocation
from pysource.symbolinfo import ParentScopeName

from loom.infer.values import Class, Function, Instance, Module, Symbol, Target, Value

__all__ = ["Facts", "ModuleNames", "Namer", "pack", "unpack"]

Names = dict[tuple[int, str], tuple[str, ...]]


class Facts(NamedTuple):
    """All facts of a file, by scope index and name."""

    imports: Names
    bases: dict[int, tuple[str, ...]]
    types: Names


def pack(facts: Facts) -> bytes:
    """The facts as they are stored."""
    lines = [_line("i", str(s), name, found) for (s, name), found in facts.imports.items()]
    lines += [_line("b", str(scope), found) for scope, found in facts.bases.items()]
    lines += [_line("t", str(s), name, found) for (s, name), found in facts.types.items()]
    return "".join(lines).encode()


def _line(*fields: str | Sequence[str]) -> str:
    return "\t".join(f if isinstance(f, str) else " ".join(f) for f in fields) + "\n"


def unpack(packed: bytes) -> Facts:
    """The facts again. Raises `ValueError` if the text isn't of this form."""
    facts = Facts({}, {}, {})
    for line in packed.decode().split("\n")[:-1]:
        kind, scope, *fields = line.split("\t")
        targets = tuple(fields[-1].split())
        if kind == "b":
            facts.bases[int(scope)] = targets
        elif kind in "it":
            (facts.imports if kind == "i" else facts.types)[int(scope), fields[0]] = targets
        else:
            raise ValueError(f"unknown fact {kind!r}")
    return facts


class ModuleNames(Protocol):
    """Whoever knows by which name a file is imported."""

    def GetModuleName(self, loc: CLocation) -> str | None: ...


class Namer:
    """Names targets and values."""

    def __init__(self, modules: ModuleNames) -> None:
        self._modules = modules
        self._known: dict[CLocation, str] = {}

    def module(self, loc: CLocation) -> str:
        """The module that a file is."""
        name = self._known.get(loc)
        if name is None:
            name = self._modules.GetModuleName(loc)
            # A file may be called anything; a target has no blanks.
            if name is None or not name.replace(".", "_").isidentifier():
                name = loc.fUrl
            self._known[loc] = name
        return name

    def place(self, loc: CLocation, scope_name: str, name: str = "") -> str:
        """A scope, or a name in it. Attributes of instances belong to the class."""
        if name.startswith("self."):
            scope_name, name = ParentScopeName(scope_name), name[5:]
        dotted = f"{scope_name}.{name}" if scope_name and name else scope_name or name
        return f"{self.module(loc)}:{dotted}"

    def target(self, target: Target) -> str:
        """A symbol or a module."""
        if isinstance(target, Symbol):
            return self.place(target.loc, target.scope_name, target.name)
        return f"{target.name}:"

    def value(self, value: Value) -> str:
        """What a name is worth; empty for what has no name."""
        if isinstance(value, Instance):
            return f"{self.value(value.cls)}()"
        if isinstance(value, Class | Function):
            return self.place(value.loc, value.scope_name)
        if isinstance(value, Module):
            return f"{value.name}:"
        return ""
