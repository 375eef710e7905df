// The host's main loop: idle callbacks, timers, and wrappers for signal callbacks.
//
// Ids are opaque. A callback that returns true is called again; one that returns false or none is
// dead from then on, and so is its id, which idle_remove tolerates.

#ifndef HOST_LGTK_H_
#define HOST_LGTK_H_

#include <cstdint>

#include "pysource/pyrt/call.h"

namespace host::lgtk {

inline constinit pyrt::Name kModule{"guiutils.lgtk"};

inline pyrt::Object idle_add(const pyrt::Object& callback) {
  static constinit pyrt::Name kName{"idle_add"};
  return pyrt::Call(pyrt::ModuleAttr(kModule, kName), callback);
}

// A lower priority runs first, on the host's own scale.
inline pyrt::Object idle_add(const pyrt::Object& callback, std::int64_t priority) {
  static constinit pyrt::Name kName{"idle_add"};
  static constinit pyrt::Name kPriority{"priority"};
  return pyrt::Call(pyrt::ModuleAttr(kModule, kName), callback,
                    pyrt::Keyword{kPriority, pyrt::ToPython(priority)});
}

// Ends by itself when `owner` is destroyed.
inline pyrt::Object idle_add_while_alive(const pyrt::Object& callback, const pyrt::Object& owner) {
  static constinit pyrt::Name kName{"idle_add_while_alive"};
  return pyrt::Call(pyrt::ModuleAttr(kModule, kName), callback, owner);
}

inline pyrt::Object idle_remove(const pyrt::Object& id) {
  static constinit pyrt::Name kName{"idle_remove"};
  return pyrt::Call(pyrt::ModuleAttr(kModule, kName), id);
}

inline pyrt::Object timeout_add_while_alive(int milliseconds, const pyrt::Object& callback,
                                            const pyrt::Object& owner) {
  static constinit pyrt::Name kName{"timeout_add_while_alive"};
  return pyrt::Call(pyrt::ModuleAttr(kModule, kName), milliseconds, callback, owner);
}

inline void timeout_remove(const pyrt::Object& id) {
  static constinit pyrt::Name kName{"timeout_remove"};
  pyrt::Call(pyrt::ModuleAttr(kModule, kName), id);
}

// Wraps a callback without arguments: those of the signal are dropped.
inline pyrt::Object NoArgCallback(const pyrt::Object& callback) {
  static constinit pyrt::Name kName{"NoArgCallback"};
  return pyrt::Call(pyrt::ModuleAttr(kModule, kName), callback);
}

// Wraps a callback such that the emitter, the signal's first argument, is dropped.
inline pyrt::Object NoObjCallback(const pyrt::Object& callback) {
  static constinit pyrt::Name kName{"NoObjCallback"};
  return pyrt::Call(pyrt::ModuleAttr(kModule, kName), callback);
}

}  // namespace host::lgtk

#endif  // HOST_LGTK_H_
