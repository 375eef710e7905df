// The in-memory queue of pending scans.
//
// Scans are done by priority (lowest number first), then by the order of their scan names, and
// within that by the order of locations, all scopes of a location one after the other. The queue
// knows nothing of scanners. It is split into one _CSingleScanQueue for each (priority, order) that
// was ever needed; beside them a map of every queued scan by location, with counters, answers
// questions without a walk.
//
// True between operations:
//   1. A location in the map has at least one queued scan.
//   2. A key (scope_name, scan_name) of a location has priority p exactly when the scope is in the
//      location's list in the single queue _GetSingleQueue(scan_name, p).
//   3. The counters agree with the map.
//   4. The single queues are strictly ascending by (fPriority, fOrder); emptied ones stay.
//   5. "*" and other scopes of one scan name are never in the same single queue.
//
// Every operation may be overridden in Python or by a C++ subclass, and what the queue itself calls
// is the override. Any call that leaves the queue (the host's main loop, readiness questions, a
// location's `__eq__` or `__hash__`, an override) may come back in or fail. An operation therefore
// pins the records that it works on, changes the map and the lists with no such call in between,
// and looks again after one; a failure passes through and leaves the above true.

#ifndef PYSOURCE_SCANCOORDINATOR_SCAN_QUEUE_H_
#define PYSOURCE_SCANCOORDINATOR_SCAN_QUEUE_H_

#include <memory>
#include <optional>
#include <vector>

#include "pysource/pyrt/guard.h"
#include "pysource/scancoordinator/scan_store.h"
#include "pysource/scancoordinator/single_scan_queue.h"
#include "pysource/scancoordinator/vocabulary.h"

namespace pysource {

class _CScanQueue : public pyrt::Body {
 public:
  static pyrt::ShellClass& Shell();
  static _CScanQueue& From(PyObject* self) {
    return static_cast<_CScanQueue&>(Shell().BodyOf(self));
  }
  // A new Python object; the caller owns it.
  static Object New(const Object& location_data_cache);

  explicit _CScanQueue(PyObject* shell);

  // The construction behind the base class's: fields, then connections.
  void Init(const Object& location_data_cache);

  // -- Virtual operations, in the order of their slots.

  // Ends the queue: clears it and takes back the scheduled signals. No signal follows.
  virtual void _destroy_impl();
  // Brings the scans of the documents in view to the front, from the background to interactive
  // priority. Of all locations only the first one handled is promoted for a scan name and priority.
  virtual void UpdateForVisibleDocuments(const Object& active_loc, const Object& visible_locs);
  // Moves scans of a location between two queues for one scan name; no names: all its scopes there.
  virtual void _MoveScansBetweenQueues(const Location& loc, const Object& names_to_move,
                                       const Object& from_queue, const Object& to_queue);
  virtual void _CB_ActiveDocChanged();
  virtual void _CB_SingletonChanged();
  virtual bool Empty(bool include_waiting = true);
  // Whether scans of the location are queued, of one scan name or of any. Waiting ones don't count.
  virtual bool LocationInQueue(const Location& loc, const std::optional<Text>& scan_name);
  // A new mapping (scope_name, scan_name) to priority, or none.
  virtual Object GetPendingDictForLoc(const Location& loc);
  // Takes all queued scans of a location that isn't ready out of the way.
  virtual void _MoveScansForLocToWaitingForInspect(const Location& loc,
                                                   MaybePriority check_whole_file_priority);
  // The number of locations in the single queues of that name and priority; walks the queues.
  virtual std::int64_t GetFileCount(const std::optional<Text>& scan_name, MaybePriority priority);
  virtual std::int64_t GetWaitingCount();
  // The two touch only the map and the counters; the caller keeps the scope lists.
  virtual void _AddScanToPerLocationMap(const Location& loc, const Text& scope_name,
                                        const Text& scan_name, Priority priority);
  virtual bool _RemoveScanFromPerLocationMap(const Location& loc, const Text& scope_name,
                                             const Text& scan_name, Priority priority);
  // A location that waits answers for all its scans at once.
  virtual MaybePriority _FindScanPriority(const Location& loc, const Text& scope_name,
                                          const Text& scan_name);
  // Keeps the given mapping, scan name to integer. Only queues created later see the new orders.
  virtual void SetScansToOrder(const Object& scans_to_order);
  // The _CSingleScanQueue, created if need be.
  virtual Object _GetSingleQueue(const Text& scan_name, Priority priority);
  // Adds scans that aren't there yet; an earlier priority moves a scan. No priority: background.
  virtual void AddScanPairs(const Object& pair_seq, const Text& scan_name, MaybePriority priority,
                            bool add_to_check = false);
  // The newest due checks, newest first, as list of (location, priority): up to max_files + 1.
  // None if none is due.
  virtual Object PopWholeFilesToCheck(std::int64_t max_files = kDefaultWholeFilesToCheckCount);
  virtual void _AddItemsWaitingForInspect(const Location& loc, const Object& item_seq);
  virtual void _SetWholeFileCheckWaitingForInspect(const Location& loc,
                                                   MaybePriority check_whole_file_priority);
  // Requires: all locations are ready.
  virtual void _AddReadyScanPairs(const ScanPairs& ready_pair_list, const Text& scan_name,
                                  Priority priority, bool add_to_check);
  // As First, or none if a location had to be moved to waiting.
  virtual Object _FirstOrNone();
  // The record of the next scan, which stays queued; four nones if the queues are empty.
  virtual Object First();
  // How often the scan was completed; a completed "*" counts for every scope.
  virtual std::int64_t GetScanCount(const CScanItem& scan_item);
  // Counts the completion and removes the scan, if it is still there.
  virtual void ScanCompleted(const CScanItem& scan_item);
  // Removes a scan. While its location waits, the call deals with the waiting entry alone.
  virtual bool RemoveScanTriple(const ScanTriple& scan_triple, MaybePriority priority,
                                bool remove_waiting = true);
  virtual void RemoveAllForLocations(const Object& loc_seq, const Object& scan_name_set,
                                     bool remove_waiting = true);
  // Empties the queue, apart from scans that wait for data.
  virtual void Clear();
  virtual void _CB_TreeBranchesNowReady(const Object& data, const Object& ready_set);
  // Connected; nothing happens. Scans of a location whose inspection failed stay waiting.
  virtual void _CB_InspectFailed(const Object& loc_data_cache, const Object& loc_set);
  virtual void _CB_LocReadyCleared(const Object& loc_data_cache);
  // Parks a scan whose scanner waits for data, and brings it back.
  virtual void StartWaitingForData(const CScanItem& scan_item);
  virtual void FinishedWaitingForData(const CScanItem& scan_item);
  // Notes locations to be reported in idle. A removal and a later add cancel out.
  virtual void _UpdatePendingSets(const LocationSet& added_set, const LocationSet& removed_set);
  virtual void _SignalEmitIdle();
  virtual bool IsTreeBranchReady(const Location& leaf_loc);
  // A new set of the queued locations and of those that wait for inspection.
  virtual Object GetAllLocations();

  // -- Plain operations.

  // Writes the state of the queue, by default to standard output. `limit` bounds the lines.
  void PrintScanQueues(const Object& write, std::int64_t limit);

  // -- Fields. What Python reads of the containers is made when it is read.

  bool fAnyAsyncInspectLocation = false;
  Object _fScansToOrder;                // the very mapping that was given
  std::vector<Object> _fOrderedQueues;  // of _CSingleScanQueue
  Object _fSignalEmitIdle;
  Object _fLocationDataCache;
  pyrt::Dict _fWaitingForInspectByLoc;  // location to (item_set, check_whole_file_priority)
  pyrt::Set _fScanItemsWaitingForData;  // of CScanItem
  Object _fActiveDocLoc;
  pyrt::Set _fVisibleDocLocs;
  Object _fGuiMgr;
  Object _fPerLocationInfo() const;
  Object _fPerScanNameCounts() const;
  Object _fCompletedCount() const;
  Object _fPendingLocationsAdded() const;
  Object _fPendingLocationsRemoved() const;
  Object _fWholeFilesToCheck() const;

  void Traverse(pyrt::Visitor& visit) const noexcept override;
  void Drop() noexcept override;

 private:
  bool AddReadyPair(const ScanPair& pair, const Text& scan_name, Priority priority,
                    const Text& wildcard, Object& target);
  void Absorb(const LocationPin& pin, const Text& wildcard, const Text& scan_name,
              Priority priority, Object& target, pyrt::AllSteps& steps);
  _CSingleScanQueue& Own(const Object& queue) const;
  bool IsInUse(const Object& queue) const;
  OrderedScopes& TargetInUse(const Text& scan_name, Priority priority, Object& target);
  bool IsQueuedAt(LocId id, const Text& scope_name, const Text& scan_name, Priority priority) const;
  bool RemoveScope(OrderedScopes& ordered, LocId id, const Text& scope_name);
  Object QueueThatHolds(LocId id, const Text& scan_name, Priority priority) const;
  std::vector<Object>::const_iterator PositionOf(Priority priority, std::int64_t order) const;
  bool IsAt(std::vector<Object>::const_iterator position, Priority priority,
            std::int64_t order) const;
  std::optional<std::int64_t> OrderOf(const Text& scan_name) const;
  std::vector<QueuedScan> SnapshotOf(const Location& loc) const;
  bool RemoveWaitingTriple(const ScanTriple& scan_triple, MaybePriority priority);
  Object PendingDict(LocId id) const;

  std::shared_ptr<ScanStore> store_;
};

}  // namespace pysource

#endif  // PYSOURCE_SCANCOORDINATOR_SCAN_QUEUE_H_
