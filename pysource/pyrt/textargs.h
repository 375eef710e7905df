// Arguments of text helpers: UTF-8 by bytes or str, single bytes, bits, and the failures they
// share.

#ifndef PYSOURCE_PYRT_TEXTARGS_H_
#define PYSOURCE_PYRT_TEXTARGS_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "pysource/pyrt/convert.h"
#include "pysource/pyrt/guard.h"
#include "pysource/pyrt/object.h"
#include "pysource/pyrt/values.h"

namespace pyrt {

// Runs `body` and returns its result. On any exception that is pending in Python, and the result is
// `failed`: for functions that tell a failure by a special result.
template <class Result, class Fn>
Result OrPending(Result failed, Fn&& body) noexcept {
  try {
    return std::forward<Fn>(body)();
  } catch (...) {
    SetPendingFromCurrentException();
    return failed;
  }
}

// The other way: the result of such a function, or the exception that it has left pending.
template <class Result>
Result ThrowIfPending(Result result) {
  if (PyErr_Occurred() != nullptr) ThrowPending();
  return result;
}

inline Object TypeName(const Object& value) {
  return Own(PyType_GetName(Py_TYPE(value.get_or_none())));
}

// TypeError "Argument 'scope' has incorrect type (expected str, got int)".
[[noreturn]] inline void RaiseArgumentType(const char* argument, const char* expected,
                                           const Object& got) {
  PyErr_Format(PyExc_TypeError,
               "Argument '%.200s' has incorrect type (expected %.200s, got %.200S)", argument,
               expected, TypeName(got).get());
  ThrowPending();
}

inline bool IsText(const Object& value) { return PyUnicode_Check(value.get_or_none()) != 0; }
// Of no class derived from it.
inline bool IsExactlyText(const Object& value) {
  return PyUnicode_CheckExact(value.get_or_none()) != 0;
}
inline bool IsExactlyBytes(const Object& value) {
  return PyBytes_CheckExact(value.get_or_none()) != 0;
}

// Counted in code points, as len() does.
inline Py_ssize_t Length(const Text& text) { return PyUnicode_GetLength(text.get()); }
// Requires: 0 <= index < Length(text).
inline Py_UCS4 CodePointAt(const Text& text, Py_ssize_t index) {
  return PyUnicode_ReadChar(text.get(), index);
}

// A text given as bytes or as str, seen as UTF-8. It keeps the object alive. A zero byte stands
// behind the view.
class Utf8Text {
 public:
  Utf8Text() = default;
  explicit Utf8Text(Object object) : object_(std::move(object)) {
    if (IsBytes(object_)) {
      is_bytes_ = true;
      view_ = BytesView(object_);
    } else if (IsText(object_)) {
      view_ = Utf8(Text(object_));
    } else {
      RaiseUnexpected("bytes or str", object_);
    }
  }

  std::string_view view() const noexcept { return view_; }
  bool is_bytes() const noexcept { return is_bytes_; }
  const Object& object() const noexcept { return object_; }
  // A piece of it, of the type that it has.
  Object Piece(std::string_view piece) const {
    return is_bytes_ ? Bytes(piece) : Text::FromUtf8(piece).object();
  }

 private:
  Object object_;
  std::string_view view_;
  bool is_bytes_ = false;
};

template <>
struct Converter<Utf8Text> {
  static Utf8Text From(PyObject* value) { return Utf8Text(Object::Share(value)); }
};

// A byte: an int from 0 to 255 (else OverflowError) or a bytes object of length one (else
// ValueError).
template <>
struct Converter<unsigned char> {
  static unsigned char From(PyObject* value) {
    if (PyBytes_Check(value) != 0) {
      const std::string_view bytes = BytesView(Object::Share(value));
      if (bytes.size() != 1) {
        Raise(PyExc_ValueError,
              "expected a single byte, got bytes of length " + std::to_string(bytes.size()));
      }
      return static_cast<unsigned char>(bytes[0]);
    }
    const std::int64_t number = FromPython<std::int64_t>(value);
    if (number < 0 || number > 255) Raise(PyExc_OverflowError, "a byte is from 0 to 255");
    return static_cast<unsigned char>(number);
  }
  static Object To(unsigned char value) { return Own(PyLong_FromLong(value)); }
};

// Anything with `__index__`; OverflowError if it is negative or doesn't fit.
template <>
struct Converter<std::uint64_t> {
  static std::uint64_t From(PyObject* value) {
    const Object index = Own(PyNumber_Index(value));
    const unsigned long long result = PyLong_AsUnsignedLongLong(index.get());
    if (result == ~0ULL && PyErr_Occurred() != nullptr) ThrowPending();
    return result;
  }
  static Object To(std::uint64_t value) { return Own(PyLong_FromUnsignedLongLong(value)); }
};

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_TEXTARGS_H_
