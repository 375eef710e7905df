// String literals, f-strings and their replacement fields.

#include <algorithm>

#include "loom/_pyscan/keywords.h"
#include "loom/_pyscan/lexer.h"

namespace loom::pyscan {
namespace {

// The longest name between the braces of "\N{...}" that is looked for.
constexpr std::ptrdiff_t kMaxCharacterName = 256;

}  // namespace

// p_ is at the opening quote, `begin` at the prefix.
void Lexer::StartString(const char* begin, StringPrefix prefix) {
  const char quote = *p_;
  const bool triple = IsTripleQuote(p_, end_);
  if (literals_ != 0 && quote == outer_quote_) outer_opaque_ = true;
  Frame frame{Offset(begin), line_number_, kNoToken,  FrameKind::kLiteral,
              quote,         triple,       prefix.raw};
  p_ += triple ? 3 : 1;
  if (prefix.formatted && frames_.size() < kMaxNesting) {
    if (MayStore()) frame.token = line_.tokens.size();
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
bool Lexer::NameFollows() {
  const char* const stop = LookAheadEnd();
  const char* q = p_;
  while (q != stop && (*q == ' ' || *q == '\t')) ++q;
  looked_ahead_ += static_cast<std::size_t>(q - p_);
  if (q == stop || ClassOf(*q) != ByteClass::kIdentifier) return false;
  const char* const word = q;
  while (q != end_ && q - word <= 9 && IsIdentifierByte(*q)) ++q;
  const std::string_view text(word, static_cast<std::size_t>(q - word));
  if (q != end_ && (*q == '"' || *q == '\'') && ClassifyStringPrefix(text).valid) return false;
  return ClassifyWord(text, static_cast<std::size_t>(end_ - word)) == Tok::kName;
}

// Goes back to the end of the first line of a triple-quoted literal that is not what it seems.
bool Lexer::WalkBackInto(const Frame& literal) {
  const char* const first_line_end = FindAny(base_ + literal.begin, p_, '\n', '\r');
  looked_ahead_ += static_cast<std::size_t>(first_line_end - base_) - literal.begin;
  if (!literal.triple || first_line_end == p_ || !MayWalkBack(first_line_end)) return false;
  walked_back_ += static_cast<std::size_t>(p_ - first_line_end);
  p_ = first_line_end;
  line_number_ = literal.line;
  std::vector<Walrus>& walruses = line_.walruses;
  const std::uint32_t cut = Offset(p_);
  while (!walruses.empty() && walruses.back().begin >= cut) walruses.pop_back();
  CutInner(cut);
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
    const bool unclosed = frames_.back().kind != FrameKind::kFormat;
    // Whoever reads the literal's text alone takes the "}" for the end of that bracket.
    if (unclosed) outer_opaque_ = true;
    PopFrame(unclosed);
  }
  if (keep_inner_) KeepInner({Offset(p_) - 1, Offset(p_), line_number_, kNoToken, Tok::kClose, 0});
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
    const bool in_format = frame.kind == FrameKind::kFormat;
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
      if (in_format) errors_.Add(line_number_, "f-string: expecting '}'");
      const Frame literal = frames_[InnermostLiteral()];
      const bool back = literal.triple && NameFollows() && WalkBackInto(literal);
      if (back) errors_.Add(literal.line, "unterminated triple-quoted f-string literal");
      EndLiteral(in_format || back);
      return back ? Stop::kLimit : Stop::kGo;
    }
    if (c == '{') {
      if (!in_format && Peek(1) == '{') {
        p_ += 2;
        continue;
      }
      if (frames_.size() >= kMaxNesting) {
        errors_.Add(line_number_, "too many nested brackets");
        ++p_;
        continue;
      }
      Frame field = frame;
      field.begin = Offset(p_);
      field.line = line_number_;
      field.token = kNoToken;
      field.kind = FrameKind::kField;
      if (keep_inner_)
        KeepInner({field.begin, field.begin + 1, line_number_, kNoToken, Tok::kOpen, 0});
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
      if (in_format) {
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

}  // namespace loom::pyscan
