// Arguments of text helpers: UTF-8 by bytes or str, single bytes, and the failures they share.

#ifndef PYSOURCE_PYRT_TEXTARGS_H_
#define PYSOURCE_PYRT_TEXTARGS_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "pysource/pyrt/convert.h"
#include "pysource/pyrt/object.h"

namespace pyrt {

inline Object TypeName(PyObject* value) { return Own(PyType_GetName(Py_TYPE(value))); }

// TypeError "Expected bytes, got int".
[[noreturn]] inline void RaiseExpected(const char* expected, PyObject* got) {
  PyErr_Format(PyExc_TypeError, "Expected %s, got %.200S", expected, TypeName(got).get());
  ThrowPending();
}

// TypeError "Argument 'scope' has incorrect type (expected str, got int)".
[[noreturn]] inline void RaiseArgumentType(const char* argument, const char* expected,
                                           PyObject* got) {
  PyErr_Format(PyExc_TypeError,
               "Argument '%.200s' has incorrect type (expected %.200s, got %.200S)", argument,
               expected, TypeName(got).get());
  ThrowPending();
}

inline Object MakeBytes(std::string_view bytes) {
  return Own(PyBytes_FromStringAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size())));
}

// The content of a bytes object. Requires: it is one.
inline std::string_view BytesView(PyObject* bytes) {
  char* data = nullptr;
  Py_ssize_t size = 0;
  Check(PyBytes_AsStringAndSize(bytes, &data, &size));
  return {data, static_cast<std::size_t>(size)};
}

// A text given as bytes or as str, seen as UTF-8. It keeps the object alive. A zero byte stands
// behind the view.
class Utf8Text {
 public:
  Utf8Text() = default;
  explicit Utf8Text(Object object) : object_(std::move(object)) {
    if (PyBytes_Check(object_.get_or_none()) != 0) {
      is_bytes_ = true;
      view_ = BytesView(object_.get());
    } else if (PyUnicode_Check(object_.get_or_none()) != 0) {
      view_ = Utf8(Text(object_));
    } else {
      RaiseExpected("bytes or str", object_.get_or_none());
    }
  }

  std::string_view view() const noexcept { return view_; }
  bool is_bytes() const noexcept { return is_bytes_; }
  const Object& object() const noexcept { return object_; }
  // A piece of it, of the type that it has.
  Object Piece(std::string_view piece) const {
    return is_bytes_ ? MakeBytes(piece) : Text::FromUtf8(piece).object();
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
      const std::string_view bytes = BytesView(value);
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

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_TEXTARGS_H_
