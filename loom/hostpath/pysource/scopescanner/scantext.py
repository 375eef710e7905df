"""The text that a scan reads: that of a file, or of its buffer if that has unsaved changes."""

from __future__ import annotations

from collections.abc import Iterable
from typing import TYPE_CHECKING

import singleton
from cache.textcache import CTextCache
from loombase.location import CLocation

from loom.sourcetext import SourceText
from loom.store.records import kUnsavedTime

if TYPE_CHECKING:
    from pysource.analysis import CPySourceAnalysis

__all__ = ["ScanText"]


class ScanText:
    """Which text a scan of `loc` has read. `unsaved` tells that it is the buffer's own.

    If it is, `text` is filled when this is made; else the caller reads the file.
    """

    def __init__(self, loc: CLocation, text: SourceText) -> None:
        self._loc = loc
        buffer = _BufferOf(loc)
        self.unsaved = buffer is not None and buffer.IsModified()
        self._buffer = buffer
        self._version = 0 if buffer is None else buffer.fVersion
        if buffer is not None and self.unsaved:
            text.data = buffer.GetText().encode(errors="replace")  # lone surrogates
            text.size = len(text.data)
            text.mtime_ns = kUnsavedTime

    def IsCurrent(self) -> bool:
        """Whether a scan that began now would read the same text, changes of the file apart."""
        buffer = _BufferOf(self._loc)
        if buffer is None or self._buffer is None:
            # A buffer that was opened since then and isn't modified has the file's text.
            return not self.unsaved and (buffer is None or not buffer.IsModified())
        return (
            buffer is self._buffer
            and buffer.fVersion == self._version
            and buffer.IsModified() == self.unsaved
        )

    def Analysis(self) -> tuple[CPySourceAnalysis, int] | None:
        """The file's analysis with the version of the buffer that was read; none if none knows."""
        buffer = _BufferOf(self._loc)
        if buffer is None or buffer is not self._buffer:
            return None
        analysis = singleton.GetSingletons().fCacheMgr.GetAnalysis(self._loc, False)
        return None if analysis is None else (analysis, self._version)

    def TellScopes(self, scopes: Iterable[tuple[str, int, int]]) -> None:
        """Tell the analysis, if there is one, where all scopes of the text are."""
        known = self.Analysis()
        if known is not None:
            analysis, version = known
            analysis.TakeScopes(scopes, version)


def _BufferOf(loc: CLocation) -> CTextCache | None:
    buffer: CTextCache | None = singleton.GetSingletons().fCacheMgr.DoesCacheBufferExist(loc, True)
    return buffer
