// Owned references to Python objects, and Python failures as C++ exceptions.
//
// Object is the only owner of references outside the extension types themselves. An operation that
// fails in Python throws PythonError, which owns the exception object; Guard (guard.h) hands it
// back unchanged at the border. Releasing an Object may run arbitrary Python code: move it out of a
// container before the container is touched, never from inside.

#ifndef PYSOURCE_PYRT_OBJECT_H_
#define PYSOURCE_PYRT_OBJECT_H_

#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "pysource/pyrt/python.h"

namespace pyrt {

// A strong reference, or empty. Empty stands for none wherever a value crosses to Python.
class Object {
 public:
  Object() noexcept = default;
  Object(std::nullptr_t) noexcept {}
  Object(const Object& other) noexcept : ptr_(other.ptr_) { Py_XINCREF(ptr_); }
  Object(Object&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
  ~Object() { Py_XDECREF(ptr_); }

  // The old reference is released last, when this object holds its new value already.
  Object& operator=(Object other) noexcept {
    std::swap(ptr_, other.ptr_);
    return *this;
  }

  // Takes over a reference that the caller owns.
  static Object Steal(PyObject* ptr) noexcept {
    Object object;
    object.ptr_ = ptr;
    return object;
  }
  // Adds a reference of its own.
  static Object Share(PyObject* ptr) noexcept {
    Py_XINCREF(ptr);
    return Steal(ptr);
  }
  static Object None() noexcept { return Share(Py_None); }

  PyObject* get() const noexcept { return ptr_; }
  // Never null: empty reads as None. Borrowed.
  PyObject* get_or_none() const noexcept { return ptr_ != nullptr ? ptr_ : Py_None; }
  // Gives the reference up to the caller.
  PyObject* release() noexcept { return std::exchange(ptr_, nullptr); }

  explicit operator bool() const noexcept { return ptr_ != nullptr; }
  bool is_none() const noexcept { return ptr_ == nullptr || ptr_ == Py_None; }
  // Identity, as Python's `is`; empty is none.
  bool is(const Object& other) const noexcept { return get_or_none() == other.get_or_none(); }

 private:
  PyObject* ptr_ = nullptr;
};

// A Python exception on its way through C++; owns the exception object with its traceback.
class PythonError : public std::exception {
 public:
  explicit PythonError(Object exception) noexcept : exception_(std::move(exception)) {}
  const char* what() const noexcept override { return "a Python exception"; }
  const Object& exception() const noexcept { return exception_; }
  // Makes the exception pending again; the error is empty afterwards.
  void Restore() noexcept { PyErr_SetRaisedException(exception_.release()); }

 private:
  Object exception_;
};

// Throws the pending Python exception. Requires: one is pending.
[[noreturn]] void ThrowPending();

// Throws a new exception of the given type.
[[noreturn]] void Raise(PyObject* type, const std::string& text);

// Turns the result of a C API call into an Object; null means that an exception is pending.
inline Object Own(PyObject* result) {
  if (result == nullptr) ThrowPending();
  return Object::Steal(result);
}
inline Object Borrow(PyObject* result) {
  if (result == nullptr) ThrowPending();
  return Object::Share(result);
}
// Checks the status of a C API call: -1 means that an exception is pending.
inline int Check(int status) {
  if (status < 0) ThrowPending();
  return status;
}

// A name that is looked up often: interned once, at first use, and kept for good.
class Name {
 public:
  constexpr explicit Name(const char* text) noexcept : text_(text) {}
  PyObject* get() const {
    if (interned_ == nullptr) interned_ = Own(PyUnicode_InternFromString(text_)).release();
    return interned_;
  }
  const char* text() const noexcept { return text_; }

 private:
  const char* text_;
  mutable PyObject* interned_ = nullptr;
};

// A Python text. Requires at construction: the object is a str (else TypeError).
// Texts compare by content, code point by code point; identical objects are not looked into.
// The one exception is OrNone, for fields that may be none: it equals only itself.
class Text {
 public:
  Text() noexcept = default;
  explicit Text(Object object);
  static Text OrNone(Object object) {
    if (!object.is_none()) return Text(std::move(object));
    Text none;
    none.object_ = Object::None();
    return none;
  }
  static Text FromUtf8(std::string_view utf8);

  const Object& object() const noexcept { return object_; }
  PyObject* get() const noexcept { return object_.get(); }
  bool is_none() const noexcept { return object_.is_none(); }

  friend bool operator==(const Text& a, const Text& b) {
    if (a.get() == b.get()) return true;
    return !a.is_none() && !b.is_none() && PyUnicode_Compare(a.get(), b.get()) == 0;
  }
  // Requires: neither is none.
  friend bool operator<(const Text& a, const Text& b) {
    return a.get() != b.get() && PyUnicode_Compare(a.get(), b.get()) < 0;
  }
  // Compares with ASCII text.
  bool equals(const char* ascii) const {
    return !is_none() && PyUnicode_CompareWithASCIIString(get(), ascii) == 0;
  }

 private:
  Object object_;
};

// Whether the debug checks of the interpreter are on, that is `__debug__`.
bool DebugChecks();

// Fails with AssertionError if debug checks are on and the condition does not hold.
void DebugCheck(bool condition, const char* text = "");

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_OBJECT_H_
