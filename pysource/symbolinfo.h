// Questions about scope names and information strings, answered from the text alone. The syntax of
// both is told in docs/names.md, the constants in symbolkinds.h.
//
// Texts are UTF-8. Nothing here needs an interpreter or keeps anything; the Python module
// `pysource.symbolinfo` publishes it all under the same names.

#ifndef PYSOURCE_SYMBOLINFO_H_
#define PYSOURCE_SYMBOLINFO_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

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
std::ptrdiff_t NonInlineNextNonNestedUtf8PtrIndex(const char* utf8_ptr, std::ptrdiff_t pos,
                                                  std::ptrdiff_t end_pos);

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
bool InfoContains(std::string_view information, std::string_view prefix);

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
std::pair<std::string_view, std::string_view> ParentAndLeafScopeNames(std::string_view scope_name);
inline std::string_view ParentScopeName(std::string_view scope_name) {
  return ParentAndLeafScopeNames(scope_name).first;
}

// (name without its suffixes, the suffixes): ("f", "#2()") of "f#2()". In a dotted name the
// suffixes are those of its leaf.
std::pair<std::string_view, std::string_view> SplitScopeNameFromSuffixes(std::string_view leaf);

// The name without "[...]", wherever it stands at nesting level 0.
std::string RemoveAllScopeNameSubscripts(std::string_view scope_name);

// "C()" is the instance scope of the class scope "C". The two name functions are exact inverses.
constexpr bool IsInstanceScope(std::string_view scope_name) {
  return scope_name.size() > kClassInstanceSuffix.size() &&
         scope_name.ends_with(kClassInstanceSuffix);
}
// None for "", the module, which has no instances.
std::optional<std::string> GetInstanceNameForClass(std::string_view class_name);
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
std::optional<DefInfo> UnpackDefInfo(std::string_view part);

}  // namespace pysource

#endif  // PYSOURCE_SYMBOLINFO_H_
