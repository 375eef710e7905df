// Target: decoding, classes of characters and steps, beside Python's own decoder and str methods
// and beside loops over single bytes. It starts an interpreter.

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <vector>

#include "pysource/strutils.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/python.h"

namespace {

// What Python says of the character at the start of a text.
struct PythonCharacter {
  Py_UCS4 u = pysource::kNoCharacter;
  bool space = false;
  bool digit = false;
  bool alnum = false;
  bool starts_name = false;
};

bool Ask(PyObject* text, const char* method) {
  PyObject* const answer = PyObject_CallMethod(text, method, nullptr);
  FUZZ_CHECK(answer == Py_True || answer == Py_False);
  const bool yes = answer == Py_True;
  Py_DECREF(answer);
  return yes;
}

// The shortest text that Python decodes to one character, if there is one, is the character.
PythonCharacter ByPython(std::string_view bytes) {
  PythonCharacter character;
  for (std::size_t length = 1; length <= std::min<std::size_t>(bytes.size(), 4); ++length) {
    PyObject* const text =
        PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(length), "strict");
    if (text == nullptr) {
      FUZZ_CHECK(fuzz::TakeFailure(PyExc_UnicodeDecodeError));
      continue;
    }
    FUZZ_CHECK(PyUnicode_GetLength(text) == 1);
    character = {PyUnicode_ReadChar(text, 0), Ask(text, "isspace"), Ask(text, "isdigit"),
                 Ask(text, "isalnum"), Ask(text, "isidentifier")};
    Py_DECREF(text);
    // Below 128 the C library's rule counts, which takes four separators for no space.
    if (character.u >= 0x1C && character.u <= 0x1F) character.space = false;
    break;
  }
  return character;
}

void CheckCharacter(const fuzz::Exact& text, std::ptrdiff_t pos) {
  const char* const p = text.data();
  const std::ptrdiff_t end = text.size();
  const PythonCharacter python = ByPython(text.view().substr(static_cast<std::size_t>(pos)));
  const bool fails = python.u == pysource::kNoCharacter;
  const auto failed = [] { return fuzz::TakeFailure(PyExc_UnicodeDecodeError); };

  FUZZ_CHECK(pysource::Ucs4CharAtUtf8Pos(p, pos, end) == python.u);
  FUZZ_CHECK(failed() == fails);
  FUZZ_CHECK(pysource::IsSpaceAtUtf8Pos(p, pos, end) == python.space);
  FUZZ_CHECK(failed() == fails);
  FUZZ_CHECK(pysource::IsDigitAtUtf8Pos(p, pos, end) == python.digit);
  FUZZ_CHECK(failed() == fails);
  FUZZ_CHECK(pysource::IsAlnumAtUtf8Pos(p, pos, end) == python.alnum);
  FUZZ_CHECK(failed() == fails);
  for (const bool initial : {false, true}) {
    const bool in_name = python.starts_name || (!initial && python.digit);
    FUZZ_CHECK(pysource::IsIdentifierCharAtUtf8Pos(p, pos, end, initial) == in_name);
    FUZZ_CHECK(failed() == fails);
    if (fails) continue;
    FUZZ_CHECK(pysource::IsIdentifierChar(python.u, initial) == (in_name ? 1 : 0));
  }
}

void CheckBehindTheEnd(const fuzz::Exact& text) {
  for (const std::ptrdiff_t pos : {text.size(), text.size() + 1}) {
    FUZZ_CHECK(pysource::Ucs4CharAtUtf8Pos(text.data(), pos, text.size()) == 0);
    FUZZ_CHECK(!pysource::IsSpaceAtUtf8Pos(text.data(), pos, text.size()));
    FUZZ_CHECK(!pysource::IsDigitAtUtf8Pos(text.data(), pos, text.size()));
    FUZZ_CHECK(!pysource::IsAlnumAtUtf8Pos(text.data(), pos, text.size()));
    FUZZ_CHECK(!pysource::IsIdentifierCharAtUtf8Pos(text.data(), pos, text.size(), false));
  }
  FUZZ_CHECK(PyErr_Occurred() == nullptr);
}

// Where characters begin is a list here, and a step is a step in the list.
void CheckSteps(const fuzz::Exact& text) {
  std::vector<std::ptrdiff_t> starts = {-1};
  for (std::ptrdiff_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text.data()[i]);
    if (byte < 0x80 || byte >= 0xC0) starts.push_back(i);
  }
  starts.push_back(text.size());
  const auto last = static_cast<std::ptrdiff_t>(starts.size()) - 1;
  for (std::ptrdiff_t pos = -1; pos <= text.size(); ++pos) {
    const auto above = std::upper_bound(starts.begin(), starts.end(), pos);
    const std::ptrdiff_t here = above - starts.begin() - 1;
    for (const std::ptrdiff_t diff : {-100, -3, -2, -1, 0, 1, 2, 3, 100}) {
      const std::ptrdiff_t there = std::clamp<std::ptrdiff_t>(here + diff, 0, last);
      FUZZ_CHECK(pysource::AdjustUtf8Pos(text.data(), pos, diff, text.size()) ==
                 starts[static_cast<std::size_t>(there)]);
    }
  }
}

void CheckBytes(const fuzz::Exact& text, unsigned char wanted) {
  for (std::ptrdiff_t start = -1; start <= text.size() + 1; ++start) {
    const std::ptrdiff_t found = pysource::PtrFindByte(text.data(), text.size(), wanted, start);
    if (start < 0 || start >= text.size()) {
      FUZZ_CHECK(found == -2 && fuzz::TakeFailure(PyExc_ValueError));
      continue;
    }
    std::ptrdiff_t i = start;
    while (i < text.size() && static_cast<unsigned char>(text.data()[i]) != wanted) ++i;
    FUZZ_CHECK(found == (i < text.size() ? i : -1));
    FUZZ_CHECK(PyErr_Occurred() == nullptr);
  }
  for (std::ptrdiff_t pos = -2 * text.size() - 1; pos <= 2 * text.size() + 1; ++pos) {
    const std::ptrdiff_t from_end = pos < 0 ? text.size() + pos : pos;
    FUZZ_CHECK(pysource::AdjustPosArg(pos, text.size()) ==
               std::clamp<std::ptrdiff_t>(from_end, 0, text.size()));
  }
}

// OrdAt and GetUtf8Ptr over the same text as objects.
void CheckObjects(const fuzz::Exact& text) {
  const std::ptrdiff_t size = text.size();
  PyObject* const bytes = PyBytes_FromStringAndSize(text.data(), size);
  FUZZ_CHECK(bytes != nullptr);
  for (std::ptrdiff_t i = -size - 2; i <= size + 1; ++i) {
    const Py_UCS4 u = pysource::OrdAt(bytes, i);
    const bool inside = i >= -size && i < size;
    FUZZ_CHECK(fuzz::TakeFailure(PyExc_IndexError) == !inside);
    FUZZ_CHECK(!inside || u == static_cast<unsigned char>(text.data()[i < 0 ? i + size : i]));
  }
  const char* const content = pysource::GetUtf8Ptr(bytes);
  FUZZ_CHECK(content != nullptr && text.view() == std::string_view(content, text.view().size()));
  Py_DECREF(bytes);

  PyObject* const string = PyUnicode_DecodeUTF8(text.data(), size, "strict");
  if (string == nullptr) {
    FUZZ_CHECK(fuzz::TakeFailure(PyExc_UnicodeDecodeError));
    return;
  }
  const char* const utf8 = pysource::GetUtf8Ptr(string);
  FUZZ_CHECK(utf8 != nullptr && text.view() == std::string_view(utf8, text.view().size()));
  // Steps over the bytes and indexes of the str go through the same characters.
  std::ptrdiff_t pos = 0;
  for (Py_ssize_t i = 0; i < PyUnicode_GetLength(string); ++i) {
    FUZZ_CHECK(pysource::Ucs4CharAtUtf8Pos(text.data(), pos, size) == pysource::OrdAt(string, i));
    pos = pysource::AdjustUtf8Pos(text.data(), pos, 1, size);
  }
  FUZZ_CHECK(pos == size);
  PyObject* const twice = pysource::Utf8Concat3(string, Py_None, string);
  FUZZ_CHECK(twice != nullptr && PyUnicode_GetLength(twice) == 2 * PyUnicode_GetLength(string));
  Py_DECREF(twice);
  Py_DECREF(string);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::StartPython();
  const fuzz::Exact text(fuzz::View(data, std::min<std::size_t>(size, 64)));
  for (std::ptrdiff_t pos = 0; pos < text.size(); ++pos) CheckCharacter(text, pos);
  CheckBehindTheEnd(text);
  CheckSteps(text);
  CheckBytes(text, size == 0 ? 0 : data[size / 2]);
  CheckObjects(text);
  return 0;
}
