// The check that finds out which whole-file scans need not run, and forgetting what it remembers.

#include "host/destroyable.h"
#include "host/lgtk.h"
#include "host/location.h"
#include "host/symbols.h"
#include "pysource/_fastaccess.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/coordinator.h"

namespace pysource {
namespace {

bool Holds(const Object& text, const Text& scan_name) {
  return pyrt::Contains(text, scan_name.object());
}

Object PriorityOf(const pyrt::Dict& priorities, const Object& loc) {
  const Object priority = priorities.Get(loc);
  return priority ? priority : pyrt::ToPython(kBackgroundPriority);
}

}  // namespace

bool CScanCoordinator::__CheckWholeFiles(double end_time) {
  // Time is looked at between batches only, and the first batch is always done.
  for (Object batch = queue().PopWholeFilesToCheck(); !batch.is_none();
       batch = queue().PopWholeFilesToCheck()) {
    CheckBatch(batch);
    if (fastaccess::OutOfTime(end_time)) return true;
  }
  return false;
}

void CScanCoordinator::CheckBatch(const Object& batch) {
  pyrt::Dict priorities;
  pyrt::ForEach(batch, [&](const Object& entry) {
    const auto [loc, priority] = pyrt::Unpack<2>(entry);
    priorities.Set(loc, priority);
  });
  fLog("Checking whole files: %r", batch);
  const pyrt::Dict modtimes = pyrt::Dict::Checked(__GetModtimeDict(priorities.Keys().object()));

  pyrt::List up_to_date;
  pyrt::List to_remove;
  pyrt::Dict to_ask;
  modtimes.ForEachItem([&](const Object& loc, const Object& time) {
    _fMTimeAtLastWholeFileCheck.Set(loc, time);
    if (pyrt::Equal(time, pyrt::ToPython(0))) {
      to_remove.Append(loc);
    } else {
      to_ask.Set(loc, time);
    }
  });
  const Object scans_done = _fInfoCache.GetScansDoneForMultipleFiles(to_ask);
  fLog("__CheckWholeFiles scans_done_dict: %r", scans_done);

  static constinit pyrt::Name kItems{"items"};
  const pyrt::List entries = pyrt::List::Of(pyrt::CallMethod(scans_done, kItems));
  pyrt::ForEach(entries.object(), [&](const Object& entry) {
    const auto [loc, done] = pyrt::Unpack<2>(entry);
    if (!Holds(done, fAnaMgr.fPrimaryScanName())) return;
    up_to_date.Append(loc);
    queue().RemoveAllForLocations(pyrt::List::With(loc).object(), Object());
    if (!Holds(done, fAnaMgr.fDerivedScanName()) && _fInfoCache.WantDerivedInfo(loc)) {
      const pyrt::List pairs =
          pyrt::List::With(pyrt::MakeTuple(loc, host::symbols::WildcardScope().object()));
      AddPairsToSecondaryQueue(pairs.object(), false,
                               pyrt::FromPython<Priority>(PriorityOf(priorities, loc).get()));
    }
  });
  queue().RemoveAllForLocations(to_remove.object(), Object());
  FollowStoredImports(up_to_date, priorities);
}

// Follows the imports of up-to-date files as a fresh scan would have; one call for each directory
// and priority, however many files contributed.
void CScanCoordinator::FollowStoredImports(const pyrt::List& up_to_date,
                                           const pyrt::Dict& priorities) {
  pyrt::Dict equivs_by_dir;  // (directory, priority) to set of import equivalents
  pyrt::ForEach(_fInfoCache.GetAllImports(up_to_date), [&](const Object& record) {
    const auto [loc, unused, equivs] = pyrt::Unpack<3>(record);
    const Object priority = PriorityOf(priorities, loc);
    const Object key = pyrt::MakeTuple(host::location::GetParentDir(loc), priority);
    Object group = equivs_by_dir.Get(key);
    if (!group) {
      group = pyrt::Set().object();
      equivs_by_dir.Set(key, group);
    }
    pyrt::Set(group).Add(equivs);
  });
  equivs_by_dir.ForEachItem([&](const Object& key, const Object& equivs) {
    const auto [dirloc, priority] = pyrt::Unpack<2>(key);
    __AddImportEquivsToQueue(equivs, dirloc, pyrt::FromPython<Priority>(priority.get()));
  });
}

void CScanCoordinator::FlushQueue() {
  if (!_fIdleProcId.is_none()) {
    host::lgtk::idle_remove(_fIdleProcId);
    _fIdleProcId = nullptr;
    host::Emit(self(), "end");
  }
  queue().Clear();
  _fLastScanCompleted.Clear();
  _fMTimeAtLastWholeFileCheck.Clear();
  _fAllBasicModuleQueued = false;
  fWaitingForRemote = false;
  host::CacheManager(fSingletons.fCacheMgr())._ClearEOLBlindCacheAndScans();
  _fLocsQueuedInHelper.Clear();
  const host::HelperProcess helper(fAnaMgr.fHelperProcessProxy());
  if (!helper.is_none()) helper.FlushQueue();
}

void CScanCoordinator::ClearLastScanInfo(const Object& loc_iterable) {
  pyrt::ForEach(loc_iterable, [&](const Object& loc) {
    _fMTimeAtLastWholeFileCheck.Discard(loc);
    _fLastScanCompleted.Discard(loc);
  });
}

}  // namespace pysource
