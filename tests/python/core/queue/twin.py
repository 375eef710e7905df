"""The scan queue in plain Python: nested dictionaries and sets, no thought for speed or memory.

It is the reference that the tests hold the C++ queue against, and the alternative that
`benchmarks/queue` measures beside it. It speaks to the same host modules by the same names.
"""

import sys
from bisect import bisect_left, insort_left
from collections import namedtuple
from enum import IntEnum
from typing import Any, NamedTuple

import singleton
from guiutils import lgtk
from loombase import location
from loombase.destroyable import CDestroyable
from twin_container import CUsageOrderedDict

kWildcardScope = "*"
kDefaultWholeFilesToCheckCount = 25


class _Priority(IntEnum):
    kTypingModulePriority = 0
    kInteractivePriority = 1
    kBackgroundPriority = 2


kTypingModulePriority = _Priority.kTypingModulePriority
kInteractivePriority = _Priority.kInteractivePriority
kBackgroundPriority = _Priority.kBackgroundPriority

CScanItem = namedtuple("CScanItem", "loc scope_name scan_name priority")

_kNoScan = CScanItem(None, None, None, None)


class _PerLocationInfo(NamedTuple):
    scan_name_counts: dict[str, int]
    pending_dict: dict[tuple[str, str], int]


class _ScanNameCounts(NamedTuple):
    scan_count: int
    file_count: int


class _WaitingForInspect(NamedTuple):
    item_set: set[Any]
    check_whole_file_priority: int | None


class _CSingleScanQueue(CDestroyable):
    """All scans of one priority and order: location to sorted list of scope names."""

    def __init__(self, scan_name: str, priority: int, order: int) -> None:
        CDestroyable.__init__(self)
        self.fScanName = scan_name
        self.fPriority = int(priority)
        self.fOrder = order
        self.fOrderedDict = CUsageOrderedDict()


class _CScanQueue(CDestroyable):
    """Pending scans by priority, scan order and location."""

    def __init__(self, location_data_cache: Any) -> None:
        CDestroyable.__init__(self, ("locations-added", "locations-removed"))
        self.fAnyAsyncInspectLocation = False
        self._fScansToOrder: dict[str, int] = {}
        self._fOrderedQueues: list[_CSingleScanQueue] = []
        self._fPerLocationInfo: dict[Any, _PerLocationInfo] = {}
        self._fPerScanNameCounts: dict[str, _ScanNameCounts] = {}
        self._fCompletedCount: dict[Any, int] = {}
        self._fPendingLocationsAdded: set[Any] = set()
        self._fPendingLocationsRemoved: set[Any] = set()
        self._fSignalEmitIdle: Any = None
        self._fLocationDataCache = location_data_cache

        connect = location_data_cache.connect_while_alive
        connect("now-tree-branch-ready", self._CB_TreeBranchesNowReady, self)
        connect("inspect-failed", self._CB_InspectFailed, self)
        connect("cleared", self._CB_LocReadyCleared, self)

        self._fActiveDocLoc: Any = None
        self._fVisibleDocLocs: set[Any] = set()
        self._fWaitingForInspectByLoc: dict[Any, _WaitingForInspect] = {}
        self._fScanItemsWaitingForData: set[Any] = set()
        self._fGuiMgr: Any = None
        singleton.GetSingletons().connect_while_alive(
            "changed", lgtk.NoArgCallback(self._CB_SingletonChanged), self
        )
        self._fWholeFilesToCheck: dict[Any, int] = {}

    def _destroy_impl(self) -> None:
        self.Clear()
        if self._fSignalEmitIdle is not None:
            lgtk.idle_remove(self._fSignalEmitIdle)

    # -- active and visible documents

    def UpdateForVisibleDocuments(self, active_loc: Any, visible_locs: Any) -> None:
        visible = set(visible_locs)
        if active_loc is not None:
            visible.add(active_loc)
        if active_loc == self._fActiveDocLoc and visible == self._fVisibleDocLocs:
            return
        self._fActiveDocLoc = active_loc
        self._fVisibleDocLocs = visible

        done = set()
        locs = [active_loc] + [loc for loc in self._Walk(visible) if loc != active_loc]
        for loc in reversed(locs):
            info = self._fPerLocationInfo.get(loc)
            if info is None:
                continue
            for (_scope, scan_name), priority in list(info.pending_dict.items()):
                if (scan_name, priority) in done:
                    continue
                done.add((scan_name, priority))
                from_queue = self._GetSingleQueue(scan_name, priority)
                assert from_queue is not None
                if priority <= kInteractivePriority:
                    from_queue.fOrderedDict.get(loc, None, True)
                else:
                    to_queue = self._GetSingleQueue(scan_name, kInteractivePriority)
                    assert to_queue is not None
                    self._MoveScansBetweenQueues(loc, None, from_queue, to_queue)

    def _MoveScansBetweenQueues(
        self, loc: Any, names_to_move: Any, from_queue: Any, to_queue: Any
    ) -> None:
        assert from_queue.fScanName == to_queue.fScanName
        info = self._fPerLocationInfo.get(loc)
        if info is None:
            return
        if names_to_move is None:
            to_move = from_queue.fOrderedDict.pop(loc, None)
        else:
            to_move = []
            from_list = from_queue.fOrderedDict.get(loc, None, False)
            if not from_list:
                for name in names_to_move:
                    i = bisect_left(from_list, name)
                    if i < len(from_list) and from_list[i] == name:
                        to_move.append(name)
                        del from_list[i]
                if not from_list:
                    to_move = from_queue.fOrderedDict.pop(loc, None)
        if not to_move:
            return

        scan_name = to_queue.fScanName
        to_list = to_queue.fOrderedDict.get(loc, None, True)
        if not to_list:
            to_queue.fOrderedDict.Set(loc, to_move, first=True)
        elif to_list[0] == kWildcardScope:
            for name in to_move:
                self._RemoveScanFromPerLocationMap(loc, name, scan_name, from_queue.fPriority)
            return
        elif to_move[0] == kWildcardScope:
            for name in to_list:
                self._RemoveScanFromPerLocationMap(loc, name, scan_name, to_queue.fPriority)
            to_list[:] = [kWildcardScope]
        else:
            for name in to_move:
                insort_left(to_list, name)
        for name in to_move:
            info.pending_dict[(name, scan_name)] = to_queue.fPriority

    def _CB_ActiveDocChanged(self) -> None:
        from edit import editor

        doc = self._fGuiMgr.GetActiveDocument()
        if not isinstance(doc, editor.CSourceEditor):
            return
        active_loc = doc.fCache.fLocation
        visible = self._fGuiMgr.GetDocuments(visible_only=True, include_help=False)
        self.UpdateForVisibleDocuments(active_loc, visible)

    def _CB_SingletonChanged(self) -> None:
        if self._fGuiMgr is not None:
            return
        self._fGuiMgr = singleton.GetSingletons().fGuiMgr
        if self._fGuiMgr is None:
            return
        self._fGuiMgr.connect_while_alive(
            "active-document-changed", lgtk.NoArgCallback(self._CB_ActiveDocChanged), self
        )

    # -- questions

    def Empty(self, include_waiting: bool = True) -> bool:
        if self._fPerLocationInfo:
            return False
        return not include_waiting or not (
            self._fWaitingForInspectByLoc or self._fScanItemsWaitingForData
        )

    def LocationInQueue(self, loc: Any, scan_name: str | None = None) -> bool:
        info = self._fPerLocationInfo.get(loc)
        if info is None:
            return False
        return scan_name is None or scan_name in info.scan_name_counts

    def GetPendingDictForLoc(self, loc: Any) -> dict[tuple[str, str], int] | None:
        info = self._fPerLocationInfo.get(loc)
        return None if info is None else info.pending_dict

    # -- waiting for remote data

    def _MoveScansForLocToWaitingForInspect(
        self, loc: Any, check_whole_file_priority: int | None = None
    ) -> None:
        pending = self.GetPendingDictForLoc(loc)
        if pending is None:
            return
        items = [CScanItem(loc, scope, name, prio) for (scope, name), prio in pending.items()]
        if check_whole_file_priority is None:
            check_whole_file_priority = self._fWholeFilesToCheck.get(loc)
        self.RemoveAllForLocations([loc], remove_waiting=False)
        self._AddItemsWaitingForInspect(loc, items)
        self._SetWholeFileCheckWaitingForInspect(loc, check_whole_file_priority)

    # -- counts

    def GetFileCount(self, scan_name: str | None, priority: int | None) -> int:
        return sum(
            len(queue.fOrderedDict)
            for queue in self._fOrderedQueues
            if (priority is None or queue.fPriority == priority)
            and (scan_name is None or queue.fScanName == scan_name)
        )

    def GetWaitingCount(self) -> int:
        return len(self._fWaitingForInspectByLoc) + len(self._fScanItemsWaitingForData)

    # -- bookkeeping

    def _AddScanToPerLocationMap(
        self, loc: Any, scope_name: str, scan_name: str, priority: int
    ) -> None:
        info = self._fPerLocationInfo.get(loc)
        if info is None:
            info = _PerLocationInfo({}, {})
            self._fPerLocationInfo[loc] = info
            self._UpdatePendingSets({loc}, set())
        key = (scope_name, scan_name)
        assert key not in info.pending_dict
        info.pending_dict[key] = priority
        count = info.scan_name_counts.get(scan_name, 0) + 1
        info.scan_name_counts[scan_name] = count
        scan_count, file_count = self._fPerScanNameCounts.get(scan_name, (0, 0))
        scan_count += 1
        if count == 1:
            file_count += 1
        assert scan_count >= file_count
        self._fPerScanNameCounts[scan_name] = _ScanNameCounts(scan_count, file_count)

    def _RemoveScanFromPerLocationMap(
        self, loc: Any, scope_name: str, scan_name: str, priority: int
    ) -> bool:
        info = self._fPerLocationInfo.get(loc)
        if info is None:
            return False
        key = (scope_name, scan_name)
        if key not in info.pending_dict or info.pending_dict[key] != priority:
            return False
        del info.pending_dict[key]
        if not info.pending_dict:
            del self._fPerLocationInfo[loc]
            self._UpdatePendingSets(None, {loc})
        count = info.scan_name_counts.get(scan_name, 0) - 1
        if count == 0:
            del info.scan_name_counts[scan_name]
        else:
            info.scan_name_counts[scan_name] = count
        if scan_name not in self._fPerScanNameCounts:
            assert False
            return True
        scan_count, file_count = self._fPerScanNameCounts[scan_name]
        scan_count -= 1
        if scan_name not in info.scan_name_counts:
            file_count -= 1
        if scan_count == 0:
            assert file_count == 0
            del self._fPerScanNameCounts[scan_name]
        else:
            assert scan_count >= file_count
            self._fPerScanNameCounts[scan_name] = _ScanNameCounts(scan_count, file_count)
        return True

    def _FindScanPriority(self, loc: Any, scope_name: str, scan_name: str) -> int | None:
        info = self._fPerLocationInfo.get(loc)
        if info is not None:
            return info.pending_dict.get((scope_name, scan_name))
        waiting = self._fWaitingForInspectByLoc.get(loc)
        if waiting is None:
            return None
        if waiting.check_whole_file_priority is not None:
            return waiting.check_whole_file_priority
        for item in waiting.item_set:
            return item.priority
        assert False, "should not be reached"
        return None

    def SetScansToOrder(self, scans_to_order: dict[str, int]) -> None:
        self._fScansToOrder = scans_to_order

    def _GetSingleQueue(self, scan_name: str, priority: int) -> _CSingleScanQueue:
        if __debug__ and scan_name not in self._fScansToOrder:
            print("Scan without order: " + scan_name)
        order = self._fScansToOrder.get(scan_name, 0)
        place = len(self._fOrderedQueues)
        for i, queue in enumerate(self._fOrderedQueues):
            if (queue.fPriority, queue.fOrder) == (priority, order):
                return queue
            if (queue.fPriority, queue.fOrder) > (priority, order):
                place = i
                break
        queue = _CSingleScanQueue(scan_name, priority, order)
        self._fOrderedQueues.insert(place, queue)
        return queue

    # -- how a scan enters

    def AddScanPairs(
        self,
        pair_seq: Any,
        scan_name: str,
        priority: int | None = None,
        add_to_check: bool = False,
    ) -> None:
        if priority is None:
            priority = kBackgroundPriority
        ready = []
        for loc, scope_name in pair_seq:
            if not self.fAnyAsyncInspectLocation and location.IsAsyncInspectLocation(loc):
                self.fAnyAsyncInspectLocation = True
            if self.IsTreeBranchReady(loc):
                ready.append((loc, scope_name))
            else:
                item = CScanItem(loc, scope_name, scan_name, priority)
                self._AddItemsWaitingForInspect(loc, [item])
                if add_to_check:
                    self._SetWholeFileCheckWaitingForInspect(loc, priority)
        if ready:
            self._AddReadyScanPairs(ready, scan_name, priority, add_to_check)

    def PopWholeFilesToCheck(
        self, max_files: int = kDefaultWholeFilesToCheckCount
    ) -> list[tuple[Any, int]] | None:
        if not self._fWholeFilesToCheck:
            return None
        popped: list[tuple[Any, int]] = []
        while len(popped) <= max_files and self._fWholeFilesToCheck:
            popped.append(self._fWholeFilesToCheck.popitem())
        if not self.fAnyAsyncInspectLocation:
            return popped
        ready = []
        for loc, priority in popped:
            if self.IsTreeBranchReady(loc):
                ready.append((loc, priority))
            else:
                self._MoveScansForLocToWaitingForInspect(loc, priority)
        return ready

    def _AddItemsWaitingForInspect(self, loc: Any, item_seq: Any) -> None:
        if loc not in self._fWaitingForInspectByLoc:
            self._fWaitingForInspectByLoc[loc] = _WaitingForInspect(set(), None)
        self._fWaitingForInspectByLoc[loc].item_set.update(item_seq)

    def _SetWholeFileCheckWaitingForInspect(
        self, loc: Any, check_whole_file_priority: int | None
    ) -> None:
        old = self._fWaitingForInspectByLoc.get(loc)
        items = set() if old is None else old.item_set
        self._fWaitingForInspectByLoc[loc] = _WaitingForInspect(items, check_whole_file_priority)

    def _AddReadyScanPairs(
        self, ready_pair_list: Any, scan_name: str, priority: int, add_to_check: bool
    ) -> None:
        queue = self._GetSingleQueue(scan_name, priority)
        for loc, scope_name in ready_pair_list:
            existing = self._FindScanPriority(loc, scope_name, scan_name)
            if existing is not None:
                if existing <= priority:
                    continue
                self.RemoveScanTriple((loc, scope_name, scan_name), existing)
            if scope_name != kWildcardScope:
                existing = self._FindScanPriority(loc, kWildcardScope, scan_name)
                if existing is not None and existing <= priority:
                    continue

            visible = loc in self._fVisibleDocLocs
            scopes = queue.fOrderedDict.get(loc, None, visible)
            if scopes is None:
                queue.fOrderedDict.Set(loc, [scope_name], first=visible)
            elif scopes[0] == kWildcardScope:
                continue
            elif scope_name == kWildcardScope:
                for old in scopes:
                    self._RemoveScanFromPerLocationMap(loc, old, scan_name, priority)
                scopes[:] = [kWildcardScope]
            else:
                i = bisect_left(scopes, scope_name)
                if i < len(scopes) and scopes[i] == scope_name:
                    continue
                scopes.insert(i, scope_name)
            self._AddScanToPerLocationMap(loc, scope_name, scan_name, priority)
            if add_to_check:
                self._fWholeFilesToCheck[loc] = priority

    # -- how the next scan is chosen and how a scan leaves

    def _FirstOrNone(self) -> Any:
        for queue in self._fOrderedQueues:
            first = queue.fOrderedDict._fFirst
            if first is None:
                continue
            if not self.IsTreeBranchReady(first.key):
                self._MoveScansForLocToWaitingForInspect(first.key)
                assert queue.fOrderedDict._fFirst is not first
                return None
            return CScanItem(first.key, first.val[0], queue.fScanName, queue.fPriority)
        return _kNoScan

    def First(self) -> Any:
        while True:
            item = self._FirstOrNone()
            if item is not None:
                return item

    def GetScanCount(self, scan_item: Any) -> int:
        if scan_item.priority is not None:
            scan_item = scan_item._replace(priority=None)
        count = self._fCompletedCount.get(scan_item, 0)
        if scan_item.scope_name != kWildcardScope:
            count += self._fCompletedCount.get(scan_item._replace(scope_name=kWildcardScope), 0)
        return count

    def ScanCompleted(self, scan_item: Any) -> None:
        loc, scope_name, scan_name, priority = scan_item
        key = CScanItem(loc, scope_name, scan_name, None)
        self._fCompletedCount[key] = self._fCompletedCount.get(key, 0) + 1
        self.RemoveScanTriple((loc, scope_name, scan_name), priority)

    def RemoveScanTriple(
        self, scan_triple: Any, priority: int | None = None, remove_waiting: bool = True
    ) -> bool:
        loc, scope_name, scan_name = scan_triple
        if remove_waiting and loc in self._fWaitingForInspectByLoc:
            item_set = self._fWaitingForInspectByLoc[loc].item_set
            if priority is not None:
                to_remove = [CScanItem(loc, scope_name, scan_name, priority)]
            else:
                to_remove = [i for i in item_set if i[1:3] == (scope_name, scan_name)]
            item_set.difference_update(to_remove)
            if not item_set:
                del self._fWaitingForInspectByLoc[loc]
            return bool(to_remove)

        if priority is None:
            priority = self._FindScanPriority(loc, scope_name, scan_name)
            if priority is None:
                return False
        if not self._RemoveScanFromPerLocationMap(loc, scope_name, scan_name, priority):
            return False
        queue = self._GetSingleQueue(scan_name, priority)
        scopes = queue.fOrderedDict.get(loc) or []
        i = bisect_left(scopes, scope_name)
        if i < len(scopes) and scopes[i] == scope_name:
            del scopes[i]
            if not scopes:
                del queue.fOrderedDict[loc]
            return True
        return False

    # -- bulk removal

    def RemoveAllForLocations(
        self, loc_seq: Any, scan_name_set: Any = None, remove_waiting: bool = True
    ) -> None:
        for loc in loc_seq:
            kept = False
            info = self._fPerLocationInfo.get(loc)
            if info is not None:
                for (scope_name, scan_name), priority in self._Walk(info.pending_dict.items()):
                    if scan_name_set is None or scan_name in scan_name_set:
                        triple = (loc, scope_name, scan_name)
                        self.RemoveScanTriple(triple, priority, remove_waiting)
                    else:
                        kept = True
            if remove_waiting and not kept:
                self._fWaitingForInspectByLoc.pop(loc, None)

    def Clear(self) -> None:
        removed = set(self._fPerLocationInfo)
        for queue in self._fOrderedQueues:
            queue.destroy()
        self._fOrderedQueues = []
        self._fPerLocationInfo.clear()
        self._fPerScanNameCounts.clear()
        self._fWaitingForInspectByLoc.clear()
        self._fCompletedCount.clear()
        self._fWholeFilesToCheck.clear()
        self._UpdatePendingSets(None, removed)
        self.fAnyAsyncInspectLocation = False

    # -- readiness

    def _CB_TreeBranchesNowReady(self, data: Any, ready_set: Any) -> None:
        locs = [loc for loc in self._Walk(ready_set) if loc in self._fWaitingForInspectByLoc]
        if not locs:
            return
        groups: dict[tuple[str, int, bool], list[tuple[Any, str]]] = {}
        for loc in locs:
            item_set, check_priority = self._fWaitingForInspectByLoc.pop(loc)
            for item in self._Walk(item_set):
                key = (item.scan_name, item.priority, check_priority is not None)
                groups.setdefault(key, []).append((item.loc, item.scope_name))
        for (scan_name, priority, add_to_check), pairs in groups.items():
            self._AddReadyScanPairs(pairs, scan_name, priority, add_to_check)

    def _CB_InspectFailed(self, loc_data_cache: Any, loc_set: Any) -> None:
        """The scans go on waiting."""

    def _CB_LocReadyCleared(self, loc_data_cache: Any) -> None:
        """The scans go on waiting."""

    def StartWaitingForData(self, scan_item: Any) -> None:
        if scan_item in self._fScanItemsWaitingForData:
            return
        loc, scope_name, scan_name, priority = scan_item
        self.RemoveScanTriple((loc, scope_name, scan_name), priority)
        self._fScanItemsWaitingForData.add(scan_item)

    def FinishedWaitingForData(self, scan_item: Any) -> None:
        if scan_item not in self._fScanItemsWaitingForData:
            return
        self._fScanItemsWaitingForData.remove(scan_item)
        loc, scope_name, scan_name, priority = scan_item
        self.AddScanPairs([(loc, scope_name)], scan_name, priority)

    # -- change signals

    def _UpdatePendingSets(self, added_set: Any, removed_set: Any) -> None:
        if added_set:
            common = {loc for loc in self._fPendingLocationsRemoved if loc in added_set}
            self._fPendingLocationsRemoved -= common
            self._fPendingLocationsAdded |= set(added_set) - common
        if removed_set:
            self._fPendingLocationsRemoved |= removed_set
        if self._fSignalEmitIdle is None:
            self._fSignalEmitIdle = lgtk.idle_add(self._SignalEmitIdle)

    def _SignalEmitIdle(self) -> None:
        added, self._fPendingLocationsAdded = self._fPendingLocationsAdded, set()
        removed, self._fPendingLocationsRemoved = self._fPendingLocationsRemoved, set()
        self._fSignalEmitIdle = None
        if added:
            self.emit("locations-added", self, added)
        if removed:
            self.emit("locations-removed", self, removed)

    def IsTreeBranchReady(self, leaf_loc: Any) -> bool:
        if not self.fAnyAsyncInspectLocation:
            return True
        if not location.IsAsyncInspectLocation(leaf_loc):
            return True
        return bool(self._fLocationDataCache.TreeBranchReady(leaf_loc, True))

    def GetAllLocations(self) -> set[Any]:
        return set(self._fPerLocationInfo) | set(self._fWaitingForInspectByLoc)

    def PrintScanQueues(self, write: Any = None, limit: int = 100) -> None:
        if write is None:
            write = sys.stdout.write

        def write_for_loc(loc: Any, name_list: list[str], loc_limit: int) -> int:
            write("  %r\n" % (loc,))
            loc_lines_written = 1
            for name in name_list:
                if loc_lines_written >= loc_limit:
                    write("    ...\n")
                    return loc_lines_written
                write(f"    {name}\n")
                loc_lines_written += 1
            return loc_lines_written

        lines_written = 0
        write("_CScanQueue contents:\n")
        for queue in self._fOrderedQueues:
            count = len(queue.fOrderedDict)
            write(f" Scan queue for {queue.fScanName}; priority={queue.fPriority} count={count}\n")
            all_written = False
            entries = iter(queue.fOrderedDict.items())
            while not all_written and lines_written < limit:
                entry = next(entries, None)
                if entry is None:
                    all_written = True
                else:
                    lines_written += write_for_loc(*entry, limit - lines_written)
            if not all_written:
                write("  ...\n")
        self.__print_waiting(write, limit)

    def __print_waiting(self, write: Any, limit: int) -> None:
        if self._fWaitingForInspectByLoc:
            count = len(self._fWaitingForInspectByLoc)
            write(f"Waiting for {count} remote files to be inspected")
            for loc in list(self._fWaitingForInspectByLoc)[:limit]:
                write("  File: %r\n" % (loc,))
            if count >= limit:
                write("  ...\n")
        if self._fScanItemsWaitingForData:
            count = len(self._fScanItemsWaitingForData)
            write(f"Waiting for remote on {count} scans\n")
            for item in list(self._fScanItemsWaitingForData)[:limit]:
                write("  Scan: %r\n" % (item,))
            if count >= limit:
                write("  ...\n")

    def _Walk(self, entries: Any) -> list[Any]:
        """A snapshot of a container whose order nobody promises; the state machine permutes it."""
        return list(entries)
