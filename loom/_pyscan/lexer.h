// The lexer: cuts Python source into logical lines of tokens, resumably.
//
// It walks forward through the bytes with an explicit stack of open brackets, f-strings and
// replacement fields, so that no nesting can exhaust the machine's stack, and can stop behind any
// token, in the middle of a string literal, a comment or a run of blanks, and go on from there.
//
// What can't be Python is reported and left out; no input makes it fail. Two errors make it walk
// back. When a line inside of brackets starts with a keyword that no expression can hold, or the
// text ends there, the bracket was never closed: the logical line ends before the first line behind
// the opening bracket that could start a statement by its indentation, and that is lexed anew. When
// the text ends inside of a triple-quoted literal, or a name follows its end, a quote is missing:
// the literal ends with its first line. The bytes walked back over are limited to kWalkBackFactor
// times the length of the text, so that the time stays linear; after that there is no walking back.

#ifndef LOOM_PYSCAN_LEXER_H_
#define LOOM_PYSCAN_LEXER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "loom/_pyscan/chars.h"
#include "loom/_pyscan/errors.h"
#include "loom/_pyscan/token.h"
#include "pysource/stringliteral.h"

namespace loom::pyscan {

using pysource::ClassifyStringPrefix;
using pysource::IsTripleQuote;
using pysource::SkipStringBody;
using pysource::StringPrefix;
using pysource::StringSkip;
using pysource::StringStop;

class Lexer {
 public:
  enum class Event {
    kMore,  // stopped at the limit; call Run again
    kLine,  // line() holds a logical line, which has at least one token
    kEnd,   // the text is used up
  };

  static constexpr std::size_t kWalkBackFactor = 2;
  // Brackets nested more deeply are passed over, f-strings taken as plain ones. Python allows 200.
  static constexpr std::size_t kMaxNesting = 1u << 16;
  // Longer identifiers and numbers are cut into pieces.
  static constexpr std::size_t kMaxWordLength = 1u << 16;
  // Of a logical line with more tokens, those inside of brackets are dropped, and beyond the second
  // limit all of them.
  static constexpr std::uint32_t kMaxNestedTokens = 1u << 16;
  static constexpr std::uint32_t kMaxTokens = 1u << 17;
  static constexpr std::ptrdiff_t kMaxLookAhead = 4096;

  // Requires `source` to be shorter than 4 GiB and, like `errors`, to outlive the lexer.
  // With keep_inner, the tokens inside of f-strings are kept apart.
  Lexer(std::string_view source, ErrorList& errors, bool keep_inner = false);

  // Lexes about max_bytes, at least one token. The line of an earlier kLine is gone.
  Event Run(std::size_t max_bytes);

  const LogicalLine& line() const { return line_; }
  // Bytes walked by the last Run, those walked or looked at twice counted twice.
  std::size_t walked() const { return walked_; }
  std::size_t position() const { return static_cast<std::size_t>(p_ - base_); }

 private:
  enum class Mode : std::uint8_t { kIndentation, kContinuation, kCode, kString, kFormatted };
  enum class Stop : std::uint8_t { kGo, kLimit, kLine, kEnd };
  enum class FrameKind : std::uint8_t { kRound, kSquare, kCurly, kField, kLiteral, kFormat };

  struct Frame {
    std::uint32_t begin;
    std::uint32_t line;
    std::uint32_t token;  // index of the stored token, or kNoToken
    FrameKind kind;
    char quote;  // of kLiteral and kFormat
    bool triple;
    bool raw;
  };
  struct Lambda {
    std::size_t depth;  // frames_.size() where it stands
    bool body;          // behind its colon
  };
  struct Place {
    const char* at;
    std::uint32_t line;
  };
  using OpenCounts = std::array<std::uint32_t, 3>;

  Stop LexIndentation();
  Stop LexContinuation();
  Stop LexCode();
  Stop LexString();
  Stop LexFormatted();
  Stop EndOfText();

  void LexWord();
  void LexNumber();
  // The operator at p_ and its length.
  std::pair<Tok, std::size_t> Operator();
  void StartString(const char* begin, StringPrefix prefix);
  void CloseString();
  void EndString(bool opaque);
  bool NameFollows();
  bool WalkBackInto(const Frame& literal);
  void LexBackslash();
  void LexColon();
  void OpenBracket();
  void CloseBracket();
  void EndField();
  std::size_t InnermostLiteral() const;
  void EndLiteral(bool opaque);
  void PopFrame(bool unclosed);
  void PopLambdaBodies();
  bool InLambdaParameters() const;
  void ForgetLambdas();

  // Ends the logical line inside of brackets, before the line that p_ is on, or earlier.
  void Recover(const char* line_start, std::uint32_t line_number);
  bool MayWalkBack(const char* to);
  void CutLine(const char* at);
  void CutInner(std::uint32_t at);
  bool SkipBlanks();
  bool SkipComment();
  bool SkipConflictMarker();
  void PassNewline();
  bool StartsStatement();
  bool AtFromImport();

  // Returns the stored token, or null if it is not to be stored.
  [[gnu::always_inline]] Token* Emit(Tok kind, const char* begin, const char* end) {
    last_ = {Offset(begin), Offset(end), line_number_, kNoToken, kind, 0};
    line_.last_line = line_number_;
    if (MayStore()) return &line_.tokens.Add(last_);
    if (keep_inner_) KeepInner(last_);
    return nullptr;
  }
  void KeepInner(const Token& token) {
    if (literals_ != 0 && line_.inner.size() < kMaxNestedTokens) line_.inner.Add(token);
  }
  bool MayStore() const {
    return literals_ == 0 &&
           line_.tokens.size() < (frames_.empty() ? kMaxTokens : kMaxNestedTokens);
  }
  std::uint32_t Offset(const char* p) const { return static_cast<std::uint32_t>(p - base_); }
  // How far a question about what follows p_ may look: no further than a line of reasonable length.
  const char* LookAheadEnd() const { return end_ - p_ > kMaxLookAhead ? p_ + kMaxLookAhead : end_; }
  bool AtEnd() const { return p_ == end_; }
  char Peek(std::size_t n) const { return static_cast<std::size_t>(end_ - p_) > n ? p_[n] : '\0'; }

  const char* const base_;
  const char* const end_;
  ErrorList& errors_;
  const bool keep_inner_;
  const char* p_;
  const char* limit_;
  const char* line_start_;
  std::uint32_t line_number_ = 1;
  Mode mode_ = Mode::kIndentation;
  bool line_done_ = false;
  bool in_comment_ = false;
  bool after_backslash_ = false;  // kContinuation was reached by a backslash and not in brackets

  // kIndentation and kContinuation.
  std::uint32_t column_ = 0;
  std::uint32_t alt_column_ = 0;
  std::uint32_t first_column_ = 0;  // of an indentation with backslashes; 0 if it has none

  // The plain literal of kString.
  Frame string_{};

  LogicalLine line_;
  Token last_{};  // the last token, stored or not
  std::vector<Frame> frames_;
  std::vector<Lambda> lambdas_;
  std::size_t lambda_bodies_ = 0;
  OpenCounts open_{};                   // open brackets since the innermost field began
  std::vector<OpenCounts> outer_open_;  // the same of the fields around it
  std::size_t literals_ = 0;            // kLiteral frames
  char outer_quote_ = '\0';             // of the outermost literal
  bool outer_opaque_ = false;
  Place candidate_{nullptr, 0};  // where Recover would go on
  std::size_t walk_back_left_;
  std::size_t walked_ = 0;
  std::size_t looked_ahead_ = 0;  // in this Run
  std::size_t walked_back_ = 0;   // in this Run
};

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_LEXER_H_
