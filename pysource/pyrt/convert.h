// Values across the border: FromPython<T> reads an argument, ToPython makes a result.
//
// FromPython takes a borrowed reference and throws TypeError, ValueError or OverflowError if the
// object is not of the wanted form. Other headers specialize Converter for their own types.

#ifndef PYSOURCE_PYRT_CONVERT_H_
#define PYSOURCE_PYRT_CONVERT_H_

#include <concepts>
#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>
#include <vector>

#include "pysource/pyrt/object.h"

namespace pyrt {

template <class T>
struct Converter;

template <class T>
T FromPython(PyObject* value) {
  return Converter<T>::From(value);
}

template <class T>
Object ToPython(const T& value) {
  return Converter<T>::To(value);
}

template <>
struct Converter<Object> {
  static Object From(PyObject* value) { return Object::Share(value); }
  static Object To(const Object& value) { return value ? value : Object::None(); }
};

template <>
struct Converter<Text> {
  static Text From(PyObject* value) { return Text(Object::Share(value)); }
  static Object To(const Text& value) { return Converter<Object>::To(value.object()); }
};

// Any value for its truth.
template <>
struct Converter<bool> {
  static bool From(PyObject* value) { return Check(PyObject_IsTrue(value)) != 0; }
  static Object To(bool value) { return Own(PyBool_FromLong(value ? 1 : 0)); }
};

// Anything with `__index__`; OverflowError if it does not fit.
template <>
struct Converter<std::int64_t> {
  static std::int64_t From(PyObject* value) {
    const Object index = PyLong_CheckExact(value) ? Object() : Own(PyNumber_Index(value));
    const long long result = PyLong_AsLongLong(index ? index.get() : value);
    if (result == -1 && PyErr_Occurred() != nullptr) ThrowPending();
    return result;
  }
  static Object To(std::int64_t value) { return Own(PyLong_FromLongLong(value)); }
};

template <>
struct Converter<double> {
  static double From(PyObject* value) {
    const double result = PyFloat_AsDouble(value);
    if (result == -1.0 && PyErr_Occurred() != nullptr) ThrowPending();
    return result;
  }
  static Object To(double value) { return Own(PyFloat_FromDouble(value)); }
};

// None is the absent value.
template <class T>
struct Converter<std::optional<T>> {
  static std::optional<T> From(PyObject* value) {
    if (value == Py_None) return std::nullopt;
    return FromPython<T>(value);
  }
  static Object To(const std::optional<T>& value) {
    return value ? ToPython(*value) : Object::None();
  }
};

inline Object ToPython(const char* text) { return Own(PyUnicode_FromString(text)); }
inline Object ToPython(const Name& name) { return Object::Share(name.get()); }
inline Object ToPython(int value) { return Own(PyLong_FromLong(value)); }

// The UTF-8 form of a text; owned by the text. Requires: the text has one (no lone surrogates).
std::string_view Utf8(const Text& text);

// The truth of a value, as Python's own tests take it.
inline bool IsTrue(const Object& value) { return Check(PyObject_IsTrue(value.get_or_none())) != 0; }

// len(value)
inline std::size_t Size(const Object& value) {
  const Py_ssize_t size = PyObject_Size(value.get_or_none());
  if (size < 0) ThrowPending();
  return static_cast<std::size_t>(size);
}

// Python's `==`, where identical objects are equal.
inline bool Equal(const Object& a, const Object& b) {
  return Check(PyObject_RichCompareBool(a.get_or_none(), b.get_or_none(), Py_EQ)) != 0;
}

inline bool IsInstance(const Object& value, const Object& type) {
  return Check(PyObject_IsInstance(value.get_or_none(), type.get())) != 0;
}

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_CONVERT_H_
