// Bulk removal: all scans of some locations, or everything.

#include <deque>

#include "host/destroyable.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/scan_queue.h"

namespace pysource {

void _CScanQueue::RemoveAllForLocations(const Object& loc_seq, const Object& scan_name_set,
                                        bool remove_waiting) {
  pyrt::ForEach(loc_seq, [&](const Object& element) {
    const Location loc(element);
    bool kept = false;
    for (const QueuedScan& scan : SnapshotOf(loc)) {
      const Text scan_name = store_->name(scan.scan_name);
      if (scan_name_set.is_none() || pyrt::Contains(scan_name_set, scan_name.object())) {
        RemoveScanTriple({loc, scan.scope_name, scan_name}, store_->priority(scan.priority),
                         remove_waiting);
      } else {
        kept = true;
      }
    }
    // The names are not applied to the waiting items: they go unless a queued scan was kept.
    if (remove_waiting && !kept) _fWaitingForInspectByLoc.Discard(loc.object());
  });
}

void _CScanQueue::Clear() {
  std::vector<LocId> ids;
  store_->ForEachRecord([&](LocId id) {
    if (!(*store_)[id].scans.empty()) ids.push_back(id);
  });
  std::deque<LocationPin> pins;  // so that reporting them below runs no code of the host
  std::vector<Location> queued;
  for (const LocId id : ids) {
    pins.emplace_back(*store_, id);
    queued.push_back(pins.back().location());
  }

  pyrt::AllSteps steps;
  const std::vector<Object> destroyed = _fOrderedQueues;
  for (const Object& queue : destroyed) steps.Run([&] { host::Destroy(queue); });

  // Everything is taken out first and released at the end: a release may come back in.
  const std::vector<Object> released_queues = std::exchange(_fOrderedQueues, {});
  std::vector<Scopes> released_scopes;
  for (const Object& queue : released_queues) {
    OrderedScopes& ordered = _CSingleScanQueue::From(queue.get()).fOrderedDict();
    while (!ordered.empty()) released_scopes.push_back(ordered.Take(ordered.first()));
  }
  const ScanStore::Cleared released = store_->Clear();
  _fWaitingForInspectByLoc.Clear();

  steps.Run([&] { _UpdatePendingSets(LocationSet::None(), LocationSet(queued)); });
  fAnyAsyncInspectLocation = false;
  steps.Finish();
}

}  // namespace pysource
