"""The host of a helper process: the scheduler with what it needs, and an info cache that only
passes results on.

The first process decides what is scanned, so nothing here follows imports or stores anything.
"""

from __future__ import annotations

from collections.abc import Iterable, Mapping, Sequence
from time import monotonic
from typing import Final, Protocol

from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation
from loombase.mime import kPythonMimeType
from pysource.inferenceengine import CInferenceEngine
from pysource.loccache import CLocCache
from pysource.scancoordinator import CScanCoordinator, CScanItem
from pysource.scopeinfo import CInfoCache, CScopeInfo
from singleton import GetSingletons

from loom import freshness
from loom.mainloop.base import LOW_IDLE_PRIORITY
from loom.services.locationdata import CLocationDataCache
from loom.services.managers import CCacheMgr, CFileAttribMgr, CPrefMgr, CSavableMgr
from loom.store.records import FileRecord, FileState, FileTimes

__all__ = ["HelperHost", "Receiver"]

kPrimaryScanName: Final = "primary"
kDerivedScanName: Final = "derived"


class Receiver(Protocol):
    """Who hears of the scans."""

    def known_state(self, loc: CLocation) -> FileState | None:
        """For which state of the file there are results."""

    def is_declared(self, loc: CLocation) -> bool:
        """Whether the file is Python whatever it looks like."""

    def scan_starts(self, loc: CLocation, now: float) -> None:
        """A slice of the file's scan begins."""

    def scan_rests(self, now: float) -> None:
        """The slice is over."""

    def file_scanned(self, loc: CLocation, record: FileRecord) -> None:
        """The file's scan is over, whatever came of it."""

    def file_reread(self, loc: CLocation, digest: bytes, times: FileTimes) -> None:
        """The file holds the bytes whose results are known."""

    def file_unchanged(self, loc: CLocation) -> None:
        """The results that are known still hold."""

    def file_gone(self, loc: CLocation) -> None:
        """There is no such file."""

    def slice_ended(self) -> None:
        """The scheduler lets go of the main thread."""


class _ForwardingCache(CInfoCache):
    """Knows what the first process knows of a file, and hands it what a scan finds."""

    def __init__(self, receiver: Receiver) -> None:
        # Nothing of the base's: it would open a database.
        CDestroyable.__init__(self, ("needs-scan-added", "file-stored", "file-reread"))
        self._receiver = receiver
        self.fLocCache = CLocCache()  # wants no derived information unless it is told to
        self._fDiskStates = {}

    def _NoticeOtherWriters(self) -> None:
        """There is no database."""

    def GetScansDoneForMultipleFiles(
        self, modtimes: Mapping[CLocation, float]
    ) -> dict[CLocation, str]:
        result: dict[CLocation, str] = {}
        for loc in modtimes:
            disk = self._fDiskStates.pop(loc, None)
            state = self._receiver.known_state(loc)
            if (
                state is not None
                and disk is not None
                and state.scans
                and freshness.is_fresh(state, *disk[1:])
            ):
                result[loc] = state.scans
                self._receiver.file_unchanged(loc)
        return result

    def GetScopeInfo(self, loc: CLocation, scope_name: str) -> CScopeInfo | None:
        return None

    def GetScopeLines(self, loc: CLocation) -> list[tuple[str, int, int]]:
        return []

    def GetAllImports(self, locs: Sequence[CLocation]) -> list[tuple[CLocation, None, bytes]]:
        return []

    def AddFile(self, loc: CLocation, record: FileRecord) -> None:
        self._receiver.file_scanned(loc, record)

    def RefreshFile(
        self, loc: CLocation, scan_name: str, digest: bytes, times: FileTimes
    ) -> bool:
        state = self._receiver.known_state(loc)
        if state is None or not freshness.was_scanned(state, digest, scan_name):
            return False
        self._receiver.file_reread(loc, digest, times)
        return True

    def ForgetFile(self, loc: CLocation) -> None:
        self._receiver.file_gone(loc)

    def FinishedWithScans(self, loc: CLocation, scope_name: str, scan_name: str) -> None:
        """Nobody asks for scans here."""

    def NoteSliceEnd(self, end_time: float) -> None:
        """Nothing is written here."""

    def Trim(self) -> None:
        """Nothing is kept here."""

    def WriteToDatabase(self) -> None:
        """There is no database."""

    def _destroy_impl(self) -> None:
        """Nothing to close."""


class _ModFileCache(CDestroyable):
    def __init__(self) -> None:
        super().__init__(("suspend", "unsuspend"))


class _NoImports(CDestroyable):
    """An analysis factory that knows no module."""

    def __init__(self) -> None:
        super().__init__(("import-resolution-changed",))
        self._fModFileCache = _ModFileCache()

    def GetSecondaryLocations(self, loc: CLocation) -> None:
        return None

    def FindBuiltinMod(self) -> None:
        return None

    def GetTypingLocations(self) -> None:
        return None

    def GetAllLocsForName(
        self, name: str, dirloc: CLocation | None, follow: bool
    ) -> Sequence[CLocation]:
        return ()

    def _FindPrimaryLocsForNames(
        self, names: Iterable[str], dirloc: CLocation, follow: bool
    ) -> Sequence[CLocation | None]:
        return [None for _ in names]


class _Attribs(CFileAttribMgr):
    def __init__(self, receiver: Receiver) -> None:
        super().__init__()
        self._receiver = receiver

    def GetDeclaredMimeType(self, loc: CLocation) -> str | None:
        return kPythonMimeType if self._receiver.is_declared(loc) else None


class _PyConfig:
    def __init__(self) -> None:
        # Anything will do: while it is empty nothing is scheduled.
        self.python_path_locs = (CLocalFileLocation("/"),)


class _Coordinator(CScanCoordinator):
    """The scheduler, with a note of the file that each slice is spent on."""

    def __init__(self, ana_mgr: object, receiver: Receiver) -> None:
        super().__init__(LOW_IDLE_PRIORITY, ana_mgr)
        self._receiver = receiver
        self._fAnalyzeFoundImports = False

    def _DoSingleScan(self, scan_item: CScanItem, end_time: float) -> bool:
        self._receiver.scan_starts(scan_item.loc, monotonic())
        more = super()._DoSingleScan(scan_item, end_time)
        # Not after a failure: it ends the process, and this file is the one that did it.
        self._receiver.scan_rests(monotonic())
        return more

    def _CB_DoIdleAnalysis(self) -> bool | None:
        try:
            return super()._CB_DoIdleAnalysis()
        finally:
            self._receiver.slice_ended()


class _AnalysisMgr(CDestroyable):
    def __init__(self, receiver: Receiver) -> None:
        super().__init__()
        self.fPrimaryScanName = kPrimaryScanName
        self.fDerivedScanName = kDerivedScanName
        self.fHelperProcessProxy = None
        self._fHelperProcessSupport = None
        self.fPyConfig = _PyConfig()
        self.fLocationDataCache = CLocationDataCache()
        self.fAnalysisFactory = _NoImports()
        self.fInfoCache = _ForwardingCache(receiver)
        self.fInferenceEngine = CInferenceEngine(self.fInfoCache)
        self.fScanCoordinator = _Coordinator(self, receiver)
        self.fScanCoordinator._fScanQueue.SetScansToOrder(
            {kPrimaryScanName: 0, kDerivedScanName: 1}
        )

    def _destroy_impl(self) -> None:
        self.fScanCoordinator.destroy()
        self.fInfoCache.destroy()
        self.fAnalysisFactory.destroy()
        self.fLocationDataCache.destroy()


class HelperHost(CDestroyable):
    """The collaborators of a scheduler whose results go to `receiver`, on the host's main loop.

    One at a time in a process, and in a process without another host.
    """

    def __init__(self, receiver: Receiver) -> None:
        super().__init__()
        table = GetSingletons()
        if table.fAnalysisMgr is not None:
            raise RuntimeError("another host runs in this process already")
        table.fPrefMgr = CPrefMgr()
        attribs = table.fFileAttribMgr = _Attribs(receiver)
        table.fCacheMgr = CCacheMgr(attribs)
        table.fSavableMgr = CSavableMgr()
        self._ana_mgr = table.fAnalysisMgr = _AnalysisMgr(receiver)
        self.coordinator: CScanCoordinator = self._ana_mgr.fScanCoordinator
        self.queue = self.coordinator._fScanQueue

    def incomplete_scopes(self, loc: CLocation) -> list[str]:
        """The scopes of a file that its last scan couldn't read to their end."""
        return sorted(self.coordinator._fIncompleteScansByLoc.pop(loc, ()))

    def _destroy_impl(self) -> None:
        try:
            self._ana_mgr.destroy()
        finally:
            table = GetSingletons()
            table.fAnalysisMgr = None
            table.fCacheMgr = None
            table.fSavableMgr = None
            table.fFileAttribMgr = None
            table.fPrefMgr = None
