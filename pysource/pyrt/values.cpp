#include "pysource/pyrt/values.h"

namespace pyrt {

void RaiseUnexpected(const char* expected, const Object& value) {
  const Object type_name = Own(PyType_GetName(Py_TYPE(value.get_or_none())));
  PyErr_Format(PyExc_TypeError, "Expected %s, got %.200U", expected, type_name.get());
  ThrowPending();
}

}  // namespace pyrt
