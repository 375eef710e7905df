// Target: where string literals end, beside Python's own compiler: what it takes for a literal ends
// where our skipper says. It starts an interpreter.
//
// The input: the prefix, the literal.

#include <array>
#include <string>

#include "pysource/stringliteral.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/python.h"

namespace {

PyObject* Compiler() {
  static PyObject* const compile =
      PyObject_GetAttrString(PyImport_ImportModule("builtins"), "compile");
  return compile;
}

bool Compiles(std::string_view text) {
  PyObject* const code = PyObject_CallFunction(
      Compiler(), "y#ss", text.data(), static_cast<Py_ssize_t>(text.size()), "literal", "eval");
  const bool compiles = code != nullptr;
  if (!compiles) {
    FUZZ_CHECK(PyErr_ExceptionMatches(PyExc_Exception) != 0);
    PyErr_Clear();
  }
  Py_XDECREF(code);
  return compiles;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::StartPython();
  static constexpr std::array<std::string_view, 8> kPrefixes = {"f", "rf", "",  "F",
                                                                "r", "b",  "u", "fR"};
  fuzz::Input input(data, std::min<std::size_t>(size, 80));
  std::string source(kPrefixes[input.Byte() % kPrefixes.size()]);
  const std::size_t quote = source.size();
  source += input.Rest();
  if (source.size() == quote || (source[quote] != '"' && source[quote] != '\'')) return 0;
  // Python reads no zero bytes.
  if (source.find('\0') != std::string::npos) return 0;

  const fuzz::Exact text(source);
  const char* const behind = pysource::FindStringEnd(text.data(), text.data() + quote, text.end());
  const auto end = static_cast<std::size_t>(behind - text.data());
  // Where a literal ends is settled before what follows it, so that the shortest text that compiles
  // is the literal; "''" is none if a third quote follows.
  const bool triple = pysource::IsTripleQuote(text.data() + quote, text.end());
  for (std::size_t i = quote + (triple ? 6 : 2); i <= source.size(); ++i) {
    if (source[i - 1] != source[quote] || !Compiles(text.view().substr(0, i))) continue;
    FUZZ_CHECK(i == end);
    break;
  }
  return 0;
}
