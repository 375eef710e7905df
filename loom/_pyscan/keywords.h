// The keywords of Python, by a small hash table.

#ifndef LOOM_PYSCAN_KEYWORDS_H_
#define LOOM_PYSCAN_KEYWORDS_H_

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "loom/_pyscan/token.h"

namespace loom::pyscan {
namespace internal {

struct Keyword {
  std::string_view text;
  Tok tok;
};

inline constexpr std::array<Keyword, 35> kKeywords = {{
    {"and", Tok::kKwAnd},
    {"as", Tok::kKwAs},
    {"async", Tok::kKwAsync},
    {"await", Tok::kKwAwait},
    {"else", Tok::kKwElse},
    {"False", Tok::kKwFalse},
    {"for", Tok::kKwFor},
    {"from", Tok::kKwFrom},
    {"if", Tok::kKwIf},
    {"in", Tok::kKwIn},
    {"is", Tok::kKwIs},
    {"lambda", Tok::kKwLambda},
    {"None", Tok::kKwNone},
    {"not", Tok::kKwNot},
    {"or", Tok::kKwOr},
    {"True", Tok::kKwTrue},
    {"yield", Tok::kKwYield},
    {"assert", Tok::kKwAssert},
    {"break", Tok::kKwBreak},
    {"class", Tok::kKwClass},
    {"continue", Tok::kKwContinue},
    {"def", Tok::kKwDef},
    {"del", Tok::kKwDel},
    {"elif", Tok::kKwElif},
    {"except", Tok::kKwExcept},
    {"finally", Tok::kKwFinally},
    {"global", Tok::kKwGlobal},
    {"import", Tok::kKwImport},
    {"nonlocal", Tok::kKwNonlocal},
    {"pass", Tok::kKwPass},
    {"raise", Tok::kKwRaise},
    {"return", Tok::kKwReturn},
    {"try", Tok::kKwTry},
    {"while", Tok::kKwWhile},
    {"with", Tok::kKwWith},
}};

inline constexpr std::size_t kLongestKeyword = 8;
inline constexpr unsigned kSlotBits = 7;

// The bytes of a word of at most eight, first byte lowest.
constexpr std::uint64_t Pack(std::string_view text) {
  std::uint64_t packed = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    packed |= std::uint64_t{static_cast<unsigned char>(text[i])} << (8 * i);
  }
  return packed;
}

constexpr std::size_t Slot(std::uint64_t packed) {
  return static_cast<std::size_t>((packed * 0x9E3779B97F4A7C15u) >> (64 - kSlotBits));
}

struct KeywordTable {
  std::array<std::uint64_t, 1u << kSlotBits> packed{};
  std::array<Tok, 1u << kSlotBits> toks{};
};

inline constexpr KeywordTable kKeywordTable = [] {
  KeywordTable table;
  for (const Keyword& k : kKeywords) {
    std::size_t slot = Slot(Pack(k.text));
    while (table.packed[slot] != 0) slot = (slot + 1) % table.packed.size();
    table.packed[slot] = Pack(k.text);
    table.toks[slot] = k.tok;
  }
  return table;
}();

}  // namespace internal

// The keyword that `text` is, or Tok::kName. `readable` is the number of bytes that may be read
// from text.data(), at least text.size(). Requires: a word of identifier bytes, so no zero bytes.
inline Tok ClassifyWord(std::string_view text, std::size_t readable) {
  using namespace internal;
  if (text.size() < 2 || text.size() > kLongestKeyword) return Tok::kName;
  std::uint64_t packed;
  if (std::endian::native == std::endian::little && readable >= sizeof packed) {
    std::memcpy(&packed, text.data(), sizeof packed);
    packed &= ~std::uint64_t{0} >> (64 - 8 * text.size());
  } else {
    packed = Pack(text);
  }
  for (std::size_t slot = Slot(packed); kKeywordTable.packed[slot] != 0;
       slot = (slot + 1) % kKeywordTable.packed.size()) {
    if (kKeywordTable.packed[slot] == packed) return kKeywordTable.toks[slot];
  }
  return Tok::kName;
}

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_KEYWORDS_H_
