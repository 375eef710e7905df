// What a scan has found: scopes, bindings, information strings, imports.
//
// Everything is kept in flat tables that refer to each other by index, with hash tables over them,
// so that recording a fact costs the same however much is known already.

#ifndef LOOM_PYSCAN_RESULTS_H_
#define LOOM_PYSCAN_RESULTS_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "loom/_pyscan/indextable.h"

namespace loom::pyscan {

class UseCollector;

using ScopeIndex = std::uint32_t;
using EntryIndex = std::uint32_t;
inline constexpr std::uint32_t kNoIndex = 0xFFFFFFFFu;

// How a scope binds a name, as bits.
inline constexpr std::uint8_t kBoundHere = 1;
inline constexpr std::uint8_t kDeclaredGlobal = 2;
inline constexpr std::uint8_t kDeclaredNonlocal = 4;
inline constexpr std::uint8_t kBoundAsTypeParameter = 8;

struct Scope {
  std::string name;   // full; empty for the module
  ScopeIndex parent;  // kNoIndex for the module
  unsigned char kind;
  std::uint32_t line;
  std::uint32_t end_line;
  EntryIndex first_entry;
  EntryIndex last_entry;
  // The name that stands for the instance (or class) in a method, and in the functions inside it.
  std::string_view self;
};

// A name in a scope.
struct Entry {
  std::string_view name;
  ScopeIndex scope;
  EntryIndex next;  // in its scope
  std::uint32_t first_part;
  std::uint32_t last_part;
  std::uint32_t parts;
  std::uint32_t definitions;  // how many definitions of this name the scope holds
  std::uint16_t expressions;  // how many parts quote an expression
  bool listed;                // stands in definitions() as an assignment
  std::uint8_t binds;         // 0 for a name that has information only
};

// A part of an information string, its text in a common buffer.
struct Part {
  std::uint64_t begin;
  std::uint32_t length;
  EntryIndex entry;
  std::uint32_t next;
};

struct Binding {
  EntryIndex entry;
  std::uint32_t line;
  unsigned char kind;
};

struct Definition {
  std::string_view name;
  ScopeIndex scope;
  std::uint32_t line;
  unsigned char kind;
};

class Results {
 public:
  // A scope with a longer full name is not opened.
  static constexpr std::size_t kMaxScopeName = 1024;
  // Of a name, so many different parts that quote an expression are kept.
  static constexpr std::uint16_t kMaxExpressions = 24;

  // `source_size` helps to choose the first size of the tables.
  explicit Results(std::size_t source_size);
  Results(const Results&) = delete;
  Results& operator=(const Results&) = delete;

  // Opens a scope for a definition of `name` in `parent`; kNoIndex if its name would be too long.
  ScopeIndex OpenScope(ScopeIndex parent, std::string_view name, unsigned char kind,
                       std::uint32_t line);

  void EndScope(ScopeIndex scope, std::uint32_t line) { scopes_[scope].end_line = line; }

  // The entry of a name, made if need be. Requires: name outlives the results.
  EntryIndex EntryOf(ScopeIndex scope, std::string_view name);
  // Records a binding of the name.
  EntryIndex Bind(ScopeIndex scope, std::string_view name, unsigned char kind, std::uint32_t line);
  // How the scope itself binds the name; 0 if it doesn't.
  std::uint8_t Binds(ScopeIndex scope, std::string_view name) const;
  // Adds a part to the information of a name, unless it stands there. A part of the kinds that
  // quote an expression is dropped beyond kMaxExpressions.
  void AddPart(EntryIndex entry, std::string_view part);
  // Adds the decorators of the definition whose part was added last: each once, whatever other
  // definitions of the name have.
  void AddDecorators(EntryIndex entry, const std::vector<std::string>& parts);

  void AddImport(std::string_view equivalent);
  void AddDefinition(ScopeIndex scope, std::string_view name, unsigned char kind,
                     std::uint32_t line);
  // Lists an assignment as a definition, the first one of each name in a scope.
  void AddAssignedDefinition(EntryIndex entry, unsigned char kind, std::uint32_t line);
  // Lists an attribute of the instances of a class, once.
  void AddInstanceAttribute(ScopeIndex method, std::string_view attribute, unsigned char kind,
                            std::uint32_t line);
  // Keeps a text that was put together, for as long as the results live.
  std::string_view Keep(std::string text);

  Scope& scope(ScopeIndex index) { return scopes_[index]; }
  const std::deque<Scope>& scopes() const { return scopes_; }
  const std::vector<Entry>& entries() const { return entries_; }
  const std::vector<Binding>& bindings() const { return bindings_; }
  const std::vector<Definition>& definitions() const { return definitions_; }
  const std::vector<std::string_view>& imports() const { return imports_; }

  // Whoever wants to be told of each binding; none if null.
  void set_uses(UseCollector* uses) { uses_ = uses; }

  // Whether a function binds the name and not as an argument.
  bool BindsLocally(ScopeIndex scope, std::string_view name) const;

  // Calls fn(entry, whether it is an argument) for each name of a scope, in order of appearance.
  template <class Fn>
  void ForEachEntry(ScopeIndex scope, Fn&& fn) const {
    for (EntryIndex e = scopes_[scope].first_entry; e != kNoIndex; e = entries_[e].next) {
      fn(entries_[e], IsArgument(entries_[e]));
    }
  }

  template <class Fn>
  void ForEachPart(const Entry& entry, Fn&& fn) const {
    for (std::uint32_t p = entry.first_part; p != kNoIndex; p = parts_[p].next) {
      fn(PartText(parts_[p]));
    }
  }

  // Calls fn(name, information) for each name of a scope that has information, in order of
  // appearance.
  template <class Fn>
  void ForEachInfo(ScopeIndex scope, Fn&& fn) const {
    std::string info;
    for (EntryIndex e = scopes_[scope].first_entry; e != kNoIndex; e = entries_[e].next) {
      if (entries_[e].first_part == kNoIndex) continue;
      info.clear();
      for (std::uint32_t p = entries_[e].first_part; p != kNoIndex; p = parts_[p].next) {
        if (!info.empty()) info += ';';
        info += PartText(parts_[p]);
      }
      fn(entries_[e].name, std::string_view(info));
    }
  }

 private:
  // The parts of a name with more of them are found by a hash table.
  static constexpr std::uint32_t kMaxListedParts = 32;

  struct Attribute {
    ScopeIndex owner;
    std::uint32_t definition;  // index in definitions_
  };

  EntryIndex Find(ScopeIndex scope, std::string_view name, std::uint32_t hash) const;
  bool IsArgument(const Entry& entry) const;
  void AppendPart(EntryIndex entry, std::string_view part);
  bool HasPart(const Entry& owner, EntryIndex entry, std::string_view part) const;
  std::string_view PartText(const Part& part) const {
    return std::string_view(part_text_).substr(part.begin, part.length);
  }

  std::deque<Scope> scopes_;  // stays in place when it grows
  std::vector<Entry> entries_;
  std::vector<Part> parts_;
  std::vector<Binding> bindings_;
  std::vector<Definition> definitions_;
  std::vector<std::string_view> imports_;
  std::string part_text_;
  std::deque<std::string> kept_;
  IndexTable entry_table_;
  IndexTable part_table_;
  IndexTable import_table_;
  std::vector<Attribute> attributes_;
  IndexTable attribute_table_;  // over attributes_
  UseCollector* uses_ = nullptr;
};

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_RESULTS_H_
