// The border between C++ and CPython: no C++ exception ever passes it.

#ifndef PYSOURCE_PYRT_GUARD_H_
#define PYSOURCE_PYRT_GUARD_H_

#include <new>
#include <type_traits>
#include <utility>

#include "pysource/pyrt/object.h"

namespace pyrt {

// Makes the C++ exception in hand pending in Python. Requires: called from a catch block.
void SetPendingFromCurrentException() noexcept;

// Runs `body` and returns its result in the form that CPython expects of a slot: an Object becomes
// a new reference (empty becomes None), void becomes 0 and an int stays as it is. On any exception
// the result is null or -1, with the exception pending.
template <class Body>
auto Guard(Body&& body) noexcept {
  using Result = std::invoke_result_t<Body>;
  if constexpr (std::is_same_v<Result, Object>) {
    try {
      Object result = std::forward<Body>(body)();
      return result ? result.release() : Object::None().release();
    } catch (...) {
      SetPendingFromCurrentException();
      return static_cast<PyObject*>(nullptr);
    }
  } else {
    try {
      if constexpr (std::is_void_v<Result>) {
        std::forward<Body>(body)();
        return 0;
      } else {
        return std::forward<Body>(body)();
      }
    } catch (...) {
      SetPendingFromCurrentException();
      return -1;
    }
  }
}

// Keeps the pending exception, if any, across code that runs in a destructor, and reports what that
// code itself raises as unraisable.
class SavedError {
 public:
  SavedError() noexcept : saved_(PyErr_GetRaisedException()) {}
  SavedError(const SavedError&) = delete;
  SavedError& operator=(const SavedError&) = delete;
  ~SavedError() {
    if (PyErr_Occurred() != nullptr) PyErr_WriteUnraisable(nullptr);
    PyErr_SetRaisedException(saved_);
  }

 private:
  PyObject* saved_;
};

// Makes an error the exception that is being handled, as inside a Python `except` block.
class HandlingError {
 public:
  explicit HandlingError(const PythonError& error) noexcept
      : outer_(Object::Steal(PyErr_GetHandledException())) {
    PyErr_SetHandledException(error.exception().get());
  }
  HandlingError(const HandlingError&) = delete;
  HandlingError& operator=(const HandlingError&) = delete;
  ~HandlingError() { PyErr_SetHandledException(outer_.get()); }

 private:
  Object outer_;
};

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_GUARD_H_
