// The analysis factory: from module names to locations.

#ifndef HOST_ANALYSIS_FACTORY_H_
#define HOST_ANALYSIS_FACTORY_H_

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/containers.h"

namespace host {

class AnalysisFactory {
 public:
  explicit AnalysisFactory(pyrt::Object object) : object_(std::move(object)) {}

  const pyrt::Object& object() const noexcept { return object_; }

  // The module file cache, with the signals "suspend" and "unsuspend".
  pyrt::Object _fModFileCache() const {
    static constinit pyrt::Name kName{"_fModFileCache"};
    return pyrt::GetAttr(object_, kName);
  }
  // A sequence of locations to be scanned along with the file, or none.
  pyrt::Object GetSecondaryLocations(const pyrt::Object& loc) const {
    static constinit pyrt::Name kName{"GetSecondaryLocations"};
    return pyrt::CallMethod(object_, kName, loc);
  }
  // A sequence of locations for a set of dotted names, with none where a name isn't resolved.
  pyrt::Object _FindPrimaryLocsForNames(const pyrt::Set& names, const pyrt::Object& dirloc) const {
    static constinit pyrt::Name kName{"_FindPrimaryLocsForNames"};
    return pyrt::CallMethod(object_, kName, names, dirloc, false);
  }
  // The name of the builtins' module, or none until the builtins are available.
  pyrt::Object BuiltinModName() const {
    static constinit pyrt::Name kName{"FindBuiltinMod"};
    static constinit pyrt::Name kLocalName{"fLocalName"};
    const pyrt::Object module = pyrt::CallMethod(object_, kName);
    return module.is_none() ? pyrt::Object() : pyrt::GetAttr(module, kLocalName);
  }
  // A sequence of the locations of a module; may be empty or none.
  pyrt::Object GetAllLocsForName(const pyrt::Object& name) const {
    static constinit pyrt::Name kName{"GetAllLocsForName"};
    return pyrt::CallMethod(object_, kName, name, pyrt::Object::None(), false);
  }
  // A sequence of the locations of the typing modules; may be empty or none.
  pyrt::Object GetTypingLocations() const {
    static constinit pyrt::Name kName{"GetTypingLocations"};
    return pyrt::CallMethod(object_, kName);
  }

 private:
  pyrt::Object object_;
};

}  // namespace host

#endif  // HOST_ANALYSIS_FACTORY_H_
