#include "pysource/pyrt/shell.h"

#include "pysource/pyrt/containers.h"
#include "pysource/pyrt/guard.h"

namespace pyrt {
namespace {

// The garbage-collected owner of a body.
struct Holder {
  PyObject ob_base;
  Body* body;
};

Holder* AsHolder(PyObject* object) { return reinterpret_cast<Holder*>(object); }

int TraverseHolder(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  Visitor visitor(visit, arg);
  if (AsHolder(self)->body != nullptr) AsHolder(self)->body->Traverse(visitor);
  return visitor.result();
}

int ClearHolder(PyObject* self) {
  const SavedError saved;
  if (AsHolder(self)->body != nullptr) AsHolder(self)->body->Drop();
  return 0;
}

void DeallocHolder(PyObject* self) {
  PyObject_GC_UnTrack(self);
  {
    const SavedError saved;
    delete std::exchange(AsHolder(self)->body, nullptr);
  }
  PyTypeObject* type = Py_TYPE(self);
  reinterpret_cast<freefunc>(PyType_GetSlot(type, Py_tp_free))(self);
  Py_DECREF(type);
}

PyTypeObject* HolderType() {
  static PyTypeObject* const type = [] {
    PyType_Slot slots[] = {{Py_tp_traverse, reinterpret_cast<void*>(&TraverseHolder)},
                           {Py_tp_clear, reinterpret_cast<void*>(&ClearHolder)},
                           {Py_tp_dealloc, reinterpret_cast<void*>(&DeallocHolder)},
                           {0, nullptr}};
    PyType_Spec spec{"pysource._Body", sizeof(Holder), 0,
                     Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_DISALLOW_INSTANTIATION,
                     slots};
    return reinterpret_cast<PyTypeObject*>(Own(PyType_FromSpec(&spec)).release());
  }();
  return type;
}

// What stands behind the base's memory.
struct ShellData {
  PyObject* holder;
};

PyTypeObject* AsType(const Object& type) { return reinterpret_cast<PyTypeObject*>(type.get()); }

bool HasGenericTraverse(const Object& type) {
  static void* const generic = [] {
    // The traverse function of any class that is written in Python.
    const Object plain = Call(Object::Share(reinterpret_cast<PyObject*>(&PyType_Type)), "Plain",
                              MakeTuple(), Dict());
    return PyType_GetSlot(AsType(plain), Py_tp_traverse);
  }();
  return PyType_GetSlot(AsType(type), Py_tp_traverse) == generic;
}

bool HasWeakReferences(const Object& type) {
  static constinit Name kOffset{"__weakrefoffset__"};
  return FromPython<std::int64_t>(GetAttr(type, kOffset).get()) != 0;
}

// The base itself, or a class in Python between it and us, where one is needed: a compiled base
// brings a traverse function of its own, which knows nothing of our reference, and a base may have
// no room for weak references. (A "__weaklistoffset__" member of our own would do for the latter,
// but 3.12.1 takes its relative offset for an absolute one.)
Object LayoutBase(const Object& base, const Object& module_name) {
  static constinit Name kName{"__name__"};
  const bool weak = HasWeakReferences(base);
  if (HasGenericTraverse(base) && weak) return base;
  const bool collected = (PyType_GetFlags(AsType(base)) & Py_TPFLAGS_HAVE_GC) != 0;
  List class_slots;
  if (!weak) class_slots.Append(ToPython("__weakref__"));
  // A slot makes the class garbage-collected where its base is not.
  if (!collected) class_slots.Append(ToPython("_collected"));
  Dict body;
  body.Set(ToPython("__module__"), module_name);
  body.Set(ToPython("__slots__"), class_slots.object());
  const Object metaclass = Object::Share(reinterpret_cast<PyObject*>(Py_TYPE(base.get())));
  return Call(metaclass, GetAttr(base, kName), MakeTuple(base), body);
}

}  // namespace

void ShellClass::Create(const Object& module, const Object& base, Definition definition) {
  static constinit Name kName{"__name__"};
  definition_ = std::move(definition);
  definition_.methods.push_back({nullptr, nullptr, 0, nullptr});
  definition_.fields.push_back({nullptr, nullptr, nullptr, nullptr, nullptr});
  base_ = base;
  const Object below = LayoutBase(base, GetAttr(module, kName));

  PyMemberDef members[] = {
      {"_body", Py_T_OBJECT_EX, offsetof(ShellData, holder), Py_RELATIVE_OFFSET, nullptr},
      {nullptr, 0, 0, 0, nullptr}};
  PyType_Slot slots[] = {{Py_tp_doc, const_cast<char*>(definition_.doc)},
                         {Py_tp_init, reinterpret_cast<void*>(definition_.init)},
                         {Py_tp_methods, definition_.methods.data()},
                         {Py_tp_getset, definition_.fields.data()},
                         {Py_tp_members, members},
                         {0, nullptr}};
  // No Py_TPFLAGS_HAVE_GC: it is inherited together with the generic functions.
  PyType_Spec spec{definition_.name, -static_cast<int>(sizeof(ShellData)), 0,
                   Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, slots};
  type_ = Own(PyType_FromMetaclass(Py_TYPE(below.get()), module.get(), &spec, below.get()));
  Check(PyObject_DelAttrString(type_.get(), "_body"));
}

Body& ShellClass::BodyOf(PyObject* self) {
  if (slot_offset_ < 0) {
    slot_offset_ = static_cast<char*>(PyObject_GetTypeData(self, AsType(type_))) -
                   reinterpret_cast<char*>(self);
  }
  auto* data = reinterpret_cast<ShellData*>(reinterpret_cast<char*>(self) + slot_offset_);
  if (data->holder == nullptr) {
    std::unique_ptr<Body> body = definition_.make_body(self);
    PyTypeObject* type = HolderType();
    const auto alloc = reinterpret_cast<allocfunc>(PyType_GetSlot(type, Py_tp_alloc));
    Object holder = Own(alloc(type, 0));
    AsHolder(holder.get())->body = body.release();
    data->holder = holder.release();
  }
  return *AsHolder(data->holder)->body;
}

bool ShellClass::SubclassOverrides(PyObject* shell, const Name& operation) const {
  const Object found =
      GetAttr(Object::Share(reinterpret_cast<PyObject*>(Py_TYPE(shell))), operation);
  return !found.is(GetAttr(type_, operation));
}

}  // namespace pyrt
