// The non-nested search and the end of string literals, beside a model that looks at one byte after
// the other. The texts lie at the end of their memory, so that the sanitizers see a byte too many.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "pysource/nonnestedsearch.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/search_model.h"

namespace pysource {
namespace {

using fuzz::Exact;
using Positions = std::vector<std::ptrdiff_t>;

Positions Search(std::string_view text, std::string_view needle) {
  const Exact exact(text);
  tNonNestedStruct search;
  InitNonNestedStruct(&search, exact.data(), needle.data(),
                      static_cast<std::ptrdiff_t>(needle.size()), 0, exact.size());
  Positions found;
  for (std::ptrdiff_t pos; (pos = FindNextNonNestedStruct(&search)) >= 0;) found.push_back(pos);
  EXPECT_EQ(FindNextNonNestedStruct(&search), -1);
  return found;
}

TEST(NonNestedSearch, WithoutAText) {
  tNonNestedStruct search;
  EXPECT_EQ(FindNextNonNestedStruct(&search), -1);
  InitNonNestedStruct(&search, nullptr, "a", 1, 0, 5);
  EXPECT_EQ(FindNextNonNestedStruct(&search), -1);
}

TEST(NonNestedSearch, StateBetweenMatches) {
  const std::string text = "f(a)f(;";
  tNonNestedStruct search;
  InitNonNestedStruct(&search, text.data(), "f(", 2, 0, 7);
  EXPECT_EQ(search.first_char, 'f');
  EXPECT_EQ(FindNextNonNestedStruct(&search), 0);
  EXPECT_EQ(search.pos, 2);
  EXPECT_EQ(search.nesting_level, 1);
  EXPECT_EQ(FindNextNonNestedStruct(&search), 4);
  EXPECT_EQ(FindNextNonNestedStruct(&search), -1);
  EXPECT_EQ(search.nesting_level, 1);
}

TEST(NonNestedSearch, AnEmptyNeedleEndsAtZero) {
  tNonNestedStruct search;
  InitNonNestedStruct(&search, "abc", "", 0, 0, 3);
  EXPECT_EQ(search.end, 0);
  EXPECT_EQ(FindNextNonNestedStruct(&search), -1);
}

TEST(NonNestedSearch, BesideTheModel) {
  constexpr std::string_view kAlphabet = "aaaa;;x  fr()[]{}()[]{}\"'\\\n\r:#N";
  const std::vector<std::string> needles = {";", "a", "a;", "(", "[]", "'", "\"a", "f'", ")", ""};
  std::mt19937 random(17);
  for (int round = 0; round < 30'000; ++round) {
    std::string text(random() % 300, 'y');
    // Rare bytes of interest, then frequent ones.
    const unsigned density = round % 3 == 0 ? 2 : 20;
    for (char& c : text) {
      if (random() % density == 0) c = kAlphabet[random() % kAlphabet.size()];
    }
    const std::string& needle = needles[random() % needles.size()];
    ASSERT_EQ(Search(text, needle), SearchByModel(text, needle)) << text << "\nneedle " << needle;
  }
}

std::ptrdiff_t EndOf(std::string_view text, std::ptrdiff_t quote) {
  const Exact exact(text);
  return FindStringEnd(exact.data(), exact.data() + quote, exact.data() + exact.size()) -
         exact.data();
}

TEST(StringLiteral, IsClosed) {
  EXPECT_EQ(EndOf("''", 0), 2);
  EXPECT_EQ(EndOf("'a\\'b'c", 0), 6);
  EXPECT_EQ(EndOf("r'\\'b'c", 1), 6);
  EXPECT_EQ(EndOf("'''a''b'''c", 0), 10);
  EXPECT_EQ(EndOf("\"'\"", 0), 3);
}

TEST(StringLiteral, IsCutOff) {
  EXPECT_EQ(EndOf("'", 0), 1);
  EXPECT_EQ(EndOf("'\\", 0), 2);
  EXPECT_EQ(EndOf("'ab\nc'", 0), 3);
  EXPECT_EQ(EndOf("'''ab\nc''", 0), 9);
  EXPECT_EQ(EndOf("'''", 0), 3);
}

TEST(StringLiteral, HasFields) {
  EXPECT_EQ(EndOf("f'{x['a']}'b", 1), 11);
  EXPECT_EQ(EndOf("f'{{'b", 1), 5);
  EXPECT_EQ(EndOf("f'{x:{'}'}}'b", 1), 12);
  EXPECT_EQ(EndOf("f'\\N{'b", 1), 6);
  EXPECT_EQ(EndOf("f'{", 1), 3);
  EXPECT_EQ(EndOf("f'", 1), 2);
  EXPECT_EQ(EndOf("f'{x:", 1), 5);
  EXPECT_EQ(EndOf("f'{'", 1), 4);
  EXPECT_EQ(EndOf("f'\\", 1), 3);
}

TEST(StringLiteral, EndsBehindItsQuoteWhateverStandsThere) {
  std::mt19937 random(3);
  constexpr std::string_view kAlphabet = "f'\"{}:\\\n#rN!a";
  for (int round = 0; round < 50'000; ++round) {
    std::string text = "f'";
    for (std::size_t i = random() % 40; i > 0; --i) text += kAlphabet[random() % kAlphabet.size()];
    const std::ptrdiff_t end = EndOf(text, 1);
    ASSERT_GE(end, 2);
    ASSERT_LE(end, static_cast<std::ptrdiff_t>(text.size()));
  }
}

TEST(StringLiteral, NestsWithoutAStack) {
  std::string text;
  for (int i = 0; i < 100'000; ++i) text += "f'{";
  EXPECT_EQ(EndOf(text, 1), static_cast<std::ptrdiff_t>(text.size()));
}

TEST(FindAny, InEveryPlaceOfABlock) {
  for (std::size_t size = 0; size < 50; ++size) {
    for (std::size_t place = 0; place <= size; ++place) {
      std::string text(size, 'x');
      if (place < size) text[place] = 'b';
      const Exact exact(text);
      const char* const end = exact.data() + exact.size();
      EXPECT_EQ(FindAny(exact.data(), end, 'a', 'b') - exact.data(),
                static_cast<std::ptrdiff_t>(place));
    }
  }
}

}  // namespace
}  // namespace pysource
