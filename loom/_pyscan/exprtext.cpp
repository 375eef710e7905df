#include "loom/_pyscan/exprtext.h"

namespace loom::pyscan {
namespace {

std::string_view TextOf(std::string_view source, const Token& token) {
  return source.substr(token.begin, token.end - token.begin);
}

void AppendShortString(std::string_view source, const Token& token, std::string& out) {
  const std::string_view text = TextOf(source, token);
  const std::size_t quote = text.find_first_of("'\"");
  out += text.substr(0, quote + 1);
  out += kElided;
  out += text[quote];
}

void AppendShape(std::string_view source, const TokenList& tokens, std::size_t begin,
                 std::size_t end, std::string& out) {
  if (tokens[begin].kind == Tok::kString) {
    bool only_strings = true;
    for (std::size_t i = begin; i < end && only_strings; ++i) {
      only_strings = tokens[i].kind == Tok::kString;
    }
    if (only_strings) {
      AppendShortString(source, tokens[begin], out);
      return;
    }
  }
  std::size_t i = begin;
  std::size_t length = 0;
  while (i + 1 < end && tokens[i].kind == Tok::kName) {
    length += tokens[i].end - tokens[i].begin + 1;
    ++i;
    if (tokens[i].kind != Tok::kDot) break;
    ++i;
  }
  if (i < end && tokens[i].kind == Tok::kOpen && tokens[i].match + 1 == end) {
    const char bracket = source[tokens[i].begin];
    if (i == begin || (bracket == '(' && length <= kMaxExpressionText)) {
      for (std::size_t j = begin; j < i; ++j) out += TextOf(source, tokens[j]);
      out += bracket;
      out += kElided;
      out += bracket == '(' ? ')' : bracket == '[' ? ']' : '}';
      return;
    }
  }
  out += kElided;
}

}  // namespace

void AppendExpression(std::string_view source, const TokenList& tokens, std::size_t begin,
                      std::size_t end, std::string& out) {
  if (begin >= end) return;
  const std::size_t start = out.size();
  // Tokens that the source holds just as they are to be written are copied at once.
  std::uint32_t run_begin = tokens[begin].begin;
  std::uint32_t run_end = run_begin;
  const auto flush = [&] { out += source.substr(run_begin, run_end - run_begin); };
  for (std::size_t i = begin; i < end; ++i) {
    const Token& token = tokens[i];
    const bool opaque = (token.flags & kOpaqueToken) != 0;
    // In a half-typed line brackets stay open, and a ";" may stand in them.
    const bool whole = token.kind != Tok::kSemicolon &&
                       (token.kind != Tok::kOpen || (!opaque && token.match < end));
    const bool apart = token.begin != run_end;
    const bool blank = apart && tokens[i - 1].kind != Tok::kOpen && token.kind != Tok::kClose;
    const bool short_string = token.kind == Tok::kString && opaque;
    const bool joins = !short_string && apart == blank &&
                       (!blank || (token.begin == run_end + 1 && source[run_end] == ' '));
    if (!joins) {
      flush();
      if (blank) out += ' ';
      run_begin = token.begin;
    }
    run_end = token.end;
    if (short_string) {
      AppendShortString(source, token, out);
      run_begin = token.end;
    }
    if (!whole || out.size() - start + (run_end - run_begin) > kMaxExpressionText) {
      out.resize(start);
      AppendShape(source, tokens, begin, end, out);
      return;
    }
  }
  flush();
}

}  // namespace loom::pyscan
