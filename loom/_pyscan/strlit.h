// String literals of Python source: what a prefix means, and where a plain literal ends.
// Needs nothing but chars.h, so that other readers of Python source can share it.

#ifndef LOOM_PYSCAN_STRLIT_H_
#define LOOM_PYSCAN_STRLIT_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "loom/_pyscan/chars.h"

namespace loom::pyscan {

struct StringPrefix {
  bool valid = false;      // the text is a string prefix at all
  bool formatted = false;  // f or t: the literal has replacement fields
  bool raw = false;
};

// Judges the identifier that stands right before a quote. Takes the prefixes of every Python from 2
// to 3.14, in either case: r u b f t br rb ur fr rf tr rt.
constexpr StringPrefix ClassifyStringPrefix(std::string_view text) {
  StringPrefix prefix;
  if (text.empty() || text.size() > 2) return prefix;
  char kind = '\0';
  for (char c : text) {
    const char lower = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    if (lower == 'r' && !prefix.raw) {
      prefix.raw = true;
    } else if (kind == '\0' && (lower == 'b' || lower == 'f' || lower == 't' || lower == 'u')) {
      kind = lower;
    } else {
      return StringPrefix{};
    }
  }
  prefix.valid = true;
  prefix.formatted = kind == 'f' || kind == 't';
  return prefix;
}

// True if three quotes, and so a triple-quoted literal, stand at p.
constexpr bool IsTripleQuote(const char* p, const char* end) {
  return end - p >= 3 && p[1] == p[0] && p[2] == p[0];
}

enum class StringStop : std::uint8_t {
  kClosed,   // pos is behind the closing quote
  kLineEnd,  // a line end in a literal of single quotes; pos is at it
  kTextEnd,  // pos is the end of the text
  kLimit,    // pos is at or just behind the limit; call again from there
};

struct StringSkip {
  const char* pos;
  std::uint32_t newlines;  // line ends passed
  StringStop stop;
};

// Walks through the body of a literal without replacement fields, from behind its opening quotes or
// from where an earlier call stopped at its limit. Reads within [p, end) only; starts on no escape,
// line end or closing quote at or behind `limit`, but finishes one that began before it.
// Requires p <= limit <= end.
inline StringSkip SkipStringBody(const char* p, const char* limit, const char* end, char quote,
                                 bool triple) {
  std::uint32_t newlines = 0;
  for (;;) {
    p = FindAny(p, limit, quote, '\\', '\n', '\r');
    if (p >= limit) {
      return {p, newlines, p >= end ? StringStop::kTextEnd : StringStop::kLimit};
    }
    if (*p == quote) {
      if (!triple) return {p + 1, newlines, StringStop::kClosed};
      if (IsTripleQuote(p, end)) return {p + 3, newlines, StringStop::kClosed};
      ++p;
      continue;
    }
    const bool escaped = *p == '\\';
    if (escaped) {
      ++p;
      if (p == end) return {p, newlines, StringStop::kTextEnd};
    }
    if (IsNewline(*p)) {
      if (!escaped && !triple) return {p, newlines, StringStop::kLineEnd};
      ++newlines;
      if (*p == '\r' && end - p >= 2 && p[1] == '\n') ++p;
    }
    ++p;
    if (p > limit) {
      return {p, newlines, p >= end ? StringStop::kTextEnd : StringStop::kLimit};
    }
  }
}

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_STRLIT_H_
