"""One question to the inference: its deadline, what it is busy with, what it lacked."""

from __future__ import annotations

from collections.abc import Callable, Hashable
from typing import TYPE_CHECKING, Final, TypeVar, cast

from loombase.location import CLocation
from pysource import _fastaccess

if TYPE_CHECKING:
    from pysource.inferenceengine import CInferenceEngine

__all__ = ["CInferenceContext"]

_T = TypeVar("_T")
_Triple = tuple[CLocation, str, str]

# Questions inside of questions, some 9 calls of Python's own stack each, and levels of expressions
# over all open questions, some 4 each: together well below the interpreter's limit of 1,000.
_kDeepest: Final = 50
_kDeepestNode: Final = 80

_kNoCut: Final = 1 << 30

# What was answered, and the files that it was drawn from.
_Answer = tuple[object, frozenset[CLocation]]


class CInferenceContext:
    """One question and its deadline, a time of the scheduler's clock in seconds.

    With `may_scan` a scope that isn't known is scanned on the spot; without, it goes into
    `needs_scan` right away, for the asker to have it scanned. What couldn't be looked at in time is
    there in either case, and `partial` tells that the answer may lack something for it.
    """

    def __init__(self, engine: CInferenceEngine, end_time: float, may_scan: bool = True) -> None:
        self.engine = engine
        self.fEndTime = end_time
        self.may_scan = may_scan
        self.needs_scan: set[_Triple] = set()
        self.checked: set[CLocation] = set()
        self.missing: set[CLocation] = set()  # not scanned when it was looked at
        self.node_depth = 0
        # The files that answers were drawn from, also those that were known already.
        self.consulted: set[CLocation] = set()
        self._out_of_time = False
        self._open: dict[Hashable, int] = {}
        self._answers: dict[Hashable, _Answer] = {}
        # The outermost open question that came up again since, or was too deep.
        self._cut = _kNoCut

    @property
    def partial(self) -> bool:
        """Whether something that the answer may depend on couldn't be looked at."""
        return self._out_of_time or bool(self.needs_scan)

    def OutOfTime(self) -> bool:
        if not self._out_of_time:
            self._out_of_time = _fastaccess.OutOfTime(self.fEndTime)
        return self._out_of_time

    def too_deep(self) -> bool:
        """Whether an expression is nested so deeply that its inner part stays unknown."""
        if self.node_depth < _kDeepestNode:
            return False
        self._cut = -1
        return True

    def unless_open(self, key: Hashable, nothing: _T, work: Callable[[], _T]) -> _T:
        """The result of `work`, which isn't kept; `nothing` while it is at work already."""
        if key in self._open or self.OutOfTime():
            self._cut = -1
            return nothing
        self._open[key] = len(self._open)
        try:
            return work()
        finally:
            del self._open[key]

    def _holds(self, consulted: frozenset[CLocation]) -> bool:
        """Whether the files of an answer that was kept are still what they were."""
        if consulted <= self.checked:
            return True
        generation = self.engine.generation
        for loc in consulted - self.checked:
            self.engine.records.facts(self, loc)
        return generation == self.engine.generation

    def answer(self, key: Hashable, nothing: _T, work: Callable[[], _T]) -> _T:
        """The result of `work`, which answers the question `key`, asked once.

        A question that comes up while it is being answered, too deep, or after the deadline has
        the answer `nothing`. Complete answers are kept by the engine until a file changes.
        """
        known = self._answers.get(key)
        if known is None:
            known = self.engine.memo.get(key)
            if known is not None and not self._holds(known[1]):
                known = None
        if known is not None:
            self.consulted |= known[1]
            return cast(_T, known[0])
        level = self._open.get(key)
        if level is not None:
            self._cut = min(self._cut, level)
            return nothing
        if self.OutOfTime():
            return nothing
        level = len(self._open)
        if level >= _kDeepest:
            self._cut = -1
            return nothing
        self._open[key] = level
        outer_cut, self._cut = self._cut, _kNoCut
        generation = self.engine.generation
        outer_consulted, self.consulted = self.consulted, set()
        try:
            result = work()
        finally:
            del self._open[key]
            cut = self._cut
            self._cut = min(outer_cut, cut if cut < level else _kNoCut)
            consulted = self.engine.file_set(self.consulted)
            outer_consulted |= consulted
            self.consulted = outer_consulted
        if cut >= level and not self.partial and generation == self.engine.generation:
            self.engine.memo[key] = result, consulted
        else:
            self._answers[key] = result, consulted
        return result
