// Target: the questions about scope names and information strings.

#include <string>

#include "pysource/symbolinfo.h"
#include "tests/fuzz/fuzz.h"

namespace {

void CheckNesting(const fuzz::Exact& text) {
  std::ptrdiff_t pos = 0;
  while (pos < text.size()) {
    const std::ptrdiff_t next = pysource::NextNonNestedUtf8PtrIndex(text.data(), pos, text.size());
    FUZZ_CHECK(next > pos && next <= text.size());
    pos = next;
  }
  FUZZ_CHECK(pysource::NextNonNestedUtf8PtrIndex(text.data(), pos, text.size()) == -1);
}

void CheckParts(std::string_view text) {
  std::string joined;
  pysource::ForEachNonNestedPart(text, ";",
                                 [&](std::string_view part) { joined.append(part).append(";"); });
  joined.pop_back();
  FUZZ_CHECK(joined == text);
  pysource::InfoContains(text, pysource::kMethodPrefix);
}

void CheckScopeName(std::string_view name) {
  const auto [parent, leaf] = pysource::ParentAndLeafScopeNames(name);
  FUZZ_CHECK(name.starts_with(parent) && name.ends_with(leaf));
  FUZZ_CHECK(name.size() - parent.size() - leaf.size() <= 1);
  FUZZ_CHECK(name.empty() || parent.size() < name.size());
  const auto [plain, suffixes] = pysource::SplitScopeNameFromSuffixes(name);
  FUZZ_CHECK(std::string(plain).append(suffixes) == name);
  FUZZ_CHECK(pysource::RemoveAllScopeNameSubscripts(name).size() <= name.size());
  if (const auto instance = pysource::GetInstanceNameForClass(name)) {
    FUZZ_CHECK(pysource::IsInstanceScope(*instance));
    FUZZ_CHECK(pysource::GetClassForInstanceName(*instance) == name);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::Exact text(fuzz::View(data, size));
  CheckNesting(text);
  CheckParts(text.view());
  CheckScopeName(text.view());
  if (const auto info = pysource::UnpackDefInfo(text.view())) {
    FUZZ_CHECK(!info->scope_name.empty());
    FUZZ_CHECK(!info->line || *info->line >= 1);
  }
  return 0;
}
