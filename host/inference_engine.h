// The inference engine: answers for a scope, scanning if it must.

#ifndef HOST_INFERENCE_ENGINE_H_
#define HOST_INFERENCE_ENGINE_H_

#include "host/info_cache.h"

namespace host {

// An inference context bound to a deadline.
class InferContext {
 public:
  explicit InferContext(pyrt::Object object) : object_(std::move(object)) {}
  const pyrt::Object& object() const noexcept { return object_; }
  bool OutOfTime() const {
    static constinit pyrt::Name kName{"OutOfTime"};
    return pyrt::IsTrue(pyrt::CallMethod(object_, kName));
  }

 private:
  pyrt::Object object_;
};

class InferenceEngine {
 public:
  explicit InferenceEngine(pyrt::Object object) : object_(std::move(object)) {}

  const pyrt::Object& object() const noexcept { return object_; }

  InferContext NewContext(double end_time) const {
    static constinit pyrt::Name kName{"NewContext"};
    return InferContext(pyrt::CallMethod(object_, kName, end_time));
  }
  // May run scans on the same stack, and so may come back into the coordinator.
  ScopeInfo GetScopeInfo(const pyrt::Object& loc, const pyrt::Object& scope_name,
                         const InferContext& context) const {
    static constinit pyrt::Name kName{"GetScopeInfo"};
    return ScopeInfo(pyrt::CallMethod(object_, kName, loc, scope_name, context.object()));
  }
  // Whether the engine is a compiled extension.
  static bool IsCompiled() {
    static constinit pyrt::Name kModule{"pysource.inferenceengine"};
    static constinit pyrt::Name kFile{"__file__"};
    const pyrt::Text file(pyrt::ModuleAttr(kModule, kFile));
    const std::string_view name = pyrt::Utf8(file);
    return name.ends_with(".so") || name.ends_with(".pyd");
  }

 private:
  pyrt::Object object_;
};

}  // namespace host

#endif  // HOST_INFERENCE_ENGINE_H_
