// A search for a string outside of brackets and string literals. Without an interpreter.
//
// Only quotes, brackets and the first byte of what is sought matter, so the text is looked at in
// blocks of 64 bytes: comparisons over a block give one bit a byte, brackets between two bytes of
// interest are counted by their bits, and a byte without interest costs nothing of its own.

#ifndef PYSOURCE_NONNESTEDSEARCH_H_
#define PYSOURCE_NONNESTEDSEARCH_H_

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "pysource/stringliteral.h"

namespace pysource {

// The state of a search. Whoever fills it keeps the texts alive.
struct tNonNestedStruct {
  const char* to_search = nullptr;  // UTF-8 or plain bytes; null if none
  const char* to_find = nullptr;
  std::ptrdiff_t to_find_len = 0;
  unsigned char first_char = 0;    // of to_find; unset if to_find_len is 0
  std::ptrdiff_t pos = 0;          // where the scan stands now
  std::ptrdiff_t end = 0;          // where it stops, exclusive
  std::int32_t nesting_level = 0;  // open brackets
};

// Starts a search. An empty to_find finds nothing. Requires: start and end lie in the text, unless
// to_search is null.
inline void InitNonNestedStruct(tNonNestedStruct* search, const char* to_search,
                                const char* to_find, std::ptrdiff_t to_find_len,
                                std::ptrdiff_t start, std::ptrdiff_t end) {
  search->to_search = to_search;
  search->to_find = to_find;
  search->to_find_len = to_find_len;
  if (to_find_len != 0) search->first_char = static_cast<unsigned char>(to_find[0]);
  search->pos = start;
  search->end = to_find_len != 0 ? end : 0;
  search->nesting_level = 0;
}

namespace internal {

inline constexpr std::ptrdiff_t kBlockSize = 64;

// Which bytes of a block are of interest; the lowest bit is that of the first byte.
struct BlockMasks {
  std::uint64_t quotes = 0;
  std::uint64_t openers = 0;
  std::uint64_t closers = 0;
  std::uint64_t first = 0;
};

#if defined(__SSE2__)

inline BlockMasks LookAtBlock(const char* block, char first_char) {
  BlockMasks masks;
  const auto bits = [](__m128i equal, int part) {
    return static_cast<std::uint64_t>(static_cast<std::uint32_t>(_mm_movemask_epi8(equal)))
           << (16 * part);
  };
  for (int part = 0; part < 4; ++part) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block) + part);
    const auto is = [&](__m128i of, char byte) { return _mm_cmpeq_epi8(of, _mm_set1_epi8(byte)); };
    // "[" and "{" differ in this bit alone, and so do "]" and "}".
    const __m128i folded = _mm_or_si128(bytes, _mm_set1_epi8(0x20));
    masks.quotes |= bits(_mm_or_si128(is(bytes, '"'), is(bytes, '\'')), part);
    masks.openers |= bits(_mm_or_si128(is(bytes, '('), is(folded, '{')), part);
    masks.closers |= bits(_mm_or_si128(is(bytes, ')'), is(folded, '}')), part);
    masks.first |= bits(is(bytes, first_char), part);
  }
  return masks;
}

#else

inline BlockMasks LookAtBlock(const char* block, char first_char) {
  BlockMasks masks;
  for (int i = 0; i < kBlockSize; ++i) {
    const char c = block[i];
    const std::uint64_t bit = std::uint64_t{1} << i;
    if (c == '"' || c == '\'') masks.quotes |= bit;
    if (c == '(' || c == '[' || c == '{') masks.openers |= bit;
    if (c == ')' || c == ']' || c == '}') masks.closers |= bit;
    if (c == first_char) masks.first |= bit;
  }
  return masks;
}

#endif

// std::popcount is a call where the processor needn't have an instruction for it.
constexpr std::int32_t CountBits(std::uint64_t bits) {
  bits -= (bits >> 1) & 0x5555555555555555u;
  bits = (bits & 0x3333333333333333u) + ((bits >> 2) & 0x3333333333333333u);
  bits = (bits + (bits >> 4)) & 0x0F0F0F0F0F0F0F0Fu;
  return static_cast<std::int32_t>((bits * 0x0101010101010101u) >> 56);
}

// The bits from `index` on.
constexpr std::uint64_t From(std::ptrdiff_t index) {
  return index < kBlockSize ? ~std::uint64_t{0} << index : 0;
}

// How much the bytes of [p, p + length) add to the nesting level.
inline std::int32_t LevelOf(const char* p, std::ptrdiff_t length) {
  std::int32_t level = 0;
  for (std::ptrdiff_t i = 0; i < length; ++i) {
    const char c = p[i];
    if (c == '(' || c == '[' || c == '{') ++level;
    if (c == ')' || c == ']' || c == '}') --level;
  }
  return level;
}

}  // namespace internal

// The position behind the literal whose quote stands at `quote`, or of the line end that cuts it
// off; see stringliteral.h for what counts as its end. Looks for a prefix from the start of the
// text.
inline std::ptrdiff_t FindStringEndNonNested(const tNonNestedStruct& search, std::ptrdiff_t quote) {
  const char* const text = search.to_search;
  return FindStringEnd(text, text + quote, text + search.end) - text;
}

// The position of the next match, or -1 for no more.
//
// A match counts at nesting level 0 alone. The level is the openers less the closers seen so far,
// whatever their kind, and can go below 0; there nothing matches until it is back at 0. What stands
// in literals is neither found nor counted, but a match that begins with a quote is found.
inline std::ptrdiff_t FindNextNonNestedStruct(tNonNestedStruct* search) {
  using internal::From;
  if (search->to_search == nullptr || search->pos >= search->end) return -1;
  const char* const text = search->to_search;
  const std::ptrdiff_t end = search->end;
  std::ptrdiff_t pos = search->pos;
  std::int32_t level = search->nesting_level;

  while (pos < end) {
    const std::ptrdiff_t base = pos;
    std::ptrdiff_t size = end - base;
    internal::BlockMasks masks;
    if (size >= internal::kBlockSize) {
      size = internal::kBlockSize;
      masks = internal::LookAtBlock(text + base, static_cast<char>(search->first_char));
    } else {
      char padded[internal::kBlockSize] = {};
      std::memcpy(padded, text + base, static_cast<std::size_t>(size));
      masks = internal::LookAtBlock(padded, static_cast<char>(search->first_char));
      masks.first &= ~From(size);
    }
    // What hasn't been passed yet.
    std::uint64_t rest = ~std::uint64_t{0};
    const auto count_below = [&](std::uint64_t above) {
      level += internal::CountBits(masks.openers & rest & ~above) -
               internal::CountBits(masks.closers & rest & ~above);
      rest &= above;
    };
    while (const std::uint64_t stops = (masks.quotes | masks.first) & rest) {
      const int index = std::countr_zero(stops);
      const std::uint64_t bit = std::uint64_t{1} << index;
      const std::ptrdiff_t here = base + index;
      count_below(From(index));
      if ((masks.first & bit) != 0 && level == 0 && search->to_find_len <= end - here &&
          std::memcmp(text + here, search->to_find,
                      static_cast<std::size_t>(search->to_find_len)) == 0) {
        search->pos = here + search->to_find_len;
        search->nesting_level = level + internal::LevelOf(text + here, search->to_find_len);
        return here;
      }
      if ((masks.quotes & bit) != 0) {
        const std::ptrdiff_t behind = FindStringEndNonNested(*search, here);
        rest &= From(behind - base);
        pos = behind;
      } else {
        // The byte may be a bracket, which counts with those behind it.
        masks.first &= ~bit;
      }
    }
    count_below(0);
    if (pos < base + size) pos = base + size;
  }
  search->pos = pos;
  search->nesting_level = level;
  return -1;
}

}  // namespace pysource

#endif  // PYSOURCE_NONNESTEDSEARCH_H_
