#include "pysource/pyrt/guard.h"

#include <exception>

namespace pyrt {

void SetPendingFromCurrentException() noexcept {
  try {
    throw;
  } catch (PythonError& error) {
    error.Restore();
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_SystemError, error.what());
  } catch (...) {
    PyErr_SetString(PyExc_SystemError, "an unknown C++ exception");
  }
}

PythonError CurrentError() noexcept {
  SetPendingFromCurrentException();
  return PythonError(Object::Steal(PyErr_GetRaisedException()));
}

}  // namespace pyrt
