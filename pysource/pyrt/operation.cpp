#include "pysource/pyrt/operation.h"

#include <charconv>
#include <string>

namespace pyrt::internal {
namespace {

std::string Quoted(std::string_view name) { return "'" + std::string(name) + "'"; }

std::size_t IndexOf(PyObject* keyword, const Parameter* parameters, std::size_t count) {
  const std::string_view name = Utf8(Text(Object::Share(keyword)));
  std::size_t i = 0;
  while (i < count && parameters[i].name != name) ++i;
  return i;
}

void BindPositional(std::string_view function, std::size_t count, std::size_t given) {
  if (given <= count) return;
  Raise(PyExc_TypeError, std::string(function) + "() takes at most " + std::to_string(count) +
                             " arguments (" + std::to_string(given) + " given)");
}

void BindKeyword(std::string_view function, const Parameter* parameters, std::size_t count,
                 PyObject* keyword, PyObject* value, PyObject** bound) {
  const std::size_t i = IndexOf(keyword, parameters, count);
  if (i == count) {
    PyErr_Format(PyExc_TypeError, "%s() got an unexpected keyword argument '%S'",
                 std::string(function).c_str(), keyword);
    ThrowPending();
  }
  if (bound[i] != nullptr) {
    Raise(PyExc_TypeError, std::string(function) + "() got multiple values for argument " +
                               Quoted(parameters[i].name));
  }
  bound[i] = value;
}

void RequireAll(std::string_view function, const Parameter* parameters, std::size_t count,
                PyObject* const* bound) {
  for (std::size_t i = 0; i < count; ++i) {
    if (bound[i] == nullptr && parameters[i].default_text.empty()) {
      Raise(PyExc_TypeError,
            std::string(function) + "() missing required argument " + Quoted(parameters[i].name));
    }
  }
}

}  // namespace

void BindArguments(std::string_view function, const Parameter* parameters, std::size_t count,
                   PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, PyObject** bound) {
  const auto given = static_cast<std::size_t>(nargs);
  BindPositional(function, count, given);
  std::copy_n(args, given, bound);
  if (kwnames != nullptr) {
    const Py_ssize_t keywords = PyTuple_Size(kwnames);
    for (Py_ssize_t k = 0; k < keywords; ++k) {
      BindKeyword(function, parameters, count, PyTuple_GetItem(kwnames, k), args[nargs + k], bound);
    }
  }
  RequireAll(function, parameters, count, bound);
}

void BindInitArguments(std::string_view function, const Parameter* parameters, std::size_t count,
                       PyObject* args, PyObject* kwargs, PyObject** bound) {
  const auto given = static_cast<std::size_t>(PyTuple_Size(args));
  BindPositional(function, count, given);
  for (std::size_t i = 0; i < given; ++i) {
    bound[i] = PyTuple_GetItem(args, static_cast<Py_ssize_t>(i));
  }
  if (kwargs != nullptr) {
    PyObject* keyword = nullptr;
    PyObject* value = nullptr;
    for (Py_ssize_t pos = 0; PyDict_Next(kwargs, &pos, &keyword, &value) != 0;) {
      BindKeyword(function, parameters, count, keyword, value, bound);
    }
  }
  RequireAll(function, parameters, count, bound);
}

Object DefaultValue(std::string_view text) {
  if (text == "None") return Object::None();
  if (text == "True") return Object::Share(Py_True);
  if (text == "False") return Object::Share(Py_False);
  long value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return Own(PyLong_FromLong(value));
}

}  // namespace pyrt::internal
