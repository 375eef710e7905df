// What Python reads of the queue's containers, made when it is read.

#include "pysource/scancoordinator/scan_queue.h"

namespace pysource {
namespace {

Object SetOf(const std::vector<Location>& locations) {
  pyrt::Set set;
  for (const Location& loc : locations) set.Add(loc.object());
  return set.object();
}

}  // namespace

Object _CScanQueue::_fPerLocationInfo() const {
  std::vector<Location> queued;
  store_->ForEachRecord([&](LocId id) {
    if (!(*store_)[id].scans.empty()) queued.push_back((*store_)[id].location);
  });
  pyrt::Dict result;
  for (const Location& loc : queued) {
    pyrt::Dict counts = records::Counter();
    pyrt::Dict pending;
    for (const QueuedScan& scan : SnapshotOf(loc)) {
      const Object name = store_->name(scan.scan_name).object();
      const Object count = counts.Get(name);
      counts.Set(name, pyrt::ToPython(count ? pyrt::FromPython<std::int64_t>(count.get()) + 1
                                            : std::int64_t{1}));
      pending.Set(pyrt::MakeTuple(scan.scope_name, name),
                  pyrt::ToPython(store_->priority(scan.priority)));
    }
    result.Set(loc.object(), records::PerLocationInfo(counts.object(), pending.object()));
  }
  return result.object();
}

Object _CScanQueue::_fPerScanNameCounts() const {
  pyrt::Dict result;
  for (const ScanNameTotals& totals : std::vector<ScanNameTotals>(store_->all_totals())) {
    if (totals.scan_count == 0) continue;
    result.Set(totals.scan_name.object(),
               records::ScanNameCounts(totals.scan_count, totals.file_count));
  }
  return result.object();
}

Object _CScanQueue::_fCompletedCount() const {
  std::vector<std::pair<CScanItem, std::int64_t>> completed;
  store_->ForEachRecord([&](LocId id) {
    const LocationRecord& record = (*store_)[id];
    for (const CompletedScan& scan : record.completed) {
      completed.emplace_back(
          CScanItem(record.location, scan.scope_name, store_->name(scan.scan_name), std::nullopt),
          scan.count);
    }
  });
  pyrt::Dict result = records::Counter();
  for (const auto& [item, count] : completed) result.Set(item.record(), pyrt::ToPython(count));
  return result.object();
}

Object _CScanQueue::_fPendingLocationsAdded() const { return SetOf(store_->PendingAdded()); }

Object _CScanQueue::_fPendingLocationsRemoved() const { return SetOf(store_->PendingRemoved()); }

Object _CScanQueue::_fWholeFilesToCheck() const {
  std::vector<std::pair<Location, Priority>> checks;
  for (LocId id = store_->oldest_check(); id != kNoIndex; id = (*store_)[id].newer_check) {
    checks.emplace_back((*store_)[id].location, store_->priority((*store_)[id].check_priority));
  }
  pyrt::Dict result;
  for (const auto& [loc, priority] : checks) result.Set(loc.object(), pyrt::ToPython(priority));
  return result.object();
}

}  // namespace pysource
