// A search for the next of a few bytes, in blocks of 16 or 8. Without dependencies.

#ifndef PYSOURCE_BYTESCAN_H_
#define PYSOURCE_BYTESCAN_H_

#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace pysource {

#if defined(__SSE2__)

// Moves p to the first wanted byte of a whole block, or behind the last whole block. True if found.
template <class... Bytes>
inline bool FindInBlocks(const char*& p, const char* end, Bytes... wanted) {
  for (; end - p >= 16; p += 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    __m128i hits = _mm_setzero_si128();
    ((hits = _mm_or_si128(hits, _mm_cmpeq_epi8(block, _mm_set1_epi8(static_cast<char>(wanted))))),
     ...);
    const auto mask = static_cast<std::uint32_t>(_mm_movemask_epi8(hits));
    if (mask == 0) continue;
    p += std::countr_zero(mask);
    return true;
  }
  return false;
}

#else

template <class... Bytes>
inline bool FindInBlocks(const char*& p, const char* end, Bytes... wanted) {
  constexpr std::uint64_t kOnes = 0x0101010101010101u;
  constexpr std::uint64_t kHighs = 0x8080808080808080u;
  for (; end - p >= 8; p += 8) {
    std::uint64_t word;
    std::memcpy(&word, p, sizeof word);
    std::uint64_t hits = 0;
    // A byte of word ^ pattern is zero exactly where the wanted byte stands; the lowest zero byte
    // is always marked rightly, those above it may be marked in error.
    ((hits |=
      [word](std::uint64_t x) {
        x ^= word;
        return (x - kOnes) & ~x;
      }(kOnes * static_cast<unsigned char>(wanted))),
     ...);
    hits &= kHighs;
    if (hits == 0) continue;
    if constexpr (std::endian::native == std::endian::little) {
      p += std::countr_zero(hits) >> 3;
      return true;
    } else {
      return false;  // the bytes are looked at one by one
    }
  }
  return false;
}

#endif

// Returns the first position in [p, end) whose byte is one of `wanted`, or end.
template <class... Bytes>
inline const char* FindAny(const char* p, const char* end, Bytes... wanted) {
  if (FindInBlocks(p, end, wanted...)) return p;
  while (p != end && !((*p == static_cast<char>(wanted)) || ...)) ++p;
  return p;
}

}  // namespace pysource

#endif  // PYSOURCE_BYTESCAN_H_
