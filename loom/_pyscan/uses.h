// Who refers to what: each place in a source where a name stands, and the scope that the name
// belongs to by the rules of the language.
//
// The statement parser tells which tokens of a logical line bind, import or mean no name at all;
// all other names are read. What comprehensions and lambdas bind for themselves is told apart by a
// walk over the tokens of the line with a stack of open brackets. A scan records uses only if it is
// asked to.

#ifndef LOOM_PYSCAN_USES_H_
#define LOOM_PYSCAN_USES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "loom/_pyscan/indextable.h"
#include "loom/_pyscan/results.h"
#include "loom/_pyscan/token.h"

namespace loom::pyscan {

// What a place does with the name.
enum class UseKind : std::uint8_t {
  kRead = 'r',     // reads it, or the object whose attributes follow
  kBound = 'b',    // binds, declares or deletes it
  kKeyword = 'k',  // names an argument of a call, or an attribute of a class pattern
  kImport = 'i',   // a module that is imported
  kFrom = 'f',     // a name that is imported from a module; the text is "module name"
};

// The scope that the first name of a chain belongs to, as the index of the scope or one of these.
enum Home : std::int64_t {
  kNowhere = -1,     // bound in no scope of the file: a builtin, from a star import, or undefined
  kExpression = -2,  // a comprehension or a lambda binds it
  kNoHome = -3,      // the attribute of a value that isn't a name, a keyword, something imported
};

// All uses with the same text in the same scope.
struct UseGroup {
  std::string_view text;  // "a", "a.b.c", ".b" for an attribute of something else
  ScopeIndex scope;
  std::int32_t home;  // known when the scan is over
  UseKind kind;
  bool local;  // a comprehension or a lambda binds the name
  bool first;  // no group before it has the same text, home and kind
};

struct NameUse {
  std::uint32_t group;
  std::uint32_t line;
  std::uint32_t column;  // of the first name, in bytes from the begin of the line
};

class UseCollector {
 public:
  // Requires: both outlive the collector.
  UseCollector(std::string_view source, Results& results);

  // Of the line in hand, to be told while it is parsed. Offsets may come in any order.
  void Bind(std::string_view name, ScopeIndex scope, unsigned char kind);
  // The tokens from one offset to another name nothing, or are recorded by themselves.
  void Pass(std::uint32_t begin, std::uint32_t end) { passed_.push_back({begin, end}); }
  void Import(UseKind kind, std::string_view text, std::uint32_t begin, std::uint32_t line,
              ScopeIndex scope);
  // A name that means something of its own up to the end of the line.
  void LocalOfLine(std::string_view name) {
    if (line_locals_.size() < kMaxLineNames) line_locals_.push_back(name);
  }
  // What stands behind the offset belongs to the scope.
  void ChangeScope(std::uint32_t offset, ScopeIndex scope) { changes_.push_back({offset, scope}); }

  // Records the uses of the line that was parsed.
  void TakeLine(const LogicalLine& line, ScopeIndex scope);

  // Finds the homes of about `groups` groups; true when all are known. To be called when everything
  // is parsed.
  bool Resolve(std::size_t groups);

  const std::vector<NameUse>& uses() const { return uses_; }
  const std::vector<UseGroup>& groups() const { return groups_; }

 private:
  // Deeper comprehensions in each other, more parameters of lambdas around a name, and more type
  // parameters of a header are taken for names of the scope around. It keeps the time linear.
  static constexpr std::uint32_t kMaxLevels = 24;
  static constexpr std::size_t kMaxLineNames = 64;

  struct Range {
    std::uint32_t begin;
    std::uint32_t end;
  };
  struct Bound {
    std::uint32_t begin;
    ScopeIndex scope;
  };
  struct TypeParameter {
    std::string_view name;
    ScopeIndex scope;
  };
  struct Change {
    std::uint32_t offset;
    ScopeIndex scope;
  };
  // A use of the line in hand.
  struct Found {
    std::uint32_t begin;  // of the name that the place is that of
    std::uint32_t line;
    ScopeIndex scope;
    std::uint32_t root;  // length of the first name; 0 if it can't be bound by an expression
    std::string_view text;
    UseKind kind;
    bool local;
  };
  struct Frame {
    std::uint32_t first;    // uses found before it was opened
    std::uint32_t targets;  // names of targets_ that were there before
    std::uint32_t outside_begin = 0;
    std::uint32_t outside_end = 0;  // uses in the first iterable, which is evaluated outside
    std::uint32_t levels = 0;       // of comprehensions inside
    char bracket = '\0';
    bool in_targets = false;
    bool in_first_iterable = false;
    bool comprehension = false;
  };
  struct Lambda {
    std::size_t depth;
    std::size_t names;  // names of lambda_names_ that were there before
    bool body;
  };

  const TokenList& Tokens(const LogicalLine& line);
  void OpenFrame(const TokenList& tokens, std::uint32_t i);
  void CloseFrame();
  void EndLambdaBodies();
  void EndIterable();
  std::uint32_t TakeName(const TokenList& tokens, std::uint32_t i, ScopeIndex scope);
  bool IsLambdaParameter(const TokenList& tokens, std::uint32_t i) const;
  bool IsLocal(std::string_view name) const;
  void Flush();
  std::uint32_t GroupOf(const Found& found);
  std::int32_t HomeOf(const UseGroup& group) const;
  std::string_view Text(const Token& token) const {
    return source_.substr(token.begin, token.end - token.begin);
  }
  std::uint32_t Size() const { return static_cast<std::uint32_t>(found_.size()); }

  const std::string_view source_;
  Results& results_;
  std::vector<NameUse> uses_;
  std::vector<UseGroup> groups_;
  IndexTable group_table_;
  IndexTable home_table_;  // groups that are the first of their text, home and kind
  std::size_t resolved_ = 0;
  std::size_t walked_ = 0;      // up to where line starts were looked for
  std::size_t line_start_ = 0;  // the last one found

  // Of the line in hand.
  std::vector<Bound> bound_;
  std::vector<TypeParameter> type_parameters_;
  std::vector<Range> passed_;
  std::vector<Change> changes_;
  std::vector<std::string_view> line_locals_;
  std::vector<Found> found_;
  std::vector<Frame> frames_;
  std::vector<std::string_view> targets_;
  std::vector<Lambda> lambdas_;
  std::vector<std::string_view> lambda_names_;
  TokenList merged_;
};

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_USES_H_
