"""Answers about scopes within a deadline."""

from __future__ import annotations

from typing import TYPE_CHECKING

from loombase.location import CLocation

from pysource import _fastaccess

if TYPE_CHECKING:
    from pysource.scopeinfo import CInfoCache, CScopeInfo

__all__ = ["CInferenceContext", "CInferenceEngine"]


class CInferenceContext:
    """One question's deadline, a time of the scheduler's clock in seconds."""

    def __init__(self, end_time: float) -> None:
        self.fEndTime = end_time

    def OutOfTime(self) -> bool:
        return _fastaccess.OutOfTime(self.fEndTime)


class CInferenceEngine:
    """Answers from what the info cache holds. This engine doesn't scan what is missing yet."""

    def __init__(self, info_cache: CInfoCache) -> None:
        self._fInfoCache = info_cache

    def NewContext(self, end_time: float) -> CInferenceContext:
        """A context for one question that must be answered by `end_time`."""
        return CInferenceContext(end_time)

    def GetScopeInfo(
        self, loc: CLocation, scope_name: str, context: CInferenceContext
    ) -> CScopeInfo | None:
        """What is known of a scope; none if nothing is, or if time is up."""
        if context.OutOfTime():
            return None
        return self._fInfoCache.GetScopeInfo(loc, scope_name)
