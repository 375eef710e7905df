"""The background scan scheduler: which files and scopes are scanned, in which order and when.

Everything runs on the thread of the host's main loop. A location is the host's file location object,
usable as a key. A pair is (location, scope name), a triple (location, scope name, scan name); the
scope name "*" means the whole file. Times are seconds on the scale of
`pysource._fastaccess.GetNowTime`, an `end_time` is a moment on it. Failures of the host's
collaborators pass through unchanged. An argument of the wrong type is a TypeError; a sequence that
doesn't unpack fails as Python's own unpacking does.

What a field yields may be a copy made at the read; a reader must not change it.
"""

from collections.abc import Callable, Collection, Hashable, Iterable, Mapping, Sequence, Set as AbstractSet
from enum import IntEnum
from typing import Any, Final, Literal, NamedTuple, type_check_only

from loombase.destroyable import CDestroyable
from typing_extensions import disjoint_base

from pysource._fastaccess import CLogger
from pysource.usageordereddict import CUsageOrderedDict

type _Location = Hashable
type _Pair = tuple[_Location, str]
type _Triple = tuple[_Location, str, str]

class ScanPriority(IntEnum):
    """How urgent a scan is: a lower priority runs earlier."""

    kTypingModulePriority = 0
    kInteractivePriority = 1
    kBackgroundPriority = 2

kTypingModulePriority: Final = ScanPriority.kTypingModulePriority
"""Typing modules and other basic modules, ahead of all else."""
kInteractivePriority: Final = ScanPriority.kInteractivePriority
"""What the user looks at or waits for."""
kBackgroundPriority: Final = ScanPriority.kBackgroundPriority
"""All the rest; the default."""
kMinSecondsBetweenScans: Final = 5.0
"""Seconds for which a completed scan isn't repeated."""
kDefaultWholeFilesToCheckCount: Final = 25
"""Files taken for a check at a time, less one."""

class CScanItem(NamedTuple):
    """One queued scan. Four Nones stand for no scan; without a priority it is a key of counts."""

    loc: Any
    scope_name: str | None
    scan_name: str | None
    priority: int | None

class CSingleQueueStatus(NamedTuple):
    """How many files one single queue holds."""

    scan_name: str
    priority: int
    file_count: int

class CScanStatus(NamedTuple):
    """The single queues that aren't empty, in the order of service, and the number that wait."""

    queue_status_list: list[CSingleQueueStatus]
    waiting_count: int

@type_check_only
class _PerLocationInfo(NamedTuple):
    scan_name_counts: dict[str, int]
    pending_dict: dict[tuple[str, str], int]

@type_check_only
class _ScanNameCounts(NamedTuple):
    scan_count: int
    file_count: int

@type_check_only
class _WaitingForInspect(NamedTuple):
    item_set: set[CScanItem]
    check_whole_file_priority: int | None

@disjoint_base
class _CSingleScanQueue(CDestroyable):
    """One queue in which all scans have the same priority and order. Made by `_CScanQueue`."""

    def __init__(self, scan_name: str, priority: int, order: int) -> None: ...
    @property
    def fScanName(self) -> str:
        """The scan name that the queue was made for."""
    @property
    def fPriority(self) -> int:
        """The priority of its scans."""
    @property
    def fOrder(self) -> int:
        """The order of its scans within the priority."""
    @property
    def fOrderedDict(self) -> CUsageOrderedDict[Any, list[str]]:
        """Location to sorted list of scope names, from first to last; a copy."""

@disjoint_base
class _CScanQueue(CDestroyable):
    """The in-memory queue of pending scans, by priority, scan order and location.

    Emits "locations-added" and "locations-removed" in idle, each with the queue and a set of
    locations.
    """

    def __init__(self, location_data_cache: Any) -> None: ...
    def _destroy_impl(self) -> None: ...
    def UpdateForVisibleDocuments(self, active_loc: _Location | None, visible_locs: Iterable[_Location]) -> None:
        """Bring the scans of the documents in view to the front."""
    def _MoveScansBetweenQueues(
        self,
        loc: _Location,
        names_to_move: Collection[str] | None,
        from_queue: _CSingleScanQueue,
        to_queue: _CSingleScanQueue,
    ) -> None:
        """Move scans of a location between two single queues; ValueError for queues of another queue."""
    def _CB_ActiveDocChanged(self) -> None: ...
    def _CB_SingletonChanged(self) -> None: ...
    def Empty(self, include_waiting: bool = True) -> bool:
        """Whether no scan is queued, nor, with include_waiting, waits for anything."""
    def LocationInQueue(self, loc: _Location, scan_name: str | None = None) -> bool:
        """Whether scans of the location are queued. Those that wait don't count."""
    def GetPendingDictForLoc(self, loc: _Location) -> dict[tuple[str, str], int] | None:
        """(scope_name, scan_name) to priority of the location's queued scans, or None."""
    def _MoveScansForLocToWaitingForInspect(
        self, loc: _Location, check_whole_file_priority: int | None = None
    ) -> None: ...
    def GetFileCount(self, scan_name: str | None, priority: int | None) -> int:
        """Number of locations in the single queues of that name and priority; None is any."""
    def GetWaitingCount(self) -> int:
        """Number of locations that wait for inspection plus scans that wait for data."""
    def _AddScanToPerLocationMap(
        self, loc: _Location, scope_name: str, scan_name: str, priority: int
    ) -> None: ...
    def _RemoveScanFromPerLocationMap(
        self, loc: _Location, scope_name: str, scan_name: str, priority: int
    ) -> bool: ...
    def _FindScanPriority(self, loc: _Location, scope_name: str, scan_name: str) -> int | None: ...
    def SetScansToOrder(self, scans_to_order: Mapping[str, int]) -> None:
        """Keep the mapping from scan name to order number. Moves nothing that is queued."""
    def _GetSingleQueue(self, scan_name: str, priority: int) -> _CSingleScanQueue: ...
    def AddScanPairs(
        self, pair_seq: Iterable[_Pair], scan_name: str, priority: int | None = None, add_to_check: bool = False
    ) -> None:
        """Add scans; one that is queued already moves if this priority is earlier.

        priority: None means kBackgroundPriority. add_to_check: a whole-file check of each added
        file is due.
        """
    def PopWholeFilesToCheck(self, max_files: int = 25) -> list[tuple[Any, int]] | None:
        """Take up to max_files + 1 due checks, newest first; None if none is due."""
    def _AddItemsWaitingForInspect(self, loc: _Location, item_seq: Iterable[CScanItem]) -> None: ...
    def _SetWholeFileCheckWaitingForInspect(
        self, loc: _Location, check_whole_file_priority: int | None
    ) -> None: ...
    def _AddReadyScanPairs(
        self, ready_pair_list: Iterable[_Pair], scan_name: str, priority: int, add_to_check: bool
    ) -> None: ...
    def _FirstOrNone(self) -> CScanItem | None: ...
    def First(self) -> CScanItem:
        """The next scan, which stays queued. Four Nones if there is none."""
    def GetScanCount(self, scan_item: CScanItem) -> int:
        """How often a scan was completed; a completed "*" counts for every scope."""
    def ScanCompleted(self, scan_item: CScanItem) -> None:
        """Count the completion of a scan and remove it, if it is still queued."""
    def RemoveScanTriple(
        self, scan_triple: _Triple, priority: int | None = None, remove_waiting: bool = True
    ) -> bool:
        """Remove a scan at a priority, or at any; returns whether it was there.

        With remove_waiting, while the location waits for inspection, only the waiting scans are
        dealt with, and the result of a call with a priority is true.
        """
    def RemoveAllForLocations(
        self, loc_seq: Iterable[_Location], scan_name_set: Collection[str] | None = None, remove_waiting: bool = True
    ) -> None:
        """Remove all scans of the locations, or those of some scan names."""
    def Clear(self) -> None:
        """Empty the queue, apart from scans that wait for data."""
    def _CB_TreeBranchesNowReady(self, data: Any, ready_set: Iterable[_Location]) -> None: ...
    def _CB_InspectFailed(self, loc_data_cache: Any, loc_set: Any) -> None: ...
    def _CB_LocReadyCleared(self, loc_data_cache: Any) -> None: ...
    def StartWaitingForData(self, scan_item: CScanItem) -> None:
        """Park a scan whose scanner waits for data."""
    def FinishedWaitingForData(self, scan_item: CScanItem) -> None:
        """Queue a parked scan again; an unknown one is ignored."""
    def _UpdatePendingSets(
        self, added_set: AbstractSet[_Location] | None, removed_set: AbstractSet[_Location] | None
    ) -> None: ...
    def _SignalEmitIdle(self) -> None: ...
    def IsTreeBranchReady(self, leaf_loc: _Location) -> bool:
        """Whether the location can be scanned without waiting for inspection."""
    def GetAllLocations(self) -> set[Any]:
        """A new set of the queued locations and of those that wait for inspection."""
    def PrintScanQueues(self, write: Callable[[str], object] | None = None, limit: int = 100) -> None:
        """Write the state of the queue, by default to sys.stdout. limit: lines for the scans."""
    @property
    def fAnyAsyncInspectLocation(self) -> bool: ...
    @property
    def _fScansToOrder(self) -> Mapping[str, int]: ...
    @property
    def _fOrderedQueues(self) -> list[_CSingleScanQueue]: ...
    @property
    def _fPerLocationInfo(self) -> dict[Any, _PerLocationInfo]: ...
    @property
    def _fPerScanNameCounts(self) -> dict[str, _ScanNameCounts]: ...
    @property
    def _fCompletedCount(self) -> dict[CScanItem, int]: ...
    @property
    def _fPendingLocationsAdded(self) -> set[Any]: ...
    @property
    def _fPendingLocationsRemoved(self) -> set[Any]: ...
    @property
    def _fSignalEmitIdle(self) -> Any: ...
    @property
    def _fLocationDataCache(self) -> Any: ...
    @property
    def _fWaitingForInspectByLoc(self) -> dict[Any, _WaitingForInspect]: ...
    @property
    def _fScanItemsWaitingForData(self) -> set[CScanItem]: ...
    @property
    def _fActiveDocLoc(self) -> Any: ...
    @property
    def _fVisibleDocLocs(self) -> set[Any]: ...
    @property
    def _fGuiMgr(self) -> Any: ...
    @property
    def _fWholeFilesToCheck(self) -> dict[Any, int]: ...

@disjoint_base
class CScanCoordinator(CDestroyable):
    """Coordinates the scanning of files.

    Emits "scheduled" and "end" without arguments, "scan-status-update" with the coordinator and a
    CScanStatus, and "modtimes-updated" with a mapping from location to modification time.
    """

    def __init__(self, idle_priority: int, ana_mgr: Any) -> None:
        """idle_priority: 32 bits, on the scale of the host's idle_add; OverflowError beyond.

        ana_mgr: the analysis manager; TypeError if its fInfoCache is no CInfoCache.
        """
    def Quitting(self) -> None:
        """Tell that the host is going down: the next idle call ends itself."""
    def _destroy_impl(self) -> None: ...
    def SuspendIdleScans(self) -> None:
        """Stop idle scanning until the matching ResumeIdleScans."""
    def ResumeIdleScans(self) -> None: ...
    def GetStatus(self) -> CScanStatus: ...
    def _CB_ActiveEditLinenoChanged(self, ana: Any, new_lineno: int) -> None: ...
    def _CB_NeedsScanAdded(
        self, info_cache: Any, needs_scan_added: Iterable[_Triple], priority: int | None
    ) -> None: ...
    def AddNeedsScanSetToQueues(self, needs_scan_set: Iterable[_Triple]) -> None:
        """Queue the scans of a set of triples."""
    def TryToScanDictNow(
        self, for_loc: Any, for_scope: Any, needs_scan_set: Collection[_Triple], end_time: float
    ) -> bool:
        """Run the primary scans of a set of triples now, and queue the secondary ones.

        end_time: deadline in seconds of time.time(). Returns whether the caller should fetch the
        information again. for_loc and for_scope are not used.
        """
    def TryToScanNow(
        self,
        loc: _Location,
        scope_name: str,
        scan_name_list: Sequence[str] | None,
        end_time: float,
        do_secondary: bool = True,
    ) -> Any:
        """Scan one scope now.

        (False, None, None) if the file doesn't exist, (True, None, None) if its contents aren't
        available yet, a CScopeInfo or None for an instance scope, otherwise None. do_secondary has
        no effect.
        """
    def _TryToScanInstanceScopeNow(self, loc: _Location, scope_name: str, end_time: float) -> Any: ...
    def BuildInstanceScopeNoScanning(self, loc: _Location, scope_name: str, end_time: float) -> Any:
        """The CScopeInfo of an instance scope from what the cache holds; queues what is missing."""
    def _QueueBasicModules(self, end_time: float) -> None: ...
    def QueuesEmpty(self, include_waiting: bool = True) -> bool:
        """Whether nothing is queued, here or with the helper process."""
    def AddParseablesToQueue(self, loc_seq: Iterable[_Location], priority: int | None = 2) -> None:
        """Queue whole-file scans of those locations that the analysis can read."""
    def _CanSendToHelperProcess(self, loc: _Location, scope_name: str) -> bool: ...
    def AddPairsToPrimaryQueue(
        self, pairs: Iterable[_Pair], first: bool = True, priority: int | None = None
    ) -> None:
        """Queue primary scans.

        Without a priority that of the running scan is taken, or else interactive if first is true,
        background if not.
        """
    def AddPairsToSecondaryQueue(
        self, pairs: Iterable[_Pair], first: bool = True, priority: int | None = None
    ) -> None:
        """Queue secondary scans of the files that want derived information."""
    def _CB_QueueLocationsAdded(self, queue: Any, added: Any) -> None: ...
    def _ScheduleIdle(self) -> None: ...
    def _CancelIdle(self) -> None: ...
    def LocationInPrimaryScanQueue(self, loc: _Location) -> bool: ...
    def LocationInSecondaryScanQueue(self, loc: _Location) -> bool: ...
    def LocationInScanQueues(self, loc: _Location) -> bool: ...
    def RemoveLocationsFromQueue(self, to_remove: Iterable[_Location]) -> None: ...
    def FlushQueue(self) -> None:
        """Remove everything that is scheduled, as on a change of project."""
    def _CB_DoIdleAnalysis(self) -> bool | None: ...
    def __GetAnalysis(self, loc: _Location, create: bool) -> Any: ...
    def __CheckWholeFiles(self, end_time: float) -> bool: ...
    def __DoScans(self, end_time: float) -> None: ...
    def _DoSingleScan(self, scan_item: CScanItem, end_time: float) -> bool: ...
    def __GetModtimeDict(self, loc_seq: Iterable[_Location]) -> dict[Any, Any]: ...
    def __DoPrimarySingleScopeScan(self, scan_item: CScanItem, end_time: float) -> bool: ...
    def __DoPrimaryWholeFileScan(self, scan_item: CScanItem, end_time: float) -> bool: ...
    def __DoSecondaryWholeFileScan(self, scan_item: CScanItem, end_time: float) -> bool: ...
    def __DoSecondarySingleScopeScan(self, loc: _Location, scope_name: str, end_time: float) -> bool: ...
    def _CB_UpdateStatus(self) -> bool: ...
    def __EnsureStatusTimeout(self) -> None: ...
    def _ScheduleWriteToDatabaseIdle(self) -> None: ...
    def _CB_WriteToDatabase(self) -> None: ...
    def _UpdateForHelperProcess(self) -> None:
        """To be called by the host when the helper process has started or gone."""
    def _WaitForScannerToBeReady(self, scanner: Any, scan_item: CScanItem) -> None: ...
    def __AddImportEquivsToQueue(
        self, imported_equivs: Iterable[bytes | str], dirloc: _Location, priority: int
    ) -> None: ...
    def __GetModtimes(
        self,
        loc_seq: Iterable[_Location],
        completion_cb: Callable[[dict[Any, Any]], object],
        force: bool = False,
    ) -> None:
        """Call completion_cb(modtime_dict) once all locations are inspected; never if that is aborted."""
    def ClearLastScanInfo(self, loc_iterable: Iterable[_Location]) -> None:
        """Forget when the locations were last scanned and checked."""
    @property
    def fAnaMgr(self) -> Any: ...
    @property
    def _fInfoCache(self) -> Any: ...
    @property
    def _fInferenceEngine(self) -> Any: ...
    @property
    def fPrefMgr(self) -> Any: ...
    @property
    def fCacheMgr(self) -> Any: ...
    @property
    def fSingletons(self) -> Any: ...
    @property
    def _fScanQueue(self) -> _CScanQueue: ...
    @property
    def __fActiveLoc(self) -> Any: ...
    @property
    def __fActivePrimaryWholeFileScanners(self) -> dict[Any, Any]: ...
    @property
    def __fActivePrimarySingleScopeScanners(self) -> dict[tuple[Any, str], Any]: ...
    @property
    def __fActiveSecondaryWholeFileScanners(self) -> dict[Any, Any]: ...
    @property
    def __fActiveSecondarySingleScopeScanners(self) -> dict[tuple[Any, str], Any]: ...
    @property
    def _fIncompleteScansByLoc(self) -> dict[Any, set[str]]:
        """Live: the scanners fill its sets, and a read of a missing key creates one."""
    @property
    def _fCompletedScanCount(self) -> dict[Any, Any]: ...
    @property
    def _fIdleProcId(self) -> Any: ...
    @property
    def _fMTimeAtLastWholeFileCheck(self) -> dict[Any, Any]: ...
    @property
    def fIdlePriority(self) -> int: ...
    @property
    def __fCompletedLocs(self) -> set[Any]: ...
    @property
    def __fStatusTimeout(self) -> Any: ...
    @property
    def _fLastScanCompleted(self) -> dict[Any, dict[tuple[str, str], float]]: ...
    @property
    def __fQuitting(self) -> bool: ...
    @property
    def _fAllBasicModuleQueued(self) -> bool: ...
    @property
    def _fAnalyzeFoundImports(self) -> bool:
        """Whether the modules that a scan found imported are queued. The one writable field."""
    @_fAnalyzeFoundImports.setter
    def _fAnalyzeFoundImports(self, value: object) -> None: ...
    @property
    def _fRemoteLocationsReady(self) -> set[Any]: ...
    @property
    def _fActiveScanNowTriples(self) -> set[_Triple]: ...
    @property
    def _fPendingScanNowTriples(self) -> set[_Triple]: ...
    @property
    def fActiveScanItem(self) -> CScanItem | None: ...
    @property
    def _fScanTripleCompletedCount(self) -> dict[_Triple, int]: ...
    @property
    def fLog(self) -> CLogger: ...
    @property
    def _fActiveIdleStart(self) -> float: ...
    @property
    def _fLastLogQueue(self) -> float: ...
    @property
    def fWaitingForRemote(self) -> bool: ...
    @property
    def _fLocsQueuedInHelper(self) -> set[Any]: ...
    @property
    def _fIdleToWriteToDatabase(self) -> Any: ...
    @property
    def _fHelperCallbackObjConnected(self) -> Any: ...
    @property
    def _fIdleScanSuspendCount(self) -> int: ...
