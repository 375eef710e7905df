"""Analyses: what the editor is told about one open Python file."""

from __future__ import annotations

from loombase.destroyable import CDestroyable
from loombase.location import CLocation
from singleton import GetSingletons

__all__ = ["CPySourceAnalysis"]


class CPySourceAnalysis(CDestroyable):
    """The analysis of the file at `fLocation`.

    Signals: "modified" (analysis) when the file's results have changed;
    "active-edit-lineno-changed" (analysis, line) when the caret has moved to another line, counted
    from 1, or -1 for no line.
    """

    def __init__(self, loc: CLocation) -> None:
        super().__init__(("modified", "active-edit-lineno-changed"))
        self.fLocation = loc
        self._scope_lines: list[tuple[str, int, int]] = []
        self._active_lineno = -1

    def UpdateFromCache(self) -> None:
        """Take over the scopes that the info cache has of the file."""
        scope_lines = GetSingletons().fAnalysisMgr.fInfoCache.GetScopeLines(self.fLocation)
        if scope_lines != self._scope_lines:
            self._scope_lines = scope_lines
            self.emit("modified", self)

    def FindScopeContainingLine(self, lineno: int) -> str | None:
        """The name of the innermost scope that holds a line, none if no scope is known to."""
        found = None
        for name, first, last in self._scope_lines:
            if first <= lineno <= last:
                found = name  # a scope comes after the ones around it
        return found

    def SetActiveLine(self, lineno: int) -> None:
        """Tell where the caret is; -1 for no line."""
        if lineno != self._active_lineno:
            self._active_lineno = lineno
            self.emit("active-edit-lineno-changed", self, lineno)
