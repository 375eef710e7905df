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
  pyrt::ForEach(items.object(),
                [](const Object& item) { CScanItem::FromRecord(item).RequireScan(); });
  const Object record = _fWaitingForInspectByLoc.Get(loc.object());
  pyrt::Set item_set = record ? Read(record).item_set : pyrt::Set();
  pyrt::ForEach(items.object(), [&](const Object& item) { item_set.Add(item); });
  if (record) return;
  _fWaitingForInspectByLoc.Set(loc.object(),
                               records::WaitingForInspect(item_set.object(), Object::None()));
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
  pyrt::Dict::Checked(pending).ForEachItem([&](const Object& key, const Object& priority) {
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
  const pyrt::List locations = pyrt::List::With(loc.object());
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
  const auto group_of = [&](const CScanItem& item, bool add_to_check) -> Group& {
    const Priority priority = item.priority().value_or(kBackgroundPriority);
    for (Group& group : groups) {
      if (group.scan_name == item.scan_name() && group.priority == priority &&
          group.add_to_check == add_to_check) {
        return group;
      }
    }
    return groups.emplace_back(Group{item.scan_name(), priority, add_to_check, {}});
  };
  pyrt::AllSteps steps;  // what has left the waiting area must be added, whatever fails
  pyrt::ForEach(locs.object(), [&](const Object& loc) {
    steps.Run([&] {
      const Object record = _fWaitingForInspectByLoc.Get(loc);
      if (!record) return;
      const Waiting waiting = Read(record);
      std::vector<CScanItem> items;
      pyrt::ForEach(pyrt::List::Of(waiting.item_set.object()).object(),
                    [&](const Object& item) { items.push_back(CScanItem::FromRecord(item)); });
      _fWaitingForInspectByLoc.Discard(loc);
      // A due check is entered with the priority of the scan, not with the stored one.
      const bool add_to_check = !waiting.check_whole_file_priority.is_none();
      for (const CScanItem& item : items) {
        group_of(item, add_to_check).pairs.pairs.push_back({item.loc(), item.scope_name()});
      }
    });
  });
  for (const Group& group : groups) {
    steps.Run([&] {
      _AddReadyScanPairs(group.pairs, group.scan_name, group.priority, group.add_to_check);
    });
  }
  steps.Finish();
}

void _CScanQueue::_CB_InspectFailed(const Object&, const Object&) {}

void _CScanQueue::_CB_LocReadyCleared(const Object&) {}

// In both, a scan is in its new place before it leaves the old one, so that no failure loses it.

void _CScanQueue::StartWaitingForData(const CScanItem& scan_item) {
  scan_item.RequireScan();
  if (_fScanItemsWaitingForData.Contains(scan_item.record())) return;
  _fScanItemsWaitingForData.Add(scan_item.record());
  RemoveScanTriple(scan_item.triple(), scan_item.priority());
}

void _CScanQueue::FinishedWaitingForData(const CScanItem& scan_item) {
  if (!_fScanItemsWaitingForData.Contains(scan_item.record())) return;
  const pyrt::List pairs =
      pyrt::List::With(pyrt::MakeTuple(scan_item.loc().object(), scan_item.scope_name()));
  AddScanPairs(pairs.object(), scan_item.scan_name(), scan_item.priority());
  _fScanItemsWaitingForData.Discard(scan_item.record());
}

}  // namespace pysource
