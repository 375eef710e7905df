// Target: what pysource/_fastaccess.h does with objects, beside loops over single bytes. It starts
// an interpreter.
//
// The input: how long the first text is and where a search starts and ends, the first text, the
// second.

#include <bit>
#include <string>
#include <string_view>

#include "pysource/_fastaccess.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/python.h"
#include "tests/fuzz/search_model.h"

namespace {

using pyrt::Object;

namespace fastaccess = pysource::fastaccess;

Object Bytes(std::string_view text) {
  return pyrt::Own(PyBytes_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size())));
}

// Up to the first zero byte.
std::string_view CText(std::string_view text) { return text.substr(0, text.find('\0')); }

bool ContainsByModel(std::string_view whole, std::string_view sub) {
  for (std::size_t i = 0; i + sub.size() <= whole.size(); ++i) {
    if (whole.substr(i, sub.size()) == sub) return true;
  }
  return false;
}

void CheckNestingLevel(std::string_view token) {
  PyObject* const text =
      PyUnicode_DecodeLatin1(token.data(), static_cast<Py_ssize_t>(token.size()), "strict");
  const Object object = pyrt::Own(text);
  int change = 0;
  if (token == "(" || token == "[" || token == "{") change = 1;
  if (token == ")" || token == "]" || token == "}") change = -1;
  for (const std::int64_t level : {-7, 0, 9}) {
    FUZZ_CHECK(fastaccess::UpdateNestingLevel(level, object) == level + change);
    FUZZ_CHECK(fastaccess::UpdateNestingLevel(level, object, false) == level - change);
  }
}

// The same search on bytes and, where the text is UTF-8, on the str.
void CheckSearch(const Object& to_search, std::string_view text, const Object& needle,
                 std::string_view needle_text, std::int64_t start, std::int64_t end) {
  fastaccess::CNonNestedSearch search;
  FUZZ_CHECK(search.FindNext() == -1);
  // Checked as a C text while debug checks are on, which they are here.
  const auto limit = static_cast<std::int64_t>(CText(text).size());
  const bool valid = start >= 0 && start <= limit && end >= 0 && end <= limit;
  FUZZ_CHECK(search.InitWith(to_search, needle, start, end) == (valid ? 0 : -1));
  FUZZ_CHECK(fuzz::TakeFailure(PyExc_AssertionError) == !valid);
  if (!valid) return;
  const std::string_view window = text.substr(0, static_cast<std::size_t>(end));
  if (start <= end) {
    for (const std::ptrdiff_t position : pysource::SearchByModel(window, needle_text, start)) {
      FUZZ_CHECK(search.FindNext() == position);
    }
  }
  FUZZ_CHECK(search.FindNext() == -1);
  FUZZ_CHECK(search.FindNext() == -1);
}

void CheckBits(std::string_view bytes) {
  std::uint64_t bits = 0;
  for (const char c : bytes.substr(0, 8)) bits = (bits << 8) | static_cast<unsigned char>(c);
  const double value = fastaccess::DoubleValueForULongLongBits(bits);
  FUZZ_CHECK(fastaccess::ULongLongValueForDoubleBits(value) == bits);
  // Of more than 64 bits the low ones count, of a negative number those of its complement.
  const std::string digits = std::string(bytes.size() % 2 == 0 ? "-" : "") + "1" +
                             std::string(bytes.size() % 40, '7') + std::to_string(bits);
  const Object number = pyrt::Own(PyLong_FromString(digits.c_str(), nullptr, 10));
  const std::uint64_t low = PyLong_AsUnsignedLongLongMask(number.get());
  FUZZ_CHECK(PyErr_Occurred() == nullptr);
  FUZZ_CHECK(std::bit_cast<std::uint64_t>(fastaccess::DoubleValueForPyIntBits(number)) == low);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::StartPython();
  fuzz::Input input(data, size);
  const std::size_t length = input.Byte() % 8;
  const unsigned window = input.Byte();
  const std::string_view first = input.Take(length);
  const std::string_view second = input.Rest();
  const Object sub = Bytes(first);
  const Object whole = Bytes(second);
  FUZZ_CHECK(fastaccess::StrInStr(sub, whole) == ContainsByModel(CText(second), CText(first)));

  CheckNestingLevel(first);
  CheckBits(second);
  const std::int64_t start = window % 16;
  const std::int64_t end = static_cast<std::int64_t>(second.size()) - (window / 16) % 8;
  CheckSearch(whole, second, sub, first, start, end);
  PyObject* const text =
      PyUnicode_DecodeUTF8(second.data(), static_cast<Py_ssize_t>(second.size()), "strict");
  if (text == nullptr) {
    FUZZ_CHECK(fuzz::TakeFailure(PyExc_UnicodeDecodeError));
  } else {
    CheckSearch(pyrt::Own(text), second, sub, first, start, end);
  }
  for (int c = 0; size > 0 && c < 2; ++c) {
    const std::uint8_t byte = c == 0 ? data[0] : data[size - 1];
    const bool digit = byte >= '0' && byte <= '9';
    const bool letter = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
    FUZZ_CHECK(fastaccess::IsDigit(byte) == digit);
    FUZZ_CHECK(fastaccess::IsAlnum(byte) == (digit || letter));
  }
  return 0;
}
