// Target: where string literals end, beside a model, and the same in pieces.
//
// The input: how long the pieces are, the text.

#include <cctype>
#include <cstddef>
#include <set>
#include <string>
#include <string_view>

#include "pysource/stringliteral.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/literal_model.h"

namespace {

// From so many quotes on, one after the other, the ends are looked for.
constexpr int kMaxQuotes = 12;

void CheckEnds(const fuzz::Exact& text) {
  fuzz::LiteralModel model(text.view());
  int quotes = 0;
  for (const char* p = text.data(); p != text.end() && quotes < kMaxQuotes; ++p) {
    if (*p != '"' && *p != '\'') continue;
    ++quotes;
    const char* const behind = pysource::FindStringEnd(text.data(), p, text.end());
    FUZZ_CHECK(behind > p && behind <= text.end());
    FUZZ_CHECK(static_cast<std::size_t>(behind - text.data()) ==
               model.End(static_cast<std::size_t>(p - text.data())));
  }
}

// The body of a plain literal, skipped in pieces, ends where it ends in one.
void CheckPieces(const fuzz::Exact& text, std::ptrdiff_t piece, char quote, bool triple) {
  const char* const end = text.end();
  const auto skip = [&](const char* p, std::ptrdiff_t length) {
    return pysource::SkipStringBody(p, end - p > length ? p + length : end, end, quote, triple);
  };
  const pysource::StringSkip whole = skip(text.data(), text.size());
  FUZZ_CHECK(whole.stop != pysource::StringStop::kLimit);

  pysource::StringSkip part = skip(text.data(), piece);
  std::uint32_t newlines = part.newlines;
  while (part.stop == pysource::StringStop::kLimit) {
    const char* const p = part.pos;
    FUZZ_CHECK(p >= text.data() && p < end);
    part = skip(p, piece);
    FUZZ_CHECK(part.pos > p || part.stop != pysource::StringStop::kLimit);
    newlines += part.newlines;
  }
  FUZZ_CHECK(part.stop == whole.stop && part.pos == whole.pos && newlines == whole.newlines);
}

void CheckPrefix(std::string_view text) {
  const pysource::StringPrefix prefix = pysource::ClassifyStringPrefix(text);
  std::string lower;
  for (const char c : text) {
    lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  static const std::set<std::string> kPrefixes = {"r",  "u",  "b",  "f",  "t",  "br", "rb",
                                                  "ur", "ru", "fr", "rf", "tr", "rt"};
  FUZZ_CHECK(prefix.valid == kPrefixes.contains(lower));
  FUZZ_CHECK(!prefix.valid || prefix.raw == (lower.find('r') != std::string::npos));
  FUZZ_CHECK(!prefix.valid || prefix.formatted == (lower.find_first_of("ft") != std::string::npos));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::ptrdiff_t piece = 1 + input.Byte() % 32;
  const fuzz::Exact text(input.Rest());
  CheckEnds(text);
  for (const char quote : {'"', '\''}) {
    CheckPieces(text, piece, quote, true);
    CheckPieces(text, piece, quote, false);
  }
  for (std::size_t length = 0; length <= 3; ++length) CheckPrefix(text.view().substr(0, length));
  return 0;
}
