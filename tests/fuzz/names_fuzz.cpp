// Target: the questions about scope names and information strings, beside their models.

#include <string>
#include <vector>

#include "pysource/symbolinfo.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/names_model.h"

namespace {

void CheckNesting(const fuzz::Exact& text) {
  const std::vector<fuzz::Place> places = fuzz::Places(text.view());
  std::ptrdiff_t pos = 0;
  while (pos < text.size()) {
    const std::ptrdiff_t next = pysource::NextNonNestedUtf8PtrIndex(text.data(), pos, text.size());
    FUZZ_CHECK(next == fuzz::NextByModel(places, static_cast<std::size_t>(pos)));
    FUZZ_CHECK(next > pos);
    pos = next;
  }
  FUZZ_CHECK(pysource::NextNonNestedUtf8PtrIndex(text.data(), pos, text.size()) == -1);
}

void CheckParts(std::string_view text) {
  const std::vector<std::string> model = fuzz::SplitByModel(text, ';');
  std::vector<std::string> parts;
  pysource::ForEachNonNestedPart(text, ";", [&](std::string_view part) {
    FUZZ_CHECK(part.data() >= text.data() &&
               part.data() + part.size() <= text.data() + text.size());
    parts.emplace_back(part);
  });
  FUZZ_CHECK(parts == model);

  bool method = false;
  bool plain = false;
  for (const std::string& part : model) {
    const unsigned char kind = pysource::GetInfoBytesKind(part.c_str());
    FUZZ_CHECK((kind == pysource::kPlainEquivKind) ==
               (part.size() < 2 || part[0] != ':' || part[1] == '\0' || part[1] == 'P'));
    method = method || part.starts_with(":m");
    plain = plain || kind == pysource::kPlainEquivKind;
  }
  FUZZ_CHECK(pysource::InfoContains(text, pysource::kMethodPrefix) == method);
  FUZZ_CHECK(pysource::InfoContains(text, pysource::kPlainEquivSpec) == plain);
}

// A separator of two bytes: joining gives the text back, and no part holds it at level 0.
void CheckLongSeparator(std::string_view text) {
  std::string joined;
  pysource::ForEachNonNestedPart(text, "->",
                                 [&](std::string_view part) { joined.append(part).append("->"); });
  FUZZ_CHECK(std::string_view(joined).substr(0, joined.size() - 2) == text);
}

void CheckScopeName(std::string_view name) {
  const auto [parent, leaf] = pysource::ParentAndLeafScopeNames(name);
  const auto model = fuzz::ParentAndLeafByModel(name);
  FUZZ_CHECK(parent == model.first && leaf == model.second);
  FUZZ_CHECK(pysource::ParentScopeName(name) == parent);
  // Whoever goes from parent to parent comes to an end.
  FUZZ_CHECK(name.empty() || parent.size() < name.size());

  const auto [plain, suffixes] = pysource::SplitScopeNameFromSuffixes(name);
  FUZZ_CHECK(std::string(plain).append(suffixes) == name);
  FUZZ_CHECK(suffixes.size() <= leaf.size());
  FUZZ_CHECK(plain.substr(name.size() - leaf.size()).find_first_of("#([") ==
             std::string_view::npos);
  FUZZ_CHECK(pysource::RemoveAllScopeNameSubscripts(name) == fuzz::WithoutSubscriptsByModel(name));

  FUZZ_CHECK(pysource::IsTopLevelModuleScope(name) == (name.size() == 0));
  FUZZ_CHECK(pysource::IsDefLineScope(std::string(name) + ".<def>"));
  FUZZ_CHECK(pysource::IsParentOfDefLineScope(name, std::string(name) + ".<def>"));
  const auto instance = pysource::GetInstanceNameForClass(name);
  FUZZ_CHECK(instance.has_value() == !name.empty());
  if (instance) {
    FUZZ_CHECK(pysource::IsInstanceScope(*instance));
    FUZZ_CHECK(pysource::GetClassForInstanceName(*instance) == name);
  }
}

// What is unpacked packs to the same part, but for zeros before the line.
void CheckDefinition(std::string_view part) {
  const auto info = pysource::UnpackDefInfo(part);
  if (!info) return;
  FUZZ_CHECK(pysource::IsDefOrClassKind(info->kind) && !info->scope_name.empty());
  FUZZ_CHECK(!info->bases || (info->line && info->kind == pysource::kClassKind));
  std::string again = {':', static_cast<char>(info->kind)};
  again += info->scope_name;
  if (info->line) {
    FUZZ_CHECK(*info->line >= 1);
    again += ' ';
    std::string_view behind = part.substr(again.size());
    behind.remove_prefix(std::min(behind.find_first_not_of('0'), behind.size()));
    part = std::string_view(behind);
    again = std::to_string(*info->line);
  }
  if (info->bases) again.append(1, ' ').append(*info->bases);
  FUZZ_CHECK(again == part);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::Exact text(fuzz::View(data, size));
  CheckNesting(text);
  CheckParts(text.view());
  CheckLongSeparator(text.view());
  CheckScopeName(text.view());
  CheckDefinition(text.view());
  return 0;
}
