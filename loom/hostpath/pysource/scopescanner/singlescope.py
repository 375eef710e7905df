"""The scanner of one scope of a file."""

from __future__ import annotations

import logging
from collections.abc import Callable, Generator, Iterable, Iterator, Sequence
from dataclasses import dataclass
from typing import Final

import singleton
from loombase.location import CLocalFileLocation, CSshFileLocation
from pysource.logicalline import CLogicalDef, kClassDef, kFunctionDef
from pysource.scopeinfo import CInfoCache, CScopeInfo, CScopeInfoKey, SecondsOf
from pysource.symbolinfo import (
    GetClassForInstanceName,
    GetInstanceNameForClass,
    IsDefLineScope,
    IsInstanceScope,
    ParentAndLeafScopeNames,
    ParentScopeName,
    RemoveAllScopeNameSubscripts,
    SplitScopeNameFromSuffixes,
    kClassKind,
    kModuleScopeName,
    kWildcardScope,
)

from loom._pyscan import SourceScanner, unpack_info
from loom.sourcetext import SourceError, SourceText, decode_source
from loom.store.records import ScopeRow

from .base import CScanner, CScanState, ScanSteps, kFinishedScanning, kScanAbandoned
from .headers import def_line_info, header_parts, header_row, indentation
from .scantext import ScanText
from .scopeslice import ScopeSlice, cut_out, path_of_scope
from .wholefile import CWholeFilePrimaryScanner, ItemsInParts, ScopesOfLines

__all__ = ["CSingleScopePrimaryScanner"]

_log = logging.getLogger("loom.scan")

# Bytes scanned between two looks at the clock, and at whether the scope has ended.
_kStepBytes: Final = 2 * 1024
_kWholeStepBytes: Final = 64 * 1024

# In bigger texts even taking lines apart takes too long for one step.
_kMaxSliceBytes: Final = 2 * 1024 * 1024


@dataclass(slots=True)
class _Found:
    """What stands in the text of a scope: its own row first, then those of the scopes inside.

    `holder` is the row of the scope around it, none for the module. `incomplete` are the names of
    those among the rows that couldn't be read to their end.
    """

    rows: list[ScopeRow]
    holder: ScopeRow | None
    incomplete: set[str]


class CSingleScopePrimaryScanner(CScanner):
    """Finds what one scope defines, and the scopes inside of it, from the present text of a file.

    Only that scope is scanned, wherever it has moved to, as long as it can be found by the lines on
    which it stood; else the whole text is. The result is that of a whole-file scan either way. The
    module `kModuleScopeName` takes a scan of the whole text, too, and yields its own names only.

    `scope_name` may also be a def line ("f.<def>"), which yields the names that stand in it, or a
    specialized scope ("List[int]"), which yields what the plain one does. With `kWildcardScope` it is
    a whole-file scan, which stores its result itself as soon as it is over.

    While a scan is on, nothing is stored; `SaveToInfoCache` does that. `incomplete_scope_set` then
    has the scanned scopes that couldn't be read to their end, and none of the others that were
    scanned. An edit during the scan starts it again.

    When it is over, `fInfo` is the scope's record, none if there is no such scope. `fScopeDef` is
    its definition, none for the module and def lines, and `fContainingClassDef` that of the class
    that it stands in, none if it doesn't stand in one directly. `fFileDoesntExist` tells that
    there is no file.
    """

    def __init__(
        self,
        loc: CLocalFileLocation | CSshFileLocation,
        scope_name: str,
        incomplete_scope_set: set[str],
        log: Callable[..., object],
    ) -> None:
        self.fScopeName = scope_name
        self.fInfo: CScopeInfo | None = None
        self.fScopeDef: CLogicalDef | None = None
        self.fContainingClassDef: CLogicalDef | None = None
        self._fIncompleteScopes = incomplete_scope_set
        plain_name = RemoveAllScopeNameSubscripts(scope_name)
        self._fOfDefLine = IsDefLineScope(plain_name)
        # The scope of the text that is looked for.
        self._fTextName = ParentScopeName(plain_name) if self._fOfDefLine else plain_name
        self._fSpecialized = plain_name != scope_name
        self._fText: ScanText | None = None
        self._fMTime = 0
        self._fUnderWay: SourceScanner | None = None
        self._fFound: _Found | None = None
        self._fWhole: CWholeFilePrimaryScanner | None = None
        # The text's lines, and the rows of all its scopes, as far as they had to be known.
        self._fLines: list[bytes] = []
        self._fAllRows: Sequence[ScopeRow] = ()
        super().__init__(loc, log)

    # --- scanning

    def _ScanInSteps(self) -> ScanSteps:
        if self.fScopeName == kWildcardScope:
            return (yield from self._ScanWholeFile())
        while True:
            text = SourceText()
            self._fText = ScanText(self.fLocation, text)
            try:
                if not self._fText.unsaved:
                    yield from self._ReadSource(text)
                    yield from decode_source(text)
                self._fMTime = text.mtime_ns
                found = yield from self._Search(text.data)
            except SourceError as error:
                self.fFileDoesntExist = error.gone
                return self._Abandon(str(error))
            except Exception as error:
                # A fault of ours, and no reason to stop the others.
                _log.exception("scan of %r in %r failed", self.fScopeName, self.fLocation)
                return self._Abandon(f"scanner failed: {type(error).__name__}: {error}")
            if self._fText.IsCurrent():
                break
        self._fUnderWay = None
        self._fFound = found
        self._NoteIncomplete(found)
        if found is not None:
            self._Describe(found, incomplete=found.rows[0][0] in found.incomplete)
        return kFinishedScanning

    def _ScanWholeFile(self) -> ScanSteps:
        scan_name = singleton.GetSingletons().fAnalysisMgr.fPrimaryScanName
        self._fWhole = whole = CWholeFilePrimaryScanner(
            self.fLocation, scan_name, incomplete_scope_set=self._fIncompleteScopes, log=self.fLog
        )
        whole.connect_while_alive("scan-state-changed", lambda _: self._DataArrived(), self)
        state = yield from whole.Steps()
        self.fFileDoesntExist = whole.fFileDoesntExist
        return state

    def _NoteIncomplete(self, found: _Found | None) -> None:
        within = f"{self._fTextName}."
        scanned = {name for name in self._fIncompleteScopes if name.startswith(within)}
        if self._fTextName == kModuleScopeName:
            scanned = set()
        self._fIncompleteScopes -= scanned | {self._fTextName}
        if found is not None:
            self._fIncompleteScopes |= found.incomplete

    def _Abandon(self, reason: str) -> CScanState:
        self._fUnderWay = None
        self.fLog(
            "Abandoned primary scope scan: scope=%r, file=%r: %s",
            self.fScopeName,
            self.fLocation,
            reason,
        )
        return kScanAbandoned

    def _Search(self, data: bytes) -> Generator[None, None, _Found | None]:
        found: _Found | None = None
        self._fLines = []
        self._fAllRows = ()
        path = path_of_scope(self._fTextName)
        if path is not None and len(data) <= _kMaxSliceBytes:
            known = {name: first for name, first, _ in self._KnownLines()}
            if self._fTextName in known:
                self._fLines = data.splitlines(keepends=True)
                yield
                found = yield from self._SearchSlice(cut_out(self._fLines, path, known))
        if found is None:
            found = yield from self._SearchWhole(data)
        self._fLines = self._fLines or data.splitlines(keepends=True)
        if found is not None and self._fOfDefLine:
            return _OnlyDefLine(found, self._fLines)
        return found

    def _KnownLines(self) -> Sequence[tuple[str, int, int]]:
        """Where scopes stand by what is known: for an open file in its present text, nearly."""
        assert self._fText is not None
        known = self._fText.Analysis()
        if known is not None:
            return known[0].GetScopeLines()
        return _InfoCache().GetScopeLines(self.fLocation)

    def _SearchSlice(self, piece: ScopeSlice | None) -> Generator[None, None, _Found | None]:
        if piece is None:
            return None
        self._fUnderWay = source = SourceScanner(piece.text)
        source.scan(max(piece.body, 1))  # blank lines, nearly all of it
        while source.may_grow(piece.scope):
            yield
            source.scan(_kStepBytes)
        rows = source.scopes()
        errors = source.errors()
        if not rows[piece.scope :] or rows[piece.scope][3] != piece.lineno:
            return None
        if errors and header_row(self._fLines, piece.lineno - 1) is None:
            return None  # what a half-typed header means depends on what stands above it
        found = self._Collect(rows, piece.scope, errors)
        return found if found.rows[0][0] == self._fTextName else None

    def _SearchWhole(self, data: bytes) -> Generator[None, None, _Found | None]:
        self._fUnderWay = source = SourceScanner(data)
        while not source.scan(_kWholeStepBytes):
            yield
        rows = yield from ItemsInParts(source.scopes, "scopes")
        self._fAllRows = rows
        for index, row in enumerate(rows):
            if row[0] == self._fTextName:
                return self._Collect(rows, index, source.errors())
        return None

    def _Collect(
        self, rows: Sequence[ScopeRow], scope: int, errors: Sequence[tuple[int, str]]
    ) -> _Found:
        inside = {scope}
        if scope != 0:
            for index in range(scope + 1, len(rows)):
                if rows[index][1] in inside:
                    inside.add(index)
        wrong = ScopesOfLines(rows, [lineno for lineno, _ in errors]) & inside
        return _Found(
            [rows[index] for index in sorted(inside)],
            rows[rows[scope][1]] if scope != 0 else None,
            {rows[index][0] for index in wrong},
        )

    # --- what was found

    def _Describe(self, found: _Found, incomplete: bool) -> None:
        name, _, kind, lineno, _, packed = found.rows[0]
        self.fInfo = self._Record(self.fScopeName, packed, incomplete)
        if found.holder is None or self._fOfDefLine:
            return
        is_class = kind == kClassKind
        self.fScopeDef = CLogicalDef(kClassDef if is_class else kFunctionDef, name, lineno)
        if found.holder[2] == kClassKind:
            self.fContainingClassDef = CLogicalDef(kClassDef, found.holder[0], found.holder[3])

    def _Record(
        self, scope_name: str, packed: bytes, incomplete: bool = False, absent: bool = False
    ) -> CScopeInfo:
        scan_name = singleton.GetSingletons().fAnalysisMgr.fPrimaryScanName
        source = self._fTextName if self._fSpecialized else scope_name
        key = CScopeInfoKey(self.fLocation, scope_name, scan_name, self.fLocation, source)
        return CScopeInfo(key, packed, SecondsOf(self._fMTime), incomplete, absent)

    # --- storing

    def SaveToInfoCache(self, always: bool = False) -> bool:
        """Store what was found, in place of what was known of the scope and those inside of it.

        Returns whether that is news. What is known already isn't stored again, but with `always`.
        Of a scan that isn't over, what it has found so far is stored if nothing was known. Nothing
        is stored of one that was abandoned, nor of a text that is gone since.
        """
        if self._fWhole is not None:
            return self.fState is kFinishedScanning
        if self.fState is kScanAbandoned or self._fText is None or not self._fText.IsCurrent():
            return False
        if self.fState is not kFinishedScanning:
            return self._SavePart()
        found = self._fFound
        changed = self._Store(self.fInfo or self._Record(self.fScopeName, b"", absent=True), always)
        if self.fScopeName != self._fTextName:
            return changed
        rows = found.rows if found is not None else []
        stale: set[str] = set()
        for row in rows[1:]:
            incomplete = found is not None and row[0] in found.incomplete
            stale |= self._StoreInner(row, incomplete, always)
        changed = changed or bool(stale)
        if changed:
            self._StoreRest(rows)
        stale |= self._TellAnalysis(found)
        cache = _InfoCache()
        self._AskFor(
            name
            for name in stale
            if not IsInstanceScope(name) or cache.GetScopeInfo(self.fLocation, name) is not None
        )
        return changed

    def _StoreInner(self, row: ScopeRow, incomplete: bool, always: bool) -> set[str]:
        """Store a scope inside of the one that was asked for; returns the instances it may change.

        The scheduler sees to the instances of what it asked for, and to no others.
        """
        if not self._Store(self._Record(row[0], row[5], incomplete), always):
            return set()
        instances = map(GetInstanceNameForClass, (row[0], ParentScopeName(row[0])))
        return {name for name in instances if name is not None}

    def _StoreRest(self, rows: Sequence[ScopeRow]) -> None:
        """Bring up to date what is stored inside of the scope and isn't among the rows."""
        within = f"{self._fTextName}."
        if self._fTextName == kModuleScopeName:
            within, rows = "", self._fAllRows
        by_name = {row[0]: row for row in rows}
        known = {name for name, _, _ in self._KnownLines()}
        for name in known | _InfoCache().GetUnsavedNames(self.fLocation):
            if not name.startswith(within) or name in by_name:
                continue
            if IsDefLineScope(name) and ParentScopeName(name) in by_name:
                packed = def_line_info(by_name[ParentScopeName(name)], self._fLines)
                self._Store(self._Record(name, packed), always=False)
            elif GetClassForInstanceName(name) not in by_name:
                self._Store(self._Record(name, b"", absent=True), always=False)

    def _Store(self, info: CScopeInfo, always: bool) -> bool:
        cache = _InfoCache()
        known = cache.GetScopeInfo(self.fLocation, info.key.scope_name)
        news = known is None or (known.packed, known.does_not_exist) != (
            info.packed,
            info.does_not_exist,
        )
        if news or always or (known is not None and known.incomplete != info.incomplete):
            cache.AddScopeInfo(info)
        return news

    def _TellAnalysis(self, found: _Found | None) -> set[str]:
        """Tell an open file's analysis where scopes are; returns those that changed, too."""
        assert self._fText is not None
        known = self._fText.Analysis()
        if known is None:
            return set()
        analysis, version = known
        before = analysis.GetScopeLines()
        stale: set[str] = set()
        if self._fAllRows:
            after = [(row[0], row[3], row[4]) for row in self._fAllRows]
            # Scopes that have come, grown or moved in ways that nobody knew of, with what is around.
            moved = set(after) - set(before)
            around = {name for scope in moved for name in _ScopesAround(scope[0])}
            for row in self._fAllRows:
                if row[0] in around or (row[0], row[3], row[4]) in moved:
                    stale |= self._StoreInner(row, incomplete=False, always=False)
            for name in {scope[0] for scope in before} - {scope[0] for scope in after}:
                self._Store(self._Record(name, b"", absent=True), always=False)
            analysis.TakeScopes(after, version)
        elif found is not None:
            analysis.TakeScope([(row[0], row[3], row[4]) for row in found.rows], version)
        least_column = analysis.TakeLeastColumn(self._fTextName)
        if found is None or self._HolderIsStale(found, before, least_column):
            holder = ParentScopeName(self._fTextName)
            analysis.NoteColumn(holder, least_column)
            stale.add(holder)
        return stale

    def _HolderIsStale(
        self, found: _Found, before: Sequence[tuple[str, int, int]], least_column: int
    ) -> bool:
        """Whether the scope around has changed, too.

        It has if the header says something else, if the scope ends elsewhere, or if lines were
        edited that aren't indented enough to be the scope's.
        """
        if found.holder is None:
            return False
        name, _, _, first, last, _ = found.rows[0]
        if least_column <= indentation(self._fLines[first - 1]):
            return True
        expected = next((scope[2] for scope in before if scope[0] == name), last)
        between = self._fLines[min(last, expected) : max(last, expected)]
        if any(line.strip() for line in between):
            return True
        stored = _InfoCache().GetScopeInfo(self.fLocation, found.holder[0])
        if stored is None:
            return False  # nothing that could be stale
        leaf = SplitScopeNameFromSuffixes(ParentAndLeafScopeNames(name)[1])[0]
        header = header_parts(unpack_info(found.holder[5]).get(leaf, b""), name)
        return not header <= header_parts(stored.type_equivs.get(leaf, b""), name)

    def _AskFor(self, scope_names: Iterable[str]) -> None:
        pairs = [(self.fLocation, name) for name in scope_names]
        if pairs:
            coordinator = singleton.GetSingletons().fAnalysisMgr.fScanCoordinator
            coordinator.AddPairsToPrimaryQueue(pairs, first=True)

    def _SavePart(self) -> bool:
        if self._fUnderWay is None or self._fOfDefLine:
            return False
        known = _InfoCache().GetScopeInfo(self.fLocation, self.fScopeName)
        if known is not None and not known.does_not_exist:
            return False
        rows = self._fUnderWay.scopes()
        for index, row in enumerate(rows):
            if row[0] == self._fTextName:
                self._Describe(self._Collect(rows, index, ()), incomplete=True)
        if self.fInfo is None:
            return False
        self._fIncompleteScopes.add(self.fScopeName)
        return self._Store(self.fInfo, always=False)

    def _destroy_impl(self) -> None:
        super()._destroy_impl()
        self._fUnderWay = None
        if self._fWhole is not None:
            self._fWhole.destroy()


def _InfoCache() -> CInfoCache:
    # Looked up late: the info cache isn't there yet when this module is first imported.
    cache: CInfoCache = singleton.GetSingletons().fAnalysisMgr.fInfoCache
    return cache


def _ScopesAround(scope_name: str) -> Iterator[str]:
    while scope_name != kModuleScopeName:
        scope_name = ParentScopeName(scope_name)
        yield scope_name


def _OnlyDefLine(found: _Found, lines: Sequence[bytes]) -> _Found:
    row = found.rows[0]
    return _Found([(*row[:5], def_line_info(row, lines))], found.holder, found.incomplete)
