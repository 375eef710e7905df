#include "loom/_pyscan/lexer.h"

#include <algorithm>

namespace loom::pyscan {
namespace {

constexpr std::uint32_t kTabSize = 8;
// The longest name between the braces of "\N{...}" that is looked for.
constexpr std::ptrdiff_t kMaxCharacterName = 256;
constexpr std::size_t kConflictMarkerLength = 7;

char BracketOf(std::uint8_t kind) { return "([{{"[kind]; }

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

Lexer::Lexer(std::string_view source, ErrorList& errors)
    : base_(source.data()),
      end_(source.data() + source.size()),
      errors_(errors),
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
    line_.tokens.clear();
    line_.walruses.clear();
    last_ = Token{};
  }
  const std::size_t start = position();
  const std::size_t left = static_cast<std::size_t>(end_ - p_);
  limit_ = max_bytes < left ? p_ + std::max<std::size_t>(max_bytes, 1) : end_;
  walked_back_ = 0;
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
  walked_ = position() + walked_back_ - start;
  if (stop == Stop::kLine) return Event::kLine;
  return stop == Stop::kEnd ? Event::kEnd : Event::kMore;
}

// --- Lines -------------------------------------------------------------------------------------

void Lexer::PassNewline() {
  p_ += *p_ == '\r' && Peek(1) == '\n' ? 2 : 1;
  ++line_number_;
  line_start_ = p_;
  column_ = alt_column_ = 0;
}

bool Lexer::SkipBlanks() {
  for (; p_ < limit_; ++p_) {
    if (*p_ == ' ') {
      ++column_;
      ++alt_column_;
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
        lambdas_.clear();
        lambda_bodies_ = 0;
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
bool Lexer::StartsStatement() const {
  const char* q = p_;
  while (q != end_ && q - p_ < 9 && *q >= 'a' && *q <= 'z') ++q;
  if (q != end_ && IsIdentifierByte(*q)) return false;
  const std::string_view word(p_, static_cast<std::size_t>(q - p_));
  const Tok tok = ClassifyWord(word, static_cast<std::size_t>(end_ - p_));
  if (after_backslash_) return tok == Tok::kKwDef || tok == Tok::kKwClass;
  if (tok == Tok::kKwFrom) return AtFromImport();
  if (tok == Tok::kKwAsync) {
    while (q != end_ && (*q == ' ' || *q == '\t')) ++q;
    const std::string_view rest(q, static_cast<std::size_t>(end_ - q));
    return rest.starts_with("def ") || rest.starts_with("with ");
  }
  return IsStatementKeyword(tok);
}

// Whether "from", dots and names, "import" stand at p_: "from" alone may follow "yield" or "raise".
bool Lexer::AtFromImport() const {
  const char* q = p_ + 4;
  for (;;) {
    while (q != end_ && (*q == ' ' || *q == '\t' || *q == '.')) ++q;
    const char* word = q;
    while (q != end_ && IsIdentifierByte(*q)) ++q;
    if (q == word) return false;
    if (std::string_view(word, static_cast<std::size_t>(q - word)) == "import") return true;
  }
}

// --- Code --------------------------------------------------------------------------------------

bool Lexer::MayStore() const {
  return literals_ == 0 &&
         line_.tokens.size() < (frames_.empty() ? kMaxTokens : kMaxNestedTokens);
}

Token* Lexer::Emit(Tok kind, const char* begin, const char* end) {
  last_ = {Offset(begin), Offset(end), line_number_, kNoToken, kind, 0};
  line_.last_line = line_number_;
  return MayStore() ? &line_.tokens.emplace_back(last_) : nullptr;
}

Lexer::Stop Lexer::LexCode() {
  for (;;) {
    if (p_ >= limit_) return AtEnd() ? EndOfText() : Stop::kLimit;
    switch (ClassOf(*p_)) {
      case ByteClass::kBlank:
        do ++p_;
        while (p_ < limit_ && ClassOf(*p_) == ByteClass::kBlank);
        break;
      case ByteClass::kIdentifier:
        LexWord();
        if (mode_ != Mode::kCode) return Stop::kGo;
        break;
      case ByteClass::kDigit:
        LexNumber();
        break;
      case ByteClass::kDot: {
        const char next = Peek(1);
        if (next >= '0' && next <= '9') {
          LexNumber();
        } else if (next == '.' && Peek(2) == '.') {
          Emit(Tok::kEllipsis, 3);
        } else {
          Emit(Tok::kDot, 1);
        }
        break;
      }
      case ByteClass::kOperator:
        LexOperator();
        break;
      case ByteClass::kOpen:
        OpenBracket();
        break;
      case ByteClass::kClose:
        CloseBracket();
        if (mode_ != Mode::kCode) return Stop::kGo;
        break;
      case ByteClass::kColon:
        LexColon();
        if (mode_ != Mode::kCode) return Stop::kGo;
        break;
      case ByteClass::kQuote:
        StartString(p_, StringPrefix{});
        if (mode_ != Mode::kCode) return Stop::kGo;
        break;
      case ByteClass::kHash:
        if (literals_ != 0) outer_opaque_ = true;
        in_comment_ = true;
        if (!SkipComment()) return Stop::kLimit;
        break;
      case ByteClass::kNewline:
        PassNewline();
        if (!frames_.empty()) {
          if (literals_ != 0) outer_opaque_ = true;
          after_backslash_ = false;
          mode_ = Mode::kContinuation;
          return Stop::kGo;
        }
        lambdas_.clear();
        lambda_bodies_ = 0;
        mode_ = Mode::kIndentation;
        if (line_.tokens.empty()) return Stop::kGo;
        line_done_ = true;
        return Stop::kLine;
      case ByteClass::kBackslash:
        LexBackslash();
        if (mode_ != Mode::kCode) return Stop::kGo;
        break;
      case ByteClass::kBad:
        errors_.Add(line_number_, *p_ == '\0' ? "source code cannot contain null bytes"
                                              : "invalid character");
        ++p_;
        break;
    }
  }
}

void Lexer::LexBackslash() {
  ++p_;
  if (AtEnd()) {
    errors_.Add(line_number_, "unexpected end of file behind a line continuation");
  } else if (IsNewline(*p_)) {
    PassNewline();
    after_backslash_ = frames_.empty();
    mode_ = Mode::kContinuation;
  } else {
    errors_.Add(line_number_, "unexpected character behind a line continuation");
  }
}

void Lexer::LexWord() {
  const char* const begin = p_;
  const char* const stop =
      static_cast<std::size_t>(end_ - p_) > kMaxWordLength ? p_ + kMaxWordLength : end_;
  const char* q = p_ + 1;
  while (q != stop && IsIdentifierByte(*q)) ++q;
  const std::string_view word(begin, static_cast<std::size_t>(q - begin));
  if (q != end_ && (*q == '"' || *q == '\'')) {
    const StringPrefix prefix = ClassifyStringPrefix(word);
    if (prefix.valid) {
      p_ = q;
      StartString(begin, prefix);
      return;
    }
  }
  if (q == stop && q != end_ && IsIdentifierByte(*q)) {
    errors_.Add(line_number_, "identifier too long");
  }
  const Tok kind = ClassifyWord(word, static_cast<std::size_t>(end_ - begin));
  p_ = q;
  Emit(kind, begin, q);
  if (kind == Tok::kKwLambda) {
    lambdas_.push_back({frames_.size(), false});
  } else if (kind == Tok::kKwFor || kind == Tok::kKwAsync) {
    PopLambdaBodies();
  }
}

void Lexer::LexNumber() {
  const char* q = p_;
  const char* const stop =
      static_cast<std::size_t>(end_ - p_) > kMaxWordLength ? p_ + kMaxWordLength : end_;
  const auto digits = [&] {
    while (q != stop && ((*q >= '0' && *q <= '9') || *q == '_')) ++q;
  };
  const char base = static_cast<char>(Peek(1) | 0x20);
  if (*q == '0' && (base == 'x' || base == 'o' || base == 'b')) {
    q += 2;
    digits();
    if (base == 'x') {
      while (q != stop && ((*q >= '0' && *q <= '9') || *q == '_' || (*q >= 'a' && *q <= 'f') ||
                           (*q >= 'A' && *q <= 'F'))) {
        ++q;
      }
    }
  } else {
    digits();
    if (q != stop && *q == '.') {
      ++q;
      digits();
    }
    if (q != stop && (*q == 'e' || *q == 'E')) {
      const char* exponent = q + 1;
      if (exponent != stop && (*exponent == '+' || *exponent == '-')) ++exponent;
      if (exponent != stop && *exponent >= '0' && *exponent <= '9') {
        q = exponent;
        digits();
      }
    }
  }
  if (q != stop && (*q == 'j' || *q == 'J' || *q == 'l' || *q == 'L')) ++q;
  Emit(Tok::kNumber, p_, q);
  p_ = q;
}

void Lexer::LexOperator() {
  const char c = *p_;
  const char next = Peek(1);
  switch (c) {
    case '=':
      if (next == '=') {
        Emit(Tok::kOperator, 2);
      } else {
        const bool parameter = !lambdas_.empty() && lambdas_.back().depth == frames_.size() &&
                               !lambdas_.back().body;
        Emit(parameter ? Tok::kLambdaEqual : Tok::kEqual, 1);
      }
      return;
    case ',': {
      PopLambdaBodies();
      const bool parameter = !lambdas_.empty() && lambdas_.back().depth == frames_.size();
      Emit(parameter ? Tok::kLambdaComma : Tok::kComma, 1);
      return;
    }
    case ';':
      if (frames_.empty()) {
        lambdas_.clear();
        lambda_bodies_ = 0;
      }
      Emit(Tok::kSemicolon, 1);
      return;
    case '*':
    case '/':
    case '<':
    case '>':
      if (next == c) {
        if (Peek(2) == '=') {
          Emit(Tok::kAugmented, 3);
        } else {
          Emit(c == '*' ? Tok::kDoubleStar : Tok::kOperator, 2);
        }
      } else if (next == '=') {
        Emit(c == '*' || c == '/' ? Tok::kAugmented : Tok::kOperator, 2);
      } else if (c == '<' && next == '>') {
        Emit(Tok::kOperator, 2);
      } else {
        Emit(c == '*' ? Tok::kStar : c == '/' ? Tok::kSlash : Tok::kOperator, 1);
      }
      return;
    case '-':
      if (next == '>') {
        Emit(Tok::kArrow, 2);
        return;
      }
      break;
    case '!':
      Emit(Tok::kOperator, next == '=' ? 2 : 1);
      return;
    default:
      break;
  }
  if (next == '=' && c != '~') {
    Emit(Tok::kAugmented, 2);
  } else {
    Emit(c == '@' ? Tok::kAt : Tok::kOperator, 1);
  }
}

// --- Brackets and lambdas ----------------------------------------------------------------------

void Lexer::PopLambdaBodies() {
  while (!lambdas_.empty() && lambdas_.back().depth == frames_.size() && lambdas_.back().body) {
    lambdas_.pop_back();
    --lambda_bodies_;
  }
}

void Lexer::LexColon() {
  if (!frames_.empty() && frames_.back().kind == FrameKind::kField) {
    Frame spec = frames_.back();
    spec.kind = FrameKind::kFormatSpec;
    frames_.push_back(spec);
    ++p_;
    mode_ = Mode::kFormatted;
    return;
  }
  if (Peek(1) == '=') {
    if (last_.kind == Tok::kName && lambda_bodies_ == 0) {
      const std::uint32_t token =
          MayStore() ? static_cast<std::uint32_t>(line_.tokens.size()) : kNoToken;
      line_.walruses.push_back({last_.begin, last_.end, last_.line, token});
    }
    Emit(Tok::kWalrus, 2);
    return;
  }
  PopLambdaBodies();
  if (!lambdas_.empty() && lambdas_.back().depth == frames_.size()) {
    lambdas_.back().body = true;
    ++lambda_bodies_;
    Emit(Tok::kLambdaColon, 1);
  } else {
    Emit(Tok::kColon, 1);
  }
}

void Lexer::OpenBracket() {
  const FrameKind kind = *p_ == '('   ? FrameKind::kRound
                         : *p_ == '[' ? FrameKind::kSquare
                                      : FrameKind::kCurly;
  Frame frame{Offset(p_), line_number_, kNoToken, kind, '\0', false, false};
  if (MayStore()) frame.token = static_cast<std::uint32_t>(line_.tokens.size());
  Emit(Tok::kOpen, 1);
  if (frame.token != kNoToken && line_.tokens.size() >= kMaxNestedTokens) {
    line_.tokens[frame.token].flags |= kOpaqueToken;
  }
  frames_.push_back(frame);
  ++open_[static_cast<std::size_t>(kind)];
}

void Lexer::PopFrame(bool unclosed) {
  const Frame frame = frames_.back();
  frames_.pop_back();
  while (!lambdas_.empty() && lambdas_.back().depth > frames_.size()) {
    if (lambdas_.back().body) --lambda_bodies_;
    lambdas_.pop_back();
  }
  switch (frame.kind) {
    case FrameKind::kRound:
    case FrameKind::kSquare:
    case FrameKind::kCurly:
      --open_[static_cast<std::size_t>(frame.kind)];
      if (unclosed) {
        errors_.AddBracket(frame.line, "", BracketOf(static_cast<std::uint8_t>(frame.kind)),
                           " was never closed");
        if (frame.token != kNoToken) {
          line_.tokens[frame.token].flags |= kOpaqueToken;
          line_.tokens[frame.token].match = static_cast<std::uint32_t>(line_.tokens.size());
        }
      }
      break;
    case FrameKind::kField:
      open_ = outer_open_.back();
      outer_open_.pop_back();
      break;
    case FrameKind::kLiteral:
      --literals_;
      break;
    case FrameKind::kFormatSpec:
      break;
  }
  if (frames_.empty()) candidate_ = {nullptr, 0};
}

void Lexer::CloseBracket() {
  const FrameKind kind = *p_ == ')'   ? FrameKind::kRound
                         : *p_ == ']' ? FrameKind::kSquare
                                      : FrameKind::kCurly;
  if (open_[static_cast<std::size_t>(kind)] == 0) {
    if (*p_ == '}' && literals_ != 0) {
      ++p_;
      EndField();
    } else {
      errors_.AddBracket(line_number_, "unmatched ", *p_, "");
      ++p_;
    }
    return;
  }
  while (frames_.back().kind != kind) PopFrame(true);
  const std::uint32_t opener = frames_.back().token;
  PopFrame(false);
  last_ = {Offset(p_), Offset(p_) + 1, line_number_, kNoToken, Tok::kClose, 0};
  line_.last_line = line_number_;
  ++p_;
  if (opener != kNoToken) {
    line_.tokens[opener].match = static_cast<std::uint32_t>(line_.tokens.size());
    line_.tokens.push_back(last_);
  }
}

// --- Strings -----------------------------------------------------------------------------------

// p_ is at the opening quote, `begin` at the prefix.
void Lexer::StartString(const char* begin, StringPrefix prefix) {
  const char quote = *p_;
  const bool triple = IsTripleQuote(p_, end_);
  if (literals_ != 0 && quote == outer_quote_) outer_opaque_ = true;
  Frame frame{Offset(begin), line_number_, kNoToken, FrameKind::kLiteral, quote, triple,
              prefix.raw};
  p_ += triple ? 3 : 1;
  if (prefix.formatted) {
    if (MayStore()) frame.token = static_cast<std::uint32_t>(line_.tokens.size());
    Emit(Tok::kString, begin, p_);
    if (literals_++ == 0) {
      outer_quote_ = quote;
      outer_opaque_ = false;
    }
    frames_.push_back(frame);
    mode_ = Mode::kFormatted;
    return;
  }
  string_ = frame;
  mode_ = Mode::kString;
  if (p_ < limit_) {
    // The common case ends here, with the mode as it was.
    const StringSkip skip = SkipStringBody(p_, limit_, end_, quote, triple);
    p_ = skip.pos;
    line_number_ += skip.newlines;
    if (skip.stop == StringStop::kClosed) CloseString();
  }
}

// Whether a name follows, which can't be: no name stands behind a string. Then what was taken for
// the end of a triple-quoted literal is the start of the next one.
bool Lexer::NameFollows() const {
  const char* q = p_;
  while (q != end_ && (*q == ' ' || *q == '\t')) ++q;
  if (q == end_ || ClassOf(*q) != ByteClass::kIdentifier) return false;
  const char* const word = q;
  while (q != end_ && q - word <= 9 && IsIdentifierByte(*q)) ++q;
  const std::string_view text(word, static_cast<std::size_t>(q - word));
  if (q != end_ && (*q == '"' || *q == '\'') && ClassifyStringPrefix(text).valid) return false;
  return ClassifyWord(text, static_cast<std::size_t>(end_ - word)) == Tok::kName;
}

// Goes back to the end of the first line of a triple-quoted literal that is not what it seems.
bool Lexer::WalkBackInto(const Frame& literal) {
  const char* const first_line_end = FindAny(base_ + literal.begin, end_, '\n', '\r');
  if (!literal.triple || first_line_end >= p_ || !MayWalkBack(first_line_end)) return false;
  walked_back_ += static_cast<std::size_t>(p_ - first_line_end);
  p_ = first_line_end;
  line_number_ = literal.line;
  std::vector<Walrus>& walruses = line_.walruses;
  const std::uint32_t cut = Offset(p_);
  while (!walruses.empty() && walruses.back().begin >= cut) walruses.pop_back();
  return true;
}

// p_ is behind the closing quote.
void Lexer::CloseString() {
  const bool opaque = string_.triple && NameFollows() && WalkBackInto(string_);
  if (opaque) errors_.Add(string_.line, "unterminated triple-quoted string literal");
  EndString(opaque);
}

void Lexer::EndString(bool opaque) {
  mode_ = Mode::kCode;
  Token* const stored = Emit(Tok::kString, base_ + string_.begin, p_);
  last_.line = string_.line;
  if (stored != nullptr) {
    stored->line = string_.line;
    if (opaque) stored->flags |= kOpaqueToken;
  }
}

bool Lexer::MayWalkBack(const char* to) {
  const std::size_t distance = static_cast<std::size_t>(p_ - to);
  if (distance > walk_back_left_) return false;
  walk_back_left_ -= distance;
  return true;
}

Lexer::Stop Lexer::LexString() {
  const StringSkip skip =
      SkipStringBody(p_, std::max(p_, limit_), end_, string_.quote, string_.triple);
  p_ = skip.pos;
  line_number_ += skip.newlines;
  switch (skip.stop) {
    case StringStop::kLimit:
      return Stop::kLimit;
    case StringStop::kClosed: {
      const std::size_t before = walked_back_;
      CloseString();
      return walked_back_ == before ? Stop::kGo : Stop::kLimit;
    }
    case StringStop::kLineEnd:
      errors_.Add(string_.line, "unterminated string literal");
      EndString(true);
      return Stop::kGo;
    case StringStop::kTextEnd:
      break;
  }
  errors_.Add(string_.line, string_.triple ? "unterminated triple-quoted string literal"
                                           : "unterminated string literal");
  const bool back = WalkBackInto(string_);
  EndString(true);
  return back ? Stop::kLimit : Stop::kGo;
}

// "}" behind the expression or the format of a replacement field.
void Lexer::EndField() {
  while (frames_.back().kind != FrameKind::kField) {
    PopFrame(frames_.back().kind != FrameKind::kFormatSpec);
  }
  PopFrame(false);
  mode_ = Mode::kFormatted;
}

std::size_t Lexer::InnermostLiteral() const {
  std::size_t i = frames_.size() - 1;
  while (frames_[i].kind != FrameKind::kLiteral) --i;
  return i;
}

// Ends the innermost f-string, with whatever is open in it.
void Lexer::EndLiteral(bool opaque) {
  while (frames_.back().kind != FrameKind::kLiteral) PopFrame(false);
  const Frame literal = frames_.back();
  PopFrame(false);
  last_ = {literal.begin, Offset(p_), literal.line, kNoToken, Tok::kString, 0};
  line_.last_line = line_number_;
  if (literal.token != kNoToken) {
    Token& token = line_.tokens[literal.token];
    token.end = last_.end;
    if (opaque || outer_opaque_) token.flags |= kOpaqueToken;
  }
  mode_ = Mode::kCode;
}

Lexer::Stop Lexer::LexFormatted() {
  for (;;) {
    const Frame& frame = frames_.back();
    const bool spec = frame.kind == FrameKind::kFormatSpec;
    p_ = p_ < limit_ ? FindAny(p_, limit_, frame.quote, '\\', '{', '}', '\n', '\r') : p_;
    if (p_ >= limit_) {
      if (!AtEnd()) return Stop::kLimit;
      break;
    }
    const char c = *p_;
    if (c == frame.quote) {
      if (frame.triple && !IsTripleQuote(p_, end_)) {
        ++p_;
        continue;
      }
      p_ += frame.triple ? 3 : 1;
      if (spec) errors_.Add(line_number_, "f-string: expecting '}'");
      const Frame literal = frames_[InnermostLiteral()];
      const bool back = literal.triple && NameFollows() && WalkBackInto(literal);
      if (back) errors_.Add(literal.line, "unterminated triple-quoted f-string literal");
      EndLiteral(spec || back);
      return back ? Stop::kLimit : Stop::kGo;
    }
    if (c == '{') {
      if (!spec && Peek(1) == '{') {
        p_ += 2;
        continue;
      }
      Frame field = frame;
      field.begin = Offset(p_);
      field.line = line_number_;
      field.token = kNoToken;
      field.kind = FrameKind::kField;
      ++p_;
      outer_open_.push_back(open_);
      open_ = {};
      frames_.push_back(field);
      last_ = Token{};
      mode_ = Mode::kCode;
      return Stop::kGo;
    }
    if (c == '}') {
      ++p_;
      if (spec) {
        EndField();
      } else if (p_ != end_ && *p_ == '}') {
        ++p_;
      } else {
        errors_.Add(line_number_, "f-string: single '}' is not allowed");
      }
      continue;
    }
    if (c == '\\') {
      const char next = Peek(1);
      ++p_;
      if (next == '{' || next == '}') continue;
      if (next == 'N' && !frame.raw && Peek(1) == '{') {
        const char* const stop = end_ - p_ > kMaxCharacterName ? p_ + kMaxCharacterName : end_;
        const char* const brace = FindAny(p_ + 2, stop, '}', '{', frame.quote, '\n', '\r');
        p_ = brace != stop && *brace == '}' ? brace + 1 : p_ + 2;
      } else if (IsNewline(next)) {
        PassNewline();
      } else if (p_ != end_) {
        ++p_;
      }
      continue;
    }
    if (!frame.triple) {
      errors_.Add(frame.line, "unterminated f-string literal");
      EndLiteral(true);
      return Stop::kGo;
    }
    PassNewline();
  }
  const Frame literal = frames_[InnermostLiteral()];
  errors_.Add(literal.line, literal.triple ? "unterminated triple-quoted f-string literal"
                                           : "unterminated f-string literal");
  const bool back = WalkBackInto(literal);
  EndLiteral(true);
  return back ? Stop::kLimit : Stop::kGo;
}

// --- Ends --------------------------------------------------------------------------------------

Lexer::Stop Lexer::EndOfText() {
  if (!frames_.empty()) {
    Recover(end_, line_number_);
    return Stop::kLine;
  }
  if (line_.tokens.empty()) return Stop::kEnd;
  mode_ = Mode::kIndentation;
  column_ = alt_column_ = 0;
  lambdas_.clear();
  lambda_bodies_ = 0;
  line_done_ = true;
  return Stop::kLine;
}

void Lexer::Recover(const char* line_start, std::uint32_t line_number) {
  const Frame& outermost = frames_.front();
  if (outermost.kind == FrameKind::kLiteral) {
    errors_.Add(outermost.line, "unterminated f-string literal");
  } else {
    errors_.AddBracket(outermost.line, "", BracketOf(static_cast<std::uint8_t>(outermost.kind)),
                       " was never closed");
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

// Drops what begins at or behind `at` from the line, and everything that is open.
void Lexer::CutLine(const char* at) {
  const std::uint32_t cut = Offset(at);
  std::vector<Token>& tokens = line_.tokens;
  while (tokens.back().begin >= cut) tokens.pop_back();
  const std::uint32_t size = static_cast<std::uint32_t>(tokens.size());
  for (Token& token : tokens) {
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
  line_.last_line = tokens.back().line;
  frames_.clear();
  lambdas_.clear();
  lambda_bodies_ = 0;
  open_ = {};
  outer_open_.clear();
  literals_ = 0;
  candidate_ = {nullptr, 0};
}

}  // namespace loom::pyscan
