// Locations: the host's file location objects, and the functions of its module.

#ifndef HOST_LOCATION_H_
#define HOST_LOCATION_H_

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/containers.h"

namespace host::location {

inline constinit pyrt::Name kModule{"loombase.location"};

// The module for the length of one operation, in which a function is asked of many locations. The
// function itself is looked up at each use.
class Functions {
 public:
  Functions() : module_(pyrt::Module(kModule)) {}
  // Whether the location must be inspected asynchronously before it is used.
  bool IsAsyncInspectLocation(const pyrt::Object& loc) const {
    static constinit pyrt::Name kName{"IsAsyncInspectLocation"};
    return pyrt::IsTrue(pyrt::Call(pyrt::GetAttr(module_, kName), loc));
  }

 private:
  pyrt::Object module_;
};

// Calls callback(abort) once when all are inspected, now or later.
inline void WaitForInspectMultiple(const pyrt::Object& loc_seq, const pyrt::Object& callback,
                                   const pyrt::Object& force) {
  static constinit pyrt::Name kName{"_WaitForInspectMultiple"};
  pyrt::Call(pyrt::ModuleAttr(kModule, kName), loc_seq, callback, force);
}

// Whether the location is a local file, by its class.
inline bool IsLocalFile(const pyrt::Object& loc) {
  static constinit pyrt::Name kName{"CLocalFileLocation"};
  return pyrt::IsInstance(loc, pyrt::ModuleAttr(kModule, kName));
}

// The URL as text.
inline pyrt::Text fUrl(const pyrt::Object& loc) {
  static constinit pyrt::Name kName{"fUrl"};
  return pyrt::Text(pyrt::GetAttr(loc, kName));
}

// The location of the directory of a file.
inline pyrt::Object GetParentDir(const pyrt::Object& loc) {
  static constinit pyrt::Name kName{"GetParentDir"};
  return pyrt::CallMethod(loc, kName);
}

// Whether remote inspection of the location is done.
inline bool IsReady(const pyrt::Object& loc) {
  static constinit pyrt::Name kName{"IsReady"};
  return pyrt::IsTrue(pyrt::CallMethod(loc, kName));
}

}  // namespace host::location

#endif  // HOST_LOCATION_H_
