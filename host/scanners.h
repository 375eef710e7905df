// The scanners, which do the scanning, and the states that they report.

#ifndef HOST_SCANNERS_H_
#define HOST_SCANNERS_H_

#include "host/destroyable.h"
#include "host/info_cache.h"

namespace host {

inline constinit pyrt::Name kScopeScannerModule{"pysource.scopescanner"};

// What Scan returned. States are opaque objects of the host.
class ScanState {
 public:
  explicit ScanState(pyrt::Object object) : object_(std::move(object)) {}
  // The very object that the host publishes under that name now.
  bool Is(const pyrt::Name& state) const {
    return object_.is(pyrt::ModuleAttr(kScopeScannerModule, state));
  }
  // Equal to it, which is for the host to say.
  bool Equals(const pyrt::Name& state) const {
    return pyrt::Equal(object_, pyrt::ModuleAttr(kScopeScannerModule, state));
  }

 private:
  pyrt::Object object_;
};

inline constinit pyrt::Name kWaitingForData{"kWaitingForData"};
inline constinit pyrt::Name kFinishedScanning{"kFinishedScanning"};
inline constinit pyrt::Name kScanAbandoned{"kScanAbandoned"};

class Scanner {
 public:
  explicit Scanner(pyrt::Object object) : object_(std::move(object)) {}

  static Scanner WholeFilePrimary(const pyrt::Object& loc, const pyrt::Text& scan_name,
                                  const pyrt::Object& incomplete_scope_set,
                                  const pyrt::Object& log) {
    static constinit pyrt::Name kName{"CWholeFilePrimaryScanner"};
    return Scanner(pyrt::Call(pyrt::ModuleAttr(kScopeScannerModule, kName), loc, scan_name,
                              pyrt::Keyword{kIncompleteScopeSet, incomplete_scope_set},
                              pyrt::Keyword{kLog, log}));
  }
  static Scanner SingleScopePrimary(const pyrt::Object& loc, const pyrt::Text& scope_name,
                                    const pyrt::Object& incomplete_scope_set,
                                    const pyrt::Object& log) {
    static constinit pyrt::Name kName{"CSingleScopePrimaryScanner"};
    return Scanner(pyrt::Call(pyrt::ModuleAttr(kScopeScannerModule, kName), loc, scope_name,
                              pyrt::Keyword{kIncompleteScopeSet, incomplete_scope_set},
                              pyrt::Keyword{kLog, log}));
  }
  static Scanner WholeFileSecondary(const pyrt::Object& loc, const pyrt::Text& scan_name,
                                    const pyrt::Object& log) {
    static constinit pyrt::Name kName{"CWholeFileSecondaryScanner"};
    return Scanner(pyrt::Call(pyrt::ModuleAttr(kScopeScannerModule, kName), loc, scan_name, log));
  }
  static Scanner SingleScopeSecondary(const ScopeInfo& info, const pyrt::Object& log,
                                      const pyrt::Object& ana_mgr) {
    static constinit pyrt::Name kName{"CSingleScopeSecondaryScanner"};
    return Scanner(pyrt::Call(pyrt::ModuleAttr(kScopeScannerModule, kName), info.object(), log,
                              pyrt::Object::None(), ana_mgr));
  }

  const pyrt::Object& object() const noexcept { return object_; }
  bool exists() const noexcept { return static_cast<bool>(object_); }

  // Works until `end_time` or until done. Runs the host's code, which may come back in.
  ScanState Scan(double end_time) const {
    static constinit pyrt::Name kName{"Scan"};
    return ScanState(pyrt::CallMethod(object_, kName, end_time));
  }
  void destroy() const { Destroy(object_); }
  // SaveToInfoCache(False); true as a value if the cache's content changed.
  pyrt::Object SaveToInfoCache(bool argument) const {
    static constinit pyrt::Name kName{"SaveToInfoCache"};
    return pyrt::CallMethod(object_, kName, argument);
  }
  void SaveToInfoCache() const {
    static constinit pyrt::Name kName{"SaveToInfoCache"};
    pyrt::CallMethod(object_, kName);
  }
  ScopeInfo fInfo() const {
    static constinit pyrt::Name kName{"fInfo"};
    return ScopeInfo(pyrt::GetAttr(object_, kName));
  }
  pyrt::Object fScopeDef() const {
    static constinit pyrt::Name kName{"fScopeDef"};
    return pyrt::GetAttr(object_, kName);
  }
  pyrt::Object fContainingClassDef() const {
    static constinit pyrt::Name kName{"fContainingClassDef"};
    return pyrt::GetAttr(object_, kName);
  }
  bool fFileDoesntExist() const {
    static constinit pyrt::Name kName{"fFileDoesntExist"};
    return pyrt::IsTrue(pyrt::GetAttr(object_, kName));
  }
  // Of the given triples, those that the running scan doesn't handle itself.
  pyrt::Object FilterNeedsScan(const pyrt::Object& needs_scan_added) const {
    static constinit pyrt::Name kName{"FilterNeedsScan"};
    return pyrt::CallMethod(object_, kName, needs_scan_added);
  }

 private:
  static inline constinit pyrt::Name kIncompleteScopeSet{"incomplete_scope_set"};
  static inline constinit pyrt::Name kLog{"log"};

  pyrt::Object object_;
};

// Whether a scope definition is that of a class.
inline bool IsClassDef(const pyrt::Object& scope_def) {
  static constinit pyrt::Name kModule{"pysource.logicalline"};
  static constinit pyrt::Name kClassDef{"kClassDef"};
  static constinit pyrt::Name kType{"fType"};
  return pyrt::Equal(pyrt::GetAttr(scope_def, kType), pyrt::ModuleAttr(kModule, kClassDef));
}

// The record of an instance scope, from those of its class and its methods.
inline ScopeInfo CreateClassInstInfo(const ScopeInfo& class_info, const pyrt::List& method_infos,
                                     const pyrt::Object& primary_scan_name) {
  static constinit pyrt::Name kName{"CreateClassInstInfo"};
  return ScopeInfo(pyrt::Call(pyrt::ModuleAttr(kScopeScannerModule, kName), class_info.object(),
                              method_infos, primary_scan_name));
}

}  // namespace host

#endif  // HOST_SCANNERS_H_
