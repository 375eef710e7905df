// A search for the next of a few bytes, eight at a time. Without dependencies.

#ifndef PYSOURCE_BYTESCAN_H_
#define PYSOURCE_BYTESCAN_H_

#include <bit>
#include <cstdint>
#include <cstring>

namespace pysource {

// Returns the first position in [p, end) whose byte is one of `wanted`, or end.
template <class... Bytes>
inline const char* FindAny(const char* p, const char* end, Bytes... wanted) {
  constexpr std::uint64_t kOnes = 0x0101010101010101u;
  constexpr std::uint64_t kHighs = 0x8080808080808080u;
  while (end - p >= 8) {
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
    if (hits != 0) {
      if constexpr (std::endian::native == std::endian::little) {
        return p + (std::countr_zero(hits) >> 3);
      } else {
        break;
      }
    }
    p += 8;
  }
  while (p != end && !((*p == static_cast<char>(wanted)) || ...)) ++p;
  return p;
}

}  // namespace pysource

#endif  // PYSOURCE_BYTESCAN_H_
