// The drivers of secondary scans, which derive further information from what the primary scan left.
//
// A scanner that waits for data is simply offered further slices, and nothing is queued or saved.

#include "pysource/scancoordinator/coordinator.h"

namespace pysource {

using host::kFinishedScanning;
using host::kScanAbandoned;
using host::ScanState;

bool CScanCoordinator::__DoSecondaryWholeFileScan(const CScanItem& scan_item, double end_time) {
  const Object& loc = scan_item.loc().object();
  if (!_fInfoCache.WantDerivedInfo(loc)) return false;
  host::Scanner scanner(__fActiveSecondaryWholeFileScanners.Get(loc));
  if (!scanner.exists()) {
    scanner = host::Scanner::WholeFileSecondary(loc, scan_item.scan_name(), fLog.object());
    __fActiveSecondaryWholeFileScanners.Set(loc, scanner.object());
    fLog("Starting secondary whole file scan: %r", loc);
  }
  const ScanState state = scanner.Scan(end_time);
  if (!state.Is(kFinishedScanning) && !state.Is(kScanAbandoned)) return true;
  fLog("Finished secondary whole file scan: %r", loc);
  __fActiveSecondaryWholeFileScanners.Discard(loc);
  scanner.destroy();
  return false;
}

bool CScanCoordinator::__DoSecondarySingleScopeScan(const Object& loc, const Text& scope_name,
                                                    double end_time) {
  if (!_fInfoCache.WantDerivedInfo(loc)) return false;
  // Fetched in each slice: a scope that has gone ends the scan.
  const host::ScopeInfo info = _fInfoCache.GetScopeInfo(loc, scope_name.object());
  if (info.is_none()) return false;
  const Object key = pyrt::MakeTuple(loc, scope_name);
  host::Scanner scanner(__fActiveSecondarySingleScopeScanners.Get(key));
  if (!scanner.exists()) {
    scanner = host::Scanner::SingleScopeSecondary(info, fLog.object(), fAnaMgr.object());
    __fActiveSecondarySingleScopeScanners.Set(key, scanner.object());
  }
  const ScanState state = scanner.Scan(end_time);
  if (!state.Equals(kFinishedScanning) && !state.Equals(kScanAbandoned)) return true;
  scanner.destroy();
  __fActiveSecondarySingleScopeScanners.Discard(key);
  return false;
}

}  // namespace pysource
