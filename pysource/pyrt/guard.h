// The border between C++ and CPython: no C++ exception ever passes it.

#ifndef PYSOURCE_PYRT_GUARD_H_
#define PYSOURCE_PYRT_GUARD_H_

#include <exception>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include "pysource/pyrt/object.h"

namespace pyrt {

// Makes the C++ exception in hand pending in Python. Requires: called from a catch block.
void SetPendingFromCurrentException() noexcept;

// The C++ exception in hand as the Python exception that it becomes. Requires: called from a catch
// block.
PythonError CurrentError() noexcept;

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

// Steps that must all be done, also when one of them fails: the first failure is thrown at the end.
class AllSteps {
 public:
  template <class Step>
  void Run(Step&& step) {
    try {
      std::forward<Step>(step)();
    } catch (...) {
      if (!first_failure_) first_failure_ = std::current_exception();
    }
  }
  bool failed() const noexcept { return static_cast<bool>(first_failure_); }
  void Finish() {
    if (first_failure_) std::rethrow_exception(std::exchange(first_failure_, nullptr));
  }

 private:
  std::exception_ptr first_failure_;
};

// body() and then cleanup(), whatever happened. A failure of the clean-up replaces the body's.
template <class Body, class Cleanup>
auto WithCleanup(Body&& body, Cleanup&& cleanup) {
  using Result = std::invoke_result_t<Body>;
  std::exception_ptr failure;
  std::optional<std::conditional_t<std::is_void_v<Result>, bool, Result>> result;
  try {
    if constexpr (std::is_void_v<Result>) {
      std::forward<Body>(body)();
    } else {
      result.emplace(std::forward<Body>(body)());
    }
  } catch (...) {
    failure = std::current_exception();
  }
  std::forward<Cleanup>(cleanup)();
  if (failure) std::rethrow_exception(failure);
  if constexpr (!std::is_void_v<Result>) return std::move(*result);
}

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
