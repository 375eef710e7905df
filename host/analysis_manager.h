// The analysis manager: owner of the coordinator and of the engine's parts.

#ifndef HOST_ANALYSIS_MANAGER_H_
#define HOST_ANALYSIS_MANAGER_H_

#include "pysource/pyrt/call.h"

namespace host {

class AnalysisManager {
 public:
  explicit AnalysisManager(pyrt::Object object) : object_(std::move(object)) {}

  const pyrt::Object& object() const noexcept { return object_; }
  pyrt::Object fInfoCache() const { return Field<kInfoCache>(); }
  pyrt::Object fInferenceEngine() const { return Field<kInferenceEngine>(); }
  pyrt::Object fLocationDataCache() const { return Field<kLocationDataCache>(); }
  pyrt::Object fAnalysisFactory() const { return Field<kAnalysisFactory>(); }
  pyrt::Text fPrimaryScanName() const { return pyrt::Text(Field<kPrimaryScanName>()); }
  pyrt::Text fDerivedScanName() const { return pyrt::Text(Field<kDerivedScanName>()); }
  // None when no helper process runs.
  pyrt::Object fHelperProcessProxy() const { return Field<kHelperProcessProxy>(); }

  // Whether the Python path is known. Without it nothing is scanned.
  bool PythonPathKnown() const {
    return pyrt::Size(pyrt::GetAttr(Field<kPyConfig>(), kPythonPathLocs)) > 0;
  }

  // The local object on which the helper process's reports arrive, or none.
  pyrt::Object HelperCallbackObj() const {
    const pyrt::Object support = Field<kHelperProcessSupport>();
    return support.is_none() ? pyrt::Object() : pyrt::GetAttr(support, kHelperCallbackObj);
  }

 private:
  static inline constinit pyrt::Name kInfoCache{"fInfoCache"};
  static inline constinit pyrt::Name kInferenceEngine{"fInferenceEngine"};
  static inline constinit pyrt::Name kLocationDataCache{"fLocationDataCache"};
  static inline constinit pyrt::Name kAnalysisFactory{"fAnalysisFactory"};
  static inline constinit pyrt::Name kPrimaryScanName{"fPrimaryScanName"};
  static inline constinit pyrt::Name kDerivedScanName{"fDerivedScanName"};
  static inline constinit pyrt::Name kHelperProcessProxy{"fHelperProcessProxy"};
  static inline constinit pyrt::Name kHelperProcessSupport{"_fHelperProcessSupport"};
  static inline constinit pyrt::Name kHelperCallbackObj{"fHelperCallbackObj"};
  static inline constinit pyrt::Name kPyConfig{"fPyConfig"};
  static inline constinit pyrt::Name kPythonPathLocs{"python_path_locs"};

  template <pyrt::Name& kField>
  pyrt::Object Field() const {
    return pyrt::GetAttr(object_, kField);
  }

  pyrt::Object object_;
};

}  // namespace host

#endif  // HOST_ANALYSIS_MANAGER_H_
