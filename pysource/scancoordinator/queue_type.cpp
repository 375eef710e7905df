// The queue as Python sees it.

#include "host/destroyable.h"
#include "pysource/scancoordinator/dispatch.h"
#include "pysource/scancoordinator/scan_queue.h"
#include "pysource/scancoordinator/types.h"

namespace pysource {
namespace {

#define DISPATCH(...) PYSOURCE_DISPATCH(_CScanQueue, __VA_ARGS__)
#define METHOD(...) PYSOURCE_METHOD(_CScanQueue, __VA_ARGS__)

// In the order of the slots.
class QueueDispatcher final : public _CScanQueue {
 public:
  using _CScanQueue::_CScanQueue;

  DISPATCH(void, _destroy_impl, ())
  DISPATCH(void, UpdateForVisibleDocuments, (const Object& active_loc, const Object& visible_locs),
           active_loc, visible_locs)
  DISPATCH(void, _MoveScansBetweenQueues,
           (const Location& loc, const Object& names_to_move, const Object& from_queue,
            const Object& to_queue),
           loc, names_to_move, from_queue, to_queue)
  DISPATCH(void, _CB_ActiveDocChanged, ())
  DISPATCH(void, _CB_SingletonChanged, ())
  DISPATCH(bool, Empty, (bool include_waiting), include_waiting)
  DISPATCH(bool, LocationInQueue, (const Location& loc, const std::optional<Text>& scan_name), loc,
           scan_name)
  DISPATCH(Object, GetPendingDictForLoc, (const Location& loc), loc)
  DISPATCH(void, _MoveScansForLocToWaitingForInspect,
           (const Location& loc, MaybePriority check_whole_file_priority), loc,
           check_whole_file_priority)
  DISPATCH(std::int64_t, GetFileCount,
           (const std::optional<Text>& scan_name, MaybePriority priority), scan_name, priority)
  DISPATCH(std::int64_t, GetWaitingCount, ())
  DISPATCH(void, _AddScanToPerLocationMap,
           (const Location& loc, const Text& scope_name, const Text& scan_name, Priority priority),
           loc, scope_name, scan_name, priority)
  DISPATCH(bool, _RemoveScanFromPerLocationMap,
           (const Location& loc, const Text& scope_name, const Text& scan_name, Priority priority),
           loc, scope_name, scan_name, priority)
  DISPATCH(MaybePriority, _FindScanPriority,
           (const Location& loc, const Text& scope_name, const Text& scan_name), loc, scope_name,
           scan_name)
  DISPATCH(void, SetScansToOrder, (const Object& scans_to_order), scans_to_order)
  DISPATCH(Object, _GetSingleQueue, (const Text& scan_name, Priority priority), scan_name, priority)
  DISPATCH(void, AddScanPairs,
           (const Object& pair_seq, const Text& scan_name, MaybePriority priority,
            bool add_to_check),
           pair_seq, scan_name, priority, add_to_check)
  DISPATCH(Object, PopWholeFilesToCheck, (std::int64_t max_files), max_files)
  DISPATCH(void, _AddItemsWaitingForInspect, (const Location& loc, const Object& item_seq), loc,
           item_seq)
  DISPATCH(void, _SetWholeFileCheckWaitingForInspect,
           (const Location& loc, MaybePriority check_whole_file_priority), loc,
           check_whole_file_priority)
  DISPATCH(void, _AddReadyScanPairs,
           (const ScanPairs& ready_pair_list, const Text& scan_name, Priority priority,
            bool add_to_check),
           ready_pair_list, scan_name, priority, add_to_check)
  DISPATCH(Object, _FirstOrNone, ())
  DISPATCH(Object, First, ())
  DISPATCH(std::int64_t, GetScanCount, (const CScanItem& scan_item), scan_item)
  DISPATCH(void, ScanCompleted, (const CScanItem& scan_item), scan_item)
  DISPATCH(bool, RemoveScanTriple,
           (const ScanTriple& scan_triple, MaybePriority priority, bool remove_waiting),
           scan_triple, priority, remove_waiting)
  DISPATCH(void, RemoveAllForLocations,
           (const Object& loc_seq, const Object& scan_name_set, bool remove_waiting), loc_seq,
           scan_name_set, remove_waiting)
  DISPATCH(void, Clear, ())
  DISPATCH(void, _CB_TreeBranchesNowReady, (const Object& data, const Object& ready_set), data,
           ready_set)
  DISPATCH(void, _CB_InspectFailed, (const Object& loc_data_cache, const Object& loc_set),
           loc_data_cache, loc_set)
  DISPATCH(void, _CB_LocReadyCleared, (const Object& loc_data_cache), loc_data_cache)
  DISPATCH(void, StartWaitingForData, (const CScanItem& scan_item), scan_item)
  DISPATCH(void, FinishedWaitingForData, (const CScanItem& scan_item), scan_item)
  DISPATCH(void, _UpdatePendingSets, (const LocationSet& added_set, const LocationSet& removed_set),
           added_set, removed_set)
  DISPATCH(void, _SignalEmitIdle, ())
  DISPATCH(bool, IsTreeBranchReady, (const Location& leaf_loc), leaf_loc)
  DISPATCH(Object, GetAllLocations, ())
};

std::vector<PyMethodDef> Methods() {
  return {
      METHOD(_destroy_impl, "_destroy_impl()",
             "Clears the queue and takes back its scheduled signals. Called by destroy()."),
      METHOD(UpdateForVisibleDocuments, "UpdateForVisibleDocuments(active_loc, visible_locs)",
             "Brings the scans of the documents in view to the front.\n\n"
             "active_loc: location or None; visible_locs: iterable of locations."),
      METHOD(_MoveScansBetweenQueues,
             "_MoveScansBetweenQueues(loc, names_to_move, from_queue, to_queue)",
             "Moves the scans of a location between two single queues for one scan name.\n\n"
             "names_to_move: None for all its scopes."),
      METHOD(_CB_ActiveDocChanged, "_CB_ActiveDocChanged()",
             "The active document of the GUI has changed."),
      METHOD(_CB_SingletonChanged, "_CB_SingletonChanged()",
             "A singleton was set; connects to the GUI manager once there is one."),
      METHOD(Empty, "Empty(include_waiting=True)",
             "Whether no scan is queued, nor, with include_waiting, waits for anything."),
      METHOD(LocationInQueue, "LocationInQueue(loc, scan_name=None)",
             "Whether scans of the location are queued, of that name or of any."),
      METHOD(
          GetPendingDictForLoc, "GetPendingDictForLoc(loc)",
          "The priorities of the location's queued scans by (scope_name, scan_name), or None.\n\n"
          "A copy."),
      METHOD(_MoveScansForLocToWaitingForInspect,
             "_MoveScansForLocToWaitingForInspect(loc, check_whole_file_priority=None)",
             "Moves all queued scans of a location that isn't ready to the waiting area."),
      METHOD(GetFileCount, "GetFileCount(scan_name, priority)",
             "Number of locations in the single queues of that name and priority; None is any."),
      METHOD(GetWaitingCount, "GetWaitingCount()",
             "Number of locations that wait for inspection plus scans that wait for data."),
      METHOD(_AddScanToPerLocationMap,
             "_AddScanToPerLocationMap(loc, scope_name, scan_name, priority)",
             "Enters a scan in the map and the counters; the caller keeps the scope lists."),
      METHOD(_RemoveScanFromPerLocationMap,
             "_RemoveScanFromPerLocationMap(loc, scope_name, scan_name, priority)",
             "Takes a scan at exactly that priority from the map and the counters.\n\n"
             "Returns whether it was there."),
      METHOD(_FindScanPriority, "_FindScanPriority(loc, scope_name, scan_name)",
             "The priority of a queued scan, or None. A waiting location answers for all scans."),
      METHOD(SetScansToOrder, "SetScansToOrder(scans_to_order)",
             "Keeps the mapping from scan name to order number. Moves nothing."),
      METHOD(_GetSingleQueue, "_GetSingleQueue(scan_name, priority)",
             "The single queue for a scan name at a priority, created if need be."),
      METHOD(AddScanPairs, "AddScanPairs(pair_seq, scan_name, priority=None, add_to_check=False)",
             "Adds scans of (location, scope name) pairs.\n\n"
             "priority: None means kBackgroundPriority. A scan that is queued already moves if\n"
             "this priority is earlier, and stays otherwise. add_to_check: a whole-file check of\n"
             "each added file is due."),
      METHOD(PopWholeFilesToCheck, "PopWholeFilesToCheck(max_files=25)",
             "Takes up to max_files + 1 due checks, newest first.\n\n"
             "Returns a list of (location, priority), or None if none is due."),
      METHOD(_AddItemsWaitingForInspect, "_AddItemsWaitingForInspect(loc, item_seq)",
             "Lets CScanItems of a location wait for its inspection."),
      METHOD(_SetWholeFileCheckWaitingForInspect,
             "_SetWholeFileCheckWaitingForInspect(loc, check_whole_file_priority)",
             "Notes that a whole-file check is due once the location is inspected."),
      METHOD(_AddReadyScanPairs,
             "_AddReadyScanPairs(ready_pair_list, scan_name, priority, add_to_check)",
             "As AddScanPairs, for locations that are all ready."),
      METHOD(_FirstOrNone, "_FirstOrNone()",
             "As First, or None if a location had to be moved to the waiting area."),
      METHOD(First, "First()",
             "The next scan as a CScanItem. It stays queued. Four Nones if there is none."),
      METHOD(GetScanCount, "GetScanCount(scan_item)",
             "How often a scan was completed; a completed \"*\" counts for every scope."),
      METHOD(ScanCompleted, "ScanCompleted(scan_item)",
             "Counts the completion of a scan and removes it."),
      METHOD(RemoveScanTriple, "RemoveScanTriple(scan_triple, priority=None, remove_waiting=True)",
             "Removes a scan (location, scope name, scan name) at a priority, or at any.\n\n"
             "Returns whether it was there. With remove_waiting, while the location waits for\n"
             "inspection, only the waiting scans are dealt with, and the result of a call with a\n"
             "priority is true."),
      METHOD(RemoveAllForLocations,
             "RemoveAllForLocations(loc_seq, scan_name_set=None, remove_waiting=True)",
             "Removes all scans of the locations, or those of some scan names."),
      METHOD(Clear, "Clear()", "Empties the queue, apart from scans that wait for data."),
      METHOD(_CB_TreeBranchesNowReady, "_CB_TreeBranchesNowReady(data, ready_set)",
             "Queues what waits for the inspection of these locations."),
      METHOD(_CB_InspectFailed, "_CB_InspectFailed(loc_data_cache, loc_set)",
             "Does nothing: the scans stay waiting."),
      METHOD(_CB_LocReadyCleared, "_CB_LocReadyCleared(loc_data_cache)", "Does nothing."),
      METHOD(StartWaitingForData, "StartWaitingForData(scan_item)",
             "Parks a scan whose scanner waits for data."),
      METHOD(FinishedWaitingForData, "FinishedWaitingForData(scan_item)",
             "Queues a parked scan again."),
      METHOD(_UpdatePendingSets, "_UpdatePendingSets(added_set, removed_set)",
             "Notes locations to be reported in idle; None is no locations."),
      METHOD(_SignalEmitIdle, "_SignalEmitIdle()",
             "Emits \"locations-added\" and \"locations-removed\" for what was noted."),
      METHOD(IsTreeBranchReady, "IsTreeBranchReady(leaf_loc)",
             "Whether the location can be scanned without waiting for inspection."),
      METHOD(GetAllLocations, "GetAllLocations()",
             "A new set of the queued locations and of those that wait for inspection."),
      METHOD(PrintScanQueues, "PrintScanQueues(write=None, limit=100)",
             "Writes the state of the queue through write(text), by default to sys.stdout.\n\n"
             "limit: number of lines for locations and scopes."),
  };
}

template <pyrt::FixedText kName, pyrt::FixedText kDoc, auto kGetter>
using QueueField = pyrt::Field<kName, kDoc, _CScanQueue, kGetter>;

// A field whose name in C++ is the same.
#define FIELD(name, doc) \
  QueueField<#name, doc, [](auto& queue) { return pyrt::ToPython(queue.name); }>::Def()
#define MADE_FIELD(name, doc) \
  QueueField<#name, doc, [](auto& queue) { return queue.name(); }>::Def()

std::vector<PyGetSetDef> Fields() {
  return {
      FIELD(fAnyAsyncInspectLocation,
            "Whether a location that needs asynchronous inspection was added since Clear()."),
      FIELD(_fScansToOrder, "The mapping given to SetScansToOrder."),
      QueueField<"_fOrderedQueues", "The single queues, ascending by (fPriority, fOrder).",
                 [](auto& queue) {
                   pyrt::List list;
                   for (const Object& single : queue._fOrderedQueues) list.Append(single);
                   return list.object();
                 }>::Def(),
      MADE_FIELD(_fPerLocationInfo, "Location to (scan_name_counts, pending_dict)."),
      MADE_FIELD(_fPerScanNameCounts, "Scan name to (scan_count, file_count)."),
      MADE_FIELD(_fCompletedCount, "CScanItem with priority None to the number of completions."),
      MADE_FIELD(_fPendingLocationsAdded, "Locations to be reported as added."),
      MADE_FIELD(_fPendingLocationsRemoved, "Locations to be reported as removed."),
      FIELD(_fSignalEmitIdle, "The id of the scheduled report, or None."),
      FIELD(_fLocationDataCache, "The location data cache."),
      FIELD(_fWaitingForInspectByLoc, "Location to (item_set, check_whole_file_priority)."),
      FIELD(_fScanItemsWaitingForData, "The CScanItems that wait for their scanner's data."),
      FIELD(_fActiveDocLoc, "The location of the active document, or None."),
      FIELD(_fVisibleDocLocs, "The locations of the documents in view."),
      FIELD(_fGuiMgr, "The GUI manager, or None."),
      MADE_FIELD(_fWholeFilesToCheck, "Location to priority of the checks due, oldest first."),
  };
}

int InitQueue(PyObject* self, PyObject* args, PyObject* kwargs) {
  return pyrt::Guard([&] {
    const auto [location_data_cache] =
        pyrt::BindInit<"_CScanQueue(location_data_cache)">(args, kwargs);
    const Object cache = Object::Share(location_data_cache);
    host::InitDestroyable(_CScanQueue::Shell().base(), Object::Share(self), "locations-added",
                          "locations-removed");
    _CScanQueue::From(self).Init(cache);
  });
}

}  // namespace

pyrt::ShellClass& _CScanQueue::Shell() {
  static auto* const shell = new pyrt::ShellClass;
  return *shell;
}

Object _CScanQueue::New(const Object& location_data_cache) {
  return pyrt::Call(Shell().type(), location_data_cache);
}

void _CScanQueue::Traverse(pyrt::Visitor& visit) const noexcept {
  visit.All(_fScansToOrder, _fSignalEmitIdle, _fLocationDataCache,
            _fWaitingForInspectByLoc.object(), _fScanItemsWaitingForData.object(), _fActiveDocLoc,
            _fVisibleDocLocs.object(), _fGuiMgr);
  for (const Object& queue : _fOrderedQueues) visit(queue);
  store_->Traverse(visit);
}

void _CScanQueue::Drop() noexcept {
  try {
    // A fresh body takes over, and the old state is released at the end.
    _CScanQueue dropped(shell());
    std::swap(_fScansToOrder, dropped._fScansToOrder);
    std::swap(_fOrderedQueues, dropped._fOrderedQueues);
    std::swap(_fSignalEmitIdle, dropped._fSignalEmitIdle);
    std::swap(_fLocationDataCache, dropped._fLocationDataCache);
    std::swap(_fWaitingForInspectByLoc, dropped._fWaitingForInspectByLoc);
    std::swap(_fScanItemsWaitingForData, dropped._fScanItemsWaitingForData);
    std::swap(_fActiveDocLoc, dropped._fActiveDocLoc);
    std::swap(_fVisibleDocLocs, dropped._fVisibleDocLocs);
    std::swap(_fGuiMgr, dropped._fGuiMgr);
    std::swap(store_, dropped.store_);
  } catch (...) {
    // No memory for a fresh body: the cycle stays until there is.
    pyrt::SetPendingFromCurrentException();
  }
}

void CreateScanQueueType(const Object& module, const Object& base) {
  _CScanQueue::Shell().Create(
      module, base,
      {"pysource.scancoordinator._CScanQueue",
       "_CScanQueue(location_data_cache)\n--\n\n"
       "The in-memory queue of pending scans, by priority, scan order and location.\n\n"
       "Made by CScanCoordinator; public for inspection.",
       &InitQueue, Methods(), Fields(), [](PyObject* self) -> std::unique_ptr<pyrt::Body> {
         return std::make_unique<QueueDispatcher>(self);
       }});
}

}  // namespace pysource
