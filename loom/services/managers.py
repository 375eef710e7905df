"""The plain managers of the service table: preferences, saved files, file attributes, buffers."""

from __future__ import annotations

from collections.abc import Iterable, Mapping, MutableMapping
from typing import Any

from cache.textcache import CTextCache, TextEdit
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation
from loombase.mime import MimeTypeFromName, kAnalyzableMimeTypes, kPythonMimeType
from singleton import GetSingletons

from pysource.analysis import CPySourceAnalysis
from pysource.symbolinfo import kWildcardScope
from pysource.utils import HasPythonShebang

__all__ = ["CCacheMgr", "CFileAttribMgr", "CPrefMgr", "CSavableMgr"]


class CPrefMgr:
    """Preferences by name. The stand-alone host has no file of them."""

    def __init__(self, values: Mapping[str, Any] | None = None) -> None:
        self._values = dict(values or {})

    def GetValue(self, name: str, default: Any = None) -> Any:
        return self._values.get(name, default)

    def SetValue(self, name: str, value: Any) -> None:
        self._values[name] = value


class CSavableMgr(CDestroyable):
    """Tells of files that others have changed on disk.

    Signals: "external-files-changed" (manager, mapping from location to anything).
    """

    def __init__(self) -> None:
        super().__init__(("external-files-changed",))

    def FilesChanged(self, locs: Iterable[CLocation]) -> None:
        """To be called by whoever noticed the changes."""
        changed = dict.fromkeys(locs, True)
        if changed:
            self.emit("external-files-changed", self, changed)


class CFileAttribMgr:
    """Mime types of files: what the user declared, else what name and first line tell."""

    def __init__(self) -> None:
        self._declared: dict[CLocation, str] = {}

    def DeclareMimeType(self, loc: CLocation, mime_type: str) -> None:
        """Settle the type of a file, whatever it looks like."""
        self._declared[loc] = mime_type

    def GetDeclaredMimeType(self, loc: CLocation) -> str | None:
        return self._declared.get(loc)

    def GetProbableMimeType(self, loc: CLocation) -> str | None:
        """The type of one file, none if it isn't known. Looks into files with no known suffix."""
        declared = self._declared.get(loc)
        if declared is not None or not isinstance(loc, CLocalFileLocation):
            return declared
        by_name = MimeTypeFromName(loc.path)
        if by_name is None and HasPythonShebang(loc.path):
            return kPythonMimeType
        return by_name

    def GetMultipleProbableMimeTypes(self, mapping: MutableMapping[CLocation, Any]) -> None:
        """Fill the values of a mapping that is keyed by location."""
        for loc in mapping:
            mapping[loc] = self.GetProbableMimeType(loc)


class CCacheMgr(CDestroyable):
    """Open buffers and their analyses. `loom` on the command line has none.

    An edit of a buffer asks the scheduler for a scan of the scope that was edited, saving for one
    of the file.
    """

    def __init__(self, attribs: CFileAttribMgr) -> None:
        super().__init__()
        self._attribs = attribs
        self._buffers: dict[CLocation, CTextCache] = {}
        self._analyses: dict[CLocation, CPySourceAnalysis] = {}

    def OpenBuffer(self, loc: CLocation, text: str, modtime: float) -> CTextCache:
        """Make the buffer of a file, with an analysis if it is Python.

        `text` is what stands on disk since `modtime`, in seconds. Raises `ValueError` if the file
        is open already.
        """
        if loc in self._buffers:
            raise ValueError(f"buffer is open already: {loc!r}")
        buffer = self._buffers[loc] = CTextCache(loc, text, modtime)
        buffer.connect_while_alive("text-modified", self._CB_TextModified, self)
        buffer.connect_while_alive("saved", self._CB_Saved, self)
        self.GetAnalysis(loc, True)
        return buffer

    def CloseBuffer(self, loc: CLocation) -> None:
        """End the buffer of a file and its analysis. A file that isn't open is no error.

        What was found in unsaved text goes with it, and the file is checked again. A scan that is
        under way notices and turns to the file.
        """
        analysis = self._analyses.pop(loc, None)
        if analysis is not None:
            analysis.destroy()
        buffer = self._buffers.pop(loc, None)
        if buffer is None:
            return
        if buffer.IsModified():
            ana_mgr = GetSingletons().fAnalysisMgr
            if ana_mgr is not None:
                ana_mgr.fInfoCache.ForgetUnsaved(loc)
            self._Scan(loc, [kWildcardScope])
        buffer.destroy()

    def DoesCacheBufferExist(self, loc: CLocation, any_kind: bool = True) -> CTextCache | None:
        """The open buffer of a file, or none. There is one kind of buffers here."""
        return self._buffers.get(loc)

    def GetAnalysis(self, loc: CLocation, create: bool) -> CPySourceAnalysis | None:
        """The analysis of an open Python file, or none; made if need be with `create`."""
        ana = self._analyses.get(loc)
        if (
            ana is None
            and create
            and loc in self._buffers
            and self._attribs.GetProbableMimeType(loc) in kAnalyzableMimeTypes
        ):
            ana = self._analyses[loc] = CPySourceAnalysis(loc)
        return ana

    def _ClearEOLBlindCacheAndScans(self) -> None:
        """Forget what was derived from buffers: their analyses read the info cache again."""
        for ana in self._analyses.values():
            ana.ReadCacheAgain()

    def _CB_TextModified(self, buffer: CTextCache, edit: TextEdit) -> None:
        loc = buffer.fLocation
        analysis = self._analyses.get(loc)
        if analysis is not None:
            scopes = analysis.NoteEdit(edit, buffer.fVersion)
            self._Scan(loc, scopes or [kWildcardScope])

    def _CB_Saved(self, buffer: CTextCache) -> None:
        self._Scan(buffer.fLocation, [kWildcardScope])

    def _Scan(self, loc: CLocation, scope_names: Iterable[str]) -> None:
        ana_mgr = GetSingletons().fAnalysisMgr
        if ana_mgr is not None:
            coordinator = ana_mgr.fScanCoordinator
            coordinator.ClearLastScanInfo([loc])  # it has another text than was scanned last
            pairs = [(loc, name) for name in scope_names]
            coordinator.AddPairsToPrimaryQueue(pairs, first=True)

    def _destroy_impl(self) -> None:
        for thing in (*self._analyses.values(), *self._buffers.values()):
            thing.destroy()
        self._analyses.clear()
        self._buffers.clear()
