#include "loom/_pyscan/exports.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "loom/_pyscan/chars.h"
#include "pysource/symbolkinds.h"

namespace loom::pyscan {
namespace {

// FNV-1a, with a mix at the end that makes sums of results as good as these.
class Hash {
 public:
  explicit Hash(std::uint64_t seed) : state_(0xCBF29CE484222325u ^ seed) {}
  void Add(std::string_view text) {
    for (const char c : text) AddByte(static_cast<unsigned char>(c));
    AddByte(0xFF);  // in no text of UTF-8, so that no two lists of texts look alike
  }
  std::uint64_t Finish() const {
    std::uint64_t h = state_;
    h = (h ^ (h >> 33)) * 0xFF51AFD7ED558CCDu;
    h = (h ^ (h >> 33)) * 0xC4CEB9FE1A85EC53u;
    return h ^ (h >> 33);
  }

 private:
  void AddByte(unsigned char byte) { state_ = (state_ ^ byte) * 0x100000001B3u; }

  std::uint64_t state_;
};

bool IsFunction(const Scope& scope) {
  return scope.kind != pysource::kModuleKind && scope.kind != pysource::kClassKind;
}

// The part without the line of a definition.
void AddPart(std::string_view part, Hash& a, Hash& b) {
  const auto add = [&](std::string_view text) {
    a.Add(text);
    b.Add(text);
  };
  const char kind = part[1];
  if (kind != 'F' && kind != 'm' && kind != 'M' && kind != 'C') return add(part);
  const std::size_t line = part.find(' ');
  add(part.substr(0, line));
  const std::size_t behind = part.find(' ', line + 1);
  if (behind != part.npos) add(part.substr(behind));
}

bool IsSeenOutside(std::string_view name, std::uint8_t kinds_of_binding, bool argument) {
  return argument || name == "return" || name == "yield" || name.find('.') != name.npos ||
         (kinds_of_binding & (kBoundAsTypeParameter | kDeclaredGlobal)) != 0;
}

// Whether the text holds a name that the function itself binds, its arguments apart.
bool QuotesLocal(const Results& results, ScopeIndex scope, std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    if (ClassOf(text[i]) != ByteClass::kIdentifier) {
      ++i;
      continue;
    }
    std::size_t end = i + 1;
    while (end < text.size() && IsIdentifierByte(text[end])) ++end;
    const bool attribute = i > 0 && text[i - 1] == '.';
    if (!attribute && results.BindsLocally(scope, text.substr(i, end - i))) return true;
    i = end;
  }
  return false;
}

}  // namespace

ExportDigest DigestExports(const Results& results) {
  ExportDigest digest{};
  const auto& scopes = results.scopes();
  // Scopes inside of functions; of functions, those whose local names count.
  std::vector<bool> inside(scopes.size(), false);
  for (ScopeIndex i = 0; i < scopes.size(); ++i) {
    const Scope& scope = scopes[i];
    if (scope.parent != kNoIndex) {
      inside[i] = inside[scope.parent] || IsFunction(scopes[scope.parent]);
    }
    bool all = !IsFunction(scope);
    const bool hidden = inside[i];
    if (!all && !hidden) {
      results.ForEachEntry(i, [&](const Entry& entry, bool argument) {
        if (all || argument || !IsSeenOutside(entry.name, entry.binds, false)) return;
        results.ForEachPart(entry, [&](std::string_view part) {
          all = all || QuotesLocal(results, i, part.substr(pysource::kPrefixLen));
        });
      });
    }
    results.ForEachEntry(i, [&](const Entry& entry, bool argument) {
      // Inside of a function, only what a method in it gives to its instance may be seen.
      const bool seen = hidden ? entry.name.find('.') != entry.name.npos
                               : all || IsSeenOutside(entry.name, entry.binds, argument);
      if (!seen || entry.first_part == kNoIndex) return;
      Hash a(0);
      Hash b(0x9E3779B97F4A7C15u);
      for (Hash* hash : {&a, &b}) {
        hash->Add(scope.name);
        hash->Add(entry.name);
      }
      results.ForEachPart(entry, [&](std::string_view part) { AddPart(part, a, b); });
      digest[0] += a.Finish();
      digest[1] += b.Finish();
    });
  }
  return digest;
}

}  // namespace loom::pyscan
