"""Definitions that a logical line can begin, and their types."""

from __future__ import annotations

from typing import Final, NamedTuple

__all__ = ["CLogicalDef", "kClassDef", "kFunctionDef"]

kClassDef: Final = "class"
kFunctionDef: Final = "def"


class CLogicalDef(NamedTuple):
    """A definition: its type, the name of its scope, and its line from 1."""

    fType: str
    fScopeName: str
    fLineno: int
