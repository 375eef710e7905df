// The drivers of primary scans: each carries one scan forward by one slice.
//
// A live scanner is kept from slice to slice in a mapping, which is what makes a scan resumable.
// Nothing else takes entries out of it: the scanner of a scan that left the queue in between waits
// for the next scan of the same key.

#include "host/location.h"
#include "host/symbols.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/coordinator.h"

namespace pysource {

using host::kFinishedScanning;
using host::kScanAbandoned;
using host::kWaitingForData;
using host::ScanState;

bool CScanCoordinator::__DoPrimaryWholeFileScan(const CScanItem& scan_item, double end_time) {
  const host::AnalysisManager ana_mgr(fSingletons.fAnalysisMgr());
  const Object& loc = scan_item.loc().object();
  host::Scanner scanner(__fActivePrimaryWholeFileScanners.Get(loc));
  if (!scanner.exists()) {
    // A set that an earlier scan left is used again, with what is in it.
    const Object incomplete = _fIncompleteScansByLoc.At(loc);
    scanner =
        host::Scanner::WholeFilePrimary(loc, scan_item.scan_name(), incomplete, fLog.object());
    __fActivePrimaryWholeFileScanners.Set(loc, scanner.object());
    fLog("Starting primary whole file scan: %r", loc);
  }
  const ScanState state = scanner.Scan(end_time);
  if (state.Is(kWaitingForData)) {
    _WaitForScannerToBeReady(scanner.object(), scan_item);
    return true;
  }
  if (!state.Equals(kFinishedScanning) && !state.Equals(kScanAbandoned)) return true;

  fLog("Finished primary whole file scan: %r", loc);
  __fActivePrimaryWholeFileScanners.Discard(loc);
  scanner.destroy();
  if (state.Equals(kScanAbandoned)) return false;

  const Object incomplete = _fIncompleteScansByLoc.Get(loc);
  if (incomplete && !pyrt::IsTrue(incomplete)) _fIncompleteScansByLoc.Discard(loc);

  const pyrt::List locations = pyrt::List::With(loc);
  pyrt::List imported_equivs;
  pyrt::ForEach(_fInfoCache.GetAllImports(locations),
                [&](const Object& record) { imported_equivs.Append(pyrt::Item(record, -1)); });
  const Object dirloc = host::location::GetParentDir(loc);
  const Priority priority = scan_item.priority().value_or(kBackgroundPriority);
  __AddImportEquivsToQueue(imported_equivs.object(), dirloc, priority);

  const Object secondary_locations =
      host::AnalysisFactory(ana_mgr.fAnalysisFactory()).GetSecondaryLocations(loc);
  const Object wildcard = pyrt::ToPython("*");
  if (pyrt::IsTrue(secondary_locations)) {
    pyrt::List pairs;
    pyrt::ForEach(secondary_locations, [&](const Object& secondary) {
      pairs.Append(pyrt::MakeTuple(secondary, wildcard));
    });
    AddPairsToPrimaryQueue(pairs.object(), true, priority);
  }
  const pyrt::List pairs = pyrt::List::With(pyrt::MakeTuple(loc, wildcard));
  AddPairsToSecondaryQueue(pairs.object(), true, priority);
  return false;
}

bool CScanCoordinator::__DoPrimarySingleScopeScan(const CScanItem& scan_item, double end_time) {
  const Object& loc = scan_item.loc().object();
  const Text& scope_name = scan_item.scope_name();
  if (host::symbols::IsInstanceScope(scope_name)) {
    // Nothing in the source to scan: it is built from what is known, in or out of time.
    BuildInstanceScopeNoScanning(loc, scope_name, end_time);
    return false;
  }
  const Object key = pyrt::MakeTuple(loc, scope_name);
  host::Scanner scanner(__fActivePrimarySingleScopeScanners.Get(key));
  if (!scanner.exists()) {
    const host::SourceAnalysis analysis(__GetAnalysis(loc, false));
    if (!analysis.is_none()) analysis.UpdateFromCache();
    const Object incomplete = _fIncompleteScansByLoc.At(loc);
    scanner = host::Scanner::SingleScopePrimary(loc, scope_name, incomplete, fLog.object());
    __fActivePrimarySingleScopeScanners.Set(key, scanner.object());
    fLog("starting primary scope scan: scope=%r, file=%r", scope_name, loc);
  }
  const ScanState state = scanner.Scan(end_time);
  if (state.Is(kWaitingForData)) {
    _WaitForScannerToBeReady(scanner.object(), scan_item);
    return true;
  }
  if (!state.Equals(kFinishedScanning) && !state.Equals(kScanAbandoned)) return true;

  // An abandoned scan is saved too: the cache gets what was gathered.
  __fActivePrimarySingleScopeScanners.Discard(key);
  const Object changed = scanner.SaveToInfoCache(false);
  fLog("finished primary scope scan: scope=%r, file=%r, changed=%s", scope_name, loc, changed);
  if (!pyrt::IsTrue(changed)) {
    scanner.destroy();
    return false;
  }

  static constinit pyrt::Name kImportPrefix{"kImportPrefix"};
  static constinit pyrt::Name kFromImportPrefix{"kFromImportPrefix"};
  pyrt::List imported_equivs;
  const host::ScopeInfo info = scanner.fInfo();
  if (!info.is_none()) {
    host::ForEachEquiv(info, [&](const Object&, const Object& information) {
      pyrt::ForEach(host::symbols::NonNestedSplit(information).object(), [&](const Object& part) {
        if (host::symbols::StartsWith(part, kImportPrefix) ||
            host::symbols::StartsWith(part, kFromImportPrefix)) {
          imported_equivs.Append(part);
        }
      });
      return true;
    });
  }
  if (!imported_equivs.empty()) {
    __AddImportEquivsToQueue(imported_equivs.object(), host::location::GetParentDir(loc),
                             scan_item.priority().value_or(kBackgroundPriority));
  }
  // No priority: both additions take that of the scan that is running.
  const pyrt::List pairs = pyrt::List::With(pyrt::MakeTuple(loc, scope_name.object()));
  AddPairsToSecondaryQueue(pairs.object(), false);
  QueueInstanceScope(scanner, scan_item);
  scanner.destroy();
  return false;
}

// A changed class, or a changed method of one, brings the instance scope of the class.
void CScanCoordinator::QueueInstanceScope(const host::Scanner& scanner,
                                          const CScanItem& scan_item) {
  const Object scope_def = scanner.fScopeDef();
  if (scope_def.is_none()) return;
  Object instance_scope;
  if (host::IsClassDef(scope_def)) {
    instance_scope = host::symbols::GetInstanceNameForClass(scan_item.scope_name().object());
  } else if (!scanner.fContainingClassDef().is_none()) {
    instance_scope = host::symbols::GetInstanceNameForClass(
        host::symbols::ParentScopeName(scan_item.scope_name().object()));
  }
  if (instance_scope.is_none()) return;
  const pyrt::List pairs =
      pyrt::List::With(pyrt::MakeTuple(scan_item.loc().object(), instance_scope));
  AddPairsToPrimaryQueue(pairs.object(), true);
}

}  // namespace pysource
