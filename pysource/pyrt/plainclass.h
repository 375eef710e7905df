// Extension types of our own, below `object`: the C++ state stands in the Python object itself.
//
// State is default constructible without failure and has
//   static State& From(PyObject* self)         PlainClass<State>::From
//   void Traverse(Visitor&) const noexcept     visits every reference it owns
//   void Drop() noexcept                       gives them up; the state stays usable
// It is built in `__new__`, so that it is valid in a subclass that skips `super().__init__()`.
// Instances can be weakly referenced.

#ifndef PYSOURCE_PYRT_PLAINCLASS_H_
#define PYSOURCE_PYRT_PLAINCLASS_H_

#include <cstddef>
#include <new>
#include <utility>
#include <vector>

#include "pysource/pyrt/guard.h"
#include "pysource/pyrt/object.h"
#include "pysource/pyrt/shell.h"

namespace pyrt {

struct PlainDefinition {
  const char* name;  // with the module in front
  const char* doc;
  initproc init = nullptr;                // null: `__init__` takes nothing
  std::vector<PyMethodDef> methods = {};  // without the closing entry
  std::vector<PyGetSetDef> fields = {};   // likewise
  std::vector<PyType_Slot> slots = {};    // further slots, likewise
  vectorcallfunc call = nullptr;          // makes instances callable
  bool instantiable = true;               // from Python
  bool subclassable = true;
};

namespace internal {

// Ends the lives of objects that end each other's, such as nested containers, without a stack frame
// for each: beyond a depth they wait for the outermost one.
class Disposal {
 public:
  using Dispose = void (*)(PyObject*);

  static void Run(PyObject* object, Dispose dispose) noexcept {
    if (depth_ >= kMaxDepth) {
      try {
        waiting_.emplace_back(object, dispose);
        return;
      } catch (const std::bad_alloc&) {
        // Then it is done here, and the stack must do.
      }
    }
    ++depth_;
    dispose(object);
    while (depth_ == 1 && !waiting_.empty()) {
      const auto [next, dispose_next] = waiting_.back();
      waiting_.pop_back();
      dispose_next(next);
    }
    --depth_;
  }

 private:
  static constexpr int kMaxDepth = 50;
  static inline int depth_ = 0;
  static inline std::vector<std::pair<PyObject*, Dispose>>& waiting_ =
      *new std::vector<std::pair<PyObject*, Dispose>>();
};

}  // namespace internal

template <class State>
class PlainClass {
 public:
  // Makes the type, once for the process. The definition is kept for good.
  static Object Create(const Object& module, PlainDefinition definition) {
    if (type_ != nullptr) return type();
    definition_ = std::move(definition);
    definition_.methods.push_back({nullptr, nullptr, 0, nullptr});
    definition_.fields.push_back({nullptr, nullptr, nullptr, nullptr, nullptr});
    std::vector<PyMemberDef> members{{"__weaklistoffset__", Py_T_PYSSIZET,
                                      offsetof(Head, weak_references), Py_READONLY, nullptr}};
    unsigned int flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC;
    if (definition_.subclassable) flags |= Py_TPFLAGS_BASETYPE;
    if (!definition_.instantiable) flags |= Py_TPFLAGS_DISALLOW_INSTANTIATION;
    std::vector<PyType_Slot> slots = definition_.slots;
    if (definition_.call != nullptr) {
      members.push_back(
          {"__vectorcalloffset__", Py_T_PYSSIZET, offsetof(Head, call), Py_READONLY, nullptr});
      flags |= Py_TPFLAGS_HAVE_VECTORCALL;
      slots.push_back({Py_tp_call, reinterpret_cast<void*>(&PyVectorcall_Call)});
    }
    members.push_back({nullptr, 0, 0, 0, nullptr});
    if (definition_.instantiable) slots.push_back({Py_tp_new, reinterpret_cast<void*>(&NewSlot)});
    if (definition_.init == nullptr) definition_.init = &InitWithoutArguments;
    slots.push_back({Py_tp_init, reinterpret_cast<void*>(definition_.init)});
    slots.push_back({Py_tp_doc, const_cast<char*>(definition_.doc)});
    slots.push_back({Py_tp_methods, definition_.methods.data()});
    slots.push_back({Py_tp_getset, definition_.fields.data()});
    slots.push_back({Py_tp_members, members.data()});
    slots.push_back({Py_tp_traverse, reinterpret_cast<void*>(&TraverseSlot)});
    slots.push_back({Py_tp_clear, reinterpret_cast<void*>(&ClearSlot)});
    slots.push_back({Py_tp_dealloc, reinterpret_cast<void*>(&DeallocSlot)});
    slots.push_back({0, nullptr});
    PyType_Spec spec{definition_.name, static_cast<int>(kStateOffset + sizeof(State)), 0, flags,
                     slots.data()};
    type_ = Own(PyType_FromModuleAndSpec(module.get(), &spec, nullptr)).release();
    return type();
  }

  // Empty before Create.
  static Object type() noexcept { return Object::Share(type_); }

  // Requires: `self` is an instance of the type.
  static State& From(PyObject* self) noexcept {
    return *std::launder(
        reinterpret_cast<State*>(reinterpret_cast<unsigned char*>(self) + kStateOffset));
  }
  // The Python object around a state. Borrowed.
  static PyObject* ObjectOf(const State& state) noexcept {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&state) - kStateOffset;
    return reinterpret_cast<PyObject*>(const_cast<unsigned char*>(bytes));
  }
  static bool IsInstance(PyObject* object) {
    return PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject*>(type_)) != 0;
  }
  // A new instance of the type itself, with a fresh state.
  static Object New() { return New(reinterpret_cast<PyTypeObject*>(type_)); }

 private:
  struct Head {
    PyObject ob_base;
    PyObject* weak_references;
    vectorcallfunc call;
  };
  static constexpr std::size_t kStateOffset =
      (sizeof(Head) + alignof(State) - 1) / alignof(State) * alignof(State);

  static Object New(PyTypeObject* type) {
    const auto alloc = reinterpret_cast<allocfunc>(PyType_GetSlot(type, Py_tp_alloc));
    Object self = Own(alloc(type, 0));
    reinterpret_cast<Head*>(self.get())->call = definition_.call;
    ::new (reinterpret_cast<unsigned char*>(self.get()) + kStateOffset) State();
    return self;
  }
  static PyObject* NewSlot(PyTypeObject* type, PyObject*, PyObject*) noexcept {
    return Guard([&] { return New(type); });
  }
  static int InitWithoutArguments(PyObject* self, PyObject* args, PyObject* kwargs) noexcept {
    return Guard([&] {
      if (PyTuple_Size(args) == 0 && (kwargs == nullptr || PyDict_Size(kwargs) == 0)) return;
      const Object name = Own(PyType_GetName(Py_TYPE(self)));
      PyErr_Format(PyExc_TypeError, "%U() takes no arguments", name.get());
      ThrowPending();
    });
  }
  static int TraverseSlot(PyObject* self, visitproc visit, void* arg) noexcept {
    Py_VISIT(Py_TYPE(self));
    Visitor visitor(visit, arg);
    From(self).Traverse(visitor);
    return visitor.result();
  }
  static int ClearSlot(PyObject* self) noexcept {
    const SavedError saved;
    From(self).Drop();
    return 0;
  }
  static void DeallocSlot(PyObject* self) noexcept {
    PyObject_GC_UnTrack(self);
    internal::Disposal::Run(self, &Dispose);
  }
  static void Dispose(PyObject* self) noexcept {
    {
      const SavedError saved;
      if (reinterpret_cast<Head*>(self)->weak_references != nullptr) PyObject_ClearWeakRefs(self);
      From(self).~State();
    }
    PyTypeObject* type = Py_TYPE(self);
    reinterpret_cast<freefunc>(PyType_GetSlot(type, Py_tp_free))(self);
    Py_DECREF(type);
  }

  // Never destroyed: the interpreter may be gone when the process ends.
  static inline PlainDefinition& definition_ = *new PlainDefinition();
  static inline PyObject* type_ = nullptr;
};

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_PLAINCLASS_H_
