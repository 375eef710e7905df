// Code: words, numbers, operators, brackets, lambdas.

#include "loom/_pyscan/keywords.h"
#include "loom/_pyscan/lexer.h"

namespace loom::pyscan {

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
          Emit(Tok::kEllipsis, p_, p_ + 3);
          p_ += 3;
        } else {
          Emit(Tok::kDot, p_, p_ + 1);
          ++p_;
        }
        break;
      }
      case ByteClass::kOperator: {
        const auto [kind, length] = Operator();
        Emit(kind, p_, p_ + length);
        p_ += length;
        break;
      }
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
        ForgetLambdas();
        mode_ = Mode::kIndentation;
        if (line_.tokens.empty()) return Stop::kGo;
        line_done_ = true;
        return Stop::kLine;
      case ByteClass::kBackslash:
        LexBackslash();
        if (mode_ != Mode::kCode) return Stop::kGo;
        break;
      case ByteClass::kBad:
        errors_.Add(line_number_,
                    *p_ == '\0' ? "source code cannot contain null bytes" : "invalid character");
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
  const bool stored = Emit(kind, begin, q) != nullptr;
  switch (kind) {
    case Tok::kKwLambda:
      lambdas_.push_back({frames_.size(), false});
      break;
    case Tok::kKwFor:
    case Tok::kKwAsync:
      PopLambdaBodies();
      break;
    case Tok::kKwYield:
      if (stored && lambda_bodies_ == 0) line_.yields.push_back(line_.tokens.size() - 1);
      break;
    default:
      break;
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

std::pair<Tok, std::size_t> Lexer::Operator() {
  const char c = *p_;
  const char next = Peek(1);
  switch (c) {
    case '=':
      if (next == '=') return {Tok::kOperator, 2};
      return {InLambdaParameters() ? Tok::kLambdaEqual : Tok::kEqual, 1};
    case ',':
      PopLambdaBodies();
      return {InLambdaParameters() ? Tok::kLambdaComma : Tok::kComma, 1};
    case ';':
      if (frames_.empty()) ForgetLambdas();
      return {Tok::kSemicolon, 1};
    case '*':
      if (next == '*') {
        return Peek(2) == '=' ? std::pair(Tok::kAugmented, std::size_t{3})
                              : std::pair(Tok::kDoubleStar, std::size_t{2});
      }
      if (next != '=') return {Tok::kStar, 1};
      break;
    case '/':
    case '<':
    case '>':
      if (next == c) {
        return Peek(2) == '=' ? std::pair(Tok::kAugmented, std::size_t{3})
                              : std::pair(Tok::kOperator, std::size_t{2});
      }
      if (c == '/') {
        if (next != '=') return {Tok::kSlash, 1};
        break;
      }
      return {Tok::kOperator, next == '=' || (c == '<' && next == '>') ? 2 : 1};
    case '-':
      if (next == '>') return {Tok::kArrow, 2};
      break;
    case '!':
      return {Tok::kOperator, next == '=' ? 2 : 1};
    case '@':
      if (next != '=') return {Tok::kAt, 1};
      break;
    default:
      break;
  }
  if (next == '=' && c != '~') return {Tok::kAugmented, 2};
  return {Tok::kOperator, 1};
}

void Lexer::PopLambdaBodies() {
  while (!lambdas_.empty() && lambdas_.back().depth == frames_.size() && lambdas_.back().body) {
    lambdas_.pop_back();
    --lambda_bodies_;
  }
}

bool Lexer::InLambdaParameters() const {
  return !lambdas_.empty() && lambdas_.back().depth == frames_.size() && !lambdas_.back().body;
}

void Lexer::ForgetLambdas() {
  lambdas_.clear();
  lambda_bodies_ = 0;
}

void Lexer::LexColon() {
  if (!frames_.empty() && frames_.back().kind == FrameKind::kField) {
    Frame format = frames_.back();
    format.kind = FrameKind::kFormat;
    frames_.push_back(format);
    ++p_;
    mode_ = Mode::kFormatted;
    return;
  }
  if (Peek(1) == '=') {
    if (last_.kind == Tok::kName && lambda_bodies_ == 0 &&
        line_.walruses.size() < kMaxNestedTokens) {
      const std::uint32_t token = MayStore() ? line_.tokens.size() : kNoToken;
      line_.walruses.push_back({last_.begin, last_.end, last_.line, token});
    }
    Emit(Tok::kWalrus, p_, p_ + 2);
    p_ += 2;
    return;
  }
  PopLambdaBodies();
  Tok kind = Tok::kColon;
  if (InLambdaParameters()) {
    lambdas_.back().body = true;
    ++lambda_bodies_;
    kind = Tok::kLambdaColon;
  }
  Emit(kind, p_, p_ + 1);
  ++p_;
}

void Lexer::OpenBracket() {
  const FrameKind kind = *p_ == '('   ? FrameKind::kRound
                         : *p_ == '[' ? FrameKind::kSquare
                                      : FrameKind::kCurly;
  Frame frame{Offset(p_), line_number_, kNoToken, kind, '\0', false, false};
  if (MayStore()) frame.token = line_.tokens.size();
  if (frames_.size() >= kMaxNesting) {
    errors_.Add(line_number_, "too many nested brackets");
    ++p_;
    return;
  }
  Emit(Tok::kOpen, p_, p_ + 1);
  ++p_;
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
        errors_.AddBracket(frame.line, "", base_[frame.begin], " was never closed");
        if (frame.token != kNoToken) {
          line_.tokens[frame.token].flags |= kOpaqueToken;
          line_.tokens[frame.token].match = line_.tokens.size();
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
    case FrameKind::kFormat:
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
    line_.tokens[opener].match = line_.tokens.size();
    line_.tokens.Add(last_);
  } else if (keep_inner_) {
    KeepInner(last_);
  }
}

}  // namespace loom::pyscan
