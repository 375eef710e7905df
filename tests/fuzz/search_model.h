// The rules of the non-nested search, one byte after the other: what the fast one is held against.

#ifndef TESTS_FUZZ_SEARCH_MODEL_H_
#define TESTS_FUZZ_SEARCH_MODEL_H_

#include <cstddef>
#include <string_view>
#include <vector>

#include "pysource/stringliteral.h"

namespace pysource {

// All matches of `needle` in `text` from `start` on, in order. Where literals end is taken from
// FindStringEnd, which has a model of its own.
inline std::vector<std::ptrdiff_t> SearchByModel(std::string_view text, std::string_view needle,
                                                 std::ptrdiff_t start = 0) {
  std::vector<std::ptrdiff_t> found;
  if (needle.empty()) return found;
  int level = 0;
  const auto count = [&](char c) {
    if (c == '(' || c == '[' || c == '{') ++level;
    if (c == ')' || c == ']' || c == '}') --level;
  };
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  for (const char* p = begin + start; p < end;) {
    const std::string_view rest(p, static_cast<std::size_t>(end - p));
    if (level == 0 && rest.starts_with(needle)) {
      found.push_back(p - begin);
      for (const char c : needle) count(c);
      p += needle.size();
    } else if (*p == '"' || *p == '\'') {
      p = FindStringEnd(begin, p, end);
    } else {
      count(*p++);
    }
  }
  return found;
}

}  // namespace pysource

#endif  // TESTS_FUZZ_SEARCH_MODEL_H_
