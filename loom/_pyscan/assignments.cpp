// Assignments of all forms, and the targets that they and other statements bind.

#include <algorithm>
#include <utility>

#include "loom/_pyscan/exprtext.h"
#include "loom/_pyscan/statements.h"
#include "pysource/symbolkinds.h"

namespace loom::pyscan {
namespace {

// How many targets of a statement quote its whole expression; the others tell only that there is
// one.
constexpr std::size_t kMaxQuotes = 16;
// A longer way into a nested target is told as kDeepPath.
constexpr std::size_t kMaxPath = 64;
constexpr std::string_view kDeepPath = "[...]";

void Extend(std::string& path, std::string_view step) {
  if (path == kDeepPath) return;
  path += step;
  if (path.size() > kMaxPath) path = kDeepPath;
}

}  // namespace

std::size_t StatementParser::Simple(std::size_t i) {
  std::size_t colon = kNoToken;
  std::size_t first_equal = kNoToken;
  std::size_t last_equal = kNoToken;
  std::size_t augmented = kNoToken;
  std::size_t end = i;
  for (; end < count_ && Kind(end) != Tok::kSemicolon; end = Next(end)) {
    switch (Kind(end)) {
      case Tok::kColon:
        if (colon == kNoToken) colon = end;
        break;
      case Tok::kEqual:
        if (first_equal == kNoToken) first_equal = end;
        last_equal = end;
        break;
      case Tok::kAugmented:
        if (augmented == kNoToken) augmented = end;
        break;
      default:
        break;
    }
  }
  end = std::min(end, count_);
  if (augmented < std::min(colon, first_equal)) {
    Augmented(i, augmented, end);
  } else if (colon < first_equal) {
    Annotated(i, colon, std::min(first_equal, end), end);
  } else if (first_equal != kNoToken) {
    value_.clear();
    Expression(last_equal + 1, end, value_);
    for (std::size_t begin = i; begin <= last_equal;) {
      const std::size_t equal = Find(Tok::kEqual, begin, end);
      if (equal - begin == 1) {
        BindTarget({begin, equal, {}}, value_, Use::kAssign);
      } else {
        Targets(begin, equal, {}, value_, Use::kAssign);
      }
      begin = equal + 1;
    }
  }
  return end;
}

void StatementParser::StripParentheses(std::size_t& begin, std::size_t& end) const {
  while (end - begin > 2 && Bracket(begin) == '(' && CloseOf(begin) + 1 == end) {
    ++begin;
    --end;
  }
}

std::string_view StatementParser::TargetName(std::size_t begin, std::size_t end,
                                             std::string_view& attribute) {
  if (begin >= end || Kind(begin) != Tok::kName) return {};
  if (end - begin == 1) return Text(begin);
  const std::string_view self = results_.scope(scope_).self;
  if (end - begin != 3 || Kind(begin + 1) != Tok::kDot || Kind(begin + 2) != Tok::kName ||
      self.empty() || Text(begin) != self) {
    return {};
  }
  attribute = Text(begin + 2);
  const std::string_view text = Between((*tokens_)[begin].begin, (*tokens_)[begin + 2].end);
  if (text.size() == self.size() + 1 + attribute.size()) return text;
  std::string name(self);
  return results_.Keep(std::move(name.append(1, '.').append(attribute)));
}

void StatementParser::Annotated(std::size_t begin, std::size_t colon, std::size_t equal,
                                std::size_t end) {
  std::size_t target = begin;
  std::size_t target_end = colon;
  StripParentheses(target, target_end);
  std::string_view attribute;
  const std::string_view name = TargetName(target, target_end, attribute);
  if (name.empty()) return;
  const bool has_value = equal < end;
  const bool annotates = target == begin || !attribute.empty();
  if (!annotates && !has_value) {
    PassWord(target);
    return;
  }
  EntryIndex entry = kNoIndex;
  if (annotates) {
    entry = results_.Bind(scope_, name, pysource::kTypeHintKind, Line(target));
    results_.AddPart(entry, Part(pysource::kTypeHintPrefix, colon + 1, equal));
  }
  if (has_value) {
    entry = results_.Bind(scope_, name, pysource::kSetKind, Line(target));
    results_.AddPart(entry, Part(pysource::kSetPrefix, equal + 1, end));
  }
  if (!attribute.empty()) {
    results_.AddInstanceAttribute(scope_, attribute, pysource::kInstanceKind, Line(target));
  } else if (IsModuleOrClass(scope_)) {
    results_.AddAssignedDefinition(entry, pysource::kSetKind, Line(target));
  }
}

// "x += y" is told as the assignment of "x + (y)".
void StatementParser::Augmented(std::size_t begin, std::size_t op, std::size_t end) {
  std::size_t target = begin;
  std::size_t target_end = op;
  StripParentheses(target, target_end);
  std::string_view attribute;
  const std::string_view name = TargetName(target, target_end, attribute);
  if (name.empty()) return;
  const EntryIndex entry = results_.Bind(scope_, name, pysource::kSetKind, Line(target));
  const std::string_view sign = Text(op);
  part_ = pysource::kSetPrefix;
  part_.append(name.size() <= kMaxExpressionText ? name : kElided).append(1, ' ');
  part_.append(sign.substr(0, sign.size() - 1)).append(1, ' ');
  const bool single = end - op <= 2;
  if (!single) part_ += '(';
  Expression(op + 1, end, part_);
  if (!single) part_ += ')';
  results_.AddPart(entry, part_);
}

// Binds the target list tokens[begin, end). `path` tells how its value comes from the expression.
void StatementParser::Targets(std::size_t begin, std::size_t end, std::string path,
                              std::string_view expression, Use use) {
  targets_.clear();
  targets_.push_back({begin, end, std::move(path)});
  while (!targets_.empty()) {
    Target target = std::move(targets_.back());
    targets_.pop_back();
    if (target.begin >= target.end) continue;
    std::size_t inner = target.begin;
    std::size_t inner_end = target.end;
    const bool bracketed = (*tokens_)[inner].kind == Tok::kOpen && CloseOf(inner) + 1 == inner_end;
    const char bracket = Bracket(inner);
    if (bracketed && bracket != '{') {
      ++inner;
      --inner_end;
    }
    if (Find(Tok::kComma, inner, inner_end) == inner_end && bracket != '[') {
      if (bracketed && bracket == '(') {
        targets_.push_back({inner, inner_end, std::move(target.path)});
      } else {
        BindTarget(target, expression, use);
      }
      continue;
    }
    if (!bracketed && bracket == '[' && Find(Tok::kComma, inner, inner_end) == inner_end) {
      BindTarget(target, expression, use);
      continue;
    }
    // A tuple or a list: its elements, behind a starred one counted from the end.
    elements_.clear();
    std::size_t star = kNoToken;
    for (std::size_t i = inner; i < inner_end;) {
      const std::size_t comma = Find(Tok::kComma, i, inner_end);
      const bool starred = Kind(i) == Tok::kStar;
      if (starred && star == kNoToken) star = elements_.size();
      elements_.push_back({starred ? i + 1 : i, comma, {}});
      i = comma + 1;
    }
    for (std::size_t i = elements_.size(); i-- > 0;) {
      std::string step = "[";
      if (star != kNoToken && i > star) step += '-';
      step += std::to_string(star != kNoToken && i > star ? elements_.size() - i : i);
      if (i == star) step += ':';
      step += ']';
      Target& element = elements_[i];
      element.path = target.path;
      Extend(element.path, step);
      targets_.push_back(std::move(element));
    }
  }
}

void StatementParser::BindTarget(const Target& target, std::string_view expression, Use use) {
  std::string_view attribute;
  const std::string_view name = TargetName(target.begin, target.end, attribute);
  if (name.empty()) return;
  const std::uint32_t line = Line(target.begin);
  if (use == Use::kDelete) {
    if (attribute.empty()) results_.Bind(scope_, name, pysource::kGetKind, line);
    return;
  }
  const bool direct = target.path.empty() && use == Use::kAssign;
  const unsigned char kind = direct ? pysource::kSetKind : pysource::kWithinExprKind;
  const EntryIndex entry = results_.Bind(scope_, name, kind, line);
  part_ = direct ? pysource::kSetPrefix : pysource::kWithinExprPrefix;
  if (!direct) part_.append(target.path).append(1, ' ');
  part_ += ++quoted_ <= kMaxQuotes ? expression : kElided;
  results_.AddPart(entry, part_);
  if (use != Use::kAssign) return;
  if (!attribute.empty()) {
    results_.AddInstanceAttribute(scope_, attribute, pysource::kInstanceKind, line);
  } else if (IsModuleOrClass(scope_)) {
    results_.AddAssignedDefinition(entry, pysource::kSetKind, line);
  }
}

}  // namespace loom::pyscan
