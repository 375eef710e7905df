// Questions about scope names and information strings, answered from the text alone. The syntax of
// both is told in docs/names.md, the constants in symbolkinds.h.
//
// Texts are UTF-8. Nothing here needs an interpreter or keeps anything; the Python module
// `pysource.symbolinfo` publishes it all under the same names.

#ifndef PYSOURCE_SYMBOLINFO_H_
#define PYSOURCE_SYMBOLINFO_H_

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "pysource/stringliteral.h"
#include "pysource/symbolkinds.h"

namespace pysource {

// --- Kinds -------------------------------------------------------------------------------------

constexpr bool IsDefKind(unsigned char kind) {
  return kind == kFunctionKind || kind == kMethodKind || kind == kUnboundMethodKind;
}

constexpr bool IsDefOrClassKind(unsigned char kind) {
  return IsDefKind(kind) || kind == kClassKind;
}

// The kind of a part. Requires: a zero byte ends it.
constexpr unsigned char GetInfoBytesKind(const char* ibytes_ptr) {
  if (ibytes_ptr[0] != ':' || ibytes_ptr[1] == '\0') return kPlainEquivKind;
  return static_cast<unsigned char>(ibytes_ptr[1]);
}

// Which kinds match: a table lookup.
class CKindFilter {
 public:
  constexpr void Add(unsigned char kind) { flags_[kind] = 1; }
  constexpr void Clear() { flags_ = {}; }
  constexpr bool KindMatches(unsigned char kind) const { return flags_[kind] != 0; }

 private:
  std::array<int, 256> flags_{};
};

// --- Nesting -----------------------------------------------------------------------------------

// The position behind the string literal or bracketed group that begins at `pos`; `end_pos` if it
// isn't closed (a literal of single quotes ends at a line end, see stringliteral.h).
// Requires 0 <= pos < end_pos and a quote or an opening bracket at `pos`.
inline std::ptrdiff_t NonInlineNextNonNestedUtf8PtrIndex(const char* utf8_ptr, std::ptrdiff_t pos,
                                                         std::ptrdiff_t end_pos) {
  const char* const end = utf8_ptr + end_pos;
  std::ptrdiff_t level = 0;
  for (const char* p = utf8_ptr + pos; p < end;) {
    switch (*p) {
      case '"':
      case '\'':
        p = FindStringEnd(utf8_ptr, p, end);
        break;
      case '(':
      case '[':
      case '{':
        ++level;
        ++p;
        break;
      case ')':
      case ']':
      case '}':
        --level;
        ++p;
        break;
      default:
        ++p;
        break;
    }
    if (level == 0) return p - utf8_ptr;
  }
  return end_pos;
}

// The next byte index at nesting level 0, or -1 if `pos` isn't before `end_pos`. The index may fall
// inside a multi-byte character. A string prefix is no part of its literal, and a closing bracket
// at level 0 is a plain byte.
inline std::ptrdiff_t NextNonNestedUtf8PtrIndex(const char* utf8_ptr, std::ptrdiff_t pos,
                                                std::ptrdiff_t end_pos) {
  if (pos >= end_pos) return -1;
  switch (utf8_ptr[pos]) {
    case '"':
    case '\'':
    case '(':
    case '[':
    case '{':
      return NonInlineNextNonNestedUtf8PtrIndex(utf8_ptr, pos, end_pos);
    default:
      return pos + 1;
  }
}

// Calls fn(part) for each part of `text` between separators at nesting level 0, as splitting does:
// an empty text has one empty part. Requires: the separator isn't empty.
template <class Fn>
void ForEachNonNestedPart(std::string_view text, std::string_view separator, Fn&& fn) {
  const auto end = static_cast<std::ptrdiff_t>(text.size());
  std::size_t begin = 0;
  std::ptrdiff_t pos = 0;
  while (pos >= 0 && pos < end) {
    const auto here = static_cast<std::size_t>(pos);
    if (text[here] == separator[0] && text.substr(here).starts_with(separator)) {
      fn(text.substr(begin, here - begin));
      begin = here + separator.size();
      pos = static_cast<std::ptrdiff_t>(begin);
    } else {
      pos = NextNonNestedUtf8PtrIndex(text.data(), pos, end);
    }
  }
  fn(text.substr(begin));
}

// Whether any part of an information string has the prefix. kPlainEquivSpec finds the parts of the
// plain kind, which have no prefix.
inline bool InfoContains(std::string_view information, std::string_view prefix) {
  bool found = false;
  ForEachNonNestedPart(information, ";", [&](std::string_view part) {
    const bool plain = part.size() < kPrefixLen || part[0] != ':' || part[1] == '\0';
    found = found || part.starts_with(prefix) || (plain && prefix == kPlainEquivSpec);
  });
  return found;
}

// --- Scope names -------------------------------------------------------------------------------

constexpr bool IsTopLevelModuleScope(std::string_view scope) { return scope.empty(); }
constexpr bool IsDefLineScope(std::string_view scope) { return scope.ends_with(kDotLineScopeName); }
// Compares lengths alone; the caller vouches for the rest.
constexpr bool IsParentOfDefLineScope(std::string_view maybe_parent,
                                      std::string_view def_line_scope) {
  return maybe_parent.size() + kDotLineScopeName.size() == def_line_scope.size();
}

// (parent, leaf). The parent of a top-level scope is "", and so is that of "". Of a relative module
// name the leading dots belong to the parent: ("..", "a") of "..a".
inline std::pair<std::string_view, std::string_view> ParentAndLeafScopeNames(
    std::string_view scope_name) {
  std::size_t last_dot = std::string_view::npos;
  if (scope_name.find_first_of("\"'([{") == std::string_view::npos) {
    last_dot = scope_name.rfind('.');
  } else {
    const auto end = static_cast<std::ptrdiff_t>(scope_name.size());
    for (std::ptrdiff_t pos = 0; pos >= 0 && pos < end;
         pos = NextNonNestedUtf8PtrIndex(scope_name.data(), pos, end)) {
      if (scope_name[static_cast<std::size_t>(pos)] == '.')
        last_dot = static_cast<std::size_t>(pos);
    }
  }
  if (last_dot == std::string_view::npos) return {scope_name.substr(0, 0), scope_name};
  const std::string_view leaf = scope_name.substr(last_dot + 1);
  const std::size_t dots = std::min(scope_name.find_first_not_of('.'), scope_name.size());
  if (dots == scope_name.size()) return {scope_name.substr(0, 0), scope_name};
  return {scope_name.substr(0, std::max(last_dot, dots)), leaf};
}
inline std::string_view ParentScopeName(std::string_view scope_name) {
  return ParentAndLeafScopeNames(scope_name).first;
}

// (name without its suffixes, the suffixes): ("f", "#2()") of "f#2()". In a dotted name the
// suffixes are those of its leaf.
inline std::pair<std::string_view, std::string_view> SplitScopeNameFromSuffixes(
    std::string_view leaf) {
  const std::size_t begin = leaf.size() - ParentAndLeafScopeNames(leaf).second.size();
  const std::size_t suffixes = std::min(leaf.find_first_of("#([", begin), leaf.size());
  return {leaf.substr(0, suffixes), leaf.substr(suffixes)};
}

// The name without "[...]", wherever it stands at nesting level 0.
inline std::string RemoveAllScopeNameSubscripts(std::string_view scope_name) {
  std::string result;
  const auto end = static_cast<std::ptrdiff_t>(scope_name.size());
  for (std::ptrdiff_t pos = 0; pos >= 0 && pos < end;) {
    const std::ptrdiff_t next = NextNonNestedUtf8PtrIndex(scope_name.data(), pos, end);
    const auto here = static_cast<std::size_t>(pos);
    if (scope_name[here] != '[') {
      result += scope_name.substr(here, static_cast<std::size_t>(next) - here);
    }
    pos = next;
  }
  return result;
}

// "C()" is the instance scope of the class scope "C". The two name functions are exact inverses.
constexpr bool IsInstanceScope(std::string_view scope_name) {
  return scope_name.size() > kClassInstanceSuffix.size() &&
         scope_name.ends_with(kClassInstanceSuffix);
}
// None for "", the module, which has no instances.
inline std::optional<std::string> GetInstanceNameForClass(std::string_view class_name) {
  if (class_name.empty()) return std::nullopt;
  return std::string(class_name).append(kClassInstanceSuffix);
}
// A name that is no instance scope is given back as it stands.
constexpr std::string_view GetClassForInstanceName(std::string_view instance_name) {
  if (!IsInstanceScope(instance_name)) return instance_name;
  return instance_name.substr(0, instance_name.size() - kClassInstanceSuffix.size());
}

// --- Definitions -------------------------------------------------------------------------------

// What the part of a function, method or class says.
struct DefInfo {
  unsigned char kind;
  std::string_view scope_name;
  std::optional<std::int64_t> line;       // counted from 1, of "def", "class" or "async"
  std::optional<std::string_view> bases;  // of a class, with their parentheses
};

// None if the part isn't a well-formed definition.
inline std::optional<DefInfo> UnpackDefInfo(std::string_view part) {
  if (part.size() <= kPrefixLen || part[0] != ':') return std::nullopt;
  DefInfo info{static_cast<unsigned char>(part[1]), {}, {}, {}};
  if (!IsDefOrClassKind(info.kind)) return std::nullopt;
  const std::string_view text = part.substr(kPrefixLen);

  std::size_t blank = text.size();
  const auto end = static_cast<std::ptrdiff_t>(text.size());
  for (std::ptrdiff_t pos = 0; pos >= 0 && pos < end;
       pos = NextNonNestedUtf8PtrIndex(text.data(), pos, end)) {
    if (text[static_cast<std::size_t>(pos)] != ' ') continue;
    blank = static_cast<std::size_t>(pos);
    break;
  }
  info.scope_name = text.substr(0, blank);
  if (info.scope_name.empty()) return std::nullopt;
  if (blank == text.size()) return info;

  std::int64_t line = 0;
  const char* const last = text.data() + text.size();
  const auto [behind, error] = std::from_chars(text.data() + blank + 1, last, line);
  if (error != std::errc() || line < 1) return std::nullopt;
  info.line = line;
  if (behind == last) return info;
  if (*behind != ' ' || behind + 1 == last || info.kind != kClassKind) return std::nullopt;
  info.bases = text.substr(static_cast<std::size_t>(behind + 1 - text.data()));
  return info;
}

}  // namespace pysource

#endif  // PYSOURCE_SYMBOLINFO_H_
