"""Source text at hand: lines, and where each name is bound.

This is for positions; types need none of it.
"""

from __future__ import annotations

from array import array
from collections import OrderedDict
from collections.abc import Mapping, Sequence
from itertools import accumulate
from typing import TYPE_CHECKING, Final

from loombase.location import CLocalFileLocation, CLocation
from pysource.scopescanner.scantext import ScanText

from loom._pyscan import SourceScanner
from loom.sourcetext import SourceError, SourceText, decode_source, read_source
from loom.store.records import ScopeRow

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext
    from pysource.inferenceengine import CInferenceEngine

__all__ = ["SourceFile", "Sources"]

# Bytes of text that are kept for the next question.
_kKeptBytes: Final = 8 * 1024 * 1024
# Bytes scanned, and items taken over, between two looks at the clock.
_kStepBytes: Final = 64 * 1024
_kItemsPerStep: Final = 5000


_BoundNames = Mapping[tuple[int, str], Sequence[tuple[int, str]]]


class SourceFile:
    """The text of a file, in UTF-8, with its scopes and the lines on which names are bound.

    `bound` has the (line, kind) of each binding, in order, by index of the scope and name.
    """

    def __init__(
        self,
        loc: CLocation,
        state: object,
        data: bytes,
        scopes: Sequence[ScopeRow],
        bound: _BoundNames,
    ) -> None:
        self.loc = loc
        self.state = state
        self.data = data
        # Where each line begins, and one more behind the last.
        lengths = (len(line) + 1 for line in data.split(b"\n"))
        self._offsets = array("L", accumulate(lengths, initial=0))
        self.scopes = scopes
        self._scope_index = {row[0]: index for index, row in enumerate(scopes)}
        self._bound = bound
        self._declaring: dict[str, list[str]] | None = None

    def scopes_declaring(self, name: str) -> tuple[str, ...]:
        """The functions that declare a name global."""
        if self._declaring is None:
            self._declaring = {}
            for (index, bound), sites in self._bound.items():
                if any(kind == "o" for _, kind in sites):
                    self._declaring.setdefault(bound, []).append(self.scopes[index][0])
        return tuple(self._declaring.get(name, ()))

    @property
    def line_count(self) -> int:
        return len(self._offsets) - 1

    def offset_of(self, line: int) -> int:
        """Where a line, counted from 1, begins in the text; its end for a line behind the last."""
        return min(self._offsets[min(max(line, 1), len(self._offsets)) - 1], len(self.data))

    def line(self, number: int) -> bytes:
        """A line, counted from 1, without its end; empty if there is none."""
        if 0 < number <= self.line_count:
            return self.data[self._offsets[number - 1] : self._offsets[number] - 1].rstrip(b"\r")
        return b""

    def scope_row(self, name: str) -> ScopeRow | None:
        """The row of a scope."""
        index = self._scope_index.get(name)
        return None if index is None else self.scopes[index]

    def bindings(self, scope_name: str, name: str) -> Sequence[tuple[int, str]]:
        """(line, kind) of each binding of a name in a scope, in order."""
        index = self._scope_index.get(scope_name)
        return () if index is None else self._bound.get((index, name), ())

    def scope_at(self, line: int) -> str:
        """The innermost scope whose lines hold the line."""
        found = ""
        for name, _, _, first, last, _ in self.scopes:
            if first > line:
                break
            if line <= last:
                found = name  # a scope comes behind the ones around it
        return found

    def statement_start_before(self, line: int) -> int:
        """A line, not behind `line`, on which a statement begins: as near as scopes tell."""
        best = 1
        for _, _, _, first, last, _ in self.scopes[1:]:
            if first > line:
                break
            best = max(best, first)
            if last < line:
                best = max(best, last + 1)
        return best


class Sources:
    """The files whose text was asked for, as they are now, within bounds of memory."""

    def __init__(self, engine: CInferenceEngine) -> None:
        self._engine = engine
        self._files: OrderedDict[CLocation, SourceFile] = OrderedDict()
        self._bytes = 0

    def get(self, ctx: CInferenceContext, loc: CLocation) -> SourceFile | None:
        """The text of a file; none if it can't be read, or not in time."""
        facts = self._engine.records.facts(ctx, loc)
        found = self._files.get(loc)
        if found is not None and found.state == facts.state:
            self._files.move_to_end(loc)
            return found
        made = _read(ctx, loc, facts.state)
        if made is not None:
            self._keep(made)
        return made

    def _keep(self, file: SourceFile) -> None:
        old = self._files.pop(file.loc, None)
        if old is not None:
            self._bytes -= len(old.data)
        self._files[file.loc] = file
        self._bytes += len(file.data)
        while self._bytes > _kKeptBytes and len(self._files) > 1:
            self._bytes -= len(self._files.popitem(last=False)[1].data)


def _read(ctx: CInferenceContext, loc: CLocation, state: object) -> SourceFile | None:
    text = SourceText()
    if not ScanText(loc, text).unsaved:
        if not isinstance(loc, CLocalFileLocation):
            return None
        try:
            for steps in (read_source(loc.path, text), decode_source(text)):
                for _ in steps:
                    if ctx.OutOfTime():
                        return None
        except SourceError:
            return None
    scanner = SourceScanner(text.data)
    while not scanner.scan(_kStepBytes):
        if ctx.OutOfTime():
            return None
    scopes: list[ScopeRow] = []
    while part := scanner.scopes(len(scopes), _kItemsPerStep):
        scopes += part
        if ctx.OutOfTime():
            return None
    bound: dict[tuple[int, str], list[tuple[int, str]]] = {}
    count = 0
    while names := scanner.names(count, _kItemsPerStep):
        count += len(names)
        for index, name, kind, line in names:
            bound.setdefault((index, name), []).append((line, chr(kind)))
        if ctx.OutOfTime():
            return None
    return SourceFile(loc, state, text.data, scopes, bound)
