#include "pysource/pyrt/values.h"

#include "pysource/pyrt/containers.h"

namespace pyrt {

Object NewTuple(const Object& tuple_class, const Object& elements) {
  static const auto tuple_new = reinterpret_cast<newfunc>(PyType_GetSlot(&PyTuple_Type, Py_tp_new));
  const Object args = MakeTuple(elements);
  return Own(tuple_new(reinterpret_cast<PyTypeObject*>(tuple_class.get()), args.get(), nullptr));
}

void RaiseUnexpected(const char* expected, const Object& value) {
  const Object type_name = Own(PyType_GetName(Py_TYPE(value.get_or_none())));
  PyErr_Format(PyExc_TypeError, "Expected %s, got %.200U", expected, type_name.get());
  ThrowPending();
}

}  // namespace pyrt
