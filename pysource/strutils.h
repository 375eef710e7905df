// Text as UTF-8 bytes, walked by byte position.
//
// A UTF-8 pointer points to the first byte of a text held by a str or bytes object, which must
// outlive it; nothing here keeps the object alive. Positions are byte offsets, never character
// counts; end positions are exclusive. Bytes below 128 are dealt with inline, without a call or an
// allocation; all others go to the decoder, which lies out of line.
//
// Failures are told by a special result with a pending Python exception. The pure functions need no
// interpreter unless they fail. Malformed UTF-8 (overlong forms, surrogates, truncated sequences,
// stray continuation bytes, values above U+10FFFF) is the failure UnicodeDecodeError; no byte at or
// behind `end_pos` is ever read.

#ifndef PYSOURCE_STRUTILS_H_
#define PYSOURCE_STRUTILS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "pysource/pyrt/python.h"

namespace pysource {

// Any byte that doesn't continue a multi-byte character.
constexpr bool IsUtf8LeadByte(unsigned char byte) { return (byte & 0xC0) != 0x80; }

// --- Classes of characters -----------------------------------------------------------------------

// What is known of a character; bits.
enum CharacterClass : std::uint8_t {
  kSpaceCharacter = 1,
  kDigitCharacter = 2,
  kAlnumCharacter = 4,
  // Can be the first of an identifier.
  kIdentifierCharacter = 8,
};

// As the C library's functions see them in the "C" locale; identifiers are letters and "_".
inline constexpr std::array<std::uint8_t, 128> kAsciiClasses = [] {
  std::array<std::uint8_t, 128> table{};
  for (std::size_t c = 0; c < table.size(); ++c) {
    const bool digit = c >= '0' && c <= '9';
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    const bool space = c == ' ' || (c >= '\t' && c <= '\r');
    table[c] = static_cast<std::uint8_t>(
        (space ? kSpaceCharacter : 0) | (digit ? kDigitCharacter : 0) |
        (digit || letter ? kAlnumCharacter : 0) | (letter || c == '_' ? kIdentifierCharacter : 0));
  }
  return table;
}();

// The classes of a code point from 128 on, by the tables of Python's str methods: isspace, isdigit,
// isalnum and isidentifier. Each code point is asked about once and remembered. -2 with a pending
// failure: ValueError above U+10FFFF, or MemoryError.
int NonAsciiClasses(Py_UCS4 u) noexcept;

// --- Characters at positions ---------------------------------------------------------------------

// What the decoder found.
struct DecodedCharacter {
  Py_UCS4 u;
  int length;  // how many bytes were looked at
  // Null, or why the sequence is malformed.
  const char* error;
};

// Decodes the sequence at `pos` by `bytes[i]`, strictly. Requires pos < end_pos.
template <class Bytes>
constexpr DecodedCharacter DecodeUtf8(const Bytes& bytes, std::ptrdiff_t pos,
                                      std::ptrdiff_t end_pos) {
  const auto byte = [&](std::ptrdiff_t i) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i]));
  };
  const std::uint32_t lead = byte(pos);
  if (lead < 0x80) return {lead, 1, nullptr};
  if (lead < 0xC0) return {0, 1, "stray continuation byte"};
  if (lead < 0xC2) return {0, 1, "overlong form"};
  if (lead > 0xF4) return {0, 1, "beyond U+10FFFF"};
  const int length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  std::uint32_t u = lead & (0x7Fu >> length);
  for (int i = 1; i < length; ++i) {
    if (pos + i >= end_pos) return {0, i, "truncated sequence"};
    const std::uint32_t next = byte(pos + i);
    if ((next & 0xC0) != 0x80) return {0, i + 1, "truncated sequence"};
    u = (u << 6) | (next & 0x3F);
    if (i > 1) continue;
    // The second byte settles these; what follows it isn't looked at.
    if ((length == 3 && u < 0x20) || (length == 4 && u < 0x10)) return {0, 2, "overlong form"};
    if (length == 3 && u >= (0xD800u >> 6) && u <= (0xDFFFu >> 6)) return {0, 2, "surrogate"};
    if (length == 4 && u > (0x10FFFFu >> 12)) return {0, 2, "beyond U+10FFFF"};
  }
  return {u, length, nullptr};
}

inline constexpr Py_UCS4 kNoCharacter = 0xFFFFFFFFu;

// Decodes from 128 on: the code point, or kNoCharacter with a pending failure.
Py_UCS4 NonInlineUcs4CharAtUtf8Pos(const char* utf8_ptr, std::ptrdiff_t pos,
                                   std::ptrdiff_t end_pos) noexcept;
// The classes of the character there, which isn't ASCII; -2 with a pending failure.
int NonAsciiClassesAtUtf8Pos(const char* utf8_ptr, std::ptrdiff_t pos,
                             std::ptrdiff_t end_pos) noexcept;

// The code point at `pos`, 0 if `pos` isn't before `end_pos`, or kNoCharacter with a pending
// failure. A negative position isn't checked.
inline Py_UCS4 Ucs4CharAtUtf8Pos(const char* utf8_ptr, std::ptrdiff_t pos,
                                 std::ptrdiff_t end_pos) noexcept {
  if (pos >= end_pos) return 0;
  const auto byte = static_cast<unsigned char>(utf8_ptr[pos]);
  if (byte < 128) return byte;
  return NonInlineUcs4CharAtUtf8Pos(utf8_ptr, pos, end_pos);
}

// Whether the character at `pos` is of a class; false behind the end, and with a pending failure.
template <CharacterClass kClass>
inline bool IsClassAtUtf8Pos(const char* utf8_ptr, std::ptrdiff_t pos,
                             std::ptrdiff_t end_pos) noexcept {
  if (pos >= end_pos) return false;
  const auto byte = static_cast<unsigned char>(utf8_ptr[pos]);
  if (byte < 128) return (kAsciiClasses[byte] & kClass) != 0;
  const int classes = NonAsciiClassesAtUtf8Pos(utf8_ptr, pos, end_pos);
  return classes > 0 && (classes & kClass) != 0;
}
inline bool IsSpaceAtUtf8Pos(const char* utf8_ptr, std::ptrdiff_t pos,
                             std::ptrdiff_t end_pos) noexcept {
  return IsClassAtUtf8Pos<kSpaceCharacter>(utf8_ptr, pos, end_pos);
}
inline bool IsDigitAtUtf8Pos(const char* utf8_ptr, std::ptrdiff_t pos,
                             std::ptrdiff_t end_pos) noexcept {
  return IsClassAtUtf8Pos<kDigitCharacter>(utf8_ptr, pos, end_pos);
}
inline bool IsAlnumAtUtf8Pos(const char* utf8_ptr, std::ptrdiff_t pos,
                             std::ptrdiff_t end_pos) noexcept {
  return IsClassAtUtf8Pos<kAlnumCharacter>(utf8_ptr, pos, end_pos);
}

// Whether a character can stand in a name; with `initial`, at its first position, where digits
// don't count. 1 or 0, or -2 with a pending failure.
inline int IsIdentifierChar(Py_UCS4 u, bool initial) noexcept {
  const int wanted = initial ? kIdentifierCharacter : kIdentifierCharacter | kDigitCharacter;
  if (u < 128) return (kAsciiClasses[u] & wanted) != 0 ? 1 : 0;
  const int classes = NonAsciiClasses(u);
  if (classes < 0) return classes;
  return (classes & wanted) != 0 ? 1 : 0;
}
// False behind the end, and with a pending failure.
inline bool IsIdentifierCharAtUtf8Pos(const char* utf8_ptr, std::ptrdiff_t pos,
                                      std::ptrdiff_t end_pos, bool initial) noexcept {
  if (pos >= end_pos) return false;
  const auto byte = static_cast<unsigned char>(utf8_ptr[pos]);
  if (byte < 128) return IsIdentifierChar(byte, initial) == 1;
  const Py_UCS4 u = NonInlineUcs4CharAtUtf8Pos(utf8_ptr, pos, end_pos);
  return u != kNoCharacter && IsIdentifierChar(u, initial) == 1;
}

// --- Positions -----------------------------------------------------------------------------------

// AdjustUtf8Pos over anything that gives bytes by `bytes[i]`.
template <class Bytes>
constexpr std::ptrdiff_t AdjustPosInBytes(const Bytes& bytes, std::ptrdiff_t pos,
                                          std::ptrdiff_t diff, std::ptrdiff_t end_pos) {
  const auto inside = [&](std::ptrdiff_t i) {
    return !IsUtf8LeadByte(static_cast<unsigned char>(bytes[i]));
  };
  while (pos >= 0 && pos < end_pos && inside(pos)) --pos;
  for (; diff > 0 && pos < end_pos; --diff) {
    ++pos;
    while (pos < end_pos && inside(pos)) ++pos;
  }
  for (; diff < 0 && pos >= 0; ++diff) {
    --pos;
    while (pos >= 0 && inside(pos)) --pos;
  }
  return pos;
}

// Moves a position by whole characters, from inside of one by way of its first byte. The result is
// -1 for a step back beyond the start, and `end_pos` for one beyond the end; it never fails.
// Requires -1 <= pos <= end_pos; with diff >= 0 a position behind the end stays as it is.
inline std::ptrdiff_t AdjustUtf8Pos(const char* utf8_ptr, std::ptrdiff_t pos, std::ptrdiff_t diff,
                                    std::ptrdiff_t end_pos) noexcept {
  return AdjustPosInBytes(utf8_ptr, pos, diff, end_pos);
}

// A position as a slice takes it: a negative one counts from the end and is held at 0, one behind
// the end becomes `length`.
constexpr std::ptrdiff_t AdjustPosArg(std::ptrdiff_t pos, std::ptrdiff_t length) {
  if (pos < 0) return length > 0 && length + pos > 0 ? length + pos : 0;
  return pos > length ? length : pos;
}

// --- Bytes ---------------------------------------------------------------------------------------

// Makes ValueError "Invalid start" pending; returns -2.
std::ptrdiff_t FailWithInvalidStart() noexcept;

// The index of a byte in [start, length), counted from `ptr`; -1 if it is absent. Requires
// 0 <= start < length, else -2 with the pending failure ValueError: a start at the very end is an
// error, too.
inline std::ptrdiff_t PtrFindByte(const char* ptr, std::ptrdiff_t length, unsigned char c,
                                  std::ptrdiff_t start) noexcept {
  if (start < 0 || start >= length) return FailWithInvalidStart();
  const void* found = std::memchr(ptr + start, c, static_cast<std::size_t>(length - start));
  return found == nullptr ? -1 : static_cast<const char*>(found) - ptr;
}

// PtrFindByte over the whole of a bytes object; -2 with the pending failure TypeError for another.
std::ptrdiff_t BytesFindByte(PyObject* b, unsigned char c, std::ptrdiff_t start = 0) noexcept;

// --- Python objects ------------------------------------------------------------------------------

// The element of a str or bytes object (no subclass: TypeError) at an index, which counts from the
// end if it is negative; IndexError outside. kNoCharacter with a pending failure.
Py_UCS4 OrdAt(PyObject* s, std::ptrdiff_t i) noexcept;

// The UTF-8 form of a str, which lives as long as the str, or the content of a bytes object; null
// with a pending failure. A zero byte stands behind it.
const char* GetUtf8Ptr(PyObject* u) noexcept;

// The concatenation of strings, those left out that are none. A new reference, or null with a
// pending failure.
PyObject* Utf8Concat5(PyObject* s0, PyObject* s1, PyObject* s2, PyObject* s3,
                      PyObject* s4) noexcept;
inline PyObject* Utf8Concat4(PyObject* s0, PyObject* s1, PyObject* s2, PyObject* s3) noexcept {
  return Utf8Concat5(s0, s1, s2, s3, Py_None);
}
inline PyObject* Utf8Concat3(PyObject* s0, PyObject* s1, PyObject* s2) noexcept {
  return Utf8Concat5(s0, s1, s2, Py_None, Py_None);
}
inline PyObject* Utf8Concat2(PyObject* s0, PyObject* s1) noexcept {
  return Utf8Concat5(s0, s1, Py_None, Py_None, Py_None);
}

}  // namespace pysource

#endif  // PYSOURCE_STRUTILS_H_
