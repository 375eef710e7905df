// Calls into Python: attributes, functions, methods and modules, with vectorcall throughout.

#ifndef PYSOURCE_PYRT_CALL_H_
#define PYSOURCE_PYRT_CALL_H_

#include <array>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "pysource/pyrt/convert.h"
#include "pysource/pyrt/object.h"

namespace pyrt {

// A keyword argument: Keyword{kPriority, ToPython(3)}.
struct Keyword {
  const Name& name;
  Object value;
};

namespace internal {

template <class T>
Object AsArgument(T&& value) {
  using Plain = std::remove_cvref_t<T>;
  if constexpr (std::is_same_v<Plain, Keyword>) {
    return value.value;
  } else {
    return ToPython(std::forward<T>(value));
  }
}

template <class T>
inline constexpr bool kIsKeyword = std::is_same_v<std::remove_cvref_t<T>, Keyword>;

// The names of the keyword arguments, as vectorcall wants them; empty if there are none.
template <class... Args>
Object KeywordNames(const Args&... args) {
  constexpr std::size_t count = (std::size_t{0} + ... + (kIsKeyword<Args> ? 1 : 0));
  if constexpr (count == 0) {
    return Object();
  } else {
    Object names = Own(PyTuple_New(count));
    Py_ssize_t next = 0;
    const auto add = [&](const auto& arg) {
      if constexpr (kIsKeyword<decltype(arg)>) {
        Check(PyTuple_SetItem(names.get(), next++, Object::Share(arg.name.get()).release()));
      }
    };
    (add(args), ...);
    return names;
  }
}

}  // namespace internal

// callable(args...). Keyword arguments stand last.
template <class... Args>
Object Call(const Object& callable, const Args&... args) {
  constexpr std::size_t keywords = (std::size_t{0} + ... + (internal::kIsKeyword<Args> ? 1 : 0));
  const Object held = callable;  // what is called may make its owner let go of it
  const std::array<Object, sizeof...(Args)> owned{internal::AsArgument(args)...};
  // Slot 0 is free for the callee's use, as the vectorcall protocol allows.
  std::array<PyObject*, sizeof...(Args) + 1> stack{};
  for (std::size_t i = 0; i < owned.size(); ++i) stack[i + 1] = owned[i].get_or_none();
  const Object names = internal::KeywordNames(args...);
  return Own(PyObject_Vectorcall(
      held.get_or_none(), stack.data() + 1,
      (sizeof...(Args) - keywords) | static_cast<std::size_t>(PY_VECTORCALL_ARGUMENTS_OFFSET),
      names.get()));
}

// object.name(args...), without a bound method in between.
template <class... Args>
Object CallMethod(const Object& object, const Name& name, const Args&... args) {
  constexpr std::size_t keywords = (std::size_t{0} + ... + (internal::kIsKeyword<Args> ? 1 : 0));
  const Object held = object;
  const std::array<Object, sizeof...(Args)> owned{internal::AsArgument(args)...};
  std::array<PyObject*, sizeof...(Args) + 2> stack{};
  stack[1] = held.get_or_none();
  for (std::size_t i = 0; i < owned.size(); ++i) stack[i + 2] = owned[i].get_or_none();
  const Object names = internal::KeywordNames(args...);
  return Own(PyObject_VectorcallMethod(
      name.get(), stack.data() + 1,
      (sizeof...(Args) + 1 - keywords) | static_cast<std::size_t>(PY_VECTORCALL_ARGUMENTS_OFFSET),
      names.get()));
}

inline Object GetAttr(const Object& object, const Name& name) {
  const Object held = object;
  return Own(PyObject_GetAttr(held.get_or_none(), name.get()));
}

// The module of that name, imported if need be. Looked up in sys.modules at each call, so that a
// module that was replaced there is obeyed.
Object Module(const Name& name);

// Attribute of a module, looked up at each call, so that a replaced function is obeyed.
inline Object ModuleAttr(const Name& module, const Name& name) {
  return GetAttr(Module(module), name);
}

// print(args...) of the interpreter, to whatever sys.stdout is.
template <class... Args>
void Print(const Args&... args) {
  static constinit Name kBuiltins{"builtins"};
  static constinit Name kPrint{"print"};
  Call(ModuleAttr(kBuiltins, kPrint), args...);
}

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_CALL_H_
