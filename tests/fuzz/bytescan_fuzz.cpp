// Target: the searches that look at blocks or words, beside loops over single bytes.
//
// The input: how far the text begins behind an aligned address, the bytes looked for, the text.

#include <array>
#include <iterator>

#include "loom/_pyscan/chars.h"
#include "loom/_pyscan/keywords.h"
#include "pysource/bytescan.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr std::size_t kWanted = 6;

// The first byte of [p, end) that is one of the first `count` wanted ones.
const char* FindByModel(const char* p, const char* end, const std::array<char, kWanted>& wanted,
                        std::size_t count) {
  const auto* const last = wanted.begin() + count;
  while (p != end && std::find(wanted.begin(), last, *p) == last) ++p;
  return p;
}

void CheckFinds(const char* p, const char* end, const std::array<char, kWanted>& w) {
  using pysource::FindAny;
  FUZZ_CHECK(FindAny(p, end, w[0]) == FindByModel(p, end, w, 1));
  FUZZ_CHECK(FindAny(p, end, w[0], w[1]) == FindByModel(p, end, w, 2));
  FUZZ_CHECK(FindAny(p, end, w[0], w[1], w[2], w[3]) == FindByModel(p, end, w, 4));
  FUZZ_CHECK(FindAny(p, end, w[0], w[1], w[2], w[3], w[4], w[5]) == FindByModel(p, end, w, 6));

  const char* run_end = p;
  while (run_end != end && *run_end == w[0]) ++run_end;
  FUZZ_CHECK(loom::pyscan::SkipRun(p, end, w[0]) == run_end);
}

void CheckWord(std::string_view text, std::size_t readable) {
  using loom::pyscan::internal::kKeywords;
  const auto* const keyword = std::find_if(kKeywords.begin(), kKeywords.end(),
                                           [&](const auto& k) { return k.text == text; });
  const auto model = keyword == kKeywords.end() ? loom::pyscan::Tok::kName : keyword->tok;
  FUZZ_CHECK(loom::pyscan::ClassifyWord(text, readable) == model);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t shift = input.Byte() % 16;
  std::array<char, kWanted> wanted;
  for (char& byte : wanted) byte = static_cast<char>(input.Byte());
  // The text stands in the middle of a buffer, so that its neighbours may not be found either.
  const std::string_view rest = input.Rest();
  const fuzz::Exact buffer(rest);
  const auto begin = static_cast<std::ptrdiff_t>(std::min(shift, rest.size()));
  for (const char* end = buffer.end(); end >= buffer.data() + begin && buffer.end() - end < 16;
       --end) {
    CheckFinds(buffer.data() + begin, end, wanted);
  }
  const std::string_view text = buffer.view().substr(static_cast<std::size_t>(begin));
  // Words are made of bytes of identifiers, and what follows one may be anything.
  const auto* const word_end =
      std::find_if_not(text.begin(), text.end(), loom::pyscan::IsIdentifierByte);
  const auto longest = static_cast<std::size_t>(word_end - text.begin());
  for (std::size_t length = 0; length <= std::min<std::size_t>(longest, 10); ++length) {
    CheckWord(text.substr(0, length), text.size());
    const fuzz::Exact alone(text.substr(0, length));
    CheckWord(alone.view(), length);
  }
  return 0;
}
