// What is needed often and must be cheap. The state (which clock) lives in the Python module
// `pysource._fastaccess` alone, so that every extension that includes this header shares it.

#ifndef PYSOURCE__FASTACCESS_H_
#define PYSOURCE__FASTACCESS_H_

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/convert.h"

namespace pysource::fastaccess {

inline constinit pyrt::Name kModuleName{"pysource._fastaccess"};

// The time in seconds, from what stands at the module's attribute `__TimeFunc` at this moment.
// All times of the system are on its scale. May call Python; throws what that raises, or TypeError
// if the result is no number.
inline double GetNowTime() {
  static constinit pyrt::Name kTimeFunc{"__TimeFunc"};
  return pyrt::FromPython<double>(pyrt::Call(pyrt::ModuleAttr(kModuleName, kTimeFunc)).get());
}

// Whether an absolute time has come: a slice is over at the exact moment of its end time.
inline bool OutOfTime(double end_time) { return GetNowTime() >= end_time; }

}  // namespace pysource::fastaccess

#endif  // PYSOURCE__FASTACCESS_H_
