// The symbol layer, `pysource.symbolinfo`, as the scheduler calls it. Functions and constants are
// looked up on the module at each use, so that a host may bring its own.

#ifndef HOST_SYMBOLS_H_
#define HOST_SYMBOLS_H_

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/containers.h"
#include "pysource/pyrt/values.h"

namespace host::symbols {

inline constinit pyrt::Name kModule{"pysource.symbolinfo"};

// A constant of the layer.
inline pyrt::Object Constant(const pyrt::Name& name) { return pyrt::ModuleAttr(kModule, name); }

template <class... Args>
pyrt::Object Function(const pyrt::Name& name, const Args&... args) {
  return pyrt::Call(pyrt::ModuleAttr(kModule, name), args...);
}

// "*": all scopes of a file.
inline pyrt::Text WildcardScope() {
  static constinit pyrt::Name kName{"kWildcardScope"};
  return pyrt::Text(Constant(kName));
}
inline bool IsInstanceScope(const pyrt::Text& scope_name) {
  static constinit pyrt::Name kName{"IsInstanceScope"};
  return pyrt::IsTrue(Function(kName, scope_name));
}
inline pyrt::Object GetInstanceNameForClass(const pyrt::Object& class_name) {
  static constinit pyrt::Name kName{"GetInstanceNameForClass"};
  return Function(kName, class_name);
}
inline pyrt::Object GetClassForInstanceName(const pyrt::Text& instance_name) {
  static constinit pyrt::Name kName{"GetClassForInstanceName"};
  return Function(kName, instance_name);
}
inline pyrt::Object ParentScopeName(const pyrt::Object& scope_name) {
  static constinit pyrt::Name kName{"ParentScopeName"};
  return Function(kName, scope_name);
}
// The record (parent name, leaf name).
inline pyrt::Object ParentAndLeafScopeNames(const pyrt::Object& scope_name) {
  static constinit pyrt::Name kName{"ParentAndLeafScopeNames"};
  return Function(kName, scope_name);
}
// The leaf name without its suffixes.
inline pyrt::Object WithoutSuffixes(const pyrt::Object& leaf) {
  static constinit pyrt::Name kName{"SplitScopeNameFromSuffixes"};
  return pyrt::Item(Function(kName, leaf), 0);
}
// The parts of an information string, of the type that it has.
inline pyrt::List NonNestedSplit(const pyrt::Object& information) {
  static constinit pyrt::Name kName{"NonNestedSplit"};
  return pyrt::List::Of(Function(kName, information, ";"));
}
// Whether any part has the prefix, or one of a record of prefixes.
inline bool InfoContains(const pyrt::Object& information, const pyrt::Object& prefixes) {
  static constinit pyrt::Name kName{"InfoContains"};
  return pyrt::IsTrue(Function(kName, information, prefixes));
}
// The kind of a part, to be compared with a kind constant.
inline pyrt::Object GetInfoBytesKind(const pyrt::Object& part) {
  static constinit pyrt::Name kName{"GetInfoBytesKind"};
  return Function(kName, part);
}
// The scope of a definition, decoded from a part with a definition's prefix.
inline pyrt::Object ScopeNameOfDefinition(const pyrt::Object& part) {
  static constinit pyrt::Name kName{"UnpackDefInfoStr"};
  static constinit pyrt::Name kScopeName{"scope_name"};
  return pyrt::GetAttr(Function(kName, part), kScopeName);
}

// Whether a part starts with a prefix of the layer; part and prefix may be bytes or text.
bool StartsWith(const pyrt::Object& part, const pyrt::Name& prefix);
// The text behind the prefix of a part.
pyrt::Text WithoutPrefix(const pyrt::Object& part);

}  // namespace host::symbols

#endif  // HOST_SYMBOLS_H_
