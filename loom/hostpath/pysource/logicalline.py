"""Types of the definitions that a logical line can begin."""

from __future__ import annotations

from typing import Final

__all__ = ["kClassDef", "kFunctionDef"]

kClassDef: Final = "class"
kFunctionDef: Final = "def"
