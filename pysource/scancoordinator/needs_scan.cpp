// News that scopes need scanning: from the info cache, and from the caret.

#include "pysource/scancoordinator/coordinator.h"

namespace pysource {

void CScanCoordinator::_CB_NeedsScanAdded(const Object&, const Object& needs_scan_added,
                                          MaybePriority priority) {
  const Text derived_name = fAnaMgr.fDerivedScanName();
  Object triples = needs_scan_added;
  std::optional<CScanItem> active;
  if (!fActiveScanItem.is_none()) active = CScanItem::FromRecord(fActiveScanItem);
  if (active && active->scope_name().equals("*") && active->scan_name() == derived_name) {
    // The running scan decides which triples still go on.
    const host::Scanner scanner(__fActiveSecondaryWholeFileScanners.Get(active->loc().object()));
    if (scanner.exists()) triples = scanner.FilterNeedsScan(triples);
  }
  if (!priority) {
    priority = active ? active->priority().value_or(kInteractivePriority) : kInteractivePriority;
  }
  pyrt::Dict pairs_by_name;  // in the order in which scan names first appear
  pyrt::ForEach(triples, [&](const Object& triple) {
    const auto [loc, scope_name, scan_name] = pyrt::Unpack<3>(triple);
    if (pyrt::Equal(scan_name, derived_name.object()) && !_fInfoCache.WantDerivedInfo(loc)) return;
    // Asked for, not consulted: there is no limit on the number of scans here.
    queue().GetScanCount(CScanItem(Location(loc), Text(scope_name), Text(scan_name), priority));
    Object pairs = pairs_by_name.Get(scan_name);
    if (!pairs) {
      pairs = pyrt::List().object();
      pairs_by_name.Set(scan_name, pairs);
    }
    pyrt::List::Shared(pairs).Append(pyrt::MakeTuple(loc, scope_name));
  });
  pairs_by_name.ForEachItem([&](const Object& scan_name, const Object& pairs) {
    queue().AddScanPairs(pairs, Text(scan_name), priority);
  });
  _ScheduleIdle();
}

void CScanCoordinator::AddNeedsScanSetToQueues(const Object& needs_scan_set) {
  pyrt::List primary_pairs;
  pyrt::List secondary_pairs;
  pyrt::ForEach(needs_scan_set, [&](const Object& triple) {
    const auto [loc, scope_name, scan_name] = pyrt::Unpack<3>(triple);
    if (pyrt::Equal(scan_name, fAnaMgr.fPrimaryScanName().object())) {
      const bool has_buffer = pyrt::IsTrue(fCacheMgr.DoesCacheBufferExist(loc).object());
      primary_pairs.Append(pyrt::MakeTuple(loc, has_buffer ? scope_name : pyrt::ToPython("*")));
    } else if (pyrt::Equal(scan_name, fAnaMgr.fDerivedScanName().object())) {
      secondary_pairs.Append(pyrt::MakeTuple(loc, scope_name));
    }
  });
  if (!secondary_pairs.empty()) AddPairsToSecondaryQueue(secondary_pairs.object(), true);
  if (!primary_pairs.empty()) AddPairsToPrimaryQueue(primary_pairs.object());
}

void CScanCoordinator::_CB_ActiveEditLinenoChanged(const Object& ana, std::int64_t new_lineno) {
  constexpr std::int64_t kNoLine = -1;
  const Object loc = host::fLocation(ana);
  const Object incomplete = _fIncompleteScansByLoc.Get(loc);
  if (!incomplete) return;
  const Object current_scope = new_lineno != kNoLine
                                   ? host::SourceAnalysis(ana).FindScopeContainingLine(new_lineno)
                                   : Object();
  pyrt::List pairs;
  pyrt::ForEach(pyrt::List::Of(incomplete).object(), [&](const Object& scope_name) {
    if (!pyrt::Equal(scope_name, current_scope)) pairs.Append(pyrt::MakeTuple(loc, scope_name));
  });
  if (pairs.empty()) return;
  // The minimum interval between scans must not hold these back.
  _fLastScanCompleted.Discard(loc);
  AddPairsToPrimaryQueue(pairs.object(), true, kInteractivePriority);
}

}  // namespace pysource
