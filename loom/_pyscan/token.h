// Tokens of one logical line.

#ifndef LOOM_PYSCAN_TOKEN_H_
#define LOOM_PYSCAN_TOKEN_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

namespace loom::pyscan {

enum class Tok : std::uint8_t {
  kNone,
  kName,
  kNumber,
  kString,
  kOpen,
  kClose,
  kEqual,
  kColon,
  kComma,
  kLambdaEqual,  // "=", ":" and "," that belong to the parameters of a lambda
  kLambdaColon,
  kLambdaComma,
  kSemicolon,
  kDot,
  kEllipsis,
  kStar,
  kDoubleStar,
  kSlash,
  kAt,
  kArrow,
  kWalrus,
  kAugmented,  // "+=" and its like
  kOperator,   // any other
  // Keywords. Those from kKwAssert on can't stand inside an expression.
  kKwAnd,
  kKwAs,
  kKwAsync,
  kKwAwait,
  kKwElse,
  kKwFalse,
  kKwFor,
  kKwFrom,
  kKwIf,
  kKwIn,
  kKwIs,
  kKwLambda,
  kKwNone,
  kKwNot,
  kKwOr,
  kKwTrue,
  kKwYield,
  kKwAssert,
  kKwBreak,
  kKwClass,
  kKwContinue,
  kKwDef,
  kKwDel,
  kKwElif,
  kKwExcept,
  kKwFinally,
  kKwGlobal,
  kKwImport,
  kKwNonlocal,
  kKwPass,
  kKwRaise,
  kKwReturn,
  kKwTry,
  kKwWhile,
  kKwWith,
};

constexpr bool IsKeyword(Tok t) { return t >= Tok::kKwAnd; }
constexpr bool IsStatementKeyword(Tok t) { return t >= Tok::kKwAssert; }

// The text of such a token must not be quoted as it stands: an unclosed bracket, an unterminated
// string, an f-string that a simple reader of literals would see end early, or a token whose inner
// tokens were dropped.
inline constexpr std::uint8_t kOpaqueToken = 1;

inline constexpr std::uint32_t kNoToken = std::numeric_limits<std::uint32_t>::max();

struct Token {
  std::uint32_t begin;
  std::uint32_t end;
  std::uint32_t line;
  std::uint32_t match;  // of kOpen: index of its kClose; one behind the last token if it has none
  Tok kind;
  std::uint8_t flags;
};

// A list of tokens. A vector would do, but for the time that its size and its growth take in the
// innermost loop.
class TokenList {
 public:
  Token& Add(const Token& token) {
    if (size_ == capacity_) Grow();
    return tokens_[size_++] = token;
  }
  void Resize(std::uint32_t size) { size_ = size; }  // only to less

  std::uint32_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  Token& operator[](std::size_t i) { return tokens_[i]; }
  const Token& operator[](std::size_t i) const { return tokens_[i]; }
  const Token& front() const { return tokens_[0]; }
  const Token& back() const { return tokens_[size_ - 1]; }

 private:
  void Grow() {
    const std::uint32_t capacity = capacity_ == 0 ? 256 : 2 * capacity_;
    std::unique_ptr<Token[]> tokens(new Token[capacity]);
    std::copy_n(tokens_.get(), size_, tokens.get());
    tokens_ = std::move(tokens);
    capacity_ = capacity;
  }

  std::unique_ptr<Token[]> tokens_;
  std::uint32_t size_ = 0;
  std::uint32_t capacity_ = 0;
};

// A name bound by ":=" outside of every lambda.
struct Walrus {
  std::uint32_t begin;
  std::uint32_t end;
  std::uint32_t line;
  std::uint32_t token;  // index of the ":=" token, or kNoToken inside an f-string
};

struct LogicalLine {
  TokenList tokens;
  TokenList inner;  // those inside of f-strings, if they are asked for; "{" and "}" of a field, too
  std::vector<Walrus> walruses;
  std::vector<std::uint32_t> yields;  // tokens "yield" outside of lambdas and f-strings
  std::uint32_t column = 0;           // of the first token, tabs to multiples of 8
  std::uint32_t alt_column = 0;       // the same with tabs as one column
  std::uint32_t last_line = 0;        // line on which the last token ends
};

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_TOKEN_H_
