// Expressions as text for information strings.

#ifndef LOOM_PYSCAN_EXPRTEXT_H_
#define LOOM_PYSCAN_EXPRTEXT_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "loom/_pyscan/token.h"

namespace loom::pyscan {

// A longer expression is told by its shape.
inline constexpr std::size_t kMaxExpressionText = 240;
// What stands for an expression without a simple shape.
inline constexpr std::string_view kElided = "...";

// Appends the expression of tokens[begin, end): its source without comments, each run of blanks and
// line ends outside of string literals as one blank, and none right inside of a bracket. If that is
// longer than kMaxExpressionText, its outermost shape only: "[...]", "{...}", "(...)", "name(...)",
// "'...'" with the prefix and quote of the literal, else "...". An f-string whose end a reader of
// plain literals would misjudge is written in its short form.
//
// Brackets and quotes in the result are balanced, and no ";" stands outside of them.
void AppendExpression(std::string_view source, const TokenList& tokens, std::size_t begin,
                      std::size_t end, std::string& out);

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_EXPRTEXT_H_
