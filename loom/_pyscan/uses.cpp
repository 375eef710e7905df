#include "loom/_pyscan/uses.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "loom/_pyscan/chars.h"
#include "pysource/symbolkinds.h"

namespace loom::pyscan {
namespace {

std::uint32_t HashGroup(const std::string_view text, ScopeIndex scope, bool local) {
  return HashText(text, 2 * scope + (local ? 1 : 0));
}

}  // namespace

UseCollector::UseCollector(std::string_view source, Results& results)
    : source_(source), results_(results) {
  if (source.starts_with("\xEF\xBB\xBF")) line_start_ = walked_ = 3;
}

void UseCollector::Bind(std::string_view name, ScopeIndex scope, unsigned char kind) {
  // A name that was put together from pieces, "self.x", doesn't bind its first one.
  const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(name.data()) -
                                reinterpret_cast<std::uintptr_t>(source_.data());
  if (offset >= source_.size() || name.find('.') != name.npos) return;
  bound_.push_back({static_cast<std::uint32_t>(offset), scope});
  if (kind == pysource::kTypeParameterKind && type_parameters_.size() < kMaxLineNames) {
    type_parameters_.push_back({name, scope});
  }
}

void UseCollector::Import(UseKind kind, std::string_view text, std::uint32_t begin,
                          std::uint32_t line, ScopeIndex scope) {
  found_.push_back({begin, line, scope, 0, results_.Keep(std::string(text)), kind, false});
}

// --- A logical line ------------------------------------------------------------------------------

// All tokens of the line, those inside of f-strings among them, in order.
const TokenList& UseCollector::Tokens(const LogicalLine& line) {
  if (line.inner.empty()) return line.tokens;
  merged_.Resize(0);
  std::uint32_t outer = 0;
  std::uint32_t inner = 0;
  while (outer < line.tokens.size() || inner < line.inner.size()) {
    const bool take_inner =
        outer == line.tokens.size() ||
        (inner < line.inner.size() && line.inner[inner].begin < line.tokens[outer].begin);
    merged_.Add(take_inner ? line.inner[inner++] : line.tokens[outer++]);
  }
  return merged_;
}

void UseCollector::TakeLine(const LogicalLine& line, ScopeIndex scope) {
  const TokenList& tokens = Tokens(line);
  const auto by_begin = [](const auto& a, const auto& b) { return a.begin < b.begin; };
  std::stable_sort(bound_.begin(), bound_.end(), by_begin);
  std::sort(passed_.begin(), passed_.end(), by_begin);
  auto bound = bound_.cbegin();
  auto passed = passed_.cbegin();
  auto change = changes_.cbegin();
  for (std::uint32_t i = 0; i < tokens.size(); ++i) {
    const Token& token = tokens[i];
    for (; change != changes_.cend() && change->offset <= token.begin; ++change) {
      scope = change->scope;
    }
    while (passed != passed_.cend() && passed->end <= token.begin) ++passed;
    if (passed != passed_.cend() && passed->begin <= token.begin) continue;
    switch (token.kind) {
      case Tok::kOpen:
        OpenFrame(tokens, i);
        break;
      case Tok::kClose:
        if (!frames_.empty()) CloseFrame();
        break;
      case Tok::kKwLambda:
        lambdas_.push_back({frames_.size(), lambda_names_.size(), false});
        break;
      case Tok::kLambdaColon:
        EndLambdaBodies();
        if (!lambdas_.empty()) lambdas_.back().body = true;
        break;
      case Tok::kKwAsync:
      case Tok::kKwFor:
        EndLambdaBodies();
        EndIterable();
        if (token.kind == Tok::kKwFor && !frames_.empty()) {
          frames_.back().in_targets = frames_.back().comprehension = true;
        }
        break;
      case Tok::kKwIn:
        if (!frames_.empty() && frames_.back().in_targets) {
          Frame& frame = frames_.back();
          frame.in_targets = false;
          if (frame.outside_begin == 0) {
            frame.outside_begin = Size() + 1;
            frame.in_first_iterable = true;
          }
        }
        break;
      case Tok::kKwIf:
        EndIterable();
        break;
      case Tok::kComma:
      case Tok::kLambdaComma:
      case Tok::kColon:
      case Tok::kSemicolon:
        EndLambdaBodies();
        break;
      case Tok::kName: {
        while (bound != bound_.cend() && bound->begin < token.begin) ++bound;
        if (bound != bound_.cend() && bound->begin == token.begin) {
          found_.push_back(
              {token.begin, token.line, bound->scope, 0, Text(token), UseKind::kBound, false});
        } else {
          i = TakeName(tokens, i, scope);
        }
        break;
      }
      default:
        break;
    }
  }
  while (!frames_.empty()) CloseFrame();
  Flush();
}

void UseCollector::OpenFrame(const TokenList& tokens, std::uint32_t i) {
  Frame frame{Size(), static_cast<std::uint32_t>(targets_.size())};
  frame.bracket = source_[tokens[i].begin];
  // A bracket among the targets of a comprehension holds targets, unless it is a subscript.
  const Tok before = i == 0 ? Tok::kNone : tokens[i - 1].kind;
  frame.in_targets = !frames_.empty() && frames_.back().in_targets && before != Tok::kName &&
                     before != Tok::kClose;
  frames_.push_back(frame);
}

void UseCollector::EndIterable() {
  if (frames_.empty() || !frames_.back().in_first_iterable) return;
  frames_.back().in_first_iterable = false;
  frames_.back().outside_end = Size();
}

// Ends a bracket. If it held a comprehension, its targets are no names of the scope wherever they
// stand in it, but for the first iterable.
void UseCollector::CloseFrame() {
  EndIterable();
  const Frame frame = frames_.back();
  frames_.pop_back();
  while (!lambdas_.empty() && lambdas_.back().depth > frames_.size()) {
    lambda_names_.resize(lambdas_.back().names);
    lambdas_.pop_back();
  }
  const bool holds_targets = frame.in_targets && !frame.comprehension;
  if (holds_targets) return;  // they are those of the bracket around
  std::uint32_t levels = frame.levels;
  const auto first = targets_.begin() + frame.targets;
  if (frame.comprehension && ++levels <= kMaxLevels && first != targets_.end()) {
    std::sort(first, targets_.end());
    for (std::uint32_t i = frame.first; i < Size(); ++i) {
      Found& found = found_[i];
      const bool outside =
          frame.outside_begin != 0 && i + 1 >= frame.outside_begin && i < frame.outside_end;
      if (found.root != 0 && !outside &&
          std::binary_search(first, targets_.end(), found.text.substr(0, found.root))) {
        found.local = true;
      }
    }
  }
  targets_.resize(frame.targets);
  if (!frames_.empty()) frames_.back().levels = std::max(frames_.back().levels, levels);
}

void UseCollector::EndLambdaBodies() {
  while (!lambdas_.empty() && lambdas_.back().depth == frames_.size() && lambdas_.back().body) {
    lambda_names_.resize(lambdas_.back().names);
    lambdas_.pop_back();
  }
}

bool UseCollector::IsLambdaParameter(const TokenList& tokens, std::uint32_t i) const {
  if (lambdas_.empty() || lambdas_.back().body || lambdas_.back().depth != frames_.size()) {
    return false;
  }
  Tok before = tokens[--i].kind;
  if (before == Tok::kStar || before == Tok::kDoubleStar) before = tokens[i - 1].kind;
  return before == Tok::kKwLambda || before == Tok::kLambdaComma;
}

bool UseCollector::IsLocal(std::string_view name) const {
  if (std::find(line_locals_.begin(), line_locals_.end(), name) != line_locals_.end()) return true;
  // Parameters are names of the bodies alone: not of defaults.
  std::size_t end = lambda_names_.size();
  for (auto lambda = lambdas_.rbegin(); lambda != lambdas_.rend(); ++lambda) {
    if (lambda->body) {
      const auto first = lambda_names_.begin() + static_cast<std::ptrdiff_t>(lambda->names);
      const auto last = lambda_names_.begin() + static_cast<std::ptrdiff_t>(end);
      if (std::find(first, last, name) != last) return true;
    }
    end = lambda->names;
  }
  return false;
}

// A name that isn't bound: takes the attributes behind it, too. Returns the index of the last
// token.
std::uint32_t UseCollector::TakeName(const TokenList& tokens, std::uint32_t i, ScopeIndex scope) {
  const Token& name = tokens[i];
  const Tok before = i == 0 ? Tok::kNone : tokens[i - 1].kind;
  const Tok behind = i + 1 < tokens.size() ? tokens[i + 1].kind : Tok::kNone;
  const std::string_view text = Text(name);
  const bool attribute = before == Tok::kDot;
  if (!attribute) {
    if (IsLambdaParameter(tokens, i) || behind == Tok::kWalrus) {
      if (!lambdas_.empty() && lambda_names_.size() < kMaxLineNames) {
        lambda_names_.push_back(text);
      }
      return i;
    }
    const char bracket = frames_.empty() ? '\0' : frames_.back().bracket;
    const bool follows = behind == Tok::kDot || behind == Tok::kOpen;
    if (bracket != '\0' && frames_.back().in_targets && !follows) {
      targets_.push_back(text);
      return i;
    }
    if (before == Tok::kOperator && Text(tokens[i - 1]) == "!") return i;  // "{x!r}"
    if (bracket == '(' && behind == Tok::kEqual &&
        (before == Tok::kOpen || before == Tok::kComma)) {
      found_.push_back({name.begin, name.line, scope, 0, text, UseKind::kKeyword, false});
      return i;
    }
  }
  const std::uint32_t begin = attribute ? tokens[i - 1].begin : name.begin;
  std::uint32_t last = i;
  std::size_t size = text.size() + (attribute ? 1 : 0);
  while (last + 2 < tokens.size() && tokens[last + 1].kind == Tok::kDot &&
         tokens[last + 2].kind == Tok::kName) {
    last += 2;
    size += 1 + tokens[last].end - tokens[last].begin;
  }
  std::string_view chain = source_.substr(begin, tokens[last].end - begin);
  if (chain.size() != size) {  // blanks between
    std::string joined(attribute ? "." : "");
    for (std::uint32_t j = i; j <= last; ++j) joined += Text(tokens[j]);
    chain = results_.Keep(std::move(joined));
  }
  if (!attribute) {
    // A type parameter can be used in the very header that declares it, outside of its scope.
    for (const TypeParameter& parameter : type_parameters_) {
      if (parameter.name == text) scope = parameter.scope;
    }
  }
  const std::uint32_t root = attribute ? 0 : static_cast<std::uint32_t>(text.size());
  found_.push_back(
      {name.begin, name.line, scope, root, chain, UseKind::kRead, root != 0 && IsLocal(text)});
  return last;
}

// --- What was found ------------------------------------------------------------------------------

void UseCollector::Flush() {
  const auto by_begin = [](const Found& a, const Found& b) { return a.begin < b.begin; };
  if (!passed_.empty()) std::stable_sort(found_.begin(), found_.end(), by_begin);
  for (const Found& found : found_) {
    const char* const base = source_.data();
    const char* const name = base + found.begin;
    for (const char* p = base + walked_; p < name;) {
      p = FindAny(p, name, '\n', '\r');
      if (p == name) break;
      ++p;
      line_start_ = static_cast<std::size_t>(p - base);
    }
    walked_ = std::max<std::size_t>(walked_, found.begin);
    uses_.push_back(
        {GroupOf(found), found.line, static_cast<std::uint32_t>(found.begin - line_start_)});
  }
  found_.clear();
  bound_.clear();
  type_parameters_.clear();
  passed_.clear();
  changes_.clear();
  line_locals_.clear();
  lambdas_.clear();
  lambda_names_.clear();
  targets_.clear();
}

std::uint32_t UseCollector::GroupOf(const Found& found) {
  const std::uint32_t hash = HashGroup(found.text, found.scope, found.local);
  const std::uint32_t known = group_table_.Find(hash, [&](std::uint32_t g) {
    const UseGroup& group = groups_[g];
    return group.scope == found.scope && group.local == found.local && group.kind == found.kind &&
           group.text == found.text;
  });
  if (known != IndexTable::kNone) return known;
  const std::uint32_t group = static_cast<std::uint32_t>(groups_.size());
  groups_.push_back({found.text, found.scope, kNoHome, found.kind, found.local, false});
  group_table_.Add(hash, group);
  return group;
}

bool UseCollector::Resolve(std::size_t groups) {
  const std::size_t end = resolved_ + std::min(groups, groups_.size() - resolved_);
  for (; resolved_ < end; ++resolved_) {
    UseGroup& group = groups_[resolved_];
    group.home = HomeOf(group);
    const std::uint32_t hash = HashText(group.text, static_cast<std::uint32_t>(group.home));
    group.first = home_table_.Find(hash, [&](std::uint32_t g) {
      const UseGroup& other = groups_[g];
      return other.home == group.home && other.kind == group.kind && other.text == group.text;
    }) == IndexTable::kNone;
    if (group.first) home_table_.Add(hash, static_cast<std::uint32_t>(resolved_));
  }
  return resolved_ == groups_.size();
}

std::int32_t UseCollector::HomeOf(const UseGroup& group) const {
  if (group.kind != UseKind::kRead && group.kind != UseKind::kBound) return kNoHome;
  if (group.local) return kExpression;
  const std::string_view name = group.text.substr(0, group.text.find('.'));
  if (name.empty()) return kNoHome;
  for (ScopeIndex scope = group.scope; scope != kNoIndex; scope = results_.scopes()[scope].parent) {
    const std::uint8_t binds = results_.Binds(scope, name);
    if (binds & kDeclaredGlobal) return 0;
    // The names of a class are no names of the functions in it.
    const bool visible = scope == group.scope || (binds & kBoundAsTypeParameter) != 0 ||
                         results_.scopes()[scope].kind != pysource::kClassKind;
    if (visible && binds != 0 && (binds & kDeclaredNonlocal) == 0) {
      return static_cast<std::int32_t>(scope);
    }
  }
  return kNowhere;
}

}  // namespace loom::pyscan
