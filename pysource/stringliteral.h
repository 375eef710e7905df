// String literals of Python source: what a prefix means, and where a literal ends. Whoever must
// step over literals shares this header; it needs nothing but bytescan.h.
//
// What is taken for the end:
// - A closed literal ends behind its closing quotes. A backslash takes the next character with it,
//   in raw literals too.
// - A literal of single quotes that a line end cuts off ends at that line end (not behind it); one
//   of triple quotes ends at the end of the text.
// - In a literal with replacement fields (f, t) the quotes inside a field belong to literals of its
//   own, whatever quotes these are, as CPython reads them since 3.12. A field may hold line ends,
//   comments, brackets and further fields in its format specification. A literal inside a field
//   that a line end cuts off ends at the line end, and the field goes on. A field that isn't
//   closed, and nesting deeper than kMaxLiteralNesting, run to the end of the text.

#ifndef PYSOURCE_STRINGLITERAL_H_
#define PYSOURCE_STRINGLITERAL_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "pysource/bytescan.h"

namespace pysource {

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
    if (*p == '\n' || *p == '\r') {
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

namespace internal {

// Letters of prefixes.
inline constexpr std::array<bool, 256> kPrefixLetters = [] {
  std::array<bool, 256> letters{};
  for (const char c : {'r', 'R', 'b', 'B', 'u', 'U', 'f', 'F', 't', 'T'}) {
    letters[static_cast<unsigned char>(c)] = true;
  }
  return letters;
}();

}  // namespace internal

// What stands before a quote as its prefix. Looks at [begin, quote) only.
inline StringPrefix PrefixBefore(const char* begin, const char* quote) {
  // Most literals have no prefix, and the byte before the quote says so.
  if (quote == begin || !internal::kPrefixLetters[static_cast<unsigned char>(quote[-1])]) {
    return {};
  }
  const auto in_name = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           static_cast<unsigned char>(c) >= 0x80;
  };
  const char* start = quote - 1;
  // A longer name is no prefix, so a third character settles it.
  while (start != begin && quote - start < 3 && in_name(start[-1])) --start;
  return ClassifyStringPrefix({start, static_cast<std::size_t>(quote - start)});
}

// How deeply literals, fields and format specifications may stand in each other: more than CPython
// takes.
inline constexpr int kMaxLiteralNesting = 640;

// Steps over one literal with replacement fields, with all that is nested in it.
class FormattedStringSkipper {
 public:
  explicit FormattedStringSkipper(const char* end) : end_(end) {}

  // `p` is behind the opening quotes. Returns where the literal ends.
  const char* Skip(const char* p, char quote, bool triple, bool raw) {
    Push({Kind::kLiteral, quote, triple, raw, 0});
    while (depth_ > 0 && p < end_) {
      switch (Top().kind) {
        case Kind::kLiteral:
          p = InLiteral(p);
          break;
        case Kind::kField:
          p = InField(p);
          break;
        case Kind::kSpecification:
          p = InSpecification(p);
          break;
      }
    }
    return p < end_ ? p : end_;
  }

 private:
  enum class Kind : std::uint8_t { kLiteral, kField, kSpecification };
  struct Frame {
    Kind kind;
    char quote;  // of the literal; fields and specifications repeat those of theirs
    bool triple;
    bool raw;
    int level;  // open brackets in a field
  };

  Frame& Top() { return frames_[depth_ - 1]; }
  // False if it is too deep; then the literal runs to the end of the text.
  bool Push(Frame frame) {
    if (depth_ == kMaxLiteralNesting) return false;
    frames_[depth_++] = frame;
    return true;
  }
  const char* PushPart(Kind kind, const char* behind) {
    const Frame top = Top();
    return Push({kind, top.quote, top.triple, top.raw, 0}) ? behind : end_;
  }
  void PopLiteral() {
    while (Top().kind != Kind::kLiteral) --depth_;
    --depth_;
  }

  // Behind the closing quotes that stand at p, or null.
  const char* Closed(const char* p) {
    if (*p != Top().quote) return nullptr;
    if (!Top().triple) return p + 1;
    return IsTripleQuote(p, end_) ? p + 3 : nullptr;
  }

  const char* InLiteral(const char* p) {
    p = FindAny(p, end_, Top().quote, '\\', '{', '\n', '\r');
    if (p == end_) return p;
    if (const char* behind = Closed(p); behind != nullptr) {
      PopLiteral();
      return behind;
    }
    switch (*p) {
      case '{':
        if (end_ - p >= 2 && p[1] == '{') return p + 2;
        return PushPart(Kind::kField, p + 1);
      case '\\':
        return InEscape(p);
      case '\n':
      case '\r':
        if (!Top().triple) {
          PopLiteral();
          return p;
        }
        return p + 1;
      default:
        return p + 1;
    }
  }

  const char* InEscape(const char* p) {
    if (end_ - p < 2) return end_;
    // A backslash takes no brace with it.
    if (p[1] == '{' || p[1] == '}') return p + 1;
    // "\N{DASH}" is a character, not a field.
    if (p[1] == 'N' && !Top().raw && end_ - p >= 3 && p[2] == '{') return p + 3;
    if (p[1] == '\r' && end_ - p >= 3 && p[2] == '\n') return p + 3;
    return p + 2;
  }

  const char* InField(const char* p) {
    p = FindInField(p);
    if (p == end_) return p;
    switch (*p) {
      case '(':
      case '[':
      case '{':
        ++Top().level;
        return p + 1;
      case ')':
      case ']':
        if (Top().level > 0) --Top().level;
        return p + 1;
      case '}':
        if (Top().level > 0) {
          --Top().level;
        } else {
          --depth_;
        }
        return p + 1;
      case ':':
        return Top().level > 0 ? p + 1 : PushPart(Kind::kSpecification, p + 1);
      case '#':
        return FindAny(p, end_, '\n', '\r');
      default:
        return Nested(p);
    }
  }

  const char* FindInField(const char* p) {
    for (; p != end_; ++p) {
      switch (*p) {
        case '(':
        case ')':
        case '[':
        case ']':
        case '{':
        case '}':
        case ':':
        case '#':
        case '"':
        case '\'':
          return p;
        default:
          break;
      }
    }
    return p;
  }

  // A literal inside a field; the field's opening brace is before its quote.
  const char* Nested(const char* quote) {
    const StringPrefix prefix = PrefixBefore(quote - 3, quote);
    const bool triple = IsTripleQuote(quote, end_);
    const char* body = quote + (triple ? 3 : 1);
    if (!prefix.formatted) return SkipStringBody(body, end_, end_, *quote, triple).pos;
    return Push({Kind::kLiteral, *quote, triple, prefix.raw, 0}) ? body : end_;
  }

  const char* InSpecification(const char* p) {
    p = FindAny(p, end_, Top().quote, '\\', '{', '}', '\n', '\r');
    if (p == end_) return p;
    if (const char* behind = Closed(p); behind != nullptr) {
      PopLiteral();
      return behind;
    }
    switch (*p) {
      case '{':
        return PushPart(Kind::kField, p + 1);
      case '}':
        depth_ -= 2;  // the field ends with it
        return p + 1;
      case '\\':
        return InEscape(p);
      case '\n':
      case '\r':
        if (!Top().triple) --depth_;
        return p + 1;
      default:
        return p + 1;
    }
  }

  const char* end_;
  int depth_ = 0;
  Frame frames_[kMaxLiteralNesting];
};

// Where the literal ends whose opening quote stands at `quote`; a position in [quote + 1, end].
// Looks for a prefix in [begin, quote). Requires begin <= quote < end.
inline const char* FindStringEnd(const char* begin, const char* quote, const char* end) {
  const StringPrefix prefix = PrefixBefore(begin, quote);
  const bool triple = IsTripleQuote(quote, end);
  const char* body = quote + (triple ? 3 : 1);
  if (!prefix.formatted) return SkipStringBody(body, end, end, *quote, triple).pos;
  return FormattedStringSkipper(end).Skip(body, *quote, triple, prefix.raw);
}

}  // namespace pysource

#endif  // PYSOURCE_STRINGLITERAL_H_
