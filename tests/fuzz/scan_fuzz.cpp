// Target: the source scanner: no input makes it fail or walk without end, what it finds doesn't
// depend on how the walk is divided, and what it has found is well-formed. The input is the source.

#include <set>
#include <string>
#include <vector>

#include "loom/_pyscan.h"
#include "loom/_pyscan/packinfo.h"
#include "pysource/symbolinfo.h"
#include "tests/fuzz/fuzz.h"

namespace {

using loom::pyscan::Results;
using loom::pyscan::Scope;
using loom::pyscan::ScopeIndex;
using loom::pyscan::SourceScan;

// The limit of the work for a source: see "time and memory are proportional" in loom/_pyscan.h.
constexpr std::size_t kStepsPerByte = 40;
constexpr std::size_t kSpareSteps = 100;

void Scan(SourceScan& scan, std::size_t size, std::size_t chunk) {
  std::size_t position = 0;
  std::size_t calls = 0;
  for (bool done = false; !done;) {
    done = scan.Scan(chunk);
    FUZZ_CHECK(scan.done() == done && scan.position() >= position && scan.position() <= size);
    position = scan.position();
    FUZZ_CHECK(++calls <= kStepsPerByte * size + kSpareSteps);
  }
  FUZZ_CHECK(position == size);
  FUZZ_CHECK(scan.steps() <= kStepsPerByte * size + kSpareSteps);
  FUZZ_CHECK(scan.Scan(1));
}

void Append(std::string& text, std::initializer_list<std::string_view> words) {
  for (const std::string_view word : words) text.append(word).append(1, '\0');
}

// Everything that a scan has found.
std::string Found(const SourceScan& scan) {
  std::string text;
  const Results& results = scan.results();
  for (ScopeIndex i = 0; i < results.scopes().size(); ++i) {
    const Scope& scope = results.scopes()[i];
    Append(text, {scope.name, std::to_string(scope.parent), std::to_string(scope.kind),
                  std::to_string(scope.line), std::to_string(scope.end_line)});
    results.ForEachInfo(
        i, [&](std::string_view name, std::string_view info) { Append(text, {name, info}); });
  }
  for (const auto& binding : results.bindings()) {
    Append(text, {std::to_string(binding.entry), std::to_string(binding.line),
                  std::to_string(binding.kind)});
  }
  for (const auto& definition : results.definitions()) {
    Append(text, {definition.name, std::to_string(definition.scope),
                  std::to_string(definition.line), std::to_string(definition.kind)});
  }
  for (const std::string_view import : results.imports()) Append(text, {import});
  for (const auto& error : scan.errors().errors()) {
    Append(text, {std::to_string(error.line), error.text});
  }
  return text;
}

// Everything about uses.
std::string FoundUses(const SourceScan& scan) {
  std::string text;
  for (const auto& use : scan.uses()->uses()) {
    const auto& group = scan.uses()->groups()[use.group];
    Append(text, {group.text, std::to_string(group.scope), std::to_string(group.home),
                  std::to_string(static_cast<int>(group.kind)), std::to_string(use.line),
                  std::to_string(use.column)});
  }
  return text;
}

// Each use lies within the source, in order, with its first name where it is said to be.
void CheckUses(const SourceScan& scan, std::string_view source) {
  std::vector<std::size_t> starts{source.starts_with("\xEF\xBB\xBF") ? std::size_t{3} : 0};
  for (std::size_t i = 0; i < source.size(); ++i) {
    if (source[i] == '\n' || (source[i] == '\r' && source.substr(i + 1, 1) != "\n")) {
      starts.push_back(i + 1);
    }
  }
  const auto scopes = static_cast<std::int64_t>(scan.results().scopes().size());
  std::size_t last = 0;
  for (const auto& use : scan.uses()->uses()) {
    const auto& group = scan.uses()->groups()[use.group];
    FUZZ_CHECK(group.scope < scopes && group.home >= -3 && group.home < scopes);
    FUZZ_CHECK(use.line >= 1 && use.line <= starts.size());
    const std::size_t begin = starts[use.line - 1] + use.column;
    FUZZ_CHECK(begin < source.size() && begin >= last);
    last = begin;
    const std::string_view text = group.text;
    // The name of a module may be put together from what isn't one.
    if (text.starts_with('.') || group.kind == loom::pyscan::UseKind::kImport ||
        group.kind == loom::pyscan::UseKind::kFrom) {
      continue;
    }
    FUZZ_CHECK(source.substr(begin).starts_with(text.substr(0, text.find('.'))));
  }
}

std::uint32_t CountLines(std::string_view source) {
  std::uint32_t lines = 1;
  for (std::size_t i = 0; i < source.size(); ++i) {
    if (source[i] == '\n' || (source[i] == '\r' && source.substr(i + 1, 1) != "\n")) ++lines;
  }
  return lines;
}

void CheckScopes(const Results& results, std::uint32_t lines) {
  std::set<std::string_view> names;
  for (std::size_t i = 0; i < results.scopes().size(); ++i) {
    const Scope& scope = results.scopes()[i];
    FUZZ_CHECK(names.insert(scope.name).second);
    FUZZ_CHECK(scope.line >= 1 && scope.line <= scope.end_line && scope.end_line <= lines);
    FUZZ_CHECK((scope.parent == loom::pyscan::kNoIndex) == (i == 0));
    if (i == 0) {
      FUZZ_CHECK(scope.name.empty() && scope.kind == pysource::kModuleKind);
      continue;
    }
    FUZZ_CHECK(scope.parent < i && pysource::IsDefOrClassKind(scope.kind));
    FUZZ_CHECK(scope.line >= results.scopes()[scope.parent].line);
    FUZZ_CHECK(pysource::ParentScopeName(scope.name) == results.scopes()[scope.parent].name);
    FUZZ_CHECK(scope.name.size() <= Results::kMaxScopeName);
  }
}

bool IsKind(unsigned char kind) {
#define PYSOURCE_IS_KIND(name, character) \
  if (kind == character) return true;
  PYSOURCE_SYMBOL_KINDS(PYSOURCE_IS_KIND)
#undef PYSOURCE_IS_KIND
  return false;
}

void CheckPart(const Results& results, std::string_view part) {
  FUZZ_CHECK(part.size() >= pysource::kPrefixLen && part[0] == ':');
  const auto kind = static_cast<unsigned char>(part[1]);
  FUZZ_CHECK(IsKind(kind));
  if (!pysource::IsDefOrClassKind(kind)) return;
  const auto info = pysource::UnpackDefInfo(part);
  FUZZ_CHECK(info && info->line);
  const auto& scopes = results.scopes();
  FUZZ_CHECK(std::any_of(scopes.begin(), scopes.end(), [&](const Scope& scope) {
    return scope.name == info->scope_name && scope.kind == kind && scope.line == *info->line;
  }));
}

// Whoever splits an information string gets the very parts that were put in, and whoever unpacks a
// scope's names the very names.
void CheckInformation(const Results& results) {
  for (ScopeIndex i = 0; i < results.scopes().size(); ++i) {
    loom::pyscan::InfoPacker packer;
    std::vector<std::string> items;
    auto entry = results.scopes()[i].first_entry;
    results.ForEachInfo(i, [&](std::string_view name, std::string_view info) {
      while (results.entries()[entry].first_part == loom::pyscan::kNoIndex) {
        entry = results.entries()[entry].next;
      }
      FUZZ_CHECK(!name.empty() && results.entries()[entry].name == name);
      std::uint32_t parts = 0;
      pysource::ForEachNonNestedPart(info, ";", [&](std::string_view part) {
        CheckPart(results, part);
        ++parts;
      });
      FUZZ_CHECK(parts == results.entries()[entry].parts);
      entry = results.entries()[entry].next;
      packer.Add(name, info);
      items.emplace_back(name);
      items.emplace_back(info);
    });
    const std::string packed = packer.Finish();
    loom::pyscan::InfoUnpacker unpacker(packed);
    for (std::size_t k = 0; k < items.size(); k += 2) {
      const auto item = unpacker.Next();
      FUZZ_CHECK(item && item->name == items[k] && item->info == items[k + 1]);
    }
    FUZZ_CHECK(!unpacker.Next() && unpacker.valid());
  }
}

void CheckLists(const SourceScan& scan, std::uint32_t lines) {
  const Results& results = scan.results();
  for (const auto& binding : results.bindings()) {
    FUZZ_CHECK(binding.entry < results.entries().size() && IsKind(binding.kind));
    FUZZ_CHECK(binding.line >= 1 && binding.line <= lines);
    FUZZ_CHECK(results.entries()[binding.entry].scope < results.scopes().size());
  }
  for (const auto& definition : results.definitions()) {
    FUZZ_CHECK(!definition.name.empty() && definition.scope < results.scopes().size());
    FUZZ_CHECK(definition.line >= 1 && definition.line <= lines && IsKind(definition.kind));
  }
  std::set<std::string_view> imports;
  for (const std::string_view import : results.imports()) {
    FUZZ_CHECK(imports.insert(import).second);
    FUZZ_CHECK(import.starts_with(pysource::kImportPrefix) ||
               import.starts_with(pysource::kFromImportPrefix));
  }
  for (const auto& error : scan.errors().errors()) {
    FUZZ_CHECK(error.line >= 1 && error.line <= lines && !error.text.empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::Exact source(fuzz::View(data, size));
  SourceScan whole(source.view());
  Scan(whole, size, size + 1);
  const std::string found = Found(whole);
  // Besides single bytes a length that the input settles.
  std::size_t sum = 0;
  for (std::size_t i = 0; i < size; ++i) sum += data[i];
  for (const std::size_t chunk : {std::size_t{1}, 2 + sum % 30}) {
    SourceScan divided(source.view());
    Scan(divided, size, chunk);
    FUZZ_CHECK(Found(divided) == found);
  }

  SourceScan with_uses(source.view(), true);
  Scan(with_uses, size, size + 1);
  FUZZ_CHECK(Found(with_uses) == found);
  CheckUses(with_uses, source.view());
  SourceScan uses_divided(source.view(), true);
  Scan(uses_divided, size, 2 + sum % 30);
  FUZZ_CHECK(FoundUses(uses_divided) == FoundUses(with_uses));

  const std::uint32_t lines = CountLines(source.view());
  CheckScopes(whole.results(), lines);
  CheckInformation(whole.results());
  CheckLists(whole, lines);
  return 0;
}
