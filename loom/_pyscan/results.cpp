#include "loom/_pyscan/results.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "loom/_pyscan/uses.h"
#include "pysource/symbolkinds.h"

namespace loom::pyscan {
namespace {

std::uint64_t Mix(std::uint64_t a, std::uint64_t b) {
  a ^= b;
  a *= 0x9E3779B97F4A7C15u;
  return a ^ (a >> 29);
}

std::uint64_t ProcessSeed() {
  static const int anchor = 0;
  const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
  return Mix(static_cast<std::uint64_t>(now), reinterpret_cast<std::uintptr_t>(&anchor));
}

// About one name is bound in so many bytes of source.
constexpr std::size_t kBytesPerEntry = 128;

bool QuotesExpression(std::string_view part) {
  const std::string_view prefix = part.substr(0, pysource::kPrefixLen);
  return prefix == pysource::kSetPrefix || prefix == pysource::kWithinExprPrefix ||
         prefix == pysource::kDecoratorPrefix || prefix == pysource::kTypeHintPrefix;
}

std::uint8_t HowBound(unsigned char kind) {
  switch (kind) {
    case pysource::kGlobalKind:
      return kDeclaredGlobal;
    case pysource::kNonlocalKind:
      return kDeclaredNonlocal;
    case pysource::kTypeParameterKind:
      return kBoundAsTypeParameter;
    default:
      return kBoundHere;
  }
}

}  // namespace

std::uint32_t HashText(std::string_view text, std::uint32_t number) {
  static const std::uint64_t seed = ProcessSeed();
  std::uint64_t hash = Mix(seed + text.size(), number);
  while (text.size() >= 8) {
    std::uint64_t word;
    std::memcpy(&word, text.data(), sizeof word);
    hash = Mix(hash, word);
    text.remove_prefix(8);
  }
  if (!text.empty()) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data(), text.size());
    hash = Mix(hash, word);
  }
  hash = Mix(hash, seed);
  return static_cast<std::uint32_t>(hash >> 32) ^ static_cast<std::uint32_t>(hash);
}

Results::Results(std::size_t source_size) : entry_table_(source_size / kBytesPerEntry) {
  scopes_.push_back({std::string(), kNoIndex, pysource::kModuleKind, 1, 1, kNoIndex, kNoIndex, {}});
}

ScopeIndex Results::OpenScope(ScopeIndex parent, std::string_view name, unsigned char kind,
                              std::uint32_t line) {
  const std::uint32_t number = ++entries_[EntryOf(parent, name)].definitions;
  std::string full = scopes_[parent].name;
  if (full.size() + name.size() > kMaxScopeName) return kNoIndex;
  if (!full.empty()) full += '.';
  full += name;
  if (number > 1) {
    full += pysource::kScopeIndexSep;
    full += std::to_string(number);
  }
  if (full.size() > kMaxScopeName) return kNoIndex;
  scopes_.push_back({std::move(full), parent, kind, line, line, kNoIndex, kNoIndex, {}});
  return static_cast<ScopeIndex>(scopes_.size() - 1);
}

EntryIndex Results::Find(ScopeIndex scope, std::string_view name, std::uint32_t hash) const {
  return entry_table_.Find(
      hash, [&](EntryIndex e) { return entries_[e].scope == scope && entries_[e].name == name; });
}

std::uint8_t Results::Binds(ScopeIndex scope, std::string_view name) const {
  const EntryIndex entry = Find(scope, name, HashText(name, scope));
  return entry == kNoIndex ? 0 : entries_[entry].binds;
}

bool Results::IsArgument(const Entry& entry) const {
  return entry.first_part != kNoIndex &&
         PartText(parts_[entry.first_part]).starts_with(pysource::kArgPrefix);
}

bool Results::BindsLocally(ScopeIndex scope, std::string_view name) const {
  const EntryIndex entry = Find(scope, name, HashText(name, scope));
  return entry != kNoIndex && entries_[entry].binds != 0 && !IsArgument(entries_[entry]);
}

EntryIndex Results::EntryOf(ScopeIndex scope, std::string_view name) {
  const std::uint32_t hash = HashText(name, scope);
  const EntryIndex found = Find(scope, name, hash);
  if (found != kNoIndex) return found;
  const EntryIndex entry = static_cast<EntryIndex>(entries_.size());
  entries_.push_back({name, scope, kNoIndex, kNoIndex, kNoIndex, 0, 0, 0, false, 0});
  entry_table_.Add(hash, entry);
  Scope& owner = scopes_[scope];
  if (owner.first_entry == kNoIndex) {
    owner.first_entry = entry;
  } else {
    entries_[owner.last_entry].next = entry;
  }
  owner.last_entry = entry;
  return entry;
}

EntryIndex Results::Bind(ScopeIndex scope, std::string_view name, unsigned char kind,
                         std::uint32_t line) {
  const EntryIndex entry = EntryOf(scope, name);
  bindings_.push_back({entry, line, kind});
  entries_[entry].binds |= HowBound(kind);
  if (uses_ != nullptr) uses_->Bind(name, scope, kind);
  return entry;
}

bool Results::HasPart(const Entry& owner, EntryIndex entry, std::string_view part) const {
  if (owner.parts > kMaxListedParts) {
    return part_table_.Find(HashText(part, entry), [&](std::uint32_t p) {
      return parts_[p].entry == entry && PartText(parts_[p]) == part;
    }) != kNoIndex;
  }
  for (std::uint32_t p = owner.first_part; p != kNoIndex; p = parts_[p].next) {
    if (PartText(parts_[p]) == part) return true;
  }
  return false;
}

void Results::AddPart(EntryIndex entry, std::string_view part) {
  if (!HasPart(entries_[entry], entry, part)) AppendPart(entry, part);
}

void Results::AddDecorators(EntryIndex entry, const std::vector<std::string>& parts) {
  std::vector<std::string_view> kept;  // a few at most, so that no text takes quadratic time
  for (const std::string& part : parts) {
    if (entries_[entry].expressions == kMaxExpressions) return;
    if (std::find(kept.begin(), kept.end(), part) != kept.end()) continue;
    AppendPart(entry, part);
    kept.push_back(part);
  }
}

void Results::AppendPart(EntryIndex entry, std::string_view part) {
  Entry& owner = entries_[entry];
  const bool quotes = QuotesExpression(part);
  if (quotes && owner.expressions == kMaxExpressions) return;
  const std::uint32_t index = static_cast<std::uint32_t>(parts_.size());
  parts_.push_back({part_text_.size(), static_cast<std::uint32_t>(part.size()), entry, kNoIndex});
  part_text_ += part;
  if (owner.first_part == kNoIndex) {
    owner.first_part = index;
  } else {
    parts_[owner.last_part].next = index;
  }
  owner.last_part = index;
  if (quotes) ++owner.expressions;
  ++owner.parts;
  if (owner.parts < kMaxListedParts + 1) return;
  const std::uint32_t first = owner.parts == kMaxListedParts + 1 ? owner.first_part : index;
  for (std::uint32_t p = first; p != kNoIndex; p = parts_[p].next) {
    part_table_.Add(HashText(PartText(parts_[p]), entry), p);
  }
}

void Results::AddImport(std::string_view equivalent) {
  const std::uint32_t hash = HashText(equivalent, 0);
  const std::uint32_t found =
      import_table_.Find(hash, [&](std::uint32_t i) { return imports_[i] == equivalent; });
  if (found != kNoIndex) return;
  import_table_.Add(hash, static_cast<std::uint32_t>(imports_.size()));
  imports_.push_back(Keep(std::string(equivalent)));
}

void Results::AddDefinition(ScopeIndex scope, std::string_view name, unsigned char kind,
                            std::uint32_t line) {
  definitions_.push_back({name, scope, line, kind});
}

void Results::AddAssignedDefinition(EntryIndex entry, unsigned char kind, std::uint32_t line) {
  Entry& owner = entries_[entry];
  if (owner.listed) return;
  owner.listed = true;
  AddDefinition(owner.scope, owner.name, kind, line);
}

void Results::AddInstanceAttribute(ScopeIndex method, std::string_view attribute,
                                   unsigned char kind, std::uint32_t line) {
  ScopeIndex owner = method;
  while (scopes_[owner].kind != pysource::kClassKind && scopes_[owner].parent != kNoIndex) {
    owner = scopes_[owner].parent;
  }
  const std::uint32_t hash = HashText(attribute, owner);
  const std::uint32_t found = attribute_table_.Find(hash, [&](std::uint32_t i) {
    return attributes_[i].owner == owner &&
           definitions_[attributes_[i].definition].name == attribute;
  });
  if (found != kNoIndex) return;
  attribute_table_.Add(hash, static_cast<std::uint32_t>(attributes_.size()));
  attributes_.push_back({owner, static_cast<std::uint32_t>(definitions_.size())});
  AddDefinition(method, attribute, kind, line);
}

std::string_view Results::Keep(std::string text) { return kept_.emplace_back(std::move(text)); }

}  // namespace loom::pyscan
