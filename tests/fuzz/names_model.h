// The rules of scope names and information strings, told from docs/names.md with lists of bytes and
// regular searches: what pysource/symbolinfo.h is held against.

#ifndef TESTS_FUZZ_NAMES_MODEL_H_
#define TESTS_FUZZ_NAMES_MODEL_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pysource/stringliteral.h"

namespace fuzz {

// What each byte of a text is for who reads it outside of brackets and literals.
enum class Place { kPlain, kGroupStart, kInside };

// Where literals end is taken from FindStringEnd, which has a model of its own.
inline std::vector<Place> Places(std::string_view text) {
  constexpr std::string_view kOpeners = "([{";
  constexpr std::string_view kClosers = ")]}";
  std::vector<Place> places(text.size(), Place::kPlain);
  std::size_t level = 0;
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    places[i] = level > 0 ? Place::kInside : Place::kPlain;
    if (c == '"' || c == '\'') {
      const char* const end =
          pysource::FindStringEnd(text.data(), text.data() + i, text.data() + text.size());
      if (level == 0) places[i] = Place::kGroupStart;
      for (++i; text.data() + i < end; ++i) places[i] = Place::kInside;
      continue;
    }
    if (kOpeners.find(c) != std::string_view::npos && level++ == 0) places[i] = Place::kGroupStart;
    // A closing bracket is the last byte of its group.
    if (kClosers.find(c) != std::string_view::npos && level > 0) --level;
    ++i;
  }
  return places;
}

// The next position behind `pos`, which is none inside of a group, that isn't inside of one.
inline std::ptrdiff_t NextByModel(const std::vector<Place>& places, std::size_t pos) {
  if (pos >= places.size()) return -1;
  for (++pos; pos < places.size() && places[pos] == Place::kInside;) ++pos;
  return static_cast<std::ptrdiff_t>(pos);
}

inline std::vector<std::string> SplitByModel(std::string_view text, char separator) {
  const std::vector<Place> places = Places(text);
  std::vector<std::string> parts(1);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (places[i] != Place::kInside && text[i] == separator) {
      parts.emplace_back();
    } else {
      parts.back() += text[i];
    }
  }
  return parts;
}

inline std::pair<std::string, std::string> ParentAndLeafByModel(std::string_view name) {
  const std::vector<std::string> steps = SplitByModel(name, '.');
  const std::string& leaf = steps.back();
  // All before the last dot; leading dots of a relative name stay with the parent, and a name of
  // dots alone has none.
  const std::size_t dots = name.find_first_not_of('.');
  if (steps.size() == 1 || dots == std::string_view::npos) return {"", std::string(name)};
  std::string parent(name.substr(0, name.size() - leaf.size() - 1));
  if (parent.size() < dots) parent = name.substr(0, dots);
  return {parent, leaf};
}

inline std::string WithoutSubscriptsByModel(std::string_view name) {
  const std::vector<Place> places = Places(name);
  std::string result;
  bool in_subscript = false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (places[i] != Place::kInside) {
      in_subscript = places[i] == Place::kGroupStart && name[i] == '[';
    }
    if (!in_subscript) result += name[i];
  }
  return result;
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_NAMES_MODEL_H_
