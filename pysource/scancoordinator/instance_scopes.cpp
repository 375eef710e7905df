// Instance scopes: put together from the records of a class and its methods, never scanned.

#include "host/symbols.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/coordinator.h"

namespace pysource {
namespace {

constinit pyrt::Name kMethodPrefix{"kMethodPrefix"};
constinit pyrt::Name kUnboundMethodPrefix{"kUnboundMethodPrefix"};
constinit pyrt::Name kClassPrefix{"kClassPrefix"};

Object PrimaryScanName() {
  static constinit pyrt::Name kPrimaryScanName{"fPrimaryScanName"};
  return pyrt::GetAttr(host::Singletons::Get().fAnalysisMgr(), kPrimaryScanName);
}

}  // namespace

// The scope of the method that an entry defines, or empty for a data attribute.
Object CScanCoordinator::ScopeOfMethod(const Object& information) const {
  const Object prefixes = pyrt::MakeTuple(host::symbols::Constant(kMethodPrefix),
                                          host::symbols::Constant(kUnboundMethodPrefix));
  if (!host::symbols::InfoContains(information, prefixes)) return Object();
  const pyrt::List parts = host::symbols::NonNestedSplit(information);
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const Object part = parts[i];
    if (!host::symbols::StartsWith(part, kMethodPrefix) &&
        !host::symbols::StartsWith(part, kUnboundMethodPrefix)) {
      continue;
    }
    if (!pyrt::IsBytes(part)) pyrt::RaiseUnexpected("bytes", part);
    return host::symbols::ScopeNameOfDefinition(part);
  }
  return Object();
}

Object CScanCoordinator::_TryToScanInstanceScopeNow(const Object& loc, const Text& scope_name,
                                                    double end_time) {
  if (pyrt::DebugChecks()) pyrt::DebugCheck(host::symbols::IsInstanceScope(scope_name));
  const Object class_name = host::symbols::GetClassForInstanceName(scope_name);
  const host::InferContext context = _fInferenceEngine.NewContext(end_time);
  const host::ScopeInfo class_info = _fInferenceEngine.GetScopeInfo(loc, class_name, context);
  if (class_info.is_none() || context.OutOfTime()) return Object();

  bool complete = true;
  pyrt::List method_infos;
  host::ForEachEquiv(class_info, [&](const Object&, const Object& information) {
    const Object method_scope = ScopeOfMethod(information);
    if (!method_scope) return true;
    // A method that can't be found is left out.
    const host::ScopeInfo method = _fInferenceEngine.GetScopeInfo(loc, method_scope, context);
    if (!method.is_none()) method_infos.Append(method.object());
    complete = !context.OutOfTime();
    return complete;
  });
  const host::ScopeInfo instance_info =
      host::CreateClassInstInfo(class_info, method_infos, PrimaryScanName());
  // A partial result is for this caller only: no later reader finds it in the cache.
  if (!complete) return instance_info.object();
  _fInfoCache.AddScopeInfo(instance_info);
  const host::ScopeInfo cached = _fInfoCache.GetScopeInfo(loc, scope_name.object());
  return cached.is_none() ? instance_info.object() : cached.object();
}

Object CScanCoordinator::BuildInstanceScopeNoScanning(const Object& loc, const Text& scope_name,
                                                      double /*end_time*/) {
  if (pyrt::DebugChecks()) pyrt::DebugCheck(host::symbols::IsInstanceScope(scope_name));
  const Object class_name = host::symbols::GetClassForInstanceName(scope_name);
  const host::ScopeInfo class_info = _fInfoCache.GetScopeInfo(loc, class_name);
  if (class_info.is_none()) return ReportMissingClass(loc, class_name);

  pyrt::List method_infos;
  pyrt::List missing_pairs;
  host::ForEachEquiv(class_info, [&](const Object&, const Object& information) {
    const Object method_scope = ScopeOfMethod(information);
    if (!method_scope) return true;
    const host::ScopeInfo method = _fInfoCache.GetScopeInfo(loc, method_scope);
    if (method.is_none()) {
      missing_pairs.Append(pyrt::MakeTuple(loc, method_scope));
    } else {
      method_infos.Append(method.object());
    }
    return true;
  });
  if (!missing_pairs.empty()) {
    // The scans of the methods queue the instance scope again.
    AddPairsToPrimaryQueue(missing_pairs.object(), true);
    return Object();
  }
  const host::ScopeInfo instance_info =
      host::CreateClassInstInfo(class_info, method_infos, PrimaryScanName());
  _fInfoCache.AddScopeInfo(instance_info);
  return instance_info.object();
}

// Finds out why the cache doesn't have a class: its parent or itself isn't scanned, which is
// queued, or it doesn't exist, which is recorded.
Object CScanCoordinator::ReportMissingClass(const Object& loc, const Object& class_name) {
  const auto [parent_name, leaf] =
      pyrt::Unpack<2>(host::symbols::ParentAndLeafScopeNames(class_name));
  const auto queue_scope = [&](const Object& scope) {
    const pyrt::List pairs = pyrt::List::With(pyrt::MakeTuple(loc, scope));
    AddPairsToPrimaryQueue(pairs.object());
  };
  const host::ScopeInfo parent_info = _fInfoCache.GetScopeInfo(loc, parent_name);
  if (parent_info.is_none()) {
    queue_scope(parent_name);
    return Object();
  }
  static constinit pyrt::Name kGet{"get"};
  const Object entry =
      pyrt::CallMethod(parent_info.type_equivs(), kGet, host::symbols::WithoutSuffixes(leaf));
  if (!entry.is_none() &&
      host::symbols::InfoContains(entry, host::symbols::Constant(kClassPrefix))) {
    queue_scope(class_name);
    return Object();
  }
  const Text scan_name = fAnaMgr.fPrimaryScanName();
  _fInfoCache.AddScopeInfo(
      host::ScopeInfo::Absent(loc, class_name, scan_name, parent_info.disk_mtime()));
  const Object instance_name = host::symbols::GetInstanceNameForClass(class_name);
  const host::ScopeInfo absent =
      host::ScopeInfo::Absent(loc, instance_name, scan_name, parent_info.disk_mtime());
  _fInfoCache.AddScopeInfo(absent);
  return absent.object();
}

}  // namespace pysource
