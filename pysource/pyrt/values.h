// Questions about single values, and small values made of others. Where a question runs the host's
// code, the container is taken by value: its owner may let go of it meanwhile.

#ifndef PYSOURCE_PYRT_VALUES_H_
#define PYSOURCE_PYRT_VALUES_H_

#include <string_view>
#include <type_traits>

#include "pysource/pyrt/convert.h"
#include "pysource/pyrt/object.h"

namespace pyrt {

// value in container
inline bool Contains(Object container, const Object& value) {
  return Check(PySequence_Contains(container.get_or_none(), value.get_or_none())) != 0;
}

// sequence[index]; a negative index counts from the end.
inline Object Item(const Object& sequence, Py_ssize_t index) {
  return Own(PySequence_GetItem(sequence.get_or_none(), index));
}

// mapping[key]
inline Object Subscript(Object mapping, const Object& key) {
  return Own(PyObject_GetItem(mapping.get_or_none(), key.get_or_none()));
}

// mapping[key], or empty if the key isn't there.
inline Object GetOrEmpty(Object mapping, const Object& key) {
  if (PyDict_CheckExact(mapping.get_or_none())) {
    PyObject* value = PyDict_GetItemWithError(mapping.get(), key.get_or_none());
    if (value == nullptr && PyErr_Occurred() != nullptr) ThrowPending();
    return Object::Share(value);
  }
  return Contains(mapping, key) ? Subscript(mapping, key) : Object();
}

inline bool IsMapping(const Object& value) { return PyMapping_Check(value.get_or_none()) != 0; }
inline bool IsTuple(const Object& value) { return PyTuple_Check(value.get_or_none()) != 0; }
inline bool IsAnySet(const Object& value) { return PyAnySet_Check(value.get_or_none()) != 0; }
inline bool IsBytes(const Object& value) { return PyBytes_Check(value.get_or_none()) != 0; }
inline bool IsClass(const Object& value) { return PyType_Check(value.get_or_none()) != 0; }
// Whether the value is of that class and of none derived from it.
inline bool IsExactly(const Object& value, const Object& type) {
  return reinterpret_cast<PyObject*>(Py_TYPE(value.get_or_none())) == type.get();
}

// The class `set`.
inline Object SetClass() { return Object::Share(reinterpret_cast<PyObject*>(&PySet_Type)); }
inline Object FrozenSetOf(const Object& iterable) {
  return Own(PyFrozenSet_New(iterable.get_or_none()));
}

inline Object Bytes(std::string_view bytes) {
  return Own(PyBytes_FromStringAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size())));
}
// The content, owned by the object. Requires: IsBytes(value).
inline std::string_view BytesView(const Object& value) {
  char* data = nullptr;
  Py_ssize_t size = 0;
  Check(PyBytes_AsStringAndSize(value.get(), &data, &size));
  return {data, static_cast<std::size_t>(size)};
}

inline void SetAttr(const Object& object, const char* name, const Object& value) {
  Check(PyObject_SetAttrString(object.get_or_none(), name, value.get_or_none()));
}

// An instance of a class derived from tuple, past the class's own `__new__`. The class adds no
// fields of its own.
template <class... Values>
Object NewTuple(const Object& tuple_class, const Values&... values) {
  auto* type = reinterpret_cast<PyTypeObject*>(tuple_class.get());
  Object tuple = Own(PyType_GenericAlloc(type, sizeof...(Values)));
  Py_ssize_t next = 0;
  const auto add = [&](Object value) {
    Check(PyTuple_SetItem(tuple.get(), next++, value.release()));
  };
  (add(ToPython(values)), ...);
  return tuple;
}

// TypeError "Expected X, got Y", with the name of the value's type.
[[noreturn]] void RaiseUnexpected(const char* expected, const Object& value);

namespace internal {

template <class T>
auto FormatArgument(const T& value) {
  if constexpr (std::is_same_v<T, Object>) {
    return value.get_or_none();
  } else if constexpr (std::is_same_v<T, Text>) {
    return value.object().get_or_none();
  } else {
    return value;
  }
}

}  // namespace internal

// A text by a format of PyUnicode_FromFormat: %U for a text, %S and %R for str() and repr() of a
// value, %lld and %zu for numbers.
template <class... Args>
Text Format(const char* format, const Args&... args) {
  return Text(Own(PyUnicode_FromFormat(format, internal::FormatArgument(args)...)));
}

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_VALUES_H_
