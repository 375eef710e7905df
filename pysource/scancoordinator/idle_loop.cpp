// The idle loop: when a slice of work runs, and what it does.

#include "host/destroyable.h"
#include "host/lgtk.h"
#include "host/location.h"
#include "pysource/_fastaccess.h"
#include "pysource/pyrt/guard.h"
#include "pysource/scancoordinator/coordinator.h"

namespace pysource {
namespace {

constexpr double kSliceSeconds = 0.05;
// With debug checks on and an inference engine that isn't compiled everything is slower.
constexpr double kDebugSliceSeconds = 0.1;
constexpr double kSecondsBetweenQueueDumps = 2.0;
constexpr std::int64_t kQueueDumpLines = 10;

}  // namespace

// ---------------------------------------------------------------------------------------------
// Scheduling

void CScanCoordinator::_ScheduleIdle() {
  static constinit pyrt::Name kDoIdleAnalysis{"_CB_DoIdleAnalysis"};
  if (_fIdleScanSuspendCount != 0 || !_fIdleProcId.is_none()) return;
  if (!fAnaMgr.PythonPathKnown()) return;
  _fIdleProcId = host::lgtk::idle_add(Bound(kDoIdleAnalysis), fIdlePriority);
  host::Emit(self(), "scheduled");
}

void CScanCoordinator::_CancelIdle() {
  if (_fIdleProcId.is_none()) return;
  _fIdleProcId = host::lgtk::idle_remove(_fIdleProcId);
  _fIdleProcId = nullptr;
  host::Emit(self(), "end");
}

void CScanCoordinator::SuspendIdleScans() {
  ++_fIdleScanSuspendCount;
  _CancelIdle();
}

void CScanCoordinator::ResumeIdleScans() {
  --_fIdleScanSuspendCount;
  if (_fIdleScanSuspendCount == 0 && !QueuesEmpty(false)) _ScheduleIdle();
}

void CScanCoordinator::_CB_QueueLocationsAdded(const Object&, const Object&) { _ScheduleIdle(); }

// ---------------------------------------------------------------------------------------------
// One idle call

std::optional<bool> CScanCoordinator::_CB_DoIdleAnalysis() {
  const bool slow_engine = pyrt::DebugChecks() && !host::InferenceEngine::IsCompiled();
  fLog("Entering _CB_DoIdleAnalysis()");
  if (__fQuitting) {
    // The id stays: whoever removes it later hands a dead id to the host.
    fLog("Returning False from _CB_DoIdleAnalysis because Loom in quitting");
    return false;
  }
  try {
    return RunSlice(slow_engine ? kDebugSliceSeconds : kSliceSeconds);
  } catch (...) {
    const pyrt::PythonError error = pyrt::CurrentError();
    _fIdleProcId = nullptr;
    fLog("Exception raised in _CB_DoIdleAnalysis(); implicitly returning None");
    host::ReportException(error);
    if (pyrt::DebugChecks()) throw error;
    return std::nullopt;
  }
}

std::optional<bool> CScanCoordinator::RunSlice(double slice) {
  if (__fStatusTimeout.is_none()) __EnsureStatusTimeout();
  const double now = fastaccess::GetNowTime();
  if (_fActiveIdleStart >= 0.0 && _fLastLogQueue >= 0.0 &&
      now > _fLastLogQueue + kSecondsBetweenQueueDumps) {
    if (fLog.HasOutput()) queue().PrintScanQueues(fLog.object(), kQueueDumpLines);
    _fLastLogQueue = now;
  }
  if (_fActiveIdleStart < 0.0) _fActiveIdleStart = _fLastLogQueue = now;

  __DoScans(now + slice);
  if (!queue().Empty(false)) {
    fLog("Returning True from _CB_DoIdleAnalysis() because scan queue is not empty");
    return true;
  }
  _fIdleProcId = nullptr;
  if (QueuesEmpty(true)) {
    host::Emit(self(), "end");
    _fActiveIdleStart = -1.0;
  }
  _ScheduleWriteToDatabaseIdle();
  fLog(
      "Returning False from _CB_DoIdleAnalysis() because scan queue is empty (not including "
      "waiting)");
  if (fLog.HasOutput()) queue().PrintScanQueues(fLog.object(), kQueueDumpLines);
  return false;
}

// ---------------------------------------------------------------------------------------------
// The loop

void CScanCoordinator::__DoScans(double end_time) {
  if (fWaitingForRemote) return;
  if (!_fAllBasicModuleQueued) _QueueBasicModules(end_time);
  double now = fastaccess::GetNowTime();
  while (now < end_time) {
    if (__CheckWholeFiles(end_time)) {
      fLog("Out of time after whole file check");
      return;
    }
    if (!DoNextScan(now, end_time)) return;
    now = fastaccess::GetNowTime();
  }
}

bool CScanCoordinator::DoNextScan(double now, double end_time) {
  // The item stays in the queue until it is completed or removed below.
  const Object scan_item = queue().First();
  if (scan_item.is_none()) {
    fLog("No first scan item");
    return false;
  }
  const auto [loc, scope_name, scan_name, priority] = pyrt::Unpack<4>(scan_item);
  if (loc.is_none()) {
    fLog("loc is None in scan_item");
    return false;
  }
  const CScanItem item = CScanItem::FromRecord(scan_item);
  if (CompletedTooRecently(loc, scope_name, scan_name, now)) {
    fLog("Skipping scan because last scan is too recent: %r", pyrt::ToPython(item.triple()));
    queue().ScanCompleted(item);
    return false;  // the rest of the slice is the host's
  }
  if (!IsPython(loc)) {
    fLog("Removing scan because not python: %r", pyrt::ToPython(item.triple()));
    queue().RemoveScanTriple(item.triple(), item.priority());
    return true;
  }
  __fActiveLoc = loc;
  if (_DoSingleScan(item, end_time)) return false;  // out of time: continued in the next slice
  queue().ScanCompleted(item);
  _fInfoCache.Trim();
  // The time before this scan's slice began, not that of the scan's end.
  pyrt::Dict completed{_fLastScanCompleted.Get(loc)};
  if (!completed.object()) {
    completed = pyrt::Dict();
    _fLastScanCompleted.Set(loc, completed.object());
  }
  completed.Set(pyrt::MakeTuple(scope_name, scan_name), pyrt::ToPython(now));
  __fActiveLoc = nullptr;
  if (item.scan_name() == fAnaMgr.fDerivedScanName()) __fCompletedLocs.Add(loc);
  return true;
}

bool CScanCoordinator::CompletedTooRecently(const Object& loc, const Object& scope_name,
                                            const Object& scan_name, double now) const {
  const Object completed = _fLastScanCompleted.Get(loc);
  if (!completed) return false;
  const Object time = pyrt::Dict(completed).Get(pyrt::MakeTuple(scope_name, scan_name));
  return time && pyrt::FromPython<double>(time.get()) > now - kMinSecondsBetweenScans;
}

bool CScanCoordinator::IsPython(const Object& loc) {
  if (!__fActiveLoc.is_none() && loc.is(__fActiveLoc)) return true;
  const Text url = host::location::fUrl(loc);
  const std::string_view text = pyrt::Utf8(url);
  return text.ends_with(".py") || text.ends_with(".pi") || text.ends_with(".pyi") ||
         host::IsPythonSource(loc) || !__GetAnalysis(loc, true).is_none();
}

Object CScanCoordinator::__GetAnalysis(const Object& loc, bool create) {
  const Object analysis = fCacheMgr.GetAnalysis(loc, create);
  if (pyrt::IsInstance(analysis, host::SourceAnalysis::Class())) return analysis;
  return Object();
}

// ---------------------------------------------------------------------------------------------
// One scan

bool CScanCoordinator::_DoSingleScan(const CScanItem& scan_item, double end_time) {
  fActiveScanItem = scan_item.record();
  const auto run = [&]() -> std::optional<bool> {
    const bool whole_file = scan_item.scope_name().equals("*");
    if (scan_item.scan_name() == fAnaMgr.fPrimaryScanName()) {
      return whole_file ? __DoPrimaryWholeFileScan(scan_item, end_time)
                        : __DoPrimarySingleScopeScan(scan_item, end_time);
    }
    // Without the builtins a secondary scan is dropped, not retried.
    if (_fInfoCache.GetBuiltinLoc().is_none()) return std::nullopt;
    return whole_file ? __DoSecondaryWholeFileScan(scan_item, end_time)
                      : __DoSecondarySingleScopeScan(scan_item.loc().object(),
                                                     scan_item.scope_name(), end_time);
  };
  const std::optional<bool> out_of_time =
      pyrt::WithCleanup(run, [&] { fActiveScanItem = nullptr; });
  if (!out_of_time) return false;
  if (*out_of_time) return true;
  _fInfoCache.FinishedWithScans(scan_item.loc().object(), scan_item.scope_name(),
                                scan_item.scan_name());
  const Object triple = pyrt::ToPython(scan_item.triple());
  const Object count = _fScanTripleCompletedCount.Get(triple);
  _fScanTripleCompletedCount.Set(
      triple,
      pyrt::ToPython(count ? pyrt::FromPython<std::int64_t>(count.get()) + 1 : std::int64_t{1}));
  return false;
}

}  // namespace pysource
