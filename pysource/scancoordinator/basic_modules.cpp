// A few modules are scanned ahead of all else: builtins, typing, and those that inference needs.

#include "pysource/scancoordinator/coordinator.h"

namespace pysource {

void CScanCoordinator::_QueueBasicModules(double /*end_time*/) {
  if (_fAllBasicModuleQueued) return;
  const host::AnalysisFactory factory(fAnaMgr.fAnalysisFactory());
  // Nothing is queued until the builtins are known; the next slice tries again.
  const Object builtin_name = factory.BuiltinModName();
  if (builtin_name.is_none()) return;

  pyrt::List locations;
  locations.Extend(factory.GetAllLocsForName(builtin_name));
  const auto extend_if_any = [&](const Object& found) {
    if (pyrt::IsTrue(found)) locations.Extend(found);
  };
  extend_if_any(factory.GetTypingLocations());
  for (const char* name : {"sys", "types", "collections"}) {
    extend_if_any(factory.GetAllLocsForName(pyrt::ToPython(name)));
  }
  pyrt::List pairs;
  const Object wildcard = pyrt::ToPython("*");
  pyrt::ForEach(locations.object(),
                [&](const Object& loc) { pairs.Append(pyrt::MakeTuple(loc, wildcard)); });
  AddPairsToPrimaryQueue(pairs.object(), true, kTypingModulePriority);
  _fAllBasicModuleQueued = true;
}

}  // namespace pysource
