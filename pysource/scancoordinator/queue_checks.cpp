// The list of files due for a whole-file check, and small questions about the queue.

#include "host/symbols.h"
#include "pysource/scancoordinator/scan_queue.h"

namespace pysource {

Object _CScanQueue::PopWholeFilesToCheck(std::int64_t max_files) {
  if (store_->newest_check() == kNoIndex) return Object();
  std::vector<std::pair<Location, Priority>> popped;
  // At most, not fewer than: a call takes up to max_files + 1 entries.
  while (static_cast<std::int64_t>(popped.size()) <= max_files &&
         store_->newest_check() != kNoIndex) {
    const LocId id = store_->newest_check();
    const LocationRecord& record = (*store_)[id];
    popped.emplace_back(record.location, store_->priority(record.check_priority));
    store_->RemoveCheck(id);
    const Location released = store_->ForgetIfUnused(id);  // `popped` still holds the object
  }
  pyrt::List result;
  for (const auto& [loc, priority] : popped) {
    if (!fAnyAsyncInspectLocation || IsTreeBranchReady(loc)) {
      result.Append(pyrt::MakeTuple(loc.object(), priority));
    } else {
      _MoveScansForLocToWaitingForInspect(loc, priority);
    }
  }
  return result.object();
}

bool _CScanQueue::LocationInQueue(const Location& loc, const std::optional<Text>& scan_name) {
  const LocId id = store_->Find(loc);
  if (id == kNoIndex || (*store_)[id].scans.empty()) return false;
  if (!scan_name) return true;
  return store_->CountScans(id, store_->FindName(*scan_name)) != 0;
}

Object _CScanQueue::GetPendingDictForLoc(const Location& loc) {
  const LocId id = store_->Find(loc);
  if (id == kNoIndex || (*store_)[id].scans.empty()) return Object();
  return PendingDict(id);
}

Object _CScanQueue::PendingDict(LocId id) const {
  pyrt::Dict pending;
  const auto& scans = (*store_)[id].scans;
  const std::vector<QueuedScan> snapshot(scans.begin(), scans.end());
  for (const QueuedScan& scan : snapshot) {
    pending.Set(pyrt::MakeTuple(scan.scope_name, store_->name(scan.scan_name)),
                pyrt::ToPython(store_->priority(scan.priority)));
  }
  return pending.object();
}

std::int64_t _CScanQueue::GetFileCount(const std::optional<Text>& scan_name,
                                       MaybePriority priority) {
  std::int64_t count = 0;
  for (const Object& queue : _fOrderedQueues) {
    auto& single = _CSingleScanQueue::From(queue.get());
    if (priority && single.fPriority != *priority) continue;
    if (scan_name && !(single.fScanName == *scan_name)) continue;
    count += static_cast<std::int64_t>(single.fOrderedDict().size());
  }
  return count;
}

std::int64_t _CScanQueue::GetWaitingCount() {
  return static_cast<std::int64_t>(_fWaitingForInspectByLoc.size() +
                                   _fScanItemsWaitingForData.size());
}

std::int64_t _CScanQueue::GetScanCount(const CScanItem& scan_item) {
  const LocId id = store_->Find(scan_item.loc());
  if (id == kNoIndex) return 0;
  const NameId name = store_->FindName(scan_item.scan_name());
  std::int64_t count = store_->CompletedCount(id, scan_item.scope_name(), name);
  const Text wildcard = host::symbols::WildcardScope();
  if (!(scan_item.scope_name() == wildcard)) count += store_->CompletedCount(id, wildcard, name);
  return count;
}

Object _CScanQueue::GetAllLocations() {
  std::vector<Location> queued;
  store_->ForEachRecord([&](LocId id) {
    if (!(*store_)[id].scans.empty()) queued.push_back((*store_)[id].location);
  });
  pyrt::Set locations = pyrt::Set::Of(_fWaitingForInspectByLoc.object());
  for (const Location& loc : queued) locations.Add(loc.object());
  return locations.object();
}

}  // namespace pysource
