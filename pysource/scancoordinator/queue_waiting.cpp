// Scans that are kept out of the way: of locations whose remote tree branch isn't inspected yet,
// and of scanners that wait for data. The scan loop never stalls on them.

#include "pysource/scancoordinator/scan_queue.h"

namespace pysource {
namespace {

// A waiting record: the set of items, and the priority of a whole-file check that is due or none.
struct Waiting {
  pyrt::Set item_set;
  Object check_whole_file_priority;
};

Waiting Read(const Object& record) {
  auto [item_set, check_priority] = pyrt::Unpack<2>(record);
  return {pyrt::Set(std::move(item_set)), std::move(check_priority)};
}

}  // namespace

void _CScanQueue::_AddItemsWaitingForInspect(const Location& loc, const Object& item_seq) {
  const pyrt::List items = pyrt::List::Of(item_seq);
  pyrt::ForEach(items.object(), [](const Object& item) { CScanItem::FromRecord(item); });
  Object record = _fWaitingForInspectByLoc.Get(loc.object());
  if (!record) {
    record = records::WaitingForInspect(pyrt::Set().object(), Object::None());
    _fWaitingForInspectByLoc.Set(loc.object(), record);
  }
  Waiting waiting = Read(record);
  pyrt::ForEach(items.object(), [&](const Object& item) { waiting.item_set.Add(item); });
}

void _CScanQueue::_SetWholeFileCheckWaitingForInspect(const Location& loc,
                                                      MaybePriority check_whole_file_priority) {
  const Object record = _fWaitingForInspectByLoc.Get(loc.object());
  const pyrt::Set item_set = record ? Read(record).item_set : pyrt::Set();
  _fWaitingForInspectByLoc.Set(
      loc.object(),
      records::WaitingForInspect(item_set.object(), pyrt::ToPython(check_whole_file_priority)));
}

void _CScanQueue::_MoveScansForLocToWaitingForInspect(const Location& loc,
                                                      MaybePriority check_whole_file_priority) {
  const Object pending = GetPendingDictForLoc(loc);
  if (pending.is_none()) return;
  pyrt::List items;
  pyrt::Dict(pending).ForEachItem([&](const Object& key, const Object& priority) {
    const auto [scope_name, scan_name] = pyrt::Unpack<2>(key);
    items.Append(CScanItem(loc, Text(scope_name), Text(scan_name),
                           pyrt::FromPython<Priority>(priority.get()))
                     .record());
  });
  if (!check_whole_file_priority) {
    const LocId id = store_->Find(loc);
    if (id != kNoIndex && (*store_)[id].check_priority != kNoIndex) {
      check_whole_file_priority = store_->priority((*store_)[id].check_priority);
    }
  }
  pyrt::List locations;
  locations.Append(loc.object());
  // What has left the queue must arrive in the waiting area, whatever fails on the way.
  pyrt::AllSteps steps;
  steps.Run([&] { RemoveAllForLocations(locations.object(), Object(), false); });
  steps.Run([&] { _AddItemsWaitingForInspect(loc, items.object()); });
  steps.Run([&] { _SetWholeFileCheckWaitingForInspect(loc, check_whole_file_priority); });
  steps.Finish();
}

void _CScanQueue::_CB_TreeBranchesNowReady(const Object&, const Object& ready_set) {
  pyrt::List locs;
  pyrt::ForEach(ready_set, [&](const Object& loc) {
    if (_fWaitingForInspectByLoc.Contains(loc)) locs.Append(loc);
  });
  if (locs.empty()) return;

  struct Group {
    Text scan_name;
    Priority priority;
    bool add_to_check;
    ScanPairs pairs;
  };
  std::vector<Group> groups;  // few, in the order of appearance
  pyrt::ForEach(locs.object(), [&](const Object& loc) {
    const Object record = _fWaitingForInspectByLoc.Pop(loc);
    if (!record) return;
    const Waiting waiting = Read(record);
    // A due check is entered with the priority of the scan, not with the stored one.
    const bool add_to_check = !waiting.check_whole_file_priority.is_none();
    pyrt::ForEach(pyrt::List::Of(waiting.item_set.object()).object(), [&](const Object& element) {
      const CScanItem item = CScanItem::FromRecord(element);
      const Priority priority = item.priority().value_or(kBackgroundPriority);
      auto group = groups.begin();
      while (group != groups.end() &&
             !(group->scan_name == item.scan_name() && group->priority == priority &&
               group->add_to_check == add_to_check)) {
        ++group;
      }
      if (group == groups.end()) {
        group = groups.insert(group, {item.scan_name(), priority, add_to_check, {}});
      }
      group->pairs.push_back({item.loc(), item.scope_name()});
    });
  });
  pyrt::AllSteps steps;  // the records are gone: every group must be added
  for (const Group& group : groups) {
    steps.Run([&] {
      _AddReadyScanPairs(group.pairs, group.scan_name, group.priority, group.add_to_check);
    });
  }
  steps.Finish();
}

void _CScanQueue::_CB_InspectFailed(const Object&, const Object&) {}

void _CScanQueue::_CB_LocReadyCleared(const Object&) {}

void _CScanQueue::StartWaitingForData(const CScanItem& scan_item) {
  if (_fScanItemsWaitingForData.Contains(scan_item.record())) return;
  pyrt::AllSteps steps;  // what has left the queue must be parked
  steps.Run([&] { RemoveScanTriple(scan_item.triple(), scan_item.priority()); });
  steps.Run([&] { _fScanItemsWaitingForData.Add(scan_item.record()); });
  steps.Finish();
}

void _CScanQueue::FinishedWaitingForData(const CScanItem& scan_item) {
  if (!_fScanItemsWaitingForData.Contains(scan_item.record())) return;
  _fScanItemsWaitingForData.Discard(scan_item.record());
  pyrt::List pairs;
  pairs.Append(pyrt::MakeTuple(scan_item.loc().object(), scan_item.scope_name()));
  try {
    AddScanPairs(pairs.object(), scan_item.scan_name(), scan_item.priority());
  } catch (...) {
    _fScanItemsWaitingForData.Add(scan_item.record());  // not lost: it waits on
    throw;
  }
}

}  // namespace pysource
