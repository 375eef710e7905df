"""What expressions are worth: modules, classes, instances, functions.

Values are small and immutable, and name what stands in the info cache by location and scope.
Where nothing is known there is no value; where several are possible there are several.
"""

from __future__ import annotations

import ast
from collections.abc import Iterable, Mapping
from dataclasses import dataclass, field, replace
from typing import Final

from loombase.location import CLocation

from loom.infer.parts import Part

__all__ = [
    "BoundValue",
    "Class",
    "Function",
    "Instance",
    "LambdaFunction",
    "Module",
    "Nothing",
    "Special",
    "Super",
    "Symbol",
    "Target",
    "TypeVariable",
    "Value",
    "Values",
    "kMostValues",
    "union",
]

# So many values of one expression are worth following.
kMostValues: Final = 12


@dataclass(frozen=True, slots=True)
class Module:
    """A module by its dotted name; its locations in order of authority, stubs first.

    A package that is a mere folder has none. `dirloc` is the folder from which the name was seen.
    """

    name: str
    locs: tuple[CLocation, ...]
    dirloc: CLocation | None = field(default=None, compare=False)

    @property
    def source(self) -> CLocation | None:
        """Where its source stands, or its stub where there is none."""
        for loc in self.locs:
            if not loc.fUrl.endswith(".pyi"):
                return loc
        return self.locs[0] if self.locs else None


@dataclass(frozen=True, slots=True)
class Symbol:
    """A name bound in a scope, with what its record says."""

    loc: CLocation
    scope_name: str
    name: str
    parts: tuple[Part, ...]


# Where a name leads to.
Target = Symbol | Module


@dataclass(frozen=True, slots=True)
class Class:
    """The class that a scope is. `args` are what its type parameters stand for, if known.

    `variadic` tells that a tuple class has any number of its one argument.
    """

    loc: CLocation
    scope_name: str
    args: tuple[Values, ...] = ()
    variadic: bool = False

    @property
    def bare(self) -> Class:
        return Class(self.loc, self.scope_name) if self.args or self.variadic else self


@dataclass(frozen=True, slots=True)
class Instance:
    """An object of a class."""

    cls: Class


@dataclass(frozen=True, slots=True)
class Function:
    """A function, with the object that it is bound to, if it is."""

    loc: CLocation
    scope_name: str
    kind: str
    decorators: tuple[str, ...] = ()
    receiver: Instance | Class | None = None


@dataclass(frozen=True, slots=True)
class BoundValue:
    """A callable that is known by its annotation alone: what it returns."""

    result: Values


@dataclass(frozen=True, slots=True, eq=False)
class LambdaFunction:
    """A lambda expression and where it stands."""

    node: ast.Lambda
    loc: CLocation
    scope_name: str
    env: Mapping[str, Values] = field(default_factory=dict)


@dataclass(frozen=True, slots=True)
class Super:
    """What `super()` gives: attributes are looked for behind `cls` in the receiver's classes."""

    cls: Class
    receiver: Instance | Class


@dataclass(frozen=True, slots=True)
class TypeVariable:
    """A type variable, or with `of_class` the class that it stands for (`type[T]`)."""

    name: str
    loc: CLocation
    scope_name: str
    bound: Values = field(default=(), compare=False)
    of_class: bool = False

    @property
    def bare(self) -> TypeVariable:
        return replace(self, of_class=False) if self.of_class else self


@dataclass(frozen=True, slots=True)
class Special:
    """A form of the typing module that is no class, perhaps with a subscript."""

    name: str
    args: tuple[Values, ...] = ()


Value = (
    Module
    | Class
    | Instance
    | Function
    | BoundValue
    | LambdaFunction
    | Super
    | TypeVariable
    | Special
)
Values = tuple[Value, ...]

Nothing: Final[Values] = ()


def union(groups: Iterable[Values]) -> Values:
    """All values of the groups, each once, in order, as many as are worth following."""
    found: dict[Value, None] = {}
    for group in groups:
        for value in group:
            found[value] = None
            if len(found) >= kMostValues:
                return tuple(found)
    return tuple(found)
