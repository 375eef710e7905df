#include "pysource/pyrt/call.h"

namespace pyrt {

Object Module(const Name& name) {
  PyObject* modules = PyImport_GetModuleDict();  // borrowed
  if (PyObject* found = PyDict_GetItemWithError(modules, name.get());
      found != nullptr && found != Py_None) {
    return Object::Share(found);
  }
  if (PyErr_Occurred() != nullptr) ThrowPending();
  // Also for a None in sys.modules, by which an import is forbidden.
  return Own(PyImport_Import(name.get()));
}

}  // namespace pyrt
