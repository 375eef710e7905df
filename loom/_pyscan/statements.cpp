#include "loom/_pyscan/statements.h"

#include <algorithm>
#include <utility>

#include "loom/_pyscan/exprtext.h"
#include "pysource/symbolkinds.h"

namespace loom::pyscan {

StatementParser::StatementParser(std::string_view source, Results& results, ErrorList& errors,
                                 UseCollector* uses)
    : source_(source), results_(results), errors_(errors), uses_(uses) {}

bool StatementParser::ParseLine(const LogicalLine& line, const BlockContext& block) {
  line_ = &line;
  tokens_ = &line.tokens;
  count_ = line.tokens.size();
  scope_ = block.scope;
  next_walrus_ = 0;
  opens_block_ = false;
  inline_scopes_.clear();
  std::size_t i = 0;
  while (i < count_) {
    if (Kind(i) == Tok::kSemicolon) {
      ++i;
    } else {
      quoted_ = 0;
      i = Statement(i, block);
    }
  }
  BindWalruses(kNoToken);
  Yields();
  for (ScopeIndex scope : inline_scopes_) results_.scope(scope).end_line = line.last_line;
  return opens_block_;
}

std::size_t StatementParser::Statement(std::size_t i, const BlockContext& block) {
  const Tok kind = Kind(i);
  if (kind == Tok::kAt) return Decorator(i);
  const std::size_t head = kind == Tok::kKwAsync ? i + 1 : i;
  if (Kind(head) == Tok::kKwDef) return Def(i, head);
  if (kind == Tok::kKwClass) return Class(i);
  decorators_.clear();
  switch (Kind(head)) {
    case Tok::kKwFor:
      return For(head);
    case Tok::kKwWith:
      return With(head);
    default:
      break;
  }
  switch (kind) {
    case Tok::kKwIf:
    case Tok::kKwElif:
    case Tok::kKwElse:
    case Tok::kKwWhile:
    case Tok::kKwTry:
    case Tok::kKwFinally:
      return Suite(HeaderEnd(i), {scope_});
    case Tok::kKwExcept:
      return Except(i);
    case Tok::kKwImport:
      return Import(i);
    case Tok::kKwFrom:
      return FromImport(i);
    case Tok::kKwGlobal:
      return NameList(i, pysource::kGlobalKind, pysource::kGlobalPrefix);
    case Tok::kKwNonlocal:
      return NameList(i, pysource::kNonlocalKind, pysource::kNonlocalPrefix);
    case Tok::kKwDel:
      return Delete(i);
    case Tok::kKwReturn:
      return Return(i);
    case Tok::kName:
      if (i == 0 && block.match && Text(i) == "case" && count_ > 2) return Case(i, block);
      if (IsMatch(i)) return Match(i);
      if (IsTypeAlias(i)) return TypeAlias(i);
      return Simple(i);
    default:
      return IsStatementKeyword(kind) ? StatementEnd(i) : Simple(i);
  }
}

// --- Helpers -----------------------------------------------------------------------------------

std::size_t StatementParser::Find(Tok kind, std::size_t begin, std::size_t end) {
  for (std::size_t i = begin; i < end; i = Next(i)) {
    if (Kind(i) == kind) return i;
  }
  return end;
}

std::size_t StatementParser::HeaderEnd(std::size_t i) {
  while (i < count_ && Kind(i) != Tok::kColon && Kind(i) != Tok::kSemicolon) i = Next(i);
  return std::min(i, count_);
}

std::size_t StatementParser::Suite(std::size_t colon, BlockContext context) {
  const bool complete = Kind(colon) == Tok::kColon;
  if (!complete) errors_.Add(line_->last_line, "expected ':'");
  if (complete && colon + 1 < count_) {
    if (context.scope != scope_) {
      inline_scopes_.push_back(context.scope);
      if (uses_ != nullptr) uses_->ChangeScope((*tokens_)[colon].end, context.scope);
      scope_ = context.scope;
    }
    return colon + 1;
  }
  if (context.scope != scope_) results_.scope(context.scope).end_line = line_->last_line;
  opens_block_ = true;
  opened_ = std::move(context);
  return complete ? count_ : colon;
}

void StatementParser::Expression(std::size_t begin, std::size_t end, std::string& out) const {
  AppendExpression(source_, *tokens_, begin, end, out);
}

std::string_view StatementParser::Part(std::string_view prefix, std::size_t begin,
                                       std::size_t end) {
  part_ = prefix;
  Expression(begin, end, part_);
  return part_;
}

bool StatementParser::IsModuleOrClass(ScopeIndex scope) const {
  const unsigned char kind = results_.scopes()[scope].kind;
  return kind == pysource::kModuleKind || kind == pysource::kClassKind;
}

// Binds the names of ":=" that stand before the given offset.
void StatementParser::BindWalruses(std::uint32_t before) {
  const std::vector<Walrus>& walruses = line_->walruses;
  for (; next_walrus_ < walruses.size() && walruses[next_walrus_].begin < before; ++next_walrus_) {
    const Walrus& walrus = walruses[next_walrus_];
    const EntryIndex entry =
        results_.Bind(scope_, Between(walrus.begin, walrus.end), pysource::kSetKind, walrus.line);
    part_ = pysource::kSetPrefix;
    if (walrus.token == kNoToken) {
      part_ += kElided;
    } else {
      const std::size_t begin = walrus.token + 1;
      std::size_t end = begin;
      while (end < count_) {
        const Tok kind = Kind(end);
        if (kind == Tok::kComma || kind == Tok::kClose || kind == Tok::kColon ||
            kind == Tok::kSemicolon || kind == Tok::kWalrus || kind == Tok::kKwFor ||
            kind == Tok::kKwAsync) {
          break;
        }
        end = Next(end);
      }
      Expression(begin, end, part_);
    }
    results_.AddPart(entry, part_);
  }
}

// --- What a function gives back ------------------------------------------------------------------

std::size_t StatementParser::Return(std::size_t i) {
  const std::size_t end = StatementEnd(i);
  if (IsFunction(scope_)) {
    part_ = pysource::kSetPrefix;
    if (i + 1 < end) {
      Expression(i + 1, end, part_);
    } else {
      part_ += "None";
    }
    results_.AddPart(results_.EntryOf(scope_, "return"), part_);
  }
  return end;
}

// What the "yield" of a line give. Behind a header with its suite on the same line, `scope_` is
// that of the suite.
void StatementParser::Yields() {
  if (line_->yields.empty() || !IsFunction(scope_)) return;
  const EntryIndex entry = results_.EntryOf(scope_, "yield");
  for (const std::uint32_t yield : line_->yields) {
    const bool from = Kind(yield + 1) == Tok::kKwFrom;
    const std::size_t begin = from ? yield + 2 : yield + 1;
    std::size_t end = begin;
    while (end < count_ && Kind(end) != Tok::kClose && Kind(end) != Tok::kSemicolon) {
      end = Next(end);
    }
    part_ = from ? pysource::kWithinExprPrefix : pysource::kSetPrefix;
    if (from) part_.append(pysource::kIterationSubscript).append(1, ' ');
    if (begin < end) {
      Expression(begin, end, part_);
    } else {
      part_ += "None";
    }
    results_.AddPart(entry, part_);
  }
}

// --- Compound statements without a scope of their own -------------------------------------------

std::size_t StatementParser::For(std::size_t i) {
  const std::size_t colon = HeaderEnd(i);
  const std::size_t in = Find(Tok::kKwIn, i + 1, colon);
  if (in < colon) {
    std::string iterable;
    Expression(in + 1, colon, iterable);
    Targets(i + 1, in, std::string(pysource::kIterationSubscript), iterable, Use::kWithin);
  }
  return Suite(colon, {scope_});
}

std::size_t StatementParser::With(std::size_t i) {
  const std::size_t colon = HeaderEnd(i);
  std::size_t begin = i + 1;
  std::size_t end = colon;
  if (Bracket(begin) == '(' && CloseOf(begin) + 1 == end) {
    end = CloseOf(begin);
    ++begin;
  }
  const std::string path = i > 0 && Kind(i - 1) == Tok::kKwAsync ? ".__aenter__()" : ".__enter__()";
  std::string manager;
  while (begin < end) {
    const std::size_t comma = Find(Tok::kComma, begin, end);
    const std::size_t as = Find(Tok::kKwAs, begin, comma);
    if (as < comma) {
      manager.clear();
      Expression(begin, as, manager);
      Targets(as + 1, comma, path, manager, Use::kWithin);
    }
    begin = comma + 1;
  }
  return Suite(colon, {scope_});
}

std::size_t StatementParser::Except(std::size_t i) {
  const std::size_t colon = HeaderEnd(i);
  const std::size_t begin = Kind(i + 1) == Tok::kStar ? i + 2 : i + 1;
  const std::size_t as = Find(Tok::kKwAs, begin, colon);
  if (as + 1 < colon) {
    std::string type;
    Expression(begin, as, type);
    Targets(as + 1, as + 2, std::string(pysource::kClassInstanceSuffix), type, Use::kWithin);
  }
  return Suite(colon, {scope_});
}

// A line that starts with the name "match" is a match statement if nothing stands behind its colon
// and what follows the name can start an expression.
bool StatementParser::IsMatch(std::size_t i) const {
  if (i != 0 || count_ < 3 || Kind(count_ - 1) != Tok::kColon || Text(i) != "match") return false;
  switch (Kind(i + 1)) {
    case Tok::kEqual:
    case Tok::kColon:
    case Tok::kComma:
    case Tok::kDot:
    case Tok::kAugmented:
    case Tok::kWalrus:
    case Tok::kSemicolon:
      return false;
    default:
      return true;
  }
}

std::size_t StatementParser::Match(std::size_t i) {
  PassWord(i);
  const std::size_t colon = HeaderEnd(i);
  BlockContext context{scope_, true};
  Expression(i + 1, colon, context.subject);
  return Suite(colon, std::move(context));
}

std::size_t StatementParser::Case(std::size_t i, const BlockContext& block) {
  PassWord(i);
  const std::size_t colon = HeaderEnd(i);
  const std::size_t end = Find(Tok::kKwIf, i + 1, colon);
  for (std::size_t j = i + 1; j < end; ++j) {
    ++steps_;
    // A name is a capture unless it is part of a dotted name, a class, or a keyword of a class.
    if (Kind(j) != Tok::kName || Kind(j - 1) == Tok::kDot) continue;
    if (Text(j) == "_") {
      PassWord(j);
      continue;
    }
    if (j + 1 < end &&
        (Kind(j + 1) == Tok::kDot || Bracket(j + 1) == '(' || Kind(j + 1) == Tok::kEqual)) {
      continue;
    }
    const bool whole = j + 1 == end && (j == i + 1 || Kind(j - 1) == Tok::kKwAs);
    const EntryIndex entry = results_.Bind(scope_, Text(j), pysource::kWithinExprKind, Line(j));
    part_ = pysource::kWithinExprPrefix;
    part_ += whole ? " " : "[...] ";
    part_ += block.subject;
    results_.AddPart(entry, part_);
  }
  return Suite(colon, {scope_});
}

// --- Imports and declarations ------------------------------------------------------------------

std::size_t StatementParser::Import(std::size_t i) {
  const std::size_t end = StatementEnd(i);
  std::string equivalent;
  for (std::size_t j = i + 1; j < end;) {
    if (Kind(j) != Tok::kName) {
      j = Next(j);
      continue;
    }
    const std::size_t first = j;
    equivalent = pysource::kImportPrefix;
    equivalent += Text(j++);
    while (j + 1 < end && Kind(j) == Tok::kDot && Kind(j + 1) == Tok::kName) {
      equivalent += '.';
      equivalent += Text(j + 1);
      j += 2;
      ++steps_;
    }
    results_.AddImport(equivalent);
    NoteImport(UseKind::kImport, std::string_view(equivalent).substr(pysource::kPrefixLen), first);
    const bool aliased = j + 1 < end && Kind(j) == Tok::kKwAs && Kind(j + 1) == Tok::kName;
    const std::size_t bound = aliased ? j + 1 : first;
    const EntryIndex entry = results_.Bind(scope_, Text(bound), pysource::kImportKind, Line(first));
    results_.AddPart(entry, equivalent);
    if (aliased) {
      results_.AddPart(entry, part_.assign(pysource::kImportAsNamePrefix).append(Text(bound)));
      NoteImport(UseKind::kBound, Text(bound), bound);
    }
    j = Find(Tok::kComma, j, end);
  }
  PassImport(i, end);
  return end;
}

std::size_t StatementParser::FromImport(std::size_t i) {
  const std::size_t end = StatementEnd(i);
  const std::size_t import = Find(Tok::kKwImport, i + 1, end);
  PassImport(i, end);
  if (import == end) return end;
  std::string module(pysource::kFromImportPrefix);
  std::size_t first = i + 1;
  for (std::size_t j = i + 1; j < import; j = Next(j)) {
    if (Kind(j) == Tok::kName || Kind(j) == Tok::kDot || Kind(j) == Tok::kEllipsis) {
      if (module.size() == pysource::kPrefixLen) first = j;
      module += Text(j);
    }
  }
  if (module.size() == pysource::kPrefixLen) return end;
  NoteImport(UseKind::kImport, std::string_view(module).substr(pysource::kPrefixLen), first);
  module += ' ';
  const bool parenthesised = Bracket(import + 1) == '(';
  std::size_t j = parenthesised ? import + 2 : import + 1;
  const std::size_t last = parenthesised ? std::min(CloseOf(import + 1), end) : end;
  const std::size_t module_size = module.size();
  while (j < last) {
    ++steps_;
    if (Kind(j) != Tok::kName && Kind(j) != Tok::kStar) {
      j = Next(j);
      continue;
    }
    module.resize(module_size);
    module += Text(j);
    results_.AddImport(module);
    NoteImport(UseKind::kFrom, std::string_view(module).substr(pysource::kPrefixLen), j);
    const bool aliased = j + 2 < last && Kind(j) == Tok::kName && Kind(j + 1) == Tok::kKwAs &&
                         Kind(j + 2) == Tok::kName;
    const std::size_t bound = aliased ? j + 2 : j;
    const EntryIndex entry = results_.Bind(scope_, Text(bound), pysource::kFromImportKind, Line(j));
    results_.AddPart(entry, module);
    if (aliased) {
      results_.AddPart(entry, part_.assign(pysource::kImportAsNamePrefix).append(Text(bound)));
      NoteImport(UseKind::kBound, Text(bound), bound);
    }
    j = bound + 1;
  }
  return end;
}

std::size_t StatementParser::NameList(std::size_t i, unsigned char kind, std::string_view prefix) {
  const std::size_t end = StatementEnd(i);
  for (std::size_t j = i + 1; j < end; j = Next(j)) {
    if (Kind(j) == Tok::kName) {
      results_.AddPart(results_.Bind(scope_, Text(j), kind, Line(j)), prefix);
    }
  }
  return end;
}

std::size_t StatementParser::Delete(std::size_t i) {
  const std::size_t end = StatementEnd(i);
  Targets(i + 1, end, {}, {}, Use::kDelete);
  return end;
}

}  // namespace loom::pyscan
