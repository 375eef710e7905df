// Where string literals end, told a second time: by recursion and one byte after the other, from
// the rules in the prologue of pysource/stringliteral.h. What the fast skipper is held against.

#ifndef TESTS_FUZZ_LITERAL_MODEL_H_
#define TESTS_FUZZ_LITERAL_MODEL_H_

#include <cctype>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace fuzz {

class LiteralModel {
 public:
  explicit LiteralModel(std::string_view text) : text_(text) {}

  // The position behind the literal whose quote stands at `quote`.
  std::size_t End(std::size_t quote) { return Literal(quote, 0, 0); }

 private:
  static constexpr int kMaxDepth = 640;

  bool Has(std::size_t pos, std::string_view what) const {
    return pos <= text_.size() && text_.substr(pos).starts_with(what);
  }
  bool AtLineEnd(std::size_t pos) const { return text_[pos] == '\n' || text_[pos] == '\r'; }

  // The name that ends before `pos`, in lower case.
  std::string NameBefore(std::size_t pos, std::size_t from) const {
    std::size_t start = pos;
    const auto in_name = [&](std::size_t i) {
      const auto c = static_cast<unsigned char>(text_[i]);
      return c >= 0x80 || c == '_' || std::isalnum(c) != 0;
    };
    while (start > from && in_name(start - 1)) --start;
    std::string name(text_.substr(start, pos - start));
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return name;
  }

  // What closes a literal that is opened at `quote`.
  std::string_view Quotes(std::size_t quote) const {
    const std::string three(3, text_[quote]);
    return text_.substr(quote, Has(quote, three) ? 3 : 1);
  }

  // `depth` counts the literals, fields and specifications around it.
  std::size_t Literal(std::size_t quote, std::size_t from, int depth) {
    static const std::set<std::string> kFormatted = {"f", "t", "fr", "rf", "tr", "rt"};
    static const std::set<std::string> kRaw = {"fr", "rf", "tr", "rt"};
    const std::string prefix = NameBefore(quote, from);
    const std::string_view quotes = Quotes(quote);
    const std::size_t body = quote + quotes.size();
    if (!kFormatted.contains(prefix)) return Plain(body, quotes);
    if (depth == kMaxDepth) return text_.size();
    return Formatted(body, quotes, kRaw.contains(prefix), depth + 1);
  }

  std::size_t Plain(std::size_t pos, std::string_view quotes) {
    while (pos < text_.size()) {
      if (Has(pos, quotes)) return pos + quotes.size();
      if (text_[pos] == '\\') {
        pos += Has(pos + 1, "\r\n") ? 3 : 2;
      } else if (AtLineEnd(pos) && quotes.size() == 1) {
        return pos;
      } else {
        ++pos;
      }
    }
    return text_.size();
  }

  std::size_t Formatted(std::size_t pos, std::string_view quotes, bool raw, int depth) {
    while (pos < text_.size()) {
      if (Has(pos, quotes)) return pos + quotes.size();
      if (Has(pos, "{{")) {
        pos += 2;
      } else if (text_[pos] == '{') {
        if (!Field(pos + 1, quotes, raw, depth, pos)) return pos;
      } else if (text_[pos] == '\\') {
        pos = Escape(pos, raw);
      } else if (AtLineEnd(pos) && quotes.size() == 1) {
        return pos;
      } else {
        ++pos;
      }
    }
    return text_.size();
  }

  // Behind the backslash at `pos` and what it takes with it.
  std::size_t Escape(std::size_t pos, bool raw) const {
    if (Has(pos, "\\{") || Has(pos, "\\}")) return pos + 1;
    if (!raw && Has(pos, "\\N{")) return pos + 3;
    return pos + (Has(pos + 1, "\r\n") ? 3 : 2);
  }

  // Goes to the position behind the field whose content begins at `pos`. False if the literal
  // around it ends there, too.
  bool Field(std::size_t pos, std::string_view quotes, bool raw, int depth, std::size_t& behind) {
    behind = text_.size();
    if (depth == kMaxDepth) return true;
    const std::size_t begin = pos;
    int level = 0;
    while (pos < text_.size()) {
      const char c = text_[pos];
      if (c == '"' || c == '\'') {
        pos = Literal(pos, begin, depth + 1);
      } else if (c == '#') {
        while (pos < text_.size() && !AtLineEnd(pos)) ++pos;
      } else if (c == '(' || c == '[' || c == '{') {
        ++level;
        ++pos;
      } else if (c == '}' && level == 0) {
        behind = pos + 1;
        return true;
      } else if (c == ')' || c == ']' || c == '}') {
        level -= level > 0 ? 1 : 0;
        ++pos;
      } else if (c == ':' && level == 0) {
        switch (Specification(pos + 1, quotes, raw, depth + 1, pos)) {
          case Ending::kField:
            behind = pos;
            return true;
          case Ending::kLiteral:
            behind = pos;
            return false;
          case Ending::kLine:
            break;
        }
      } else {
        ++pos;
      }
    }
    return true;
  }

  // What ends with a format specification.
  enum class Ending { kField, kLiteral, kLine };

  Ending Specification(std::size_t pos, std::string_view quotes, bool raw, int depth,
                       std::size_t& behind) {
    behind = text_.size();
    if (depth == kMaxDepth) return Ending::kField;
    while (pos < text_.size()) {
      if (Has(pos, quotes)) {
        behind = pos + quotes.size();
        return Ending::kLiteral;
      }
      if (text_[pos] == '}') {
        behind = pos + 1;
        return Ending::kField;
      }
      if (text_[pos] == '{') {
        if (!Field(pos + 1, quotes, raw, depth + 1, pos)) {
          behind = pos;
          return Ending::kLiteral;
        }
      } else if (text_[pos] == '\\') {
        pos = Escape(pos, raw);
      } else if (AtLineEnd(pos) && quotes.size() == 1) {
        behind = pos + 1;
        return Ending::kLine;
      } else {
        ++pos;
      }
    }
    return Ending::kField;
  }

  const std::string_view text_;
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_LITERAL_MODEL_H_
