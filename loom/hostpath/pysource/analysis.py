"""Analyses: what the editor is told about one open Python file."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from typing import Final

from cache.textcache import TextEdit, kNoColumn
from loombase.destroyable import CDestroyable
from loombase.location import CLocation
from singleton import GetSingletons

from pysource.symbolinfo import ParentScopeName, kModuleScopeName, kWildcardScope

__all__ = ["CPySourceAnalysis"]

# Edits that are remembered, for scans of the text as it was before them.
_kMaxEdits: Final = 1000

# (scope name, first line, last line), lines from 1.
_ScopeLines = tuple[str, int, int]


class CPySourceAnalysis(CDestroyable):
    """The analysis of the file at `fLocation`: which scope stands where in its present text.

    Scans tell where scopes are; each edit of the buffer moves what stands behind it, so that lines
    are right from the edit on, and not only after the next scan. The info cache keeps the lines of
    the text that was scanned.

    Signals: "modified" (analysis) when a scan found other scopes, or scopes in other places, than
    were known; "active-edit-lineno-changed" (analysis, line) when the caret has moved to another
    line, counted from 1, or -1 for no line.
    """

    def __init__(self, loc: CLocation) -> None:
        super().__init__(("modified", "active-edit-lineno-changed"))
        self.fLocation = loc
        # In the order in which they begin, which is parents before children.
        self._fScopes: list[_ScopeLines] = []
        self._fLoaded = False
        # Edits that moved something, with the version of the text that each led to, since the
        # version that the info cache has the lines of.
        self._fEdits: list[tuple[int, TextEdit]] = []
        # The least indentation of lines that were edited in a scope since it was last scanned.
        self._fLeastColumns: dict[str, int] = {}
        self._fActiveLine = -1

    # --- where scopes are

    def UpdateFromCache(self) -> None:
        """Take over the scopes that the info cache has of the file, if none are known so far."""
        if not self._fLoaded:
            self.ReadCacheAgain()

    def ReadCacheAgain(self) -> None:
        """Take over the scopes that the info cache has of the file, in place of what is known."""
        scopes = GetSingletons().fAnalysisMgr.fInfoCache.GetScopeLines(self.fLocation)
        self._fLoaded = bool(scopes)
        for _, edit in self._fEdits:
            scopes = _Moved(scopes, edit)
        self._SetScopes(scopes)

    def TakeScopes(self, scopes: Iterable[_ScopeLines], version: int) -> None:
        """A scan found all scopes of the text of that version of the buffer."""
        self._fEdits = [(at, edit) for at, edit in self._fEdits if at > version]
        self._fLoaded = True
        self._SetScopes(self._MovedSince(scopes, version))

    def TakeScope(self, scopes: Sequence[_ScopeLines], version: int) -> None:
        """A scan found the first of the scopes, with the others inside of it."""
        self.UpdateFromCache()
        if not self._fLoaded:
            return  # one scope alone would make the others look like the module's
        name = scopes[0][0]
        within = f"{name}."
        known = [s for s in self._fScopes if s[0] != name and not s[0].startswith(within)]
        known += self._MovedSince(scopes, version)
        self._SetScopes(sorted(known, key=lambda scope: (scope[1], len(scope[0]))))

    def GetScopeLines(self) -> list[_ScopeLines]:
        """(scope name, first line, last line) of the scopes in the present text."""
        self.UpdateFromCache()
        return self._fScopes

    def FindScopeContainingLine(self, lineno: int) -> str | None:
        """The name of the innermost scope that holds a line, none if no scope is known at all."""
        self.UpdateFromCache()
        if not self._fScopes:
            return None
        found: str = kModuleScopeName  # also of lines behind the last one that holds anything
        for name, first, last in self._fScopes:
            if first > lineno:
                break
            if lineno <= last:
                found = name
        return found

    def _MovedSince(self, scopes: Iterable[_ScopeLines], version: int) -> list[_ScopeLines]:
        moved = list(scopes)
        for at, edit in self._fEdits:
            if at > version:
                moved = _Moved(moved, edit)
        return moved

    def _SetScopes(self, scopes: list[_ScopeLines]) -> None:
        if scopes != self._fScopes:
            self._fScopes = scopes
            self.emit("modified", self)

    # --- edits

    def NoteEdit(self, edit: TextEdit, version: int) -> list[str]:
        """Follow an edit that led to `version`; returns the scopes that have to be scanned again.

        That is the innermost scope around the edit, with the one around that if the edit touches
        its header, or all (`kWildcardScope`) for several lines between the module's scopes. Empty
        while no scope is known.
        """
        self.UpdateFromCache()
        touched = self._ScopesOfEdit(edit)
        for name in touched:
            self.NoteColumn(name, edit.column)
        if edit.shift:
            self._fEdits.append((version, edit))
            del self._fEdits[:-_kMaxEdits]
            self._fScopes = _Moved(self._fScopes, edit)
        return touched

    def NoteColumn(self, scope_name: str, column: int) -> None:
        """Lines of a scope with this indentation were edited, or taken out."""
        self._fLeastColumns[scope_name] = min(
            column, self._fLeastColumns.get(scope_name, kNoColumn)
        )

    def TakeLeastColumn(self, scope_name: str) -> int:
        """The least that was noted for a scope since this was last called for it."""
        return self._fLeastColumns.pop(scope_name, kNoColumn)

    def _ScopesOfEdit(self, edit: TextEdit) -> list[str]:
        if not self._fScopes:
            return []
        found: _ScopeLines = (kModuleScopeName, 0, 0)
        inserts = edit.old_end == edit.first
        for scope in self._fScopes:
            _, first, last = scope
            if first > edit.first:
                break
            # Lines inserted in front of a scope's first line, or behind its last, are outside.
            if (
                edit.first <= last
                and edit.old_end <= last + 1
                and not (inserts and edit.first == first)
            ):
                found = scope
        name, first, _ = found
        if name == kModuleScopeName:
            lines = max(edit.old_end, edit.new_end) - edit.first
            return [kWildcardScope if lines > 1 else kModuleScopeName]
        if edit.first == first:
            return [name, ParentScopeName(name)]
        return [name]

    # --- the caret

    def SetActiveLine(self, lineno: int) -> None:
        """Tell where the caret is; -1 for no line."""
        if lineno != self._fActiveLine:
            self._fActiveLine = lineno
            self.emit("active-edit-lineno-changed", self, lineno)


def _Moved(scopes: Iterable[_ScopeLines], edit: TextEdit) -> list[_ScopeLines]:
    """Where the scopes are after an edit. Lines that it added to a scope's last belong to it."""
    start, old_end, new_end, _ = edit
    shift = edit.shift
    moved = []
    for name, first, last in scopes:
        if last >= old_end:
            last += shift
        elif last >= start:
            last = new_end - 1
        if first >= old_end:
            first += shift
        elif first > start:
            first = max(start, min(first, new_end - 1))
        moved.append((name, first, max(first, last)))
    return moved
