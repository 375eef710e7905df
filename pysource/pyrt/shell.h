// Extension types over a base class that the host supplies.
//
// Life cycle and ownership, in one place:
//
// - The base may be any class: written in Python, with `__dict__` or `__slots__`, or compiled, of
//   unknown layout. The type that Python sees (the shell) therefore adds nothing to the base's
//   memory but one hidden reference, placed behind it by PEP 697.
// - The hidden reference leads to a holder, a plain garbage-collected object that owns the Body:
// the
//   C++ object with all state. The holder has its own traverse, clear and dealloc. The shell has
//   none: it inherits the interpreter's generic ones, which start again from Py_TYPE(self) and
//   would never return to the base's from ours.
// - The generic traverse and dealloc visit and release object members that are writable and of the
//   kind Py_T_OBJECT_EX. The hidden reference is one; its name is deleted from the type, so that
//   nobody reaches it.
// - The body is made at the first use, not in `__new__`: a subclass may skip the base constructors,
//   and a `__new__` of our own would keep a base from defining one. A fresh body answers every
//   question as an empty one.
// - The body knows its shell by a borrowed pointer, valid because the shell owns it. Whoever calls
// a
//   method holds the shell; whatever the body hands out for later (bound methods, closures) holds
//   the shell, never the body.
// - Finalizers: none. `tp_finalize` would be skipped by a Python subclass with its own `__del__`.

#ifndef PYSOURCE_PYRT_SHELL_H_
#define PYSOURCE_PYRT_SHELL_H_

#include <memory>
#include <vector>

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/object.h"
#include "pysource/pyrt/operation.h"

namespace pyrt {

// Shows references to the garbage collector.
class Visitor {
 public:
  Visitor(visitproc visit, void* arg) noexcept : visit_(visit), arg_(arg) {}
  void operator()(const Object& object) noexcept {
    if (result_ == 0 && object) result_ = visit_(object.get(), arg_);
  }
  template <class... Objects>
  void All(const Objects&... objects) noexcept {
    ((*this)(objects), ...);
  }
  int result() const noexcept { return result_; }

 private:
  visitproc visit_;
  void* arg_;
  int result_ = 0;
};

class ShellClass;

// The C++ side of an instance.
class Body {
 public:
  explicit Body(PyObject* shell) noexcept : shell_(shell) {}
  Body(const Body&) = delete;
  Body& operator=(const Body&) = delete;
  virtual ~Body() = default;

  // Visits every reference that the body owns, containers included.
  virtual void Traverse(Visitor& visit) const noexcept = 0;
  // Gives up every reference that the body owns. The body stays usable.
  virtual void Drop() noexcept = 0;

  // The Python object; a new reference.
  Object self() const noexcept { return Object::Share(shell_); }
  // An attribute of the Python object: for an operation, the bound method that honours overrides.
  Object Bound(const Name& name) const { return GetAttr(self(), name); }

 protected:
  PyObject* shell() const noexcept { return shell_; }

 private:
  PyObject* shell_;
};

// One extension type with its bodies.
class ShellClass {
 public:
  using MakeBody = std::unique_ptr<Body> (*)(PyObject* shell);

  struct Definition {
    const char* name;  // with the module in front
    const char* doc;
    initproc init;
    std::vector<PyMethodDef> methods;  // without the closing entry
    std::vector<PyGetSetDef> fields;   // likewise
    MakeBody make_body;
  };

  // Makes the type below `base`. The definition is kept for good: CPython refers to its tables.
  // Called once for each ShellClass.
  void Create(const Object& module, const Object& base, Definition definition);

  const Object& type() const noexcept { return type_; }
  const Object& base() const noexcept { return base_; }

  // The body of an instance, made if need be. Requires: `self` is an instance of the type.
  Body& BodyOf(PyObject* self);
  bool IsInstance(const Object& object) const {
    return PyObject_TypeCheck(object.get_or_none(), reinterpret_cast<PyTypeObject*>(type_.get())) !=
           0;
  }
  // Whether the class of `shell` overrides the operation in Python. At once for the type itself.
  bool Overrides(PyObject* shell, const Name& operation) const {
    if (reinterpret_cast<PyObject*>(Py_TYPE(shell)) == type_.get()) return false;
    return SubclassOverrides(shell, operation);
  }

 private:
  bool SubclassOverrides(PyObject* shell, const Name& operation) const;

  Definition definition_;
  Object type_;
  Object base_;
  Py_ssize_t slot_offset_ = -1;
};

// A read-only attribute: Field<"name", "doc", getter, Class>, with Object getter(Class&) or any
// result that ToPython takes.
template <FixedText kName, FixedText kDoc, class Class, auto kGetter>
struct Field {
  static PyObject* Get(PyObject* self, void*) noexcept {
    return Guard([&]() -> Object { return ToPython(kGetter(Class::From(self))); });
  }
  static constexpr PyGetSetDef Def(setter set = nullptr) noexcept {
    return {kName.data, &Get, set, kDoc.data, nullptr};
  }
};

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_SHELL_H_
