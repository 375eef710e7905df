// The UTF-8 helpers from C++: the pointers, and the special results with a pending failure.

#include "pysource/strutils.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace pysource {
namespace {

class StrUtils : public testing::Test {
 protected:
  static void SetUpTestSuite() { Py_Initialize(); }

  // Whether that failure is pending; it is cleared.
  static bool Failed(PyObject* type) {
    const bool matches = PyErr_Occurred() != nullptr && PyErr_ExceptionMatches(type) != 0;
    PyErr_Clear();
    return matches;
  }
  void TearDown() override { EXPECT_EQ(PyErr_Occurred(), nullptr); }
};

TEST_F(StrUtils, LeadBytes) {
  for (int byte = 0; byte < 256; ++byte) {
    EXPECT_EQ(IsUtf8LeadByte(static_cast<unsigned char>(byte)), byte < 128 || byte >= 192);
  }
}

TEST_F(StrUtils, AdjustingPositions) {
  const char* const text = "a\xC3\xA9\xE4\xB8\xAD";  // 1, 2 and 3 bytes
  EXPECT_EQ(AdjustUtf8Pos(text, 4, 0, 6), 3);
  EXPECT_EQ(AdjustUtf8Pos(text, 3, 1, 6), 6);
  EXPECT_EQ(AdjustUtf8Pos(text, 0, -1, 6), -1);
  EXPECT_EQ(AdjustUtf8Pos(text, 6, -3, 6), 0);
  EXPECT_EQ(AdjustUtf8Pos(text, 0, 2, 2), 2);
  EXPECT_EQ(AdjustUtf8Pos(nullptr, 0, 5, 0), 0);
}

TEST_F(StrUtils, DecodesWhatPythonEncodes) {
  for (Py_UCS4 u = 0; u < 0x110000; u += u < 0x800 ? 1 : 31) {
    if (u >= 0xD800 && u < 0xE000) continue;
    PyObject* text = PyUnicode_FromOrdinal(static_cast<int>(u));
    const char* const utf8 = GetUtf8Ptr(text);
    ASSERT_NE(utf8, nullptr);
    const std::ptrdiff_t size = u < 0x80 ? 1 : u < 0x800 ? 2 : u < 0x10000 ? 3 : 4;
    EXPECT_EQ(Ucs4CharAtUtf8Pos(utf8, 0, size), u);
    Py_DECREF(text);
  }
}

TEST_F(StrUtils, AtTheEndPositionNothingIsRead) {
  EXPECT_EQ(Ucs4CharAtUtf8Pos(nullptr, 0, 0), 0u);
  EXPECT_FALSE(IsSpaceAtUtf8Pos(nullptr, 3, 3));
  EXPECT_FALSE(IsIdentifierCharAtUtf8Pos(nullptr, 3, 2, false));
}

TEST_F(StrUtils, MalformedTextIsAPendingFailure) {
  const std::vector<std::string> sequences = {
      "\x80", "\xC0\x80", "\xC3", "\xE4\xB8", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"};
  for (const std::string& sequence : sequences) {
    const std::vector<char> exact(sequence.begin(), sequence.end());
    const auto size = static_cast<std::ptrdiff_t>(exact.size());
    EXPECT_EQ(Ucs4CharAtUtf8Pos(exact.data(), 0, size), kNoCharacter);
    EXPECT_TRUE(Failed(PyExc_UnicodeDecodeError));
    EXPECT_FALSE(IsSpaceAtUtf8Pos(exact.data(), 0, size));
    EXPECT_TRUE(Failed(PyExc_UnicodeDecodeError));
    EXPECT_FALSE(IsIdentifierCharAtUtf8Pos(exact.data(), 0, size, true));
    EXPECT_TRUE(Failed(PyExc_UnicodeDecodeError));
  }
}

TEST_F(StrUtils, AnyBytesAreDecodedAsPythonDoes) {
  std::mt19937 random(5);
  for (int round = 0; round < 20'000; ++round) {
    std::vector<char> bytes(1 + random() % 4);
    for (char& byte : bytes) byte = static_cast<char>(0x70 + random() % 0x90);
    const auto size = static_cast<std::ptrdiff_t>(bytes.size());
    const Py_UCS4 u = Ucs4CharAtUtf8Pos(bytes.data(), 0, size);
    const bool failed = Failed(PyExc_UnicodeDecodeError);
    EXPECT_EQ(failed, u == kNoCharacter);
    // Python reads as much of a sequence as is valid.
    PyObject* text = PyUnicode_DecodeUTF8(bytes.data(), size, "replace");
    ASSERT_NE(text, nullptr);
    constexpr Py_UCS4 kReplacement = 0xFFFD;
    EXPECT_EQ(PyUnicode_ReadChar(text, 0), failed ? kReplacement : u);
    Py_DECREF(text);
  }
}

TEST_F(StrUtils, IdentifierCharacters) {
  EXPECT_EQ(IsIdentifierChar('7', false), 1);
  EXPECT_EQ(IsIdentifierChar('7', true), 0);
  EXPECT_EQ(IsIdentifierChar('_', true), 1);
  EXPECT_EQ(IsIdentifierChar(0xE9, true), 1);
  EXPECT_EQ(IsIdentifierChar(0x110000, true), -2);
  EXPECT_TRUE(Failed(PyExc_ValueError));
}

TEST_F(StrUtils, FindingBytes) {
  EXPECT_EQ(PtrFindByte("abc", 3, 'c', 0), 2);
  EXPECT_EQ(PtrFindByte("abc", 2, 'c', 0), -1);
  EXPECT_EQ(PtrFindByte("abc", 3, 'c', 3), -2);
  EXPECT_TRUE(Failed(PyExc_ValueError));
  EXPECT_EQ(PtrFindByte(nullptr, 0, 'c', 0), -2);
  EXPECT_TRUE(Failed(PyExc_ValueError));
  EXPECT_EQ(BytesFindByte(Py_None, 'c'), -2);
  EXPECT_TRUE(Failed(PyExc_TypeError));
}

TEST_F(StrUtils, PositionsOfSlices) {
  static_assert(AdjustPosArg(-7, 7) == 0);
  static_assert(AdjustPosArg(-8, 7) == 0);
  static_assert(AdjustPosArg(-1, 7) == 6);
  static_assert(AdjustPosArg(8, 7) == 7);
  static_assert(AdjustPosArg(PTRDIFF_MIN, PTRDIFF_MIN) == 0);
}

TEST_F(StrUtils, ObjectsThatAreNoText) {
  EXPECT_EQ(OrdAt(Py_None, 0), kNoCharacter);
  EXPECT_TRUE(Failed(PyExc_TypeError));
  EXPECT_EQ(GetUtf8Ptr(Py_None), nullptr);
  EXPECT_TRUE(Failed(PyExc_TypeError));
  EXPECT_EQ(Utf8Concat2(Py_True, Py_None), nullptr);
  EXPECT_TRUE(Failed(PyExc_TypeError));
}

}  // namespace
}  // namespace pysource
