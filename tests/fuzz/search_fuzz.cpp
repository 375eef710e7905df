// Target: the non-nested search, beside its model.
//
// The input: a byte that tells how long the needle is and how much is cut off at both ends of the
// text, the needle, the text.

#include <vector>

#include "pysource/nonnestedsearch.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/search_model.h"

namespace {

void CheckSearch(std::string_view whole, std::string_view needle, std::ptrdiff_t start,
                 std::ptrdiff_t end) {
  // Nothing at or behind the end is read, so the text ends there.
  const fuzz::Exact text(whole.substr(0, static_cast<std::size_t>(end)));
  const fuzz::Exact sought(needle);
  pysource::tNonNestedStruct search;
  pysource::InitNonNestedStruct(&search, text.data(), sought.data(), sought.size(), start, end);
  const auto model = pysource::SearchByModel(text.view(), needle, start);
  for (const std::ptrdiff_t position : model) {
    FUZZ_CHECK(pysource::FindNextNonNestedStruct(&search) == position);
    FUZZ_CHECK(search.pos == position + sought.size());
  }
  FUZZ_CHECK(pysource::FindNextNonNestedStruct(&search) == -1);
  FUZZ_CHECK(pysource::FindNextNonNestedStruct(&search) == -1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const unsigned choice = input.Byte();
  const std::string_view needle = input.Take(choice % 4);
  const std::string_view text = input.Rest();
  const auto length = static_cast<std::ptrdiff_t>(text.size());
  CheckSearch(text, needle, 0, length);
  const std::ptrdiff_t start = std::min<std::ptrdiff_t>((choice >> 2) % 8, length);
  CheckSearch(text, needle, start, length - std::min<std::ptrdiff_t>(choice >> 5, length - start));

  // Nothing to search, and nothing sought, find nothing.
  pysource::tNonNestedStruct search;
  FUZZ_CHECK(pysource::FindNextNonNestedStruct(&search) == -1);
  pysource::InitNonNestedStruct(&search, text.data(), needle.data(), 0, 0, length);
  FUZZ_CHECK(pysource::FindNextNonNestedStruct(&search) == -1);
  return 0;
}
