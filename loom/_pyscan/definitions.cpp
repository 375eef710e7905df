// Statements that define: functions, classes, type aliases, with their decorators, arguments and
// type parameters.

#include <algorithm>
#include <utility>

#include "loom/_pyscan/statements.h"
#include "pysource/symbolkinds.h"

namespace loom::pyscan {

std::size_t StatementParser::Decorator(std::size_t i) {
  const std::size_t end = StatementEnd(i);
  std::string& text = decorators_.emplace_back(pysource::kDecoratorPrefix);
  Expression(i + 1, end, text);
  return end;
}

void StatementParser::AttachDecorators(EntryIndex entry) {
  results_.AddDecorators(entry, decorators_);
  decorators_.clear();
}

bool StatementParser::IsStatic() const {
  return std::any_of(decorators_.begin(), decorators_.end(), [](std::string_view text) {
    text.remove_prefix(pysource::kPrefixLen);
    return text == "staticmethod" || text.ends_with(".staticmethod");
  });
}

// `def` is the index of "def", `start` that of "async" if there is one.
std::size_t StatementParser::Def(std::size_t start, std::size_t def) {
  const std::size_t name = def + 1;
  if (Kind(name) != Tok::kName) {
    errors_.Add(Line(def), "expected the name of a function");
    decorators_.clear();
    return Suite(HeaderEnd(name), {scope_});
  }
  const ScopeIndex parent = scope_;
  const bool in_class = results_.scope(parent).kind == pysource::kClassKind;
  const bool is_static = in_class && IsStatic();
  const unsigned char kind = !in_class   ? pysource::kFunctionKind
                             : is_static ? pysource::kUnboundMethodKind
                                         : pysource::kMethodKind;
  std::size_t open = name + 1;
  const std::size_t type_parameters = Bracket(open) == '[' ? open : count_;
  if (type_parameters < count_) open = Next(open);
  const bool has_arguments = Bracket(open) == '(';
  const std::size_t behind = has_arguments ? Next(open) : open;
  const std::size_t colon = HeaderEnd(behind);
  BindWalruses(colon < count_ ? (*tokens_)[colon].begin : kNoToken);

  const EntryIndex entry = results_.Bind(parent, Text(name), kind, Line(start));
  const ScopeIndex scope = results_.OpenScope(parent, Text(name), kind, Line(start));
  if (scope == kNoIndex) {
    errors_.Add(Line(start), "the name of the scope is too long");
    decorators_.clear();
    return Suite(colon, {parent});
  }
  part_ = !in_class   ? pysource::kFunctionPrefix
          : is_static ? pysource::kUnboundMethodPrefix
                      : pysource::kMethodPrefix;
  part_.append(results_.scope(scope).name).append(1, ' ').append(std::to_string(Line(start)));
  results_.AddPart(entry, part_);
  AttachDecorators(entry);
  results_.AddDefinition(parent, Text(name), kind, Line(start));

  if (kind == pysource::kFunctionKind) results_.scope(scope).self = results_.scope(parent).self;
  if (type_parameters < count_) TypeParameters(type_parameters, scope);
  if (has_arguments) Arguments(open, scope);
  if (Kind(behind) == Tok::kArrow) {
    results_.AddPart(results_.EntryOf(scope, "return"),
                     Part(pysource::kTypeHintPrefix, behind + 1, colon));
  }
  const bool half_typed = !(has_arguments && IsClosed(open)) && Kind(count_ - 1) != Tok::kColon;
  return Suite(colon, {scope, false, {}, half_typed});
}

void StatementParser::Arguments(std::size_t open, ScopeIndex scope) {
  const std::size_t last = CloseOf(open);
  std::vector<Argument>& arguments = arguments_;
  arguments.clear();
  bool keyword_only = false;
  for (std::size_t i = open + 1; i < last;) {
    const std::size_t end = Find(Tok::kComma, i, last);
    Argument argument{i, keyword_only ? "|" : "", 0, 0, end};
    switch (Kind(i)) {
      case Tok::kSlash:
        for (Argument& earlier : arguments) earlier.marks = "/";
        break;
      case Tok::kStar:
        argument.marks = "*";
        ++argument.name;
        keyword_only = true;
        break;
      case Tok::kDoubleStar:
        argument.marks = "**";
        ++argument.name;
        break;
      default:
        break;
    }
    if (argument.name < end && Kind(argument.name) == Tok::kName) {
      argument.colon = Find(Tok::kColon, argument.name, end);
      argument.equal = Find(Tok::kEqual, argument.name, end);
      arguments.push_back(argument);
    }
    i = end + 1;
  }

  Scope& function = results_.scope(scope);
  if (function.kind == pysource::kMethodKind) {
    const bool bound =
        !arguments.empty() && (arguments[0].marks.empty() || arguments[0].marks == "/");
    function.self = bound ? Text(arguments[0].name) : std::string_view();
  }
  std::size_t index = 0;
  for (const Argument& argument : arguments) {
    const std::string_view name = Text(argument.name);
    if (function.kind != pysource::kMethodKind && name == function.self) function.self = {};
    const EntryIndex entry = results_.Bind(scope, name, pysource::kArgKind, Line(argument.name));
    std::string part(pysource::kArgPrefix);
    part.append(std::to_string(index++)).append(argument.marks);
    if (argument.equal < argument.end) {
      part += '=';
      Expression(argument.equal + 1, argument.end, part);
    }
    results_.AddPart(entry, part);
    if (argument.colon < argument.equal) {
      results_.AddPart(entry, Part(pysource::kTypeHintPrefix, argument.colon + 1, argument.equal));
    }
  }
}

void StatementParser::TypeParameters(std::size_t open, ScopeIndex scope) {
  const std::size_t last = CloseOf(open);
  for (std::size_t i = open + 1; i < last;) {
    const std::size_t end = Find(Tok::kComma, i, last);
    std::string part(pysource::kTypeParameterPrefix);
    std::size_t name = i;
    if (Kind(i) == Tok::kStar || Kind(i) == Tok::kDoubleStar) part += Text(name++);
    if (name < end && Kind(name) == Tok::kName) {
      const std::size_t colon = Find(Tok::kColon, name, end);
      const std::size_t equal = Find(Tok::kEqual, name, end);
      if (colon < equal) Expression(colon + 1, equal, part);
      if (equal < end) {
        part += '=';
        Expression(equal + 1, end, part);
      }
      results_.AddPart(results_.Bind(scope, Text(name), pysource::kTypeParameterKind, Line(name)),
                       part);
    }
    i = end + 1;
  }
}

std::size_t StatementParser::Class(std::size_t i) {
  const std::size_t name = i + 1;
  if (Kind(name) != Tok::kName) {
    errors_.Add(Line(i), "expected the name of a class");
    decorators_.clear();
    return Suite(HeaderEnd(name), {scope_});
  }
  const ScopeIndex parent = scope_;
  std::size_t open = name + 1;
  const std::size_t type_parameters = Bracket(open) == '[' ? open : count_;
  if (type_parameters < count_) open = Next(open);
  const std::size_t colon = HeaderEnd(open);
  BindWalruses(colon < count_ ? (*tokens_)[colon].begin : kNoToken);

  const EntryIndex entry = results_.Bind(parent, Text(name), pysource::kClassKind, Line(i));
  const ScopeIndex scope = results_.OpenScope(parent, Text(name), pysource::kClassKind, Line(i));
  if (scope == kNoIndex) {
    errors_.Add(Line(i), "the name of the scope is too long");
    decorators_.clear();
    return Suite(colon, {parent});
  }
  part_ = pysource::kClassPrefix;
  part_.append(results_.scope(scope).name).append(1, ' ').append(std::to_string(Line(i)));
  if (Bracket(open) == '(' && CloseOf(open) != open + 1) {
    part_ += ' ';
    Expression(open, std::min(Next(open), colon), part_);
  }
  results_.AddPart(entry, part_);
  AttachDecorators(entry);
  results_.AddDefinition(parent, Text(name), pysource::kClassKind, Line(i));
  if (type_parameters < count_) TypeParameters(type_parameters, scope);
  const bool half_typed =
      Bracket(open) == '(' && !IsClosed(open) && Kind(count_ - 1) != Tok::kColon;
  return Suite(colon, {scope, false, {}, half_typed});
}

// "type" is a keyword only before a name that is followed by "=" or by type parameters and "=".
bool StatementParser::IsTypeAlias(std::size_t i) const {
  if (Kind(i + 1) != Tok::kName || Text(i) != "type") return false;
  const std::size_t behind = Bracket(i + 2) == '[' ? std::min(CloseOf(i + 2) + 1, count_) : i + 2;
  return Kind(behind) == Tok::kEqual;
}

std::size_t StatementParser::TypeAlias(std::size_t i) {
  const std::size_t name = i + 1;
  const std::size_t end = StatementEnd(i);
  const std::size_t equal = Find(Tok::kEqual, name, end);
  PassWord(i);
  if (uses_ != nullptr && Bracket(name + 1) == '[') {
    for (std::size_t j = name + 2; j < CloseOf(name + 1);
         j = Find(Tok::kComma, j, CloseOf(name + 1)) + 1) {
      const std::size_t parameter =
          Kind(j) == Tok::kStar || Kind(j) == Tok::kDoubleStar ? j + 1 : j;
      if (Kind(parameter) != Tok::kName) continue;
      PassWord(parameter);
      uses_->LocalOfLine(Text(parameter));
    }
  }
  const EntryIndex entry =
      results_.Bind(scope_, Text(name), pysource::kGenericTypeAliasKind, Line(name));
  results_.AddPart(entry, Part(pysource::kGenericTypeAliasPrefix, name + 1, equal));
  results_.AddPart(entry, Part(pysource::kSetPrefix, equal + 1, end));
  results_.AddDefinition(scope_, Text(name), pysource::kGenericTypeAliasKind, Line(name));
  return end;
}

}  // namespace loom::pyscan
