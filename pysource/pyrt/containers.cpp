#include "pysource/pyrt/containers.h"

#include <string>

namespace pyrt {
namespace {

[[noreturn]] void TooMany(std::size_t expected) {
  Raise(PyExc_ValueError, "too many values to unpack (expected " + std::to_string(expected) + ")");
}

[[noreturn]] void TooFew(std::size_t expected, std::size_t got) {
  Raise(PyExc_ValueError, "not enough values to unpack (expected " + std::to_string(expected) +
                              ", got " + std::to_string(got) + ")");
}

void UnpackTuple(PyObject* tuple, Object* elements, std::size_t count) {
  const auto size = static_cast<std::size_t>(PyTuple_Size(tuple));
  if (size > count) TooMany(count);
  if (size < count) TooFew(count, size);
  for (std::size_t i = 0; i < count; ++i) {
    elements[i] = Borrow(PyTuple_GetItem(tuple, static_cast<Py_ssize_t>(i)));
  }
}

}  // namespace

void UnpackInto(PyObject* sequence, Object* elements, std::size_t count) {
  // Tuples, and instances of derived classes that don't iterate in a way of their own.
  static void* const tuple_iter = PyType_GetSlot(&PyTuple_Type, Py_tp_iter);
  if (PyTuple_CheckExact(sequence) ||
      (PyTuple_Check(sequence) && PyType_GetSlot(Py_TYPE(sequence), Py_tp_iter) == tuple_iter)) {
    UnpackTuple(sequence, elements, count);
    return;
  }
  PyObject* raw_iterator = PyObject_GetIter(sequence);
  if (raw_iterator == nullptr) {
    const bool not_iterable = PyErr_ExceptionMatches(PyExc_TypeError) != 0 &&
                              PyType_GetSlot(Py_TYPE(sequence), Py_tp_iter) == nullptr &&
                              PySequence_Check(sequence) == 0;
    if (!not_iterable) ThrowPending();
    PyErr_Clear();
    const Object type_name = Own(PyType_GetName(Py_TYPE(sequence)));
    PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %U object", type_name.get());
    ThrowPending();
  }
  const Object iterator = Object::Steal(raw_iterator);
  for (std::size_t i = 0; i < count; ++i) {
    elements[i] = Object::Steal(PyIter_Next(iterator.get()));
    if (elements[i]) continue;
    if (PyErr_Occurred() != nullptr) ThrowPending();
    TooFew(count, i);
  }
  const Object surplus = Object::Steal(PyIter_Next(iterator.get()));
  if (surplus) TooMany(count);
  if (PyErr_Occurred() != nullptr) ThrowPending();
}

}  // namespace pyrt
