"""Analyses of open files."""

from typing import Any

import hostlog
from loombase.destroyable import CDestroyable


class CPySourceAnalysis(CDestroyable):
    """Emits "modified" with itself, "active-edit-lineno-changed" with itself and the line."""

    def __init__(self, loc: Any, scope_by_line: dict[int, str] | None = None) -> None:
        super().__init__(("modified", "active-edit-lineno-changed"))
        self.fLocation = loc
        self.scope_by_line = scope_by_line or {}

    def FindScopeContainingLine(self, lineno: int) -> str:
        """The scope told for the line, else the module's own."""
        hostlog.note("FindScopeContainingLine", self, lineno)
        return self.scope_by_line.get(lineno, "")

    def UpdateFromCache(self) -> None:
        """Only noted."""
        hostlog.note("UpdateFromCache", self)
