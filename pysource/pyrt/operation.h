// Operations of extension types, declared once by their Python signature.
//
//   Operation<"Add(loc, count=1)", "Adds a location.", &Queue::Add, caller>::Def()
//
// is the method table entry: the names and defaults of the arguments come from the signature text,
// their types from the C++ member function, and help() and inspect.signature() show the same text.
// Arguments may be given by position or by keyword. A default is None, True, False or an integer.

#ifndef PYSOURCE_PYRT_OPERATION_H_
#define PYSOURCE_PYRT_OPERATION_H_

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "pysource/pyrt/convert.h"
#include "pysource/pyrt/guard.h"
#include "pysource/pyrt/object.h"

namespace pyrt {

// A text as a template argument.
template <std::size_t N>
struct FixedText {
  constexpr FixedText(const char (&text)[N]) { std::copy_n(text, N, data); }
  constexpr FixedText(const FixedText&) = default;
  constexpr std::string_view view() const { return {data, N - 1}; }
  char data[N];
};

namespace internal {

struct Parameter {
  std::string_view name;
  std::string_view default_text;  // empty: required
};

// Splits "Name(a, b=None)". `index` counts from 0.
constexpr std::size_t CountParameters(std::string_view signature) {
  const std::size_t open = signature.find('(');
  if (signature[open + 1] == ')') return 0;
  return 1 + static_cast<std::size_t>(std::count(signature.begin(), signature.end(), ','));
}

constexpr Parameter ParameterAt(std::string_view signature, std::size_t index) {
  std::size_t begin = signature.find('(') + 1;
  for (std::size_t i = 0; i < index; ++i) begin = signature.find(',', begin) + 2;
  const std::size_t end = std::min(signature.find(',', begin), signature.find(')', begin));
  const std::string_view text = signature.substr(begin, end - begin);
  const std::size_t equals = text.find('=');
  if (equals == std::string_view::npos) return {text, {}};
  return {text.substr(0, equals), text.substr(equals + 1)};
}

// Binds the arguments of a call to parameters; `bound` is filled with borrowed references, null
// for a parameter that takes its default. Throws TypeError as a Python function would.
void BindArguments(std::string_view function, const Parameter* parameters, std::size_t count,
                   PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, PyObject** bound);

// The same for a call that comes as a tuple and a dict or null.
void BindInitArguments(std::string_view function, const Parameter* parameters, std::size_t count,
                       PyObject* args, PyObject* kwargs, PyObject** bound);

// The value of a default text.
Object DefaultValue(std::string_view text);

template <FixedText kSignature>
struct Signature {
  static constexpr std::size_t kCount = CountParameters(kSignature.view());
  static constexpr std::string_view kFunction =
      kSignature.view().substr(0, kSignature.view().find('('));
  static constexpr std::array<Parameter, kCount> kParameters = [] {
    std::array<Parameter, kCount> parameters{};
    for (std::size_t i = 0; i < kCount; ++i) parameters[i] = ParameterAt(kSignature.view(), i);
    return parameters;
  }();
  static constexpr auto kNameStorage = [] {
    std::array<char, kFunction.size() + 1> name{};
    std::copy(kFunction.begin(), kFunction.end(), name.begin());
    return name;
  }();
};

// "Name($self, a)\n--\n\ndoc": the form that CPython takes a signature from.
template <FixedText kSignature, FixedText kDoc, bool kMethod>
struct DocString {
  static constexpr auto kText = [] {
    constexpr std::string_view signature = kSignature.view();
    constexpr std::string_view doc = kDoc.view();
    constexpr std::string_view marker = "\n--\n\n";
    constexpr bool any = CountParameters(kSignature.view()) > 0;
    constexpr std::string_view self = kMethod ? (any ? "$self, " : "$self") : "";
    std::array<char, signature.size() + self.size() + marker.size() + doc.size() + 1> text{};
    auto out = text.begin();
    const std::size_t open = signature.find('(') + 1;
    out = std::copy_n(signature.begin(), open, out);
    out = std::copy(self.begin(), self.end(), out);
    out = std::copy(signature.begin() + open, signature.end(), out);
    out = std::copy(marker.begin(), marker.end(), out);
    std::copy(doc.begin(), doc.end(), out);
    return text;
  }();
};

template <class Function>
struct FunctionTraits;
template <class R, class... Args>
struct FunctionTraits<R (*)(Args...)> {
  using Result = R;
  using Values = std::tuple<std::remove_cvref_t<Args>...>;
};
template <class C, class R, class... Args>
struct FunctionTraits<R (C::*)(Args...)> : FunctionTraits<R (*)(Args...)> {
  using Class = C;
};
template <class C, class R, class... Args>
struct FunctionTraits<R (C::*)(Args...) const> : FunctionTraits<R (*)(Args...)> {
  using Class = const C;
};

template <class Result, class Fn>
Object ResultOf(Fn&& call) {
  if constexpr (std::is_void_v<Result>) {
    std::forward<Fn>(call)();
    return Object::None();
  } else {
    return ToPython(std::forward<Fn>(call)());
  }
}

// Converts bound arguments to the C++ types of a function and calls it.
template <FixedText kSignature, class Values, class Result, class Fn>
Object Invoke(PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, Fn&& function) {
  using Sig = Signature<kSignature>;
  static_assert(std::tuple_size_v<Values> == Sig::kCount,
                "the signature text and the C++ function differ in their arguments");
  std::array<PyObject*, Sig::kCount + 1> bound{};
  BindArguments(Sig::kFunction, Sig::kParameters.data(), Sig::kCount, args, nargs, kwnames,
                bound.data());
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    [[maybe_unused]] const auto value = [&]<std::size_t K>(std::integral_constant<std::size_t, K>) {
      using T = std::tuple_element_t<K, Values>;
      if (bound[K] != nullptr) return FromPython<T>(bound[K]);
      return FromPython<T>(DefaultValue(Sig::kParameters[K].default_text).get());
    };
    // Braces: the arguments are converted from first to last.
    Values values{value(std::integral_constant<std::size_t, I>{})...};
    return ResultOf<Result>(
        [&]() -> decltype(auto) { return std::forward<Fn>(function)(std::get<I>(values)...); });
  }(std::make_index_sequence<Sig::kCount>{});
}

}  // namespace internal

// A method of an extension type. kMember gives the types; kCaller is called as
// kCaller(body, args...) and makes the call itself (qualified, past the virtual dispatch).
template <FixedText kSignature, FixedText kDoc, auto kMember, auto kCaller>
struct Operation {
  using Traits = internal::FunctionTraits<decltype(kMember)>;
  using Class = std::remove_const_t<typename Traits::Class>;

  static PyObject* Run(PyObject* self, PyObject* const* args, Py_ssize_t nargs,
                       PyObject* kwnames) noexcept {
    return Guard([&] {
      Class& body = Class::From(self);
      return internal::Invoke<kSignature, typename Traits::Values, typename Traits::Result>(
          args, nargs, kwnames,
          [&](auto&... values) -> decltype(auto) { return kCaller(body, values...); });
    });
  }

  static PyMethodDef Def() noexcept {
    return {internal::Signature<kSignature>::kNameStorage.data(),
            reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&Run)),
            METH_FASTCALL | METH_KEYWORDS,
            internal::DocString<kSignature, kDoc, true>::kText.data()};
  }
};

// A function of a module.
template <FixedText kSignature, FixedText kDoc, auto kFunction>
struct ModuleFunction {
  using Traits = internal::FunctionTraits<decltype(kFunction)>;

  static PyObject* Run(PyObject*, PyObject* const* args, Py_ssize_t nargs,
                       PyObject* kwnames) noexcept {
    return Guard([&] {
      return internal::Invoke<kSignature, typename Traits::Values, typename Traits::Result>(
          args, nargs, kwnames,
          [&](auto&... values) -> decltype(auto) { return kFunction(values...); });
    });
  }

  static PyMethodDef Def() noexcept {
    return {internal::Signature<kSignature>::kNameStorage.data(),
            reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&Run)),
            METH_FASTCALL | METH_KEYWORDS,
            internal::DocString<kSignature, kDoc, false>::kText.data()};
  }
};

// A Python function that holds one object, for a callback: kFunction is called as
// kFunction(held, args...). With a signature "name(first, *rest)" what comes after the first
// positional argument is dropped.
template <FixedText kSignature, auto kFunction>
struct Closure {
  template <class R, class Held, class... Args>
  static std::tuple<R*, std::tuple<std::remove_cvref_t<Args>...>> Split(R (*)(Held, Args...));
  using Values = std::tuple_element_t<1, decltype(Split(kFunction))>;
  static constexpr bool kVariadic = kSignature.view().ends_with(", *rest)");
  static constexpr auto kFixed = [] {
    auto text = kSignature;
    if constexpr (kVariadic) {
      const std::size_t comma = kSignature.view().rfind(',');
      text.data[comma] = ')';
      for (std::size_t i = comma + 1; i + 1 < sizeof text.data; ++i) text.data[i] = ' ';
    }
    return text;
  }();

  static PyObject* Run(PyObject* held, PyObject* const* args, Py_ssize_t nargs,
                       PyObject* kwnames) noexcept {
    return Guard([&]() -> Object {
      const Object owner = Object::Share(held);
      constexpr Py_ssize_t count = std::tuple_size_v<Values>;
      const Py_ssize_t given = kVariadic && nargs > count ? count : nargs;
      return internal::Invoke<kFixed, Values, void>(
          args, given, kwnames, [&](auto&... values) { kFunction(owner, values...); });
    });
  }

  static Object New(const Object& held) {
    static PyMethodDef definition{internal::Signature<kFixed>::kNameStorage.data(),
                                  reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&Run)),
                                  METH_FASTCALL | METH_KEYWORDS, nullptr};
    return Own(PyCFunction_NewEx(&definition, held.get(), nullptr));
  }
};

// Binds the arguments of a `__init__`, which come as a tuple and a dict. Missing ones are null.
// The references are borrowed from `args` and `kwargs`.
template <FixedText kSignature>
auto BindInit(PyObject* args, PyObject* kwargs) {
  using Sig = internal::Signature<kSignature>;
  std::array<PyObject*, Sig::kCount> bound{};
  internal::BindInitArguments(Sig::kFunction, Sig::kParameters.data(), Sig::kCount, args, kwargs,
                              bound.data());
  return bound;
}

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_OPERATION_H_
