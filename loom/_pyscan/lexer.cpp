// The walk as a whole: lines, their indentation, and where it goes on after an error.

#include "loom/_pyscan/lexer.h"

#include <algorithm>

#include "loom/_pyscan/keywords.h"

namespace loom::pyscan {
namespace {

constexpr std::uint32_t kTabSize = 8;
constexpr std::size_t kConflictMarkerLength = 7;

bool StartsBlock(Tok first) {
  switch (first) {
    case Tok::kKwAsync:
    case Tok::kKwClass:
    case Tok::kKwDef:
    case Tok::kKwElif:
    case Tok::kKwElse:
    case Tok::kKwExcept:
    case Tok::kKwFor:
    case Tok::kKwIf:
    case Tok::kKwTry:
    case Tok::kKwWhile:
    case Tok::kKwWith:
      return true;
    default:
      return false;
  }
}

}  // namespace

Lexer::Lexer(std::string_view source, ErrorList& errors, bool keep_inner)
    : base_(source.data()),
      end_(source.data() + source.size()),
      errors_(errors),
      keep_inner_(keep_inner),
      p_(base_),
      limit_(base_),
      line_start_(base_),
      walk_back_left_(kWalkBackFactor * source.size()) {
  if (source.starts_with("\xEF\xBB\xBF")) p_ += 3;
  line_start_ = p_;
}

Lexer::Event Lexer::Run(std::size_t max_bytes) {
  if (line_done_) {
    line_done_ = false;
    line_.tokens.Resize(0);
    line_.walruses.clear();
    line_.yields.clear();
    line_.inner.Resize(0);
    last_ = Token{};
  }
  const std::size_t start = position();
  const std::size_t left = static_cast<std::size_t>(end_ - p_);
  limit_ = max_bytes < left ? p_ + std::max<std::size_t>(max_bytes, 1) : end_;
  walked_back_ = looked_ahead_ = 0;
  Stop stop = Stop::kGo;
  while (stop == Stop::kGo) {
    if (in_comment_ && !SkipComment()) {
      stop = Stop::kLimit;
      break;
    }
    switch (mode_) {
      case Mode::kIndentation:
        stop = LexIndentation();
        break;
      case Mode::kContinuation:
        stop = LexContinuation();
        break;
      case Mode::kCode:
        stop = LexCode();
        break;
      case Mode::kString:
        stop = LexString();
        break;
      case Mode::kFormatted:
        stop = LexFormatted();
        break;
    }
  }
  walked_ = position() + walked_back_ - start + looked_ahead_;
  if (stop == Stop::kLine) return Event::kLine;
  return stop == Stop::kEnd ? Event::kEnd : Event::kMore;
}

void Lexer::PassNewline() {
  p_ += *p_ == '\r' && Peek(1) == '\n' ? 2 : 1;
  ++line_number_;
  line_start_ = p_;
  column_ = alt_column_ = 0;
}

bool Lexer::SkipBlanks() {
  for (; p_ < limit_; ++p_) {
    if (*p_ == ' ') {
      const char* const behind = SkipRun(p_, limit_, ' ');
      const std::uint32_t blanks = static_cast<std::uint32_t>(behind - p_);
      column_ += blanks;
      alt_column_ += blanks;
      p_ = behind - 1;
    } else if (*p_ == '\t') {
      column_ = (column_ / kTabSize + 1) * kTabSize;
      ++alt_column_;
    } else if (*p_ == '\f') {
      column_ = alt_column_ = 0;
    } else {
      return true;
    }
  }
  return AtEnd();
}

bool Lexer::SkipComment() {
  p_ = FindAny(p_, limit_, '\n', '\r');
  in_comment_ = p_ == limit_ && !AtEnd();
  return !in_comment_;
}

// A line that a version control system left to mark a conflict is passed over, so that what stands
// on both sides of it is scanned where it belongs.
bool Lexer::SkipConflictMarker() {
  if (p_ != line_start_ || static_cast<std::size_t>(end_ - p_) < kConflictMarkerLength) {
    return false;
  }
  if (*p_ != '<' && *p_ != '=' && *p_ != '>' && *p_ != '|') return false;
  for (std::size_t i = 1; i < kConflictMarkerLength; ++i) {
    if (p_[i] != *p_) return false;
  }
  const char* behind = p_ + kConflictMarkerLength;
  if (behind != end_ && *behind != ' ' && !IsNewline(*behind)) return false;
  errors_.Add(line_number_, "merge conflict marker");
  in_comment_ = true;
  return true;
}

Lexer::Stop Lexer::LexIndentation() {
  for (;;) {
    if (!SkipBlanks()) return Stop::kLimit;
    if (AtEnd()) return Stop::kEnd;
    if (IsNewline(*p_)) {
      PassNewline();
      first_column_ = 0;
      continue;
    }
    if (*p_ == '#' || SkipConflictMarker()) {
      in_comment_ = true;
      return Stop::kGo;
    }
    if (*p_ == '\\' && IsNewline(Peek(1))) {
      // The indentation is that of the first line on which there is any.
      if (first_column_ == 0) first_column_ = column_;
      const std::uint32_t column = column_;
      const std::uint32_t alt_column = alt_column_;
      ++p_;
      PassNewline();
      column_ = column;
      alt_column_ = alt_column;
      continue;
    }
    line_.column = first_column_ != 0 ? first_column_ : column_;
    line_.alt_column = first_column_ != 0 ? first_column_ : alt_column_;
    first_column_ = 0;
    mode_ = Mode::kCode;
    return Stop::kGo;
  }
}

Lexer::Stop Lexer::LexContinuation() {
  if (!SkipBlanks()) return Stop::kLimit;
  if (!AtEnd()) {
    if (after_backslash_) {
      const Tok last = last_.kind;
      if (frames_.empty() && last != Tok::kColon && last != Tok::kSemicolon &&
          last != Tok::kKwAsync && last != Tok::kNone && StartsStatement()) {
        errors_.Add(line_number_, "unexpected statement behind a line continuation");
        p_ = line_start_;
        column_ = alt_column_ = 0;
        mode_ = Mode::kIndentation;
        ForgetLambdas();
        line_done_ = true;
        return Stop::kLine;
      }
    } else {
      if (IsNewline(*p_)) {
        PassNewline();
        return Stop::kGo;
      }
      if (*p_ == '#' || SkipConflictMarker()) {
        in_comment_ = true;
        return Stop::kGo;
      }
      if (candidate_.at == nullptr && ClassOf(*p_) != ByteClass::kClose &&
          (column_ <= line_.column ||
           (last_.kind == Tok::kColon && StartsBlock(line_.tokens.front().kind)))) {
        candidate_ = {line_start_, line_number_};
      }
      if (StartsStatement()) {
        Recover(line_start_, line_number_);
        return Stop::kLine;
      }
    }
  }
  mode_ = Mode::kCode;
  return Stop::kGo;
}

// Whether a keyword that no expression can hold stands at p_. Behind a backslash only "def" and
// "class" are sure signs: "from a \ import b" is one statement.
bool Lexer::StartsStatement() {
  const char* q = p_;
  while (q != end_ && q - p_ < 9 && *q >= 'a' && *q <= 'z') ++q;
  if (q != end_ && IsIdentifierByte(*q)) return false;
  const std::string_view word(p_, static_cast<std::size_t>(q - p_));
  const Tok tok = ClassifyWord(word, static_cast<std::size_t>(end_ - p_));
  if (after_backslash_) return tok == Tok::kKwDef || tok == Tok::kKwClass;
  if (tok == Tok::kKwFrom) return AtFromImport();
  if (tok == Tok::kKwAsync) {
    const char* const stop = LookAheadEnd();
    while (q != stop && (*q == ' ' || *q == '\t')) ++q;
    const std::string_view rest(q, static_cast<std::size_t>(stop - q));
    return rest.starts_with("def ") || rest.starts_with("with ");
  }
  return IsStatementKeyword(tok);
}

// Whether "from", dots and names, "import" stand at p_: "from" alone may follow "yield" or "raise".
bool Lexer::AtFromImport() {
  const char* const stop = LookAheadEnd();
  const char* q = p_ + 4;
  std::string_view word;
  do {
    while (q != stop && (*q == ' ' || *q == '\t' || *q == '.')) ++q;
    const char* const begin = q;
    while (q != stop && IsIdentifierByte(*q)) ++q;
    word = std::string_view(begin, static_cast<std::size_t>(q - begin));
  } while (!word.empty() && word != "import");
  looked_ahead_ += static_cast<std::size_t>(q - p_);
  return !word.empty();
}

Lexer::Stop Lexer::EndOfText() {
  if (!frames_.empty()) {
    Recover(end_, line_number_);
    return Stop::kLine;
  }
  if (line_.tokens.empty()) return Stop::kEnd;
  mode_ = Mode::kIndentation;
  column_ = alt_column_ = 0;
  ForgetLambdas();
  line_done_ = true;
  return Stop::kLine;
}

void Lexer::Recover(const char* line_start, std::uint32_t line_number) {
  const Frame& outermost = frames_.front();
  if (outermost.kind == FrameKind::kLiteral) {
    errors_.Add(outermost.line, "unterminated f-string literal");
  } else {
    errors_.AddBracket(outermost.line, "", base_[outermost.begin], " was never closed");
  }
  Place to{line_start, line_number};
  if (candidate_.at != nullptr && candidate_.at < line_start && MayWalkBack(candidate_.at)) {
    to = candidate_;
  }
  if (p_ > to.at) walked_back_ += static_cast<std::size_t>(p_ - to.at);
  CutLine(to.at);
  p_ = to.at;
  line_number_ = to.line;
  line_start_ = p_;
  column_ = alt_column_ = 0;
  mode_ = Mode::kIndentation;
  line_done_ = true;
}

void Lexer::CutInner(std::uint32_t at) {
  std::uint32_t size = line_.inner.size();
  while (size > 0 && line_.inner[size - 1].begin >= at) --size;
  line_.inner.Resize(size);
}

// Drops what begins at or behind `at` from the line, and everything that is open.
void Lexer::CutLine(const char* at) {
  const std::uint32_t cut = Offset(at);
  TokenList& tokens = line_.tokens;
  for (const Frame& frame : frames_) {
    if (frame.kind == FrameKind::kLiteral && frame.token != kNoToken) {
      tokens[frame.token].flags |= kOpaqueToken;
    }
  }
  std::uint32_t size = tokens.size();
  while (tokens[size - 1].begin >= cut) --size;
  tokens.Resize(size);
  for (std::uint32_t i = 0; i < size; ++i) {
    Token& token = tokens[i];
    if (token.kind == Tok::kOpen && token.match >= size) {
      token.match = size;
      token.flags |= kOpaqueToken;
    }
    if (token.end > cut) {
      token.end = cut;
      token.flags |= kOpaqueToken;
    }
  }
  std::vector<Walrus>& walruses = line_.walruses;
  while (!walruses.empty() && walruses.back().begin >= cut) walruses.pop_back();
  for (Walrus& walrus : walruses) {
    if (walrus.token >= size) walrus.token = kNoToken;
  }
  while (!line_.yields.empty() && line_.yields.back() >= size) line_.yields.pop_back();
  CutInner(cut);
  line_.last_line = tokens.back().line;
  frames_.clear();
  ForgetLambdas();
  open_ = {};
  outer_open_.clear();
  literals_ = 0;
  candidate_ = {nullptr, 0};
}

}  // namespace loom::pyscan
