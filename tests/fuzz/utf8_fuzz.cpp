// Target: decoding and stepping, beside Python's own decoder. It starts an interpreter.

#include "pysource/strutils.h"
#include "tests/fuzz/fuzz.h"

namespace {

// Whether the failure of malformed UTF-8 is pending; it is cleared.
bool TakeFailure() {
  if (PyErr_Occurred() == nullptr) return false;
  FUZZ_CHECK(PyErr_ExceptionMatches(PyExc_UnicodeDecodeError) != 0);
  PyErr_Clear();
  return true;
}

// What Python's decoder says: the character at the start, or kNoCharacter.
Py_UCS4 ByPython(const char* p, std::ptrdiff_t size) {
  PyObject* text = PyUnicode_DecodeUTF8(p, size, "replace");
  FUZZ_CHECK(text != nullptr);
  const Py_UCS4 u = PyUnicode_ReadChar(text, 0);
  Py_DECREF(text);
  // "\xEF\xBF\xBD" is the very character that stands for what is malformed.
  const bool real = size >= 3 && std::string_view(p, 3) == "\xEF\xBF\xBD";
  return u == 0xFFFD && !real ? pysource::kNoCharacter : u;
}

void CheckCharacter(const fuzz::Exact& text, std::ptrdiff_t pos) {
  const std::ptrdiff_t end = text.size();
  const Py_UCS4 u = pysource::Ucs4CharAtUtf8Pos(text.data(), pos, end);
  FUZZ_CHECK(TakeFailure() == (u == pysource::kNoCharacter));
  FUZZ_CHECK(u == ByPython(text.data() + pos, end - pos));
  const bool space = pysource::IsSpaceAtUtf8Pos(text.data(), pos, end);
  FUZZ_CHECK(TakeFailure() == (u == pysource::kNoCharacter));
  FUZZ_CHECK(!space || !pysource::IsAlnumAtUtf8Pos(text.data(), pos, end));
  const bool in_name = pysource::IsIdentifierCharAtUtf8Pos(text.data(), pos, end, false);
  FUZZ_CHECK(TakeFailure() == (u == pysource::kNoCharacter));
  FUZZ_CHECK(u == pysource::kNoCharacter || in_name == pysource::IsIdentifierChar(u, false));
}

void CheckSteps(const fuzz::Exact& text, std::ptrdiff_t pos) {
  const std::ptrdiff_t end = text.size();
  const std::ptrdiff_t here = pysource::AdjustUtf8Pos(text.data(), pos, 0, end);
  const std::ptrdiff_t next = pysource::AdjustUtf8Pos(text.data(), pos, 1, end);
  const std::ptrdiff_t before = pysource::AdjustUtf8Pos(text.data(), pos, -1, end);
  FUZZ_CHECK(-1 <= before && before <= here && here <= pos && here < next && next <= end);
  FUZZ_CHECK(next == end ||
             pysource::IsUtf8LeadByte(static_cast<unsigned char>(text.data()[next])));
  FUZZ_CHECK(pysource::AdjustUtf8Pos(text.data(), next, -1, end) == here);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = [] {
    Py_InitializeEx(0);
    return true;
  }();
  const fuzz::Exact text(fuzz::View(data, size < 64 ? size : 64));
  for (std::ptrdiff_t pos = 0; pos < text.size(); ++pos) {
    CheckCharacter(text, pos);
    CheckSteps(text, pos);
  }
  return 0;
}
