#include "pysource/pyrt/call.h"

namespace pyrt {

Object Module(const Name& name) {
  PyObject* modules = PyImport_GetModuleDict();  // borrowed
  if (PyObject* found = PyDict_GetItemWithError(modules, name.get()); found != nullptr) {
    return Object::Share(found);
  }
  if (PyErr_Occurred() != nullptr) ThrowPending();
  return Own(PyImport_Import(name.get()));
}

}  // namespace pyrt
