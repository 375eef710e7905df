"""The scanners of the second stage: what the names of a file mean in other files."""

from __future__ import annotations

import logging
import weakref
from collections.abc import Callable, Collection, Generator, Iterable, Sequence
from itertools import islice
from typing import TYPE_CHECKING, Final

import singleton
from loombase.location import CLocalFileLocation, CLocation, CSshFileLocation
from pysource import _fastaccess

from loom._pyscan import SourceScanner
from loom.derive.deriver import Deriver
from loom.derive.facts import Namer, pack
from loom.sourcetext import SourceError, SourceText, decode_source
from loom.store.derived import DerivedRecord, key_of_file
from loom.store.records import ScopeRow

from .base import (
    CScanner,
    CScanState,
    ScanSteps,
    kFinishedScanning,
    kScanAbandoned,
    kWaitingForData,
)
from .scantext import ScanText
from .wholefile import ItemsInParts

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext
    from pysource.scopeinfo import CInfoCache, CScopeInfo

__all__ = ["CSingleScopeSecondaryScanner", "CWholeFileSecondaryScanner"]

_log = logging.getLogger("loom.scan")

# (location, scope name, scan name)
_Triple = tuple[CLocation, str, str]

_kWholeFile: Final = "*"
_kStepBytes: Final = 64 * 1024
_kGroupsPerStep: Final = 4000

# How often a question is asked that the end of a slice cut off, and how often the whole scan begins
# again because files changed meanwhile. What was found out for a question is kept from try to try;
# what takes longer than all of them stays open.
_kMostTries: Final = 20
_kMostRounds: Final = 3


class CWholeFileSecondaryScanner(CScanner):
    """Derives from the results of primary scans what a file's names mean, and stores it.

    Files that it lacks the primary results of are asked for once, by "needs-scan-added" of the info
    cache; what is missing after that stays open. Abandoned if the file isn't as its own primary
    scan saw it: that one has to come first, and brings this one along.
    """

    def __init__(
        self,
        loc: CLocalFileLocation | CSshFileLocation,
        scan_name: str,
        log: Callable[..., object],
    ) -> None:
        self._fScanName = scan_name
        self._fEndTime = 0.0
        self._fContext: CInferenceContext | None = None
        self._fAsked: set[_Triple] = set()
        self._fMissing: set[CLocation] = set()  # not scanned when they were looked at
        super().__init__(loc, log)

    def Scan(self, end_time: float) -> CScanState:
        self._fEndTime = end_time
        self._fContext = None
        try:
            return super().Scan(end_time)
        finally:
            self._fContext = None

    def FilterNeedsScan(self, needs_scan_added: Iterable[_Triple]) -> list[_Triple]:
        """The scans among those asked for that this one doesn't make needless: its own file's."""
        return [
            (loc, scope_name, scan_name)
            for loc, scope_name, scan_name in needs_scan_added
            if scan_name != self._fScanName or loc != self.fLocation
        ]

    def _ScanInSteps(self) -> ScanSteps:
        try:
            return (yield from self._ScanWhole())
        except SourceError as error:
            self.fFileDoesntExist = error.gone
            if error.lasting:
                # There is nothing to derive, as long as the file stays what it is.
                self._Store(_InfoCache().GetDigest(self.fLocation), b"", (), frozenset())
            self.fLog("Abandoned secondary whole file scan: %r: %s", self.fLocation, error)
        except Exception as error:
            # A fault of ours, and no reason to stop the others.
            _log.exception("derived scan of %r failed", self.fLocation)
            self.fLog("Abandoned secondary whole file scan: %r: %s", self.fLocation, error)
        return kScanAbandoned

    def _ScanWhole(self) -> ScanSteps:
        text = SourceText()
        if ScanText(self.fLocation, text).unsaved:
            return kScanAbandoned  # once it is saved
        yield from self._ReadSource(text)
        cache = _InfoCache()
        if not text.digest or cache.GetDigest(self.fLocation) != text.digest:
            self._AskFor({(self.fLocation, _kWholeFile, _PrimaryScanName())})
            return kScanAbandoned
        if cache.IsDoneFor(self.fLocation, text.digest, self._fScanName):
            return kFinishedScanning  # its time alone has changed
        digest = text.digest
        yield from decode_source(text)
        source = SourceScanner(text.data, uses=True)
        while not source.scan(_kStepBytes):
            yield None
        used, star_names = yield from _NamesOf(source)
        rows = yield from ItemsInParts(source.scopes, "scopes")
        for _ in range(_kMostRounds):
            generation = cache.fDerivedGeneration
            own = _OwnAnswers(self.fLocation, rows)
            deriver = Deriver(self.fLocation, rows, star_names, _kNamer.Get())
            try:
                keys = yield from self._AskAll(deriver)
            finally:
                own.Forget()
            if cache.fDerivedGeneration == generation:
                break
        for targets in deriver.facts.imports.values():
            # Other names that lead to what is used here under its own.
            used.update(target.rpartition(".")[2].rpartition(":")[2] for target in targets)
        used.discard("")
        if cache.GetDigest(self.fLocation) != digest:
            return kScanAbandoned
        self._Store(digest, pack(deriver.facts), used, frozenset(keys))
        return kFinishedScanning

    def _Store(
        self, digest: bytes, packed: bytes, names: Collection[str], keys: frozenset[int]
    ) -> None:
        _InfoCache().AddDerived(
            DerivedRecord(self.fLocation.fUrl, digest, packed, names, keys)
        )

    def _AskAll(self, deriver: Deriver) -> Generator[CScanState | None, None, set[int]]:
        """Ask all questions, once more if files had to be scanned for them; returns the keys."""
        while True:
            consulted: set[CLocation] = set()
            needed: set[_Triple] = set()
            for question in deriver.questions():
                if question is not None:
                    for tries in range(1, _kMostTries + 1):
                        context = self._Context()
                        context.consulted.clear()
                        question(context)
                        needed |= context.needs_scan
                        consulted |= context.consulted
                        if tries == _kMostTries or not context.OutOfTime():
                            break
                        yield None
                if _fastaccess.OutOfTime(self._fEndTime):
                    yield None
            if not self._AskFor(needed - self._fAsked):
                consulted.discard(self.fLocation)
                return deriver.keys | {key_of_file(loc.fUrl) for loc in consulted}
            self._fMissing.clear()
            yield kWaitingForData  # for those scans, which come before this one

    def _AskFor(self, needed: set[_Triple]) -> bool:
        """Have scans done that are needed here; false if there are none."""
        manager = singleton.GetSingletons().fAnalysisMgr
        others = {triple for triple in needed if triple[0] != self.fLocation}
        if others and not manager.fScanCoordinator._fAnalyzeFoundImports:
            needed = needed - others  # no other files are wanted
        if not needed:
            return False
        self._fAsked |= needed
        if others:
            manager.emit("files-followed", [loc for loc, _, _ in others])
        manager.fInfoCache.AddNeedsScan(needed)
        return True

    def _Context(self) -> CInferenceContext:
        """The context of this slice."""
        if self._fContext is None or self._fContext.fEndTime != self._fEndTime:
            engine = singleton.GetSingletons().fAnalysisMgr.fInferenceEngine
            self._fContext = engine.NewContext(self._fEndTime, may_scan=False)
            self._fContext.missing = self._fMissing
        return self._fContext


class CSingleScopeSecondaryScanner(CWholeFileSecondaryScanner):
    """Derives what the file of one scope needs, that scope among it.

    What a scope means depends on its file, and is stored with it.
    """

    def __init__(
        self, info: CScopeInfo, log: Callable[..., object], unused: None, ana_mgr: object
    ) -> None:
        self.fInfo = info
        loc = info.key.loc
        assert isinstance(loc, CLocalFileLocation | CSshFileLocation)
        super().__init__(loc, _DerivedScanName(), log)


def _NamesOf(source: SourceScanner) -> Generator[None, None, tuple[set[str], list[str]]]:
    """All names that are used, parts of dotted ones by themselves, and those bound nowhere."""
    used: set[str] = set()
    unbound: dict[str, None] = {}
    for first in range(0, source.used_groups, _kGroupsPerStep):
        for home, text, _ in source.used(first, _kGroupsPerStep):
            if "." in text or " " in text:
                parts = text.replace(" ", ".").split(".")
                used.update(parts)
                if home == -1:
                    unbound[parts[0]] = None
            else:
                used.add(text)
                if home == -1:
                    unbound[text] = None
        yield None
    return used, list(unbound)


def _InfoCache() -> CInfoCache:
    cache: CInfoCache = singleton.GetSingletons().fAnalysisMgr.fInfoCache
    return cache


class _OwnAnswers:
    """What the inference holds of the file that is scanned, for as long as that takes.

    Its scopes are at hand, and needn't be asked for one by one; and answers about it are of no use
    to other scans, and would only push out those that are.
    """

    def __init__(self, loc: CLocation, rows: Sequence[ScopeRow]) -> None:
        self._fLoc = loc
        self._fEngine = singleton.GetSingletons().fAnalysisMgr.fInferenceEngine
        self._fGeneration = self._fEngine.generation
        self._fSize = len(self._fEngine.memo)
        self._fEngine.records.lend(loc, {row[0]: row[5] for row in rows})

    def Forget(self) -> None:
        engine = self._fEngine
        engine.records.lend(self._fLoc, None)
        memo = engine.memo
        size = self._fSize if engine.generation == self._fGeneration else 0
        for key in list(islice(reversed(memo), max(0, len(memo) - size))):
            if key[1] == self._fLoc:
                del memo[key]


class _SharedNamer:
    """The namer of all scans, until files may have got other names."""

    def __init__(self) -> None:
        self._fFactory: weakref.ref[object] | None = None
        self._fGeneration = 0
        self._fNamer: Namer | None = None

    def Get(self) -> Namer:
        manager = singleton.GetSingletons().fAnalysisMgr
        factory = self._fFactory() if self._fFactory is not None else None
        generation = manager.fInferenceEngine.generation
        if (
            self._fNamer is None
            or factory is not manager.fAnalysisFactory
            or generation != self._fGeneration
        ):
            self._fFactory = weakref.ref(manager.fAnalysisFactory)
            self._fGeneration = generation
            self._fNamer = Namer(manager.fAnalysisFactory)
        return self._fNamer


_kNamer: Final = _SharedNamer()


def _PrimaryScanName() -> str:
    name: str = singleton.GetSingletons().fAnalysisMgr.fPrimaryScanName
    return name


def _DerivedScanName() -> str:
    name: str = singleton.GetSingletons().fAnalysisMgr.fDerivedScanName
    return name
