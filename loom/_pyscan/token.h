// Tokens of one logical line.

#ifndef LOOM_PYSCAN_TOKEN_H_
#define LOOM_PYSCAN_TOKEN_H_

#include <cstdint>
#include <limits>
#include <string_view>
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

// A name bound by ":=" outside of every lambda.
struct Walrus {
  std::uint32_t begin;
  std::uint32_t end;
  std::uint32_t line;
  std::uint32_t token;  // index of the ":=" token, or kNoToken inside an f-string
};

struct LogicalLine {
  std::vector<Token> tokens;
  std::vector<Walrus> walruses;
  std::uint32_t column = 0;      // of the first token, tabs to multiples of 8
  std::uint32_t alt_column = 0;  // the same with tabs as one column
  std::uint32_t last_line = 0;   // line on which the last token ends
};

// The keyword that `text` is, or Tok::kName. `readable` is the number of bytes that may be read from
// text.data(), at least text.size().
Tok ClassifyWord(std::string_view text, std::size_t readable);

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_TOKEN_H_
