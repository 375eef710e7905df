// Extension modules: their definition and what they publish.

#ifndef PYSOURCE_PYRT_MODULE_H_
#define PYSOURCE_PYRT_MODULE_H_

#include <utility>
#include <vector>

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/guard.h"

namespace pyrt {

// Publishes a value as an attribute of a module.
inline void Publish(const Object& module, const char* name, const Object& value) {
  Check(PyModule_AddObjectRef(module.get(), name, value.get_or_none()));
}

// A module with functions and a fill function, `void(const Object& module)`, which publishes the
// rest. What a module keeps in C++ (interned names, types) lives as long as the process, so it
// serves the main interpreter alone; a module that is loaded again is filled again.
template <auto kFill>
class ModuleDefinition {
 public:
  // Requires: lives to the end of the process. `methods` without the closing entry.
  ModuleDefinition(const char* name, const char* doc, std::vector<PyMethodDef> methods)
      : methods_(std::move(methods)) {
    methods_.push_back({nullptr, nullptr, 0, nullptr});
    definition_.m_name = name;
    definition_.m_doc = doc;
    definition_.m_methods = methods_.data();
    definition_.m_slots = slots_;
  }
  ModuleDefinition(const ModuleDefinition&) = delete;
  ModuleDefinition& operator=(const ModuleDefinition&) = delete;

  // What the module's PyInit function returns.
  PyObject* Init() noexcept { return PyModuleDef_Init(&definition_); }

 private:
  static int Execute(PyObject* module) noexcept {
    return Guard([&] { kFill(Object::Share(module)); });
  }

  std::vector<PyMethodDef> methods_;
  PyModuleDef_Slot slots_[3] = {
      {Py_mod_exec, reinterpret_cast<void*>(&Execute)},
      {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
      {0, nullptr}};
  PyModuleDef definition_ = {
      PyModuleDef_HEAD_INIT, nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr};
};

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_MODULE_H_
