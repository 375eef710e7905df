// Small services of the host: error reports, mime types, the Python test, remote servers, the
// logger, and the helper process.

#ifndef HOST_SERVICES_H_
#define HOST_SERVICES_H_

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/containers.h"
#include "pysource/pyrt/values.h"

namespace host {

// Hands the failure in hand to the host's error report: `error` is the exception being handled
// while the host's function runs, as sys.exception() tells it.
void ReportException(const pyrt::PythonError& error);

// Whether a location that isn't told by its URL's end is Python source.
inline bool IsPythonSource(const pyrt::Object& loc) {
  static constinit pyrt::Name kModule{"pysource.utils"};
  static constinit pyrt::Name kName{"IsPythonSource"};
  return pyrt::IsTrue(pyrt::Call(pyrt::ModuleAttr(kModule, kName), loc));
}

// Whether the analysis can read files of a mime type.
inline bool IsAnalyzable(const pyrt::Object& mime_type) {
  static constinit pyrt::Name kModule{"loombase.mime"};
  static constinit pyrt::Name kName{"kAnalyzableMimeTypes"};
  return pyrt::Contains(pyrt::ModuleAttr(kModule, kName), mime_type);
}

// The classes that signal "server-stopped".
inline pyrt::Object CRemoteServerManager() {
  static constinit pyrt::Name kModule{"loombase.remoteclient"};
  static constinit pyrt::Name kName{"CRemoteServerManager"};
  return pyrt::ModuleAttr(kModule, kName);
}
inline pyrt::Object CContainerInspectorManager() {
  static constinit pyrt::Name kModule{"loombase.containers"};
  static constinit pyrt::Name kName{"CContainerInspectorManager"};
  return pyrt::ModuleAttr(kModule, kName);
}

// One-way calls into the helper process; no answer is awaited.
class HelperProcess {
 public:
  explicit HelperProcess(pyrt::Object proxy) : proxy_(std::move(proxy)) {}
  bool is_none() const noexcept { return proxy_.is_none(); }
  void AddPairsToPrimaryQueue(const pyrt::List& pairs, const pyrt::Object& first) const {
    static constinit pyrt::Name kName{"AddPairsToPrimaryQueue"};
    pyrt::CallMethod(proxy_, kName, pairs, first, NoCallback());
  }
  void FlushQueue() const {
    static constinit pyrt::Name kName{"FlushQueue"};
    pyrt::CallMethod(proxy_, kName, NoCallback());
  }

 private:
  static pyrt::Keyword NoCallback() {
    static constinit pyrt::Name kCallback{"callback"};
    return {kCallback, pyrt::Object::None()};
  }

  pyrt::Object proxy_;
};

// The scheduler's logger, a CLogger: called with a format and its arguments.
class Logger {
 public:
  Logger() = default;
  explicit Logger(const char* name);

  const pyrt::Object& object() const noexcept { return object_; }
  template <class... Args>
  void operator()(const char* format, const Args&... args) const {
    pyrt::Call(object_, format, args...);
  }
  // Whether anything is written.
  bool HasOutput() const {
    static constinit pyrt::Name kOutputFile{"fOutputFile"};
    return !pyrt::GetAttr(object_, kOutputFile).is_none();
  }

 private:
  pyrt::Object object_;
};

}  // namespace host

#endif  // HOST_SERVICES_H_
