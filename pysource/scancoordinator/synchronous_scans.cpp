// Scanning on the stack of a caller that can't wait.
//
// It is re-entrant: the work of a scanner may lead to a further call on the same stack. Two sets of
// triples are the whole protocol. Active: the triple is being scanned further up the stack and must
// not be started again. Pending: some call up the stack will scan it, and a nested call may do so
// first. Both are empty whenever no call is on the stack.

#include "host/symbols.h"
#include "pysource/pyrt/guard.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/coordinator.h"

namespace pysource {
namespace {

// The wall clock itself, on which the caller's deadline is given.
double WallClock() {
  static constinit pyrt::Name kModule{"time"};
  static constinit pyrt::Name kTime{"time"};
  return pyrt::FromPython<double>(pyrt::Call(pyrt::ModuleAttr(kModule, kTime)).get());
}

}  // namespace

bool CScanCoordinator::TryToScanDictNow(const Object&, const Object&, const Object& needs_scan_set,
                                        double end_time) {
  if (pyrt::Size(needs_scan_set) == 0) return false;
  const Text primary_name = fAnaMgr.fPrimaryScanName();
  pyrt::List primary;
  pyrt::ForEach(needs_scan_set, [&](const Object& element) {
    const auto [loc, scope_name, scan_name] = pyrt::Unpack<3>(element);
    const Object triple = pyrt::MakeTuple(loc, scope_name, scan_name);
    if (_fActiveScanNowTriples.Contains(triple)) return;
    if (pyrt::Equal(scan_name, primary_name.object())) {
      primary.Append(triple);
    } else if (!_fPendingScanNowTriples.Contains(triple)) {
      const pyrt::List pairs = pyrt::List::With(pyrt::MakeTuple(loc, scope_name));
      AddPairsToSecondaryQueue(pairs.object());
    }
  });
  if (primary.empty()) return false;

  pyrt::Set remaining = pyrt::Set::Of(primary.object());
  // What nobody has claimed yet; these claims are this call's own.
  pyrt::List added;
  pyrt::ForEach(pyrt::List::Of(remaining.object()).object(), [&](const Object& triple) {
    if (!_fPendingScanNowTriples.Contains(triple)) added.Append(triple);
  });
  pyrt::ForEach(added.object(), [&](const Object& triple) { _fPendingScanNowTriples.Add(triple); });
  return pyrt::WithCleanup([&] { return TryToScanTriples(primary, end_time, remaining); },
                           [&] {
                             pyrt::ForEach(added.object(), [&](const Object& triple) {
                               _fPendingScanNowTriples.Discard(triple);
                             });
                             // The idle loop finishes what this call didn't.
                             if (!remaining.empty()) AddNeedsScanSetToQueues(remaining.object());
                           });
}

// Scans the triples one by one. False if the deadline passed; what isn't done stays in `remaining`.
bool CScanCoordinator::TryToScanTriples(const pyrt::List& triples, double end_time,
                                        pyrt::Set& remaining) {
  for (std::size_t i = 0; i < triples.size(); ++i) {
    const Object triple = triples[i];
    if (!_fPendingScanNowTriples.Contains(triple)) continue;  // a nested call has finished it
    const bool in_time = pyrt::WithCleanup(
        [&] {
          _fActiveScanNowTriples.Add(triple);
          const auto [loc, scope_name, scan_name] = pyrt::Unpack<3>(triple);
          const pyrt::List names = pyrt::List::With(scan_name);
          TryToScanNow(loc, Text(scope_name), names.object(), end_time);
          if (WallClock() > end_time) return false;
          _fPendingScanNowTriples.Discard(triple);
          remaining.Discard(triple);
          return true;
        },
        [&] { _fActiveScanNowTriples.Discard(triple); });
    if (!in_time) return false;
  }
  return true;
}

Object CScanCoordinator::TryToScanNow(const Object& loc, const Text& scope_name,
                                      const Object& scan_name_list, double end_time,
                                      bool /*do_secondary*/) {
  if (host::symbols::IsInstanceScope(scope_name)) {
    return _TryToScanInstanceScopeNow(loc, scope_name, end_time);
  }
  Object names = scan_name_list;
  if (names.is_none()) {
    pyrt::List both;
    both.Append(fAnaMgr.fPrimaryScanName().object());
    both.Append(fAnaMgr.fDerivedScanName().object());
    names = both.object();
  }
  const auto holds = [&](const Text& scan_name) {
    return pyrt::Contains(names, scan_name.object());
  };
  const bool do_primary = holds(fAnaMgr.fPrimaryScanName());
  const bool do_secondary = holds(fAnaMgr.fDerivedScanName());
  if (do_primary) {
    const Object result = ScanPrimaryNow(loc, scope_name, end_time);
    if (!result.is_none()) return result;
  }
  if (do_secondary && !__DoSecondarySingleScopeScan(loc, scope_name, end_time)) {
    queue().RemoveScanTriple({Location(loc), scope_name, fAnaMgr.fDerivedScanName()}, std::nullopt);
  }
  return Object();
}

// The primary part of TryToScanNow: a result that ends the call, or none.
Object CScanCoordinator::ScanPrimaryNow(const Object& loc, const Text& scope_name,
                                        double end_time) {
  const Object incomplete = _fIncompleteScansByLoc.At(loc);
  const host::Scanner scanner =
      host::Scanner::SingleScopePrimary(loc, scope_name, incomplete, fLog.object());
  return pyrt::WithCleanup(
      [&]() -> Object {
        const ScanTriple triple{Location(loc), scope_name, fAnaMgr.fPrimaryScanName()};
        const host::ScanState state = scanner.Scan(end_time);
        if (scanner.fFileDoesntExist()) {
          queue().RemoveScanTriple(triple, std::nullopt);
          return pyrt::MakeTuple(false, Object::None(), Object::None());
        }
        if (!state.Is(host::kFinishedScanning) && !state.Is(host::kScanAbandoned)) {
          const pyrt::List pairs = pyrt::List::With(pyrt::MakeTuple(loc, scope_name.object()));
          AddPairsToPrimaryQueue(pairs.object(), true);
        }
        if (state.Is(host::kWaitingForData)) {
          return pyrt::MakeTuple(true, Object::None(), Object::None());
        }
        scanner.SaveToInfoCache();
        // After a time-out this undoes the queueing above: what was scanned so far is saved.
        queue().RemoveScanTriple(triple, std::nullopt);
        return Object();
      },
      [&] { scanner.destroy(); });
}

}  // namespace pysource
