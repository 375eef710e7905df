"""Scope records as the inference reads them: up to date, and scanned when they are missing."""

from __future__ import annotations

import os
from collections.abc import Mapping
from typing import TYPE_CHECKING, Final

import singleton
from loombase.location import CLocalFileLocation, CLocation
from pysource.symbolinfo import ParentAndLeafScopeNames, SplitScopeNameFromSuffixes

from loom.infer.parts import DefPart, Part, parts_of

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext
    from pysource.inferenceengine import CInferenceEngine
    from pysource.scopeinfo import CScopeInfo

__all__ = ["FileFacts", "Records", "ScopeRecord"]

_kWholeFile: Final = "*"

# Files whose records are kept in hand. The info cache bounds what it keeps by itself.
_kMostFiles: Final = 1000


class ScopeRecord:
    """The names of one scope, with what is known of each."""

    __slots__ = ("info", "loc", "names", "scope_name")

    def __init__(self, info: CScopeInfo) -> None:
        self.info = info
        self.loc = info.key.loc
        self.scope_name = info.key.scope_name
        self.names: Mapping[str, bytes] = info.type_equivs

    def parts(self, name: str) -> tuple[Part, ...]:
        """What is known of a name; nothing if the scope doesn't bind it."""
        info = self.names.get(name)
        return () if info is None else parts_of(info)


class FileFacts:
    """What is in hand of one file, in the state in which it was last seen.

    `state` tells states of the text apart, none if there is no such file. `scanned` is none until
    it is known whether the info cache's results are of this state.
    """

    __slots__ = ("kinds", "loc", "scanned", "scopes", "state", "unsaved")

    def __init__(self, loc: CLocation, state: object, unsaved: bool) -> None:
        self.loc = loc
        self.state = state
        self.unsaved = unsaved
        self.scanned: bool | None = None
        self.scopes: dict[str, ScopeRecord | None] = {}
        self.kinds: dict[str, str] = {"": "O"}


class Records:
    """Scope records of all files, by way of the info cache.

    Whether a file has changed is looked at once in a question.
    """

    def __init__(self, engine: CInferenceEngine) -> None:
        self._engine = engine
        self._files: dict[CLocation, FileFacts] = {}
        # Scopes that somebody who has just scanned a file has at hand.
        self._lent: tuple[CLocation, Mapping[str, bytes]] | None = None

    def forget(self) -> None:
        """Ask the info cache again from now on."""
        self._files.clear()

    def lend(self, loc: CLocation, scopes: Mapping[str, bytes] | None) -> None:
        """Give the packed scopes of a file as the info cache has it; with none, take them back."""
        self._lent = None if scopes is None else (loc, scopes)

    def facts(self, ctx: CInferenceContext, loc: CLocation) -> FileFacts:
        """What is in hand of a file, as it is now."""
        ctx.consulted.add(loc)
        facts = self._files.get(loc)
        if facts is not None and loc in ctx.checked:
            return facts
        ctx.checked.add(loc)
        state, unsaved = _state_of(loc)
        if facts is None or facts.state != state or facts.unsaved != unsaved:
            if facts is not None:
                self._engine.forget_answers()
            elif len(self._files) >= _kMostFiles:
                self._files.clear()
                self._engine.forget_answers()  # nobody could tell whether they still hold
            facts = self._files[loc] = FileFacts(loc, state, unsaved)
        return facts

    def scope(self, ctx: CInferenceContext, loc: CLocation, name: str) -> ScopeRecord | None:
        """The record of a scope; scans for it if the question allows. None if there is none."""
        facts = self.facts(ctx, loc)
        try:
            return facts.scopes[name]
        except KeyError:
            pass
        info = self._find(ctx, facts, name)
        record = None if info is None or info.does_not_exist else ScopeRecord(info)
        if facts.scanned or (record is not None and ctx.may_scan and not ctx.partial):
            facts.scopes[name] = record
        return record

    def scope_info(self, ctx: CInferenceContext, loc: CLocation, name: str) -> CScopeInfo | None:
        """As `scope`, but as the info cache has it: also what says that a scope doesn't exist."""
        return self._find(ctx, self.facts(ctx, loc), name)

    def _find(self, ctx: CInferenceContext, facts: FileFacts, name: str) -> CScopeInfo | None:
        if facts.state is None:
            return None
        cache = self._engine.info_cache
        if facts.unsaved:
            known = facts.scopes.get(name)
            if known is not None:
                return known.info
            # What the cache has may be of the text before the last change.
            self._scan(ctx, facts, name, name)
            return cache.GetScopeInfo(facts.loc, name)
        if not facts.scanned and facts.loc not in ctx.missing:
            facts.scanned = self._is_scanned(facts.loc) or (
                # A scan of its own would find the same in a file that is only young.
                not ctx.may_scan
                and isinstance(facts.loc, CLocalFileLocation)
                and cache.HasResultsOf(facts.loc)
            )
            if not facts.scanned:
                ctx.missing.add(facts.loc)
        if facts.scanned or self._scan(ctx, facts, name, _kWholeFile):
            if self._lent is not None and self._lent[0] == facts.loc:
                return self._lent_info(facts.loc, name, self._lent[1])
            return cache.GetScopeInfo(facts.loc, name)
        return None

    def _lent_info(
        self, loc: CLocation, name: str, scopes: Mapping[str, bytes]
    ) -> CScopeInfo | None:
        packed = scopes.get(name)
        if packed is None:
            return None
        from pysource.scopeinfo import CScopeInfo, CScopeInfoKey  # which imports this package

        scan_name = singleton.GetSingletons().fAnalysisMgr.fPrimaryScanName
        key = CScopeInfoKey(loc, name, scan_name, loc, name)
        return CScopeInfo(key, packed, 0.0, False)

    def _scan(self, ctx: CInferenceContext, facts: FileFacts, name: str, wanted: str) -> bool:
        """Have the scheduler scan what is missing; true if it is worth asking again."""
        loc = facts.loc
        manager = singleton.GetSingletons().fAnalysisMgr
        triple = (loc, wanted, manager.fPrimaryScanName)
        if ctx.may_scan and not ctx.OutOfTime():
            again = manager.fScanCoordinator.TryToScanDictNow(loc, name, {triple}, ctx.fEndTime)
            if facts.unsaved:
                if again:
                    return True
            elif again or self._is_scanned(loc):
                # With time enough, a file that still isn't scanned can't be read.
                facts.scanned = True
                return True
        ctx.needs_scan.add(triple)
        return False

    def _is_scanned(self, loc: CLocation) -> bool:
        cache = self._engine.info_cache
        modtime = cache.GetDiskMTime(loc)
        if not modtime:
            return False
        name = singleton.GetSingletons().fAnalysisMgr.fPrimaryScanName
        return f" {name} " in cache.GetScansDoneForMultipleFiles({loc: modtime}).get(loc, "")

    # --- what kind of scope

    def kind(self, ctx: CInferenceContext, loc: CLocation, scope_name: str) -> str:
        """The kind of a scope: "O", "C", "F", "m" or "M"; empty if it isn't known."""
        kinds = self.facts(ctx, loc).kinds
        kind = kinds.get(scope_name)
        if kind is None:
            part = self.definition(ctx, loc, scope_name)
            kind = part.kind if part is not None else ""
            if kind:
                kinds[scope_name] = kind
        return kind

    def definition(
        self, ctx: CInferenceContext, loc: CLocation, scope_name: str
    ) -> DefPart | None:
        """What the scope around a class or function says of it."""
        if not scope_name:
            return None
        parent, leaf = ParentAndLeafScopeNames(scope_name)
        record = self.scope(ctx, loc, parent)
        if record is None:
            return None
        for part in record.parts(SplitScopeNameFromSuffixes(leaf)[0]):
            if isinstance(part, DefPart) and part.scope_name == scope_name:
                return part
        return None


def _state_of(loc: CLocation) -> tuple[object, bool]:
    """What tells states of a file's text apart, and whether that is text not saved yet."""
    table = singleton.GetSingletons()
    buffers = table.fCacheMgr
    buffer = None if buffers is None else buffers.DoesCacheBufferExist(loc, True)
    if buffer is not None and buffer.IsModified():
        return (id(buffer), buffer.fVersion), True
    if isinstance(loc, CLocalFileLocation):
        try:
            status = os.stat(loc.path)
        except OSError:
            return None, False
        return (status.st_mtime_ns, status.st_size), False
    return table.fAnalysisMgr.fInfoCache.GetDiskMTime(loc) or None, False
