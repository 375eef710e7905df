// The vocabulary of the name layer: kinds of information, and the suffixes of scope names.
//
// Whoever writes information strings (a source scanner) and whoever reads them (the symbol layer,
// the scheduler) share these values and nothing else, so the header has no dependencies.
//
// An information string is a sequence of parts separated by ";" at nesting level 0. A part starts
// with its prefix, ":" and the kind character; a part without one is of the plain kind.

#ifndef PYSOURCE_SYMBOLKINDS_H_
#define PYSOURCE_SYMBOLKINDS_H_

#include <cstddef>
#include <string_view>

namespace pysource {

// Length of every prefix, in bytes.
inline constexpr std::size_t kPrefixLen = 2;

// X(Name, character). Characters are distinct, ASCII, and never a quote, bracket, ":" or ";".
#define PYSOURCE_SYMBOL_KINDS(X)     \
  X(Set, '=')                        \
  X(Get, 'g')                        \
  X(SetTypeHint, 'h')                \
  X(Nonlocal, 'n')                   \
  X(Global, 'o')                     \
  X(WithinExpr, 'w')                 \
  X(Import, 'i')                     \
  X(FromImport, 'f')                 \
  X(ImportAsName, 'a')               \
  X(Decorator, '@')                  \
  X(SpecificScope, 's')              \
  X(SpecificUrl, 'u')                \
  X(BuiltinModule, 'b')              \
  X(TypingModule, 't')               \
  X(BuiltinClass, 'k')               \
  X(TypedLiteral, 'l')               \
  X(Arg, 'r')                        \
  X(TypeHint, 'H')                   \
  X(ExpressionEquiv, 'e')            \
  X(Method, 'm')                     \
  X(UnboundMethod, 'M')              \
  X(Function, 'F')                   \
  X(Class, 'C')                      \
  X(Self, 'S')                       \
  X(Instance, 'I')                   \
  X(Module, 'O')                     \
  X(InferredTypeHint, 'N')           \
  X(Conditional, '?')                \
  X(Called, 'c')                     \
  X(TypeParameter, 'p')              \
  X(GenericTypeAlias, 'G')           \
  X(DefLineScope, 'D')               \
  X(LogicalIndex, 'L')               \
  X(DiscardCallResultStatement, 'z') \
  X(SetTrailers, 'T')

#define PYSOURCE_DEFINE_KIND(name, character)                      \
  inline constexpr unsigned char k##name##Kind = character;        \
  inline constexpr char k##name##PrefixArray[] = {':', character}; \
  inline constexpr std::string_view k##name##Prefix{k##name##PrefixArray, kPrefixLen};
PYSOURCE_SYMBOL_KINDS(PYSOURCE_DEFINE_KIND)
#undef PYSOURCE_DEFINE_KIND

// The kind of a part without a prefix; as a prefix it is ":P".
inline constexpr unsigned char kPlainEquivKind = 'P';
inline constexpr std::string_view kPlainEquivSpec = ":P";

// Scope names: "" is the module, "C.f" a method of a class; "*" stands for every scope of a file.
inline constexpr std::string_view kWildcardScope = "*";
inline constexpr std::string_view kModuleScopeName = "";
// The second definition of f in one scope is "f#2", the third "f#3".
inline constexpr std::string_view kScopeIndexSep = "#";
// The def line of f (defaults, annotations, type parameters) is the scope "f.<def>".
inline constexpr std::string_view kDefLineScopeName = "<def>";
inline constexpr std::string_view kDotLineScopeName = ".<def>";
// An instance of class C is described by the scope "C()".
inline constexpr std::string_view kClassInstanceSuffix = "()";
// Subscripts specialize a scope: "List[int]"; this one stands for iteration over a value.
inline constexpr std::string_view kIterationSubscript = "[*]";
inline constexpr std::string_view kSelfTypeVarName = "Self";
inline constexpr int kUnknownLogicalIndex = -1;

}  // namespace pysource

#endif  // PYSOURCE_SYMBOLKINDS_H_
