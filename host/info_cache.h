// The info cache, the store of all scan results, and the records of scopes in it.

#ifndef HOST_INFO_CACHE_H_
#define HOST_INFO_CACHE_H_

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/containers.h"
#include "pysource/pyrt/values.h"

namespace host {

inline constinit pyrt::Name kScopeInfoModule{"pysource.scopeinfo"};

// What is known of one scope.
class ScopeInfo {
 public:
  explicit ScopeInfo(pyrt::Object object) : object_(std::move(object)) {}
  // A record that says that the scope is known to be absent.
  static ScopeInfo Absent(const pyrt::Object& loc, const pyrt::Object& scope_name,
                          const pyrt::Text& scan_name, const pyrt::Object& disk_mtime) {
    static constinit pyrt::Name kKey{"CScopeInfoKey"};
    static constinit pyrt::Name kInfo{"CScopeInfo"};
    static constinit pyrt::Name kDoesNotExist{"does_not_exist"};
    const pyrt::Object key = pyrt::Call(pyrt::ModuleAttr(kScopeInfoModule, kKey), loc, scope_name,
                                        scan_name, loc, scope_name);
    const pyrt::Object empty = pyrt::Bytes("");
    return ScopeInfo(pyrt::Call(pyrt::ModuleAttr(kScopeInfoModule, kInfo), key, empty, disk_mtime,
                                false, pyrt::Keyword{kDoesNotExist, pyrt::ToPython(true)}));
  }

  const pyrt::Object& object() const noexcept { return object_; }
  bool is_none() const noexcept { return object_.is_none(); }
  // The mapping from name to information string.
  pyrt::Object type_equivs() const {
    static constinit pyrt::Name kName{"type_equivs"};
    return pyrt::GetAttr(object_, kName);
  }
  pyrt::Object disk_mtime() const {
    static constinit pyrt::Name kName{"disk_mtime"};
    return pyrt::GetAttr(object_, kName);
  }

 private:
  pyrt::Object object_;
};

// Calls fn(name, information) for each entry of a scope's `type_equivs`, in the mapping's order.
// fn returns false to leave early.
template <class Fn>
void ForEachEquiv(const ScopeInfo& info, Fn&& fn) {
  static constinit pyrt::Name kItems{"items"};
  const pyrt::List items = pyrt::List::Of(pyrt::CallMethod(info.type_equivs(), kItems));
  for (std::size_t i = 0; i < items.size(); ++i) {
    const auto [name, information] = pyrt::Unpack<2>(items[i]);
    if (!fn(name, information)) return;
  }
}

class InfoCache {
 public:
  explicit InfoCache(pyrt::Object object) : object_(std::move(object)) {}

  // The class CInfoCache as the host supplies it now.
  static pyrt::Object Class() {
    static constinit pyrt::Name kName{"CInfoCache"};
    return pyrt::ModuleAttr(kScopeInfoModule, kName);
  }

  const pyrt::Object& object() const noexcept { return object_; }

  // Bounds the cache.
  void Trim() const {
    static constinit pyrt::Name kName{"Trim"};
    pyrt::CallMethod(object_, kName);
  }
  // Told when a scan finished in the idle loop.
  void FinishedWithScans(const pyrt::Object& loc, const pyrt::Text& scope_name,
                         const pyrt::Text& scan_name) const {
    static constinit pyrt::Name kName{"FinishedWithScans"};
    pyrt::CallMethod(object_, kName, loc, scope_name, scan_name);
  }
  // From location to time, to: from location to a text of the scans valid for that time.
  pyrt::Object GetScansDoneForMultipleFiles(const pyrt::Dict& modtimes) const {
    static constinit pyrt::Name kName{"GetScansDoneForMultipleFiles"};
    return pyrt::CallMethod(object_, kName, modtimes);
  }
  // A sequence of records (importing location, unused, import equivalents).
  pyrt::Object GetAllImports(const pyrt::List& locs) const {
    static constinit pyrt::Name kName{"GetAllImports"};
    return pyrt::CallMethod(object_, kName, locs);
  }
  // The stored record or none; never scans.
  ScopeInfo GetScopeInfo(const pyrt::Object& loc, const pyrt::Object& scope_name) const {
    static constinit pyrt::Name kName{"GetScopeInfo"};
    return ScopeInfo(pyrt::CallMethod(object_, kName, loc, scope_name));
  }
  void AddScopeInfo(const ScopeInfo& info) const {
    static constinit pyrt::Name kName{"AddScopeInfo"};
    pyrt::CallMethod(object_, kName, info.object());
  }
  // Modification time on disk; 0 if there is no such file.
  double GetDiskMTime(const pyrt::Object& loc) const {
    static constinit pyrt::Name kName{"GetDiskMTime"};
    return pyrt::FromPython<double>(pyrt::CallMethod(object_, kName, loc).get());
  }
  // Blocks until the cached results are in the database.
  void WriteToDatabase() const {
    static constinit pyrt::Name kName{"WriteToDatabase"};
    pyrt::CallMethod(object_, kName);
  }
  // The location cache: the builtins' location, or none while it isn't known.
  pyrt::Object GetBuiltinLoc() const {
    static constinit pyrt::Name kName{"GetBuiltinLoc"};
    return pyrt::CallMethod(fLocCache(), kName);
  }
  // The location cache: whether derived information is wanted for the file.
  bool WantDerivedInfo(const pyrt::Object& loc) const {
    static constinit pyrt::Name kName{"WantDerivedInfo"};
    return pyrt::IsTrue(pyrt::CallMethod(fLocCache(), kName, loc));
  }

 private:
  pyrt::Object fLocCache() const {
    static constinit pyrt::Name kName{"fLocCache"};
    return pyrt::GetAttr(object_, kName);
  }

  pyrt::Object object_;
};

}  // namespace host

#endif  // HOST_INFO_CACHE_H_
