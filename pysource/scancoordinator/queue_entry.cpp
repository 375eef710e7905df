// How the engine puts work into the queue, asks what is queued, and takes work out.

#include "host/symbols.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/coordinator.h"

namespace pysource {

// Work found while a scan runs inherits that scan's priority; `first` decides only where nothing
// else does.
Priority CScanCoordinator::ChoosePriority(bool first, MaybePriority priority) const {
  if (priority) return *priority;
  if (!fActiveScanItem.is_none()) {
    return CScanItem::FromRecord(fActiveScanItem).priority().value_or(kBackgroundPriority);
  }
  return first ? kInteractivePriority : kBackgroundPriority;
}

void CScanCoordinator::AddPairsToPrimaryQueue(const Object& pairs, bool first,
                                              MaybePriority priority) {
  Object local_pairs = pairs;
  const host::HelperProcess helper(fAnaMgr.fHelperProcessProxy());
  if (!helper.is_none()) {
    pyrt::List pairs_for_helper;
    pyrt::List rest;
    pyrt::ForEach(pairs, [&](const Object& pair) {
      const auto [loc, scope_name] = pyrt::Unpack<2>(pair);
      (_CanSendToHelperProcess(loc, scope_name) ? pairs_for_helper : rest).Append(pair);
    });
    if (!pairs_for_helper.empty()) {
      pyrt::ForEach(pairs_for_helper.object(), [&](const Object& pair) {
        _fLocsQueuedInHelper.Add(pyrt::Unpack<2>(pair)[0]);
      });
      helper.AddPairsToPrimaryQueue(pairs_for_helper, pyrt::ToPython(first));
    }
    if (rest.empty()) return;
    local_pairs = rest.object();
  }
  const Priority at = ChoosePriority(first, priority);
  queue().AddScanPairs(local_pairs, fAnaMgr.fPrimaryScanName(), at, true);
  _ScheduleIdle();
}

void CScanCoordinator::AddPairsToSecondaryQueue(const Object& pairs, bool first,
                                                MaybePriority priority) {
  pyrt::List wanted;
  pyrt::ForEach(pairs, [&](const Object& pair) {
    if (_fInfoCache.WantDerivedInfo(pyrt::Item(pair, 0))) {
      wanted.Append(pair);
    }
  });
  if (wanted.empty()) return;
  const Priority at = ChoosePriority(first, priority);
  queue().AddScanPairs(wanted.object(), fAnaMgr.fDerivedScanName(), at);
  _ScheduleIdle();
}

void CScanCoordinator::AddParseablesToQueue(const Object& loc_seq, MaybePriority priority) {
  pyrt::Dict mime_types;
  pyrt::ForEach(loc_seq, [&](const Object& loc) { mime_types.Set(loc, Object::None()); });
  host::GetMultipleProbableMimeTypes(host::Singletons::Get().fFileAttribMgr(), mime_types);
  const Object wildcard = host::symbols::WildcardScope().object();
  pyrt::List pairs;
  mime_types.ForEachItem([&](const Object& loc, const Object& mime_type) {
    if (host::IsAnalyzable(mime_type)) pairs.Append(pyrt::MakeTuple(loc, wildcard));
  });
  if (!pairs.empty()) AddPairsToPrimaryQueue(pairs.object(), true, priority);
}

bool CScanCoordinator::QueuesEmpty(bool include_waiting) {
  // Locations with the helper process count as queued until it reports them gone.
  return queue().Empty(include_waiting) && _fLocsQueuedInHelper.empty();
}

bool CScanCoordinator::LocationInPrimaryScanQueue(const Location& loc) {
  return queue().LocationInQueue(loc, fAnaMgr.fPrimaryScanName());
}

bool CScanCoordinator::LocationInSecondaryScanQueue(const Location& loc) {
  return queue().LocationInQueue(loc, fAnaMgr.fDerivedScanName());
}

bool CScanCoordinator::LocationInScanQueues(const Location& loc) {
  return queue().LocationInQueue(loc, std::nullopt);
}

void CScanCoordinator::RemoveLocationsFromQueue(const Object& to_remove) {
  const Object locations = pyrt::IsAnySet(to_remove) ? to_remove : pyrt::FrozenSetOf(to_remove);
  queue().RemoveAllForLocations(locations, Object());
}

}  // namespace pysource
