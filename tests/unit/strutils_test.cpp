// The UTF-8 helpers that C++ callers use without an object in hand.

#include "pysource/strutils.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace pysource {
namespace {

constexpr std::ptrdiff_t Length(std::string_view text) {
  return static_cast<std::ptrdiff_t>(text.size());
}

std::string EncodeUtf8(char32_t u) {
  std::string bytes;
  const auto add = [&](char32_t byte) {
    bytes += static_cast<char>(static_cast<unsigned char>(byte));
  };
  if (u < 0x80) {
    add(u);
  } else if (u < 0x800) {
    add(0xC0 | (u >> 6));
    add(0x80 | (u & 0x3F));
  } else if (u < 0x10000) {
    add(0xE0 | (u >> 12));
    add(0x80 | ((u >> 6) & 0x3F));
    add(0x80 | (u & 0x3F));
  } else {
    add(0xF0 | (u >> 18));
    add(0x80 | ((u >> 12) & 0x3F));
    add(0x80 | ((u >> 6) & 0x3F));
    add(0x80 | (u & 0x3F));
  }
  return bytes;
}

TEST(DecodeUtf8, GivesBackEveryCodePoint) {
  for (char32_t u = 0; u <= 0x10FFFF; ++u) {
    if (u >= 0xD800 && u <= 0xDFFF) continue;
    const std::string bytes = EncodeUtf8(u);
    const DecodedCharacter decoded = DecodeUtf8(bytes.data(), 0, Length(bytes));
    ASSERT_EQ(decoded.error, nullptr) << static_cast<std::uint32_t>(u);
    ASSERT_EQ(decoded.u, static_cast<Py_UCS4>(u));
  }
}

TEST(DecodeUtf8, SaysWhatIsMalformed) {
  const auto error_of = [](std::string_view bytes) {
    return DecodeUtf8(bytes.data(), 0, Length(bytes)).error;
  };
  EXPECT_STREQ(error_of("\x80"), "stray continuation byte");
  EXPECT_STREQ(error_of("\xC0\x80"), "overlong form");
  EXPECT_STREQ(error_of("\xE0\x9F\xBF"), "overlong form");
  EXPECT_STREQ(error_of("\xF0\x8F\xBF\xBF"), "overlong form");
  EXPECT_STREQ(error_of("\xED\xA0\x80"), "surrogate");
  EXPECT_STREQ(error_of("\xF4\x90\x80\x80"), "beyond U+10FFFF");
  EXPECT_STREQ(error_of("\xFF"), "beyond U+10FFFF");
  EXPECT_STREQ(error_of("\xE2\x82"), "truncated sequence");
  EXPECT_STREQ(error_of("\xC3("), "truncated sequence");
}

TEST(DecodeUtf8, ReadsNoByteAtTheEnd) {
  // On the heap and exactly as long as the text, so that a byte more is a report of the sanitizer.
  const std::string whole = "\xF0\x9F\x90\x8D";
  for (std::size_t length = 1; length < whole.size(); ++length) {
    const auto bytes = std::make_unique<char[]>(length);
    std::memcpy(bytes.get(), whole.data(), length);
    EXPECT_STREQ(DecodeUtf8(bytes.get(), 0, static_cast<std::ptrdiff_t>(length)).error,
                 "truncated sequence");
  }
}

constexpr std::string_view kMixed = "a\xC3\xA9\xE2\x82\xACz";  // positions 0, 1, 3, 6

TEST(AdjustUtf8Pos, MovesByWholeCharacters) {
  EXPECT_EQ(AdjustUtf8Pos(kMixed.data(), 0, 1, Length(kMixed)), 1);
  EXPECT_EQ(AdjustUtf8Pos(kMixed.data(), 0, 3, Length(kMixed)), 6);
  EXPECT_EQ(AdjustUtf8Pos(kMixed.data(), 6, -1, Length(kMixed)), 3);
  EXPECT_EQ(AdjustUtf8Pos(kMixed.data(), 6, -3, Length(kMixed)), 0);
}

TEST(AdjustUtf8Pos, StartsFromTheFirstByteOfACharacter) {
  EXPECT_EQ(AdjustUtf8Pos(kMixed.data(), 4, 0, Length(kMixed)), 3);
  EXPECT_EQ(AdjustUtf8Pos(kMixed.data(), 5, 1, Length(kMixed)), 6);
  EXPECT_EQ(AdjustUtf8Pos(kMixed.data(), 2, -1, Length(kMixed)), 0);
}

TEST(AdjustUtf8Pos, StopsAtBothEnds) {
  EXPECT_EQ(AdjustUtf8Pos(kMixed.data(), 6, 5, Length(kMixed)), Length(kMixed));
  EXPECT_EQ(AdjustUtf8Pos(kMixed.data(), 0, -1, Length(kMixed)), -1);
  EXPECT_EQ(AdjustUtf8Pos(kMixed.data(), -1, -1, Length(kMixed)), -1);
  EXPECT_EQ(AdjustUtf8Pos(kMixed.data(), 9, 1, Length(kMixed)), 9);
}

TEST(AdjustPosArg, CountsAsASliceDoes) {
  EXPECT_EQ(AdjustPosArg(2, 5), 2);
  EXPECT_EQ(AdjustPosArg(7, 5), 5);
  EXPECT_EQ(AdjustPosArg(-2, 5), 3);
  EXPECT_EQ(AdjustPosArg(-7, 5), 0);
  EXPECT_EQ(AdjustPosArg(-1, 0), 0);
}

TEST(Classes, OfAsciiNeedNoInterpreter) {
  const std::string_view text = " 7_k";
  EXPECT_TRUE(IsSpaceAtUtf8Pos(text.data(), 0, 4));
  EXPECT_TRUE(IsDigitAtUtf8Pos(text.data(), 1, 4));
  EXPECT_FALSE(IsAlnumAtUtf8Pos(text.data(), 2, 4));
  EXPECT_TRUE(IsAlnumAtUtf8Pos(text.data(), 3, 4));
  EXPECT_FALSE(IsIdentifierCharAtUtf8Pos(text.data(), 1, 4, true));
  EXPECT_TRUE(IsIdentifierCharAtUtf8Pos(text.data(), 1, 4, false));
  EXPECT_TRUE(IsIdentifierCharAtUtf8Pos(text.data(), 2, 4, true));
  EXPECT_FALSE(IsAlnumAtUtf8Pos(text.data(), 4, 4));
}

TEST(PtrFindByte, CountsFromThePointer) {
  EXPECT_EQ(PtrFindByte("abcabc", 6, 'b', 0), 1);
  EXPECT_EQ(PtrFindByte("abcabc", 6, 'b', 2), 4);
  EXPECT_EQ(PtrFindByte("abcabc", 4, 'b', 2), -1);
}

class WithInterpreter : public testing::Test {
 protected:
  static void SetUpTestSuite() { Py_Initialize(); }
  static void TearDownTestSuite() { Py_Finalize(); }

  // The type of the pending failure, which is cleared.
  static PyObject* TakeFailure() {
    PyObject* exception = PyErr_GetRaisedException();
    if (exception == nullptr) return nullptr;
    PyObject* type = PyObject_Type(exception);
    Py_DECREF(exception);
    Py_DECREF(type);  // A class of the builtins lives on.
    return type;
  }
};

TEST_F(WithInterpreter, StartBehindTheTextIsAFailure) {
  EXPECT_EQ(PtrFindByte("abc", 3, 'a', 3), -2);
  EXPECT_EQ(TakeFailure(), PyExc_ValueError);
  EXPECT_EQ(PtrFindByte("abc", 3, 'a', -1), -2);
  EXPECT_EQ(TakeFailure(), PyExc_ValueError);
}

TEST_F(WithInterpreter, MalformedTextIsAFailure) {
  EXPECT_EQ(Ucs4CharAtUtf8Pos("\xED\xA0\x80", 0, 3), kNoCharacter);
  EXPECT_EQ(TakeFailure(), PyExc_UnicodeDecodeError);
  EXPECT_FALSE(IsAlnumAtUtf8Pos("\x80", 0, 1));
  EXPECT_EQ(TakeFailure(), PyExc_UnicodeDecodeError);
}

TEST_F(WithInterpreter, ClassesAreThoseOfPython) {
  EXPECT_EQ(IsIdentifierChar(0xE9, true), 1);       // e with an acute accent
  EXPECT_EQ(IsIdentifierChar(0x20AC, false), 0);    // euro sign
  EXPECT_TRUE(IsSpaceAtUtf8Pos("\xC2\xA0", 0, 2));  // no-break space
  EXPECT_EQ(IsIdentifierChar(0x110000, false), -2);
  EXPECT_EQ(TakeFailure(), PyExc_ValueError);
}

TEST_F(WithInterpreter, ConcatenationLeavesOutNone) {
  PyObject* a = PyUnicode_FromString("a");
  PyObject* joined = Utf8Concat5(a, Py_None, a, Py_None, Py_None);
  ASSERT_NE(joined, nullptr);
  EXPECT_EQ(PyUnicode_CompareWithASCIIString(joined, "aa"), 0);
  Py_DECREF(joined);
  Py_DECREF(a);
}

}  // namespace
}  // namespace pysource
