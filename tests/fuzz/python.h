// The interpreter that some targets start. The C API is used as it is here: a target has nothing to
// clean up but what it looks at.

#ifndef TESTS_FUZZ_PYTHON_H_
#define TESTS_FUZZ_PYTHON_H_

#include "pysource/pyrt/python.h"
#include "tests/fuzz/fuzz.h"

namespace fuzz {

// Starts the interpreter once; it lives until the process ends.
inline void StartPython() {
  [[maybe_unused]] static const bool started = [] {
    Py_InitializeEx(0);
    // Invalid escapes in compiled text aren't worth a line each.
    PyObject* const warnings = PyImport_ImportModule("warnings");
    FUZZ_CHECK(warnings != nullptr &&
               PyObject_CallMethod(warnings, "simplefilter", "s", "ignore") != nullptr);
    return true;
  }();
}

// Whether that failure is pending, and no other; it is cleared.
inline bool TakeFailure(PyObject* type) {
  if (PyErr_Occurred() == nullptr) return false;
  FUZZ_CHECK(PyErr_ExceptionMatches(type) != 0);
  PyErr_Clear();
  return true;
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_PYTHON_H_
