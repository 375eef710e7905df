// Virtual operations that Python may override.
//
// A class with virtual operations has a dispatcher below it, the class of its Python instances. The
// dispatcher's operation goes through the Python name if the instance's class overrides it, and
// straight to the C++ operation otherwise. The method that Python sees under the name is the C++
// operation itself, called past the dispatch: that is what super() reaches.

#ifndef PYSOURCE_SCANCOORDINATOR_DISPATCH_H_
#define PYSOURCE_SCANCOORDINATOR_DISPATCH_H_

#include <type_traits>

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/shell.h"

namespace pysource {

template <class Result>
Result ResultAs(const pyrt::Object& value) {
  if constexpr (!std::is_void_v<Result>) return pyrt::FromPython<Result>(value.get());
}

}  // namespace pysource

// In a dispatcher below Class: overrides Operation, whose Python name is PYTHON_NAME. PARAMETERS
// and ARGUMENTS are parenthesized.
#define PYSOURCE_DISPATCH_AS(Class, Result, Operation, PYTHON_NAME, PARAMETERS, ...) \
  Result Operation PARAMETERS override {                                             \
    static constinit pyrt::Name kOperationName{PYTHON_NAME};                         \
    if (Class::Shell().Overrides(shell(), kOperationName)) {                         \
      return ResultAs<Result>(                                                       \
          pyrt::CallMethod(self(), kOperationName __VA_OPT__(, ) __VA_ARGS__));      \
    }                                                                                \
    return Class::Operation(__VA_ARGS__);                                            \
  }
#define PYSOURCE_DISPATCH(Class, Result, Operation, PARAMETERS, ...) \
  PYSOURCE_DISPATCH_AS(Class, Result, Operation, #Operation, PARAMETERS __VA_OPT__(, ) __VA_ARGS__)

// The method table entry of an operation, with its Python signature.
#define PYSOURCE_METHOD(Class, Op, SIGNATURE, DOC)                                               \
  pyrt::Operation<SIGNATURE, DOC, &Class::Op, [](Class& body, auto&... args) -> decltype(auto) { \
    return body.Class::Op(args...);                                                              \
  }>::Def()

#endif  // PYSOURCE_SCANCOORDINATOR_DISPATCH_H_
