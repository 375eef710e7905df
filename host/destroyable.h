// The host's base class: explicit destruction and signals.
//
// Every function is one Python call. Signals are synchronous: emitting one, and connecting to one,
// may run any code of the host, which may call back into the object that emits.

#ifndef HOST_DESTROYABLE_H_
#define HOST_DESTROYABLE_H_

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/containers.h"

namespace host {

// The class CDestroyable as the host supplies it now.
inline pyrt::Object CDestroyable() {
  static constinit pyrt::Name kModule{"loombase.destroyable"};
  static constinit pyrt::Name kClass{"CDestroyable"};
  return pyrt::ModuleAttr(kModule, kClass);
}

// base.__init__(self), for a class without signals.
inline void InitDestroyable(const pyrt::Object& base, const pyrt::Object& self) {
  static constinit pyrt::Name kInit{"__init__"};
  pyrt::Call(pyrt::GetAttr(base, kInit), self);
}

// base.__init__(self, (name, ...)): declares the signals that the object can emit.
template <class... Names>
void InitDestroyable(const pyrt::Object& base, const pyrt::Object& self, const Names&... signals) {
  static constinit pyrt::Name kInit{"__init__"};
  pyrt::Call(pyrt::GetAttr(base, kInit), self, pyrt::MakeTuple(signals...));
}

inline void Destroy(const pyrt::Object& destroyable) {
  static constinit pyrt::Name kDestroy{"destroy"};
  pyrt::CallMethod(destroyable, kDestroy);
}

template <class... Args>
void Emit(const pyrt::Object& emitter, const char* signal, const Args&... args) {
  static constinit pyrt::Name kEmit{"emit"};
  pyrt::CallMethod(emitter, kEmit, signal, args...);
}

// A connection that lasts until the emitter dies.
inline void Connect(const pyrt::Object& emitter, const char* signal, const pyrt::Object& callback) {
  static constinit pyrt::Name kConnect{"connect"};
  pyrt::CallMethod(emitter, kConnect, signal, callback);
}

// A connection that is also cut when `owner` is destroyed. Returns its id.
inline pyrt::Object ConnectWhileAlive(const pyrt::Object& emitter, const char* signal,
                                      const pyrt::Object& callback, const pyrt::Object& owner) {
  static constinit pyrt::Name kConnect{"connect_while_alive"};
  return pyrt::CallMethod(emitter, kConnect, signal, callback, owner);
}

// A connection to the signal of every instance of a class, cut when `owner` is destroyed.
inline void ClassConnectWhileAlive(const pyrt::Object& emitting_class, const char* signal,
                                   const pyrt::Object& callback, const pyrt::Object& owner) {
  static constinit pyrt::Name kConnect{"class_connect_while_alive"};
  pyrt::CallMethod(emitting_class, kConnect, signal, callback, owner);
}

// Safe from inside the callback of that very connection.
inline void Disconnect(const pyrt::Object& emitter, const pyrt::Object& connection_id) {
  static constinit pyrt::Name kDisconnect{"disconnect"};
  pyrt::CallMethod(emitter, kDisconnect, connection_id);
}

}  // namespace host

#endif  // HOST_DESTROYABLE_H_
