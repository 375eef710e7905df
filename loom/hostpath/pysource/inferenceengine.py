"""Answers about scopes within a deadline, and what is remembered from one to the next."""

from __future__ import annotations

from collections.abc import Hashable, Set
from typing import TYPE_CHECKING, Any, Final

import singleton
from loombase.destroyable import CDestroyable
from loombase.location import CLocation

from loom.infer.context import CInferenceContext
from loom.infer.records import Records
from loom.infer.sources import Sources

if TYPE_CHECKING:
    from pysource.scopeinfo import CInfoCache, CScopeInfo

__all__ = ["CInferenceContext", "CInferenceEngine"]

# Answers that are kept: some 300 bytes each.
_kMostAnswers: Final = 100_000


class CInferenceEngine(CDestroyable):
    """Answers from what the info cache holds, and scans what is missing within the deadline.

    What names and expressions mean is told by `loom.infer`, which works for one context at a time.
    `memo` holds its complete answers; they go when a file that was looked at has changed, which is
    noticed at the next question, or when modules are found elsewhere.
    """

    def __init__(self, info_cache: CInfoCache) -> None:
        super().__init__()
        self.info_cache = info_cache
        self.records = Records(self)
        self.sources = Sources(self)
        # With the files that each was drawn from.
        self.memo: dict[Hashable, tuple[object, frozenset[CLocation]]] = {}
        self.generation = 0
        self._fFileSets: dict[frozenset[CLocation], frozenset[CLocation]] = {}
        self._fWatchedFactory: Any = None

    def NewContext(self, end_time: float, may_scan: bool = True) -> CInferenceContext:
        """A context for one question that must be answered by `end_time`.

        Without `may_scan` what is missing isn't scanned, but told in the context's `needs_scan`.
        """
        self._WatchFactory()
        if len(self.memo) > _kMostAnswers:
            self.forget_answers()
        return CInferenceContext(self, end_time, may_scan)

    def GetScopeInfo(
        self, loc: CLocation, scope_name: str, context: CInferenceContext
    ) -> CScopeInfo | None:
        """What is known of a scope; none if nothing is, or if time is up.

        A scope of a file that isn't scanned, or was changed since, is scanned on this stack. The
        scan ends at the context's deadline; what is missing then goes into its `needs_scan`.
        """
        if context.OutOfTime():
            return None
        return self.records.scope_info(context, loc, scope_name)

    def forget_answers(self) -> None:
        """Drop all answers: a file has changed, or modules may be found elsewhere."""
        self.memo.clear()
        self._fFileSets.clear()
        self.generation += 1

    def file_set(self, locs: Set[CLocation]) -> frozenset[CLocation]:
        """A set of files to be kept with an answer: many are drawn from the same ones."""
        found = frozenset(locs)
        return self._fFileSets.setdefault(found, found)

    def _WatchFactory(self) -> None:
        """Follow the factory of the analysis manager, which may come after this object."""
        manager = singleton.GetSingletons().fAnalysisMgr
        factory = None if manager is None else manager.fAnalysisFactory
        if factory is not None and factory is not self._fWatchedFactory:
            self._fWatchedFactory = factory
            factory.connect_while_alive(
                "import-resolution-changed", lambda *_: self.forget_answers(), self
            )
