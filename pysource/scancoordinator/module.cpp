// The module: its constants, records and types.

#include "host/destroyable.h"
#include "pysource/pyrt/guard.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/types.h"
#include "pysource/scancoordinator/vocabulary.h"

namespace pysource {
namespace {

void AddPriorities(const Object& module) {
  static constinit pyrt::Name kEnum{"enum"};
  static constinit pyrt::Name kIntEnum{"IntEnum"};
  static constinit pyrt::Name kModuleKeyword{"module"};
  const std::pair<const char*, Priority> priorities[] = {
      {"kTypingModulePriority", kTypingModulePriority},
      {"kInteractivePriority", kInteractivePriority},
      {"kBackgroundPriority", kBackgroundPriority}};
  pyrt::List members;
  for (const auto& [name, value] : priorities) members.Append(pyrt::MakeTuple(name, value));
  const Object enumeration =
      pyrt::Call(pyrt::ModuleAttr(kEnum, kIntEnum), "ScanPriority", members,
                 pyrt::Keyword{kModuleKeyword, pyrt::ToPython("pysource.scancoordinator")});
  pyrt::SetAttr(module, "ScanPriority", enumeration);
  for (const auto& [name, value] : priorities) {
    pyrt::SetAttr(module, name, pyrt::Subscript(enumeration, pyrt::ToPython(name)));
  }
}

int Exec(PyObject* raw_module) {
  return pyrt::Guard([&] {
    static bool loaded = false;
    if (loaded) {
      pyrt::Raise(PyExc_ImportError,
                  "pysource.scancoordinator can be loaded once in a process: its classes derive "
                  "from the host's CDestroyable of that moment");
    }
    const Object module = Object::Share(raw_module);
    const Object base = host::CDestroyable();
    if (!pyrt::IsClass(base)) {
      pyrt::Raise(PyExc_TypeError, "loombase.destroyable.CDestroyable is not a class");
    }
    records::Create(module);
    AddPriorities(module);
    pyrt::SetAttr(module, "kMinSecondsBetweenScans", pyrt::ToPython(kMinSecondsBetweenScans));
    pyrt::SetAttr(module, "kDefaultWholeFilesToCheckCount",
                  pyrt::ToPython(kDefaultWholeFilesToCheckCount));
    loaded = true;
    CreateSingleScanQueueType(module, base);
    CreateScanQueueType(module, base);
    CreateScanCoordinatorType(module, base);
  });
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(&Exec)},
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
    {0, nullptr}};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "pysource.scancoordinator",
    "The background scan scheduler: which files and scopes are scanned, in which order and when.",
    0,
    nullptr,
    slots,
    nullptr,
    nullptr,
    nullptr};

}  // namespace
}  // namespace pysource

PyMODINIT_FUNC PyInit_scancoordinator() { return PyModuleDef_Init(&pysource::definition); }
