// Operations that take any number of arguments behind a first one, in the manner of a logger.
//
//   VariadicOperation<"Log1(s, *args)", "Logs a line.", &CLogger::Log1>::Def()

#ifndef PYSOURCE_PYRT_VARARGS_H_
#define PYSOURCE_PYRT_VARARGS_H_

#include <cstddef>
#include <span>

#include "pysource/pyrt/guard.h"
#include "pysource/pyrt/object.h"
#include "pysource/pyrt/operation.h"

namespace pyrt {

// Borrowed references, valid during the call.
using Arguments = std::span<PyObject* const>;

inline Object TupleOf(Arguments args) {
  Object tuple = Own(PyTuple_New(static_cast<Py_ssize_t>(args.size())));
  Py_ssize_t next = 0;
  for (PyObject* arg : args) {
    Check(PyTuple_SetItem(tuple.get(), next++, Object::Share(arg).release()));
  }
  return tuple;
}

// kMember is `void (Class::*)(PyObject* first, Arguments rest)`. The first argument may also come
// by its keyword, if it is the only one.
template <FixedText kSignature, FixedText kDoc, auto kMember>
struct VariadicOperation {
  using Class = std::remove_const_t<typename internal::FunctionTraits<decltype(kMember)>::Class>;
  using Sig = internal::Signature<kSignature>;

  static PyObject* Run(PyObject* self, PyObject* const* args, Py_ssize_t nargs,
                       PyObject* kwnames) noexcept {
    return Guard([&] {
      PyObject* first = nullptr;
      const bool keywords = kwnames != nullptr && PyTuple_Size(kwnames) > 0;
      if (nargs == 0 || keywords) {
        internal::BindArguments(Sig::kFunction, Sig::kParameters.data(), 1, args, nargs, kwnames,
                                &first);
      } else {
        first = args[0];
      }
      const Arguments all(args, static_cast<std::size_t>(nargs));
      (Class::From(self).*kMember)(first, all.empty() ? all : all.subspan(1));
      return Object::None();
    });
  }
  // The same as a slot of the type, for instances that are called.
  static PyObject* Vectorcall(PyObject* self, PyObject* const* args, std::size_t nargsf,
                              PyObject* kwnames) noexcept {
    return Run(self, args, PyVectorcall_NARGS(nargsf), kwnames);
  }

  static PyMethodDef Def() noexcept {
    return {
        Sig::kNameStorage.data(), reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&Run)),
        METH_FASTCALL | METH_KEYWORDS, internal::DocString<kSignature, kDoc, true>::kText.data()};
  }
};

}  // namespace pyrt

#endif  // PYSOURCE_PYRT_VARARGS_H_
