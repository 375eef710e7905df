// Target: the non-nested search, beside its model. The first byte of the input tells how long the
// needle is that follows; the rest is the text.

#include <algorithm>
#include <vector>

#include "pysource/nonnestedsearch.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/search_model.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view input = fuzz::View(data + 1, size - 1);
  const std::string_view needle = input.substr(0, data[0] % 4);
  const fuzz::Exact text(input.substr(needle.size()));

  pysource::tNonNestedStruct search;
  pysource::InitNonNestedStruct(&search, text.data(), needle.data(),
                                static_cast<std::ptrdiff_t>(needle.size()), 0, text.size());
  std::vector<std::ptrdiff_t> found;
  for (std::ptrdiff_t pos; (pos = FindNextNonNestedStruct(&search)) >= 0;) found.push_back(pos);
  FUZZ_CHECK(FindNextNonNestedStruct(&search) == -1);
  FUZZ_CHECK(found == pysource::SearchByModel(text.view(), needle));

  for (std::ptrdiff_t i = 0; i < text.size(); ++i) {
    const char* const p = text.data() + i;
    if (*p != '"' && *p != '\'') continue;
    const char* const end = text.data() + text.size();
    const char* const behind = pysource::FindStringEnd(text.data(), p, end);
    FUZZ_CHECK(behind > p && behind <= end);
    break;
  }
  return 0;
}
