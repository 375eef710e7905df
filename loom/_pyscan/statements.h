// The statements of a logical line: which names they bind, where, and to what.
//
// One pass over the tokens of a line finds its simple statements and, at most, the headers of
// compound ones; a bracketed group is stepped over by the index of its end. What isn't a statement
// of Python binds nothing and does no harm.

#ifndef LOOM_PYSCAN_STATEMENTS_H_
#define LOOM_PYSCAN_STATEMENTS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "loom/_pyscan/errors.h"
#include "loom/_pyscan/results.h"
#include "loom/_pyscan/token.h"
#include "loom/_pyscan/uses.h"

namespace loom::pyscan {

// The block that a logical line belongs to, or opens.
struct BlockContext {
  ScopeIndex scope = 0;
  bool match = false;       // the block of a "match" statement, which holds "case" clauses
  std::string subject{};    // what is matched
  bool half_typed = false;  // the header of a definition breaks off
};

class StatementParser {
 public:
  // Requires: all outlive the parser; nothing else adds to the results.
  // `uses` is told about the uses of names; it may be null.
  StatementParser(std::string_view source, Results& results, ErrorList& errors, UseCollector* uses);

  // Records what the line binds in the scope of `block`. Returns true if an indented block is to
  // follow, with its context in opened().
  bool ParseLine(const LogicalLine& line, const BlockContext& block);
  const BlockContext& opened() const { return opened_; }

  // Tokens visited so far.
  std::uint64_t steps() const { return steps_; }

 private:
  enum class Use { kAssign, kWithin, kDelete };
  struct Target {
    std::size_t begin;
    std::size_t end;
    std::string path;
  };
  struct Argument {
    std::size_t name;  // index of the token
    std::string_view marks;
    std::size_t colon;
    std::size_t equal;
    std::size_t end;
  };

  // Statements. Each takes the index of its first token and returns that behind its last.
  std::size_t Statement(std::size_t i, const BlockContext& block);
  std::size_t Simple(std::size_t i);
  std::size_t Decorator(std::size_t i);
  std::size_t Def(std::size_t start, std::size_t def);
  std::size_t Class(std::size_t i);
  std::size_t TypeAlias(std::size_t i);
  std::size_t For(std::size_t i);
  std::size_t With(std::size_t i);
  std::size_t Except(std::size_t i);
  std::size_t Match(std::size_t i);
  std::size_t Case(std::size_t i, const BlockContext& block);
  std::size_t Import(std::size_t i);
  std::size_t FromImport(std::size_t i);
  std::size_t NameList(std::size_t i, unsigned char kind, std::string_view prefix);
  std::size_t Delete(std::size_t i);
  std::size_t Return(std::size_t i);

  bool IsMatch(std::size_t i) const;
  bool IsTypeAlias(std::size_t i) const;
  // Ends a header at its colon, behind which a suite in `context` follows on this line or the next.
  std::size_t Suite(std::size_t colon, BlockContext context);

  void Annotated(std::size_t begin, std::size_t colon, std::size_t equal, std::size_t end);
  void Augmented(std::size_t begin, std::size_t op, std::size_t end);
  void Targets(std::size_t begin, std::size_t end, std::string path, std::string_view expression,
               Use use);
  void BindTarget(const Target& target, std::string_view expression, Use use);
  void Arguments(std::size_t open, ScopeIndex scope);
  void TypeParameters(std::size_t open, ScopeIndex scope);
  void BindWalruses(std::uint32_t before);
  void Yields();
  void AttachDecorators(EntryIndex entry);
  bool IsStatic() const;

  // The name that tokens[begin, end) is in a target: a bare name, or an attribute of the instance,
  // whose bare name goes to `attribute`. Empty if it is neither.
  std::string_view TargetName(std::size_t begin, std::size_t end, std::string_view& attribute);
  void StripParentheses(std::size_t& begin, std::size_t& end) const;

  std::size_t Next(std::size_t i) {
    ++steps_;
    const Token& token = (*tokens_)[i];
    return token.kind == Tok::kOpen && token.match < count_ ? token.match + 1
           : token.kind == Tok::kOpen                       ? count_
                                                            : i + 1;
  }
  // The first token of a kind at the level of `begin`, or `end`.
  std::size_t Find(Tok kind, std::size_t begin, std::size_t end);
  std::size_t StatementEnd(std::size_t i) { return Find(Tok::kSemicolon, i, count_); }
  // The colon that ends a header, or the end of the statement if it has none.
  std::size_t HeaderEnd(std::size_t i);
  Tok Kind(std::size_t i) const { return i < count_ ? (*tokens_)[i].kind : Tok::kNone; }
  char Bracket(std::size_t i) const {
    return Kind(i) == Tok::kOpen ? source_[(*tokens_)[i].begin] : '\0';
  }
  bool IsClosed(std::size_t open) const { return (*tokens_)[open].match < count_; }
  std::size_t CloseOf(std::size_t open) const {
    return IsClosed(open) ? (*tokens_)[open].match : count_;
  }
  std::string_view Text(std::size_t i) const {
    return Between((*tokens_)[i].begin, (*tokens_)[i].end);
  }
  std::string_view Between(std::uint32_t begin, std::uint32_t end) const {
    return source_.substr(begin, end - begin);
  }
  std::uint32_t Line(std::size_t i) const { return (*tokens_)[i].line; }
  void Expression(std::size_t begin, std::size_t end, std::string& out) const;
  // prefix + expression, valid until the next call.
  std::string_view Part(std::string_view prefix, std::size_t begin, std::size_t end);
  // The token is a word of the grammar and no name.
  void PassWord(std::size_t i) const {
    if (uses_ != nullptr) uses_->Pass((*tokens_)[i].begin, (*tokens_)[i].end);
  }
  void NoteImport(UseKind kind, std::string_view text, std::size_t i) const {
    if (uses_ != nullptr) uses_->Import(kind, text, (*tokens_)[i].begin, Line(i), scope_);
  }
  void PassImport(std::size_t begin, std::size_t end) const {
    if (uses_ != nullptr) uses_->Pass((*tokens_)[begin].begin, (*tokens_)[end - 1].end);
  }
  bool IsModuleOrClass(ScopeIndex scope) const;
  bool IsFunction(ScopeIndex scope) const { return !IsModuleOrClass(scope); }

  const std::string_view source_;
  Results& results_;
  ErrorList& errors_;
  UseCollector* const uses_;
  std::uint64_t steps_ = 0;
  std::vector<std::string> decorators_;

  // Of the line in hand.
  const LogicalLine* line_ = nullptr;
  const TokenList* tokens_ = nullptr;
  std::size_t count_ = 0;
  ScopeIndex scope_ = 0;
  std::size_t next_walrus_ = 0;
  std::size_t quoted_ = 0;  // how often the expression of the statement was quoted
  bool opens_block_ = false;
  BlockContext opened_;
  std::vector<ScopeIndex> inline_scopes_;
  std::vector<Target> targets_;
  std::vector<Target> elements_;
  std::vector<Argument> arguments_;
  std::string part_;
  std::string value_;
};

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_STATEMENTS_H_
