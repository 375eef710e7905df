// Python's own containers, iteration and unpacking.
//
// The classes wrap a container without hiding what it is: a key's `__hash__` and `__eq__` are the
// host's, may run anything, and may raise. No reference into a container is ever handed out; what
// is read is a strong reference of its own. An operation holds the container: what it runs may make
// the owner let go of it.

#ifndef PYSOURCE_PYRT_CONTAINERS_H_
#define PYSOURCE_PYRT_CONTAINERS_H_

#include <array>
#include <cstddef>
#include <vector>

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/convert.h"
#include "pysource/pyrt/object.h"

namespace pyrt {

// Calls fn(Object) for each element of an iterable. Lists and tuples may change meanwhile.
template <class Fn>
void ForEach(const Object& iterable, Fn&& fn) {
  if (PyObject* list = iterable.get_or_none(); PyList_CheckExact(list)) {
    const Object held = iterable;
    for (Py_ssize_t i = 0; i < PyList_Size(list); ++i) fn(Borrow(PyList_GetItem(list, i)));
    return;
  }
  const Object iterator = Own(PyObject_GetIter(iterable.get_or_none()));
  while (PyObject* item = PyIter_Next(iterator.get())) fn(Object::Steal(item));
  if (PyErr_Occurred() != nullptr) ThrowPending();
}

// Fills exactly `count` elements, failing as Python's own unpacking does, with the same texts.
void UnpackInto(PyObject* sequence, Object* elements, std::size_t count);

// a, b = sequence
template <std::size_t N>
std::array<Object, N> Unpack(const Object& sequence) {
  std::array<Object, N> elements;
  UnpackInto(sequence.get_or_none(), elements.data(), N);
  return elements;
}

template <class... Args>
Object MakeTuple(const Args&... args) {
  Object tuple = Own(PyTuple_New(sizeof...(Args)));
  Py_ssize_t next = 0;
  [[maybe_unused]] const auto add = [&](Object value) {
    Check(PyTuple_SetItem(tuple.get(), next++, Object::Share(value.get_or_none()).release()));
  };
  (add(ToPython(args)), ...);
  return tuple;
}

class List {
 public:
  List() : object_(Own(PyList_New(0))) {}
  // A new list of just that element.
  static List With(const Object& element) {
    List list;
    list.Append(element);
    return list;
  }
  // A new list of the elements of an iterable.
  static List Of(const Object& iterable) {
    return List(Own(PySequence_List(iterable.get_or_none())));
  }

  // The very list. Requires: `object` is one.
  static List Shared(Object object) { return List(std::move(object)); }

  const Object& object() const noexcept { return object_; }
  std::size_t size() const { return static_cast<std::size_t>(PyList_Size(object_.get())); }
  bool empty() const { return size() == 0; }
  Object operator[](std::size_t i) const {
    return Borrow(PyList_GetItem(object_.get(), static_cast<Py_ssize_t>(i)));
  }
  // Requires: i < size().
  void Set(std::size_t i, const Object& value) {
    Check(PySequence_SetItem(object_.get(), static_cast<Py_ssize_t>(i), value.get_or_none()));
  }
  void Append(const Object& value) { Check(PyList_Append(object_.get(), value.get_or_none())); }
  void Extend(const Object& iterable) {
    ForEach(iterable, [&](const Object& value) { Append(value); });
  }

 private:
  explicit List(Object object) : object_(std::move(object)) {}
  Object object_;
};

class Dict {
 public:
  Dict() : object_(Own(PyDict_New())) {}
  // Requires: `object` is a dict or of a class derived from it.
  explicit Dict(Object object) : object_(std::move(object)) {}
  // TypeError for anything else.
  static Dict Checked(const Object& object) {
    if (PyDict_Check(object.get_or_none()) == 0) Raise(PyExc_TypeError, "expected a dict");
    return Dict(object);
  }

  const Object& object() const noexcept { return object_; }
  std::size_t size() const { return static_cast<std::size_t>(PyDict_Size(object_.get())); }
  bool empty() const { return size() == 0; }

  // The value, or empty; never creates one, also for a dict with defaults.
  Object Get(const Object& key) const {
    PyObject* value = PyDict_GetItemWithError(Object(object_).get(), key.get_or_none());
    if (value == nullptr && PyErr_Occurred() != nullptr) ThrowPending();
    return Object::Share(value);
  }
  bool Contains(const Object& key) const {
    return Check(PyDict_Contains(Object(object_).get(), key.get_or_none())) != 0;
  }
  // mapping[key], with the defaults of the mapping's class.
  Object At(const Object& key) const {
    return Own(PyObject_GetItem(Object(object_).get(), key.get_or_none()));
  }
  void Set(const Object& key, const Object& value) {
    Check(PyDict_SetItem(Object(object_).get(), key.get_or_none(), value.get_or_none()));
  }
  // Removes the entry, if there is one, and returns its value or none.
  Object Pop(const Object& key) {
    static constinit Name kPop{"pop"};
    return CallMethod(Object(object_), kPop, key, Object::None());
  }
  void Discard(const Object& key) {
    if (!empty()) Pop(key);
  }
  void Clear() { PyDict_Clear(object_.get()); }
  List Keys() const { return List::Of(object_); }

  // Calls fn(key, value) for a snapshot of the entries.
  template <class Fn>
  void ForEachItem(Fn&& fn) const {
    const Object items = Own(PyDict_Items(object_.get()));
    const Py_ssize_t count = PyList_Size(items.get());
    for (Py_ssize_t i = 0; i < count; ++i) {
      const Object item = Borrow(PyList_GetItem(items.get(), i));
      fn(Borrow(PyTuple_GetItem(item.get(), 0)), Borrow(PyTuple_GetItem(item.get(), 1)));
    }
  }

 private:
  Object object_;
};

class Set {
 public:
  Set() : object_(Own(PySet_New(nullptr))) {}
  // Requires: `object` is a set.
  explicit Set(Object object) : object_(std::move(object)) {}
  // A new set of the elements of an iterable.
  static Set Of(const Object& iterable) { return Set(Own(PySet_New(iterable.get_or_none()))); }

  const Object& object() const noexcept { return object_; }
  std::size_t size() const { return static_cast<std::size_t>(PySet_Size(object_.get())); }
  bool empty() const { return size() == 0; }
  bool Contains(const Object& value) const {
    return Check(PySet_Contains(Object(object_).get(), value.get_or_none())) != 0;
  }
  void Add(const Object& value) { Check(PySet_Add(Object(object_).get(), value.get_or_none())); }
  void Discard(const Object& value) {
    Check(PySet_Discard(Object(object_).get(), value.get_or_none()));
  }
  void Clear() { Check(PySet_Clear(object_.get())); }

 private:
  Object object_;
};

template <>
struct Converter<List> {
  static Object To(const List& value) { return value.object(); }
};
template <>
struct Converter<Dict> {
  static Object To(const Dict& value) { return value.object(); }
};
template <>
struct Converter<Set> {
  static Object To(const Set& value) { return value.object(); }
};

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_CONTAINERS_H_
