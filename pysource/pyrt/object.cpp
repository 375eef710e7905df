#include "pysource/pyrt/object.h"

namespace pyrt {

void ThrowPending() {
  PyObject* exception = PyErr_GetRaisedException();
  if (exception == nullptr) {
    PyErr_SetString(PyExc_SystemError, "a call failed without setting an exception");
    exception = PyErr_GetRaisedException();
  }
  throw PythonError(Object::Steal(exception));
}

void Raise(PyObject* type, const std::string& text) {
  PyErr_SetString(type, text.c_str());
  ThrowPending();
}

Text::Text(Object object) : object_(std::move(object)) {
  if (!object_ || !PyUnicode_Check(object_.get())) {
    PyErr_Format(PyExc_TypeError, "expected str, got %R", Py_TYPE(object_.get_or_none()));
    ThrowPending();
  }
}

Text Text::FromUtf8(std::string_view utf8) {
  return Text(Own(PyUnicode_FromStringAndSize(utf8.data(), static_cast<Py_ssize_t>(utf8.size()))));
}

bool DebugChecks() {
  // `__debug__` is a compile-time constant of each Python module, so the interpreter's own flag
  // decides; it cannot change while the process runs.
  static const bool enabled = [] {
    const Object builtins = Own(PyImport_ImportModule("builtins"));
    const Object flag = Own(PyObject_GetAttrString(builtins.get(), "__debug__"));
    return Check(PyObject_IsTrue(flag.get())) != 0;
  }();
  return enabled;
}

void DebugCheck(bool condition, const char* text) {
  if (!condition && DebugChecks()) Raise(PyExc_AssertionError, text);
}

}  // namespace pyrt
