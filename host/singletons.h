// The host's service table. Its fields are read anew at each use.

#ifndef HOST_SINGLETONS_H_
#define HOST_SINGLETONS_H_

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/containers.h"

namespace host {

class Singletons {
 public:
  explicit Singletons(pyrt::Object object) : object_(std::move(object)) {}
  // The same object each time.
  static Singletons Get() {
    static constinit pyrt::Name kModule{"singleton"};
    static constinit pyrt::Name kName{"GetSingletons"};
    return Singletons(pyrt::Call(pyrt::ModuleAttr(kModule, kName)));
  }

  const pyrt::Object& object() const noexcept { return object_; }
  pyrt::Object fPrefMgr() const { return Field<kPrefMgr>(); }
  pyrt::Object fCacheMgr() const { return Field<kCacheMgr>(); }
  pyrt::Object fSavableMgr() const { return Field<kSavableMgr>(); }
  pyrt::Object fAnalysisMgr() const { return Field<kAnalysisMgr>(); }
  pyrt::Object fFileAttribMgr() const { return Field<kFileAttribMgr>(); }
  // None until there is a GUI.
  pyrt::Object fGuiMgr() const { return Field<kGuiMgr>(); }

 private:
  static inline constinit pyrt::Name kPrefMgr{"fPrefMgr"};
  static inline constinit pyrt::Name kCacheMgr{"fCacheMgr"};
  static inline constinit pyrt::Name kSavableMgr{"fSavableMgr"};
  static inline constinit pyrt::Name kAnalysisMgr{"fAnalysisMgr"};
  static inline constinit pyrt::Name kFileAttribMgr{"fFileAttribMgr"};
  static inline constinit pyrt::Name kGuiMgr{"fGuiMgr"};

  template <pyrt::Name& kField>
  pyrt::Object Field() const {
    return pyrt::GetAttr(object_, kField);
  }

  pyrt::Object object_;
};

// Fills the values of a mapping, keyed by location, with probable mime types.
inline void GetMultipleProbableMimeTypes(const pyrt::Object& file_attribute_manager,
                                         const pyrt::Dict& mime_types) {
  static constinit pyrt::Name kName{"GetMultipleProbableMimeTypes"};
  pyrt::CallMethod(file_attribute_manager, kName, mime_types);
}

}  // namespace host

#endif  // HOST_SINGLETONS_H_
