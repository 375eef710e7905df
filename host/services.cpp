#include "host/services.h"

#include "pysource/pyrt/guard.h"

namespace host {

void ReportException(const pyrt::PythonError& error) {
  static constinit pyrt::Name kModule{"loomutils.reflect"};
  static constinit pyrt::Name kName{"ReportCurrentException"};
  const pyrt::HandlingError handling(error);
  pyrt::Call(pyrt::ModuleAttr(kModule, kName));
}

Logger::Logger(const char* name) {
  static constinit pyrt::Name kModule{"pysource._fastaccess"};
  static constinit pyrt::Name kName{"CLogger"};
  object_ = pyrt::Call(pyrt::ModuleAttr(kModule, kName), name);
}

}  // namespace host
