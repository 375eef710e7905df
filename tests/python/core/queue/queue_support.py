"""What the queue's tests share: both implementations, collaborators, locations, looking inside."""

import importlib
import inspect
from collections import Counter
from typing import Any

import hostlog
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CRemoteFileLocation

kPrimary = "primary"
kDerived = "derived"
kOrders = {kPrimary: 1, kDerived: 2}

# The virtual operations, in the order of their slots, with their argument names.
kVirtualOperations: dict[str, tuple[str, ...]] = {
    "_destroy_impl": (),
    "UpdateForVisibleDocuments": ("active_loc", "visible_locs"),
    "_MoveScansBetweenQueues": ("loc", "names_to_move", "from_queue", "to_queue"),
    "_CB_ActiveDocChanged": (),
    "_CB_SingletonChanged": (),
    "Empty": ("include_waiting",),
    "LocationInQueue": ("loc", "scan_name"),
    "GetPendingDictForLoc": ("loc",),
    "_MoveScansForLocToWaitingForInspect": ("loc", "check_whole_file_priority"),
    "GetFileCount": ("scan_name", "priority"),
    "GetWaitingCount": (),
    "_AddScanToPerLocationMap": ("loc", "scope_name", "scan_name", "priority"),
    "_RemoveScanFromPerLocationMap": ("loc", "scope_name", "scan_name", "priority"),
    "_FindScanPriority": ("loc", "scope_name", "scan_name"),
    "SetScansToOrder": ("scans_to_order",),
    "_GetSingleQueue": ("scan_name", "priority"),
    "AddScanPairs": ("pair_seq", "scan_name", "priority", "add_to_check"),
    "PopWholeFilesToCheck": ("max_files",),
    "_AddItemsWaitingForInspect": ("loc", "item_seq"),
    "_SetWholeFileCheckWaitingForInspect": ("loc", "check_whole_file_priority"),
    "_AddReadyScanPairs": ("ready_pair_list", "scan_name", "priority", "add_to_check"),
    "_FirstOrNone": (),
    "First": (),
    "GetScanCount": ("scan_item",),
    "ScanCompleted": ("scan_item",),
    "RemoveScanTriple": ("scan_triple", "priority", "remove_waiting"),
    "RemoveAllForLocations": ("loc_seq", "scan_name_set", "remove_waiting"),
    "Clear": (),
    "_CB_TreeBranchesNowReady": ("data", "ready_set"),
    "_CB_InspectFailed": ("loc_data_cache", "loc_set"),
    "_CB_LocReadyCleared": ("loc_data_cache",),
    "StartWaitingForData": ("scan_item",),
    "FinishedWaitingForData": ("scan_item",),
    "_UpdatePendingSets": ("added_set", "removed_set"),
    "_SignalEmitIdle": (),
    "IsTreeBranchReady": ("leaf_loc",),
    "GetAllLocations": (),
}

# All fields, in declared order.
kFields = (
    "fAnyAsyncInspectLocation",
    "_fScansToOrder",
    "_fOrderedQueues",
    "_fPerLocationInfo",
    "_fPerScanNameCounts",
    "_fCompletedCount",
    "_fPendingLocationsAdded",
    "_fPendingLocationsRemoved",
    "_fSignalEmitIdle",
    "_fLocationDataCache",
    "_fWaitingForInspectByLoc",
    "_fScanItemsWaitingForData",
    "_fActiveDocLoc",
    "_fVisibleDocLocs",
    "_fGuiMgr",
    "_fWholeFilesToCheck",
)


def implementation(name: str) -> Any:
    """The module that holds the queue: "cpp" or "twin"."""
    return importlib.import_module({"cpp": "pysource.scancoordinator", "twin": "twin"}[name])


class FakeLocationDataCache(CDestroyable):
    """Readiness by the set `ready`; each question is noted in the host's log."""

    def __init__(self) -> None:
        super().__init__(("now-tree-branch-ready", "inspect-failed", "cleared"))
        self.ready: set[Any] = set()

    def TreeBranchReady(self, leaf_loc: Any, flag: Any) -> Any:
        hostlog.note("TreeBranchReady", leaf_loc, flag)
        return leaf_loc in self.ready

    def make_ready(self, *locs: Any) -> None:
        """The branches become ready, and the signal says so."""
        self.ready.update(locs)
        self.emit("now-tree-branch-ready", self, set(locs))


class FakeGuiMgr(CDestroyable):
    """Active and visible documents as told."""

    def __init__(self) -> None:
        super().__init__(("active-document-changed",))
        self.active: Any = None
        self.visible: list[Any] = []

    def GetActiveDocument(self) -> Any:
        hostlog.note("GetActiveDocument")
        return self.active

    def GetDocuments(self, *args: Any, **kwargs: Any) -> list[Any]:
        hostlog.note("GetDocuments", *args, **kwargs)
        return self.visible

    def show(self, active: Any, *visible: Any) -> None:
        """Another document becomes active."""
        self.active, self.visible = active, list(visible)
        self.emit("active-document-changed", self, "more", "arguments")


def local(name: str) -> Any:
    """The local location of that name."""
    return CLocalFileLocation.at(f"file:///{name}.py")


def remote(name: str) -> Any:
    """The remote location of that name."""
    return CRemoteFileLocation.at(f"ssh://host/{name}.py")


def order_of(queue: Any) -> list[tuple[int, int]]:
    """(priority, order) of each single queue."""
    return [(q.fPriority, q.fOrder) for q in queue._fOrderedQueues]


def scopes_in(queue: Any, priority: int, order: int = 1) -> list[tuple[Any, list[str]]]:
    """The (location, scopes) of one single queue, from first to last; empty if there is none."""
    for single in queue._fOrderedQueues:
        if (single.fPriority, single.fOrder) == (priority, order):
            return [(loc, list(scopes)) for loc, scopes in single.fOrderedDict.items()]
    return []


def pending(queue: Any, loc: Any) -> dict[tuple[str, str], int]:
    """The location's pending scans, empty if it has none."""
    return dict(queue.GetPendingDictForLoc(loc) or {})


def totals(queue: Any, scan_name: str = kPrimary) -> tuple[int, int]:
    """(scan_count, file_count) of a scan name."""
    return tuple(queue._fPerScanNameCounts.get(scan_name, (0, 0)))


def waiting(queue: Any, loc: Any) -> tuple[set[Any], Any] | None:
    """What waits for the inspection of a location: (items as tuples, check priority) or none."""
    record = queue._fWaitingForInspectByLoc.get(loc)
    if record is None:
        return None
    item_set, check_priority = record
    return {tuple(item) for item in item_set}, check_priority


def state(queue: Any) -> dict[str, Any]:
    """All visible state as plain values. Priorities are plain numbers, mappings have no order."""
    return {
        "async": queue.fAnyAsyncInspectLocation,
        "orders": dict(queue._fScansToOrder),
        "queues": [
            (
                q.fScanName,
                int(q.fPriority),
                int(q.fOrder),
                [(loc, list(scopes)) for loc, scopes in q.fOrderedDict.items()],
            )
            for q in queue._fOrderedQueues
        ],
        "locations": {
            loc: (dict(info.scan_name_counts), dict(info.pending_dict))
            for loc, info in queue._fPerLocationInfo.items()
        },
        "totals": {name: tuple(c) for name, c in queue._fPerScanNameCounts.items()},
        "completed": {tuple(item): n for item, n in queue._fCompletedCount.items()},
        "added": set(queue._fPendingLocationsAdded),
        "removed": set(queue._fPendingLocationsRemoved),
        "idle": queue._fSignalEmitIdle is not None,
        "inspect": {loc: waiting(queue, loc) for loc in queue._fWaitingForInspectByLoc},
        "data": {tuple(item) for item in queue._fScanItemsWaitingForData},
        "active": queue._fActiveDocLoc,
        "visible": set(queue._fVisibleDocLocs),
        "gui": queue._fGuiMgr,
        "checks": list(queue._fWholeFilesToCheck.items()),
    }


def complete_first(queue: Any) -> Any:
    """Take the next scan out as a finished one; returns its item, or that of four nones."""
    item = queue.First()
    if item.loc is not None:
        queue.ScanCompleted(item)
    return item


def check_invariants(queue: Any) -> None:
    """What holds between operations while each scan name has one order of its own for good."""
    infos = dict(queue._fPerLocationInfo)
    queued = {}
    for single in queue._fOrderedQueues:
        for loc, scopes in single.fOrderedDict.items():
            assert scopes, f"{loc} stays in a single queue without scopes"
            assert list(scopes) == sorted(set(scopes)), f"{scopes} isn't sorted and distinct"
            assert "*" not in scopes or list(scopes) == ["*"], f"{scopes} beside the wildcard"
            for scope in scopes:
                key = (loc, scope, single.fScanName)
                assert key not in queued, f"{key} is queued twice"
                queued[key] = single.fPriority
    known = {}
    for loc, info in infos.items():
        assert info.pending_dict, f"{loc} has an empty record"
        counts = Counter(name for _scope, name in info.pending_dict)
        assert dict(info.scan_name_counts) == dict(counts), f"counts of {loc}"
        for (scope, name), priority in info.pending_dict.items():
            known[(loc, scope, name)] = priority
    assert known == queued, "the map and the single queues differ"
    scan_counts = Counter(name for _loc, _scope, name in known)
    file_counts = Counter(name for info in infos.values() for name in info.scan_name_counts)
    expected = {name: (scan_counts[name], file_counts[name]) for name in scan_counts}
    actual = {name: tuple(counts) for name, counts in queue._fPerScanNameCounts.items()}
    assert actual == expected, "the totals differ from the records"
    assert all(scans >= files for scans, files in actual.values())
    orders = order_of(queue)
    assert orders == sorted(set(orders)), f"single queues out of order: {orders}"


def spying(cls: type, log: list[tuple[str, tuple[Any, ...]]]) -> type:
    """A subclass that overrides each virtual operation, logs (name, arguments) and goes on.

    Arguments are bound by name: an override that is called with others than it declares fails.
    """

    def override(name: str) -> Any:
        signature = inspect.Signature(
            [inspect.Parameter("self", _kArgument)]
            + [
                inspect.Parameter(arg, _kArgument, default=kDefaults.get(name, {}).get(arg, _kNo))
                for arg in kVirtualOperations[name]
            ]
        )
        inherited = getattr(cls, name)

        def operation(*args: Any, **kwargs: Any) -> Any:
            bound = signature.bind(*args, **kwargs)
            bound.apply_defaults()
            self, *rest = bound.args
            log.append((name, tuple(plain(value) for value in rest)))
            return inherited(self, *rest)

        operation.__name__ = name
        return operation

    return type("Spying", (cls,), {name: override(name) for name in kVirtualOperations})


_kArgument = inspect.Parameter.POSITIONAL_OR_KEYWORD
_kNo = inspect.Parameter.empty

# Defaults of arguments, by operation.
kDefaults: dict[str, dict[str, Any]] = {
    "Empty": {"include_waiting": True},
    "LocationInQueue": {"scan_name": None},
    "_MoveScansForLocToWaitingForInspect": {"check_whole_file_priority": None},
    "AddScanPairs": {"priority": None, "add_to_check": False},
    "PopWholeFilesToCheck": {"max_files": 25},
    "RemoveScanTriple": {"priority": None, "remove_waiting": True},
    "RemoveAllForLocations": {"scan_name_set": None, "remove_waiting": True},
}


def plain(value: Any) -> Any:
    """A value to compare: single queues by (priority, order), caches by kind, containers copied.

    A list of scan items, whose order nobody promises, becomes a set.
    """
    if hasattr(value, "fOrderedDict"):
        return ("single queue", int(value.fPriority), int(value.fOrder))
    if isinstance(value, FakeLocationDataCache):
        return "location data cache"
    if isinstance(value, list) and value and hasattr(value[0], "scope_name"):
        return {plain(v) for v in value}
    if isinstance(value, tuple):
        return tuple(plain(v) for v in value)
    if isinstance(value, list):
        return [plain(v) for v in value]
    if isinstance(value, set | frozenset):
        return {plain(v) for v in value}
    if isinstance(value, dict):
        return {plain(k): plain(v) for k, v in value.items()}
    return value
