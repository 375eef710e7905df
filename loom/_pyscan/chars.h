// Byte classes of Python source, and the end of a run of one byte.

#ifndef LOOM_PYSCAN_CHARS_H_
#define LOOM_PYSCAN_CHARS_H_

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "pysource/bytescan.h"

namespace loom::pyscan {

enum class ByteClass : std::uint8_t {
  kBad,  // can't start a token: control characters, "$", "?", "`"
  kBlank,
  kNewline,  // "\n" or "\r"
  kHash,
  kBackslash,
  kQuote,
  kIdentifier,  // starts an identifier; every byte of a multi-byte character counts
  kDigit,
  kOpen,
  kClose,
  kColon,
  kDot,
  kOperator,
};

inline constexpr std::array<ByteClass, 256> kByteClasses = [] {
  std::array<ByteClass, 256> table{};
  auto set = [&table](const char* bytes, ByteClass c) {
    for (; *bytes != '\0'; ++bytes) table[static_cast<unsigned char>(*bytes)] = c;
  };
  set(" \t\f", ByteClass::kBlank);
  set("\r\n", ByteClass::kNewline);
  set("#", ByteClass::kHash);
  set("\\", ByteClass::kBackslash);
  set("'\"", ByteClass::kQuote);
  set("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_", ByteClass::kIdentifier);
  for (std::size_t i = 0x80; i < 0x100; ++i) table[i] = ByteClass::kIdentifier;
  set("0123456789", ByteClass::kDigit);
  set("([{", ByteClass::kOpen);
  set(")]}", ByteClass::kClose);
  set(":", ByteClass::kColon);
  set(".", ByteClass::kDot);
  set("!%&*+,-/;<=>@^|~", ByteClass::kOperator);
  return table;
}();

constexpr ByteClass ClassOf(char c) { return kByteClasses[static_cast<unsigned char>(c)]; }

inline constexpr std::array<bool, 256> kIdentifierBytes = [] {
  std::array<bool, 256> table{};
  for (std::size_t i = 0; i < 256; ++i) {
    table[i] = kByteClasses[i] == ByteClass::kIdentifier || kByteClasses[i] == ByteClass::kDigit;
  }
  return table;
}();

constexpr bool IsIdentifierByte(char c) { return kIdentifierBytes[static_cast<unsigned char>(c)]; }

constexpr bool IsNewline(char c) { return c == '\n' || c == '\r'; }

using pysource::FindAny;

// Returns the end of the run of `byte` that starts at p, at most end.
inline const char* SkipRun(const char* p, const char* end, char byte) {
  constexpr std::uint64_t kOnes = 0x0101010101010101u;
  const std::uint64_t pattern = kOnes * static_cast<unsigned char>(byte);
  while (end - p >= 8) {
    std::uint64_t word;
    std::memcpy(&word, p, sizeof word);
    word ^= pattern;
    if (word != 0) {
      if constexpr (std::endian::native == std::endian::little) {
        return p + (std::countr_zero(word) >> 3);
      } else {
        break;
      }
    }
    p += 8;
  }
  while (p != end && *p == byte) ++p;
  return p;
}

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_CHARS_H_
