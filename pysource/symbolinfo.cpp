// The module `pysource.symbolinfo`: scope names, kinds of information, and the reference symbol
// layer.

#include "pysource/symbolinfo.h"

#include <algorithm>

#include "pysource/pyrt/containers.h"
#include "pysource/pyrt/module.h"
#include "pysource/pyrt/operation.h"
#include "pysource/pyrt/plainclass.h"
#include "pysource/pyrt/textargs.h"

namespace pysource {
namespace {

using pyrt::Object;
using pyrt::Text;
using pyrt::Utf8Text;

constinit pyrt::Name kModule{"pysource.symbolinfo"};

// Functions of the symbol layer are looked up at each use, so that a replaced one is obeyed.
template <class... Args>
Object Layer(const pyrt::Name& name, const Args&... args) {
  return pyrt::Call(pyrt::ModuleAttr(kModule, name), args...);
}

Object ToText(std::string_view utf8) { return Text::FromUtf8(utf8).object(); }

Text TextArgument(const char* name, const Object& value) {
  if (!pyrt::IsText(value)) pyrt::RaiseArgumentType(name, "str", value);
  return Text(value);
}

// --- Functions -----------------------------------------------------------------------------------

unsigned char PyGetInfoBytesKind(const Utf8Text& ibytes_ptr) {
  return GetInfoBytesKind(ibytes_ptr.view().data());
}

// Anything with a length is taken.
bool PyIsTopLevelModuleScope(const Object& scope) { return pyrt::Size(scope) == 0; }

bool PyIsDefLineScope(const Object& scope) {
  return IsDefLineScope(pyrt::Utf8(TextArgument("scope", scope)));
}

bool PyIsParentOfDefLineScope(const Object& maybe_parent, const Object& def_line_scope) {
  const Text parent = TextArgument("maybe_parent", maybe_parent);
  const Text scope = TextArgument("def_line_scope", def_line_scope);
  return pyrt::Length(parent) + static_cast<Py_ssize_t>(kDotLineScopeName.size()) ==
         pyrt::Length(scope);
}

template <auto kFunction>
std::int64_t NextIndex(const Utf8Text& utf8_ptr, std::int64_t pos, std::int64_t end_pos) {
  if (pos >= end_pos) return -1;
  if (pos < 0 || end_pos > static_cast<std::int64_t>(utf8_ptr.view().size())) {
    pyrt::Raise(PyExc_ValueError, "position outside of the text");
  }
  return kFunction(utf8_ptr.view().data(), pos, end_pos);
}

Object PyParentScopeName(const Text& scope_name) {
  return ToText(ParentScopeName(pyrt::Utf8(scope_name)));
}

Object PyParentAndLeafScopeNames(const Text& scope_name) {
  const auto [parent, leaf] = ParentAndLeafScopeNames(pyrt::Utf8(scope_name));
  return pyrt::MakeTuple(ToText(parent), ToText(leaf));
}

bool PyIsInstanceScope(const Text& scope_name) { return IsInstanceScope(pyrt::Utf8(scope_name)); }

Object PyGetInstanceNameForClass(const Text& class_name) {
  const auto name = GetInstanceNameForClass(pyrt::Utf8(class_name));
  return name ? ToText(*name) : Object::None();
}

Object PyGetClassForInstanceName(const Text& instance_name) {
  return ToText(GetClassForInstanceName(pyrt::Utf8(instance_name)));
}

Object PySplitScopeNameFromSuffixes(const Text& leaf) {
  const auto [name, suffixes] = SplitScopeNameFromSuffixes(pyrt::Utf8(leaf));
  return pyrt::MakeTuple(ToText(name), ToText(suffixes));
}

Object PyRemoveAllScopeNameSubscripts(const Text& scope_name) {
  return ToText(RemoveAllScopeNameSubscripts(pyrt::Utf8(scope_name)));
}

bool PyInfoContains(const Utf8Text& information, const Object& prefixes) {
  if (!pyrt::IsTuple(prefixes) && PyList_Check(prefixes.get()) == 0) {
    return InfoContains(information.view(), Utf8Text(prefixes).view());
  }
  bool found = false;
  pyrt::ForEach(prefixes, [&](const Object& prefix) {
    const Utf8Text text(prefix);
    found = found || InfoContains(information.view(), text.view());
  });
  return found;
}

pyrt::List PyNonNestedSplit(const Utf8Text& information, const Utf8Text& separator) {
  if (separator.view().empty()) pyrt::Raise(PyExc_ValueError, "empty separator");
  pyrt::List parts;
  ForEachNonNestedPart(information.view(), separator.view(),
                       [&](std::string_view part) { parts.Append(information.Piece(part)); });
  return parts;
}

// --- Records -------------------------------------------------------------------------------------

// Named tuples of the module. Kept for the life of the process, like its types.
struct RecordClasses {
  Object def_info;
  Object fully_scoped_name;
};

RecordClasses& Records() {
  static auto* const records = new RecordClasses;
  return *records;
}

Object PyUnpackDefInfoStr(const Object& part) {
  if (!pyrt::IsExactlyBytes(part)) pyrt::RaiseUnexpected("bytes", part);
  const auto info = UnpackDefInfo(pyrt::BytesView(part));
  if (!info) {
    PyErr_Format(PyExc_ValueError, "not a definition: %R", part.get());
    pyrt::ThrowPending();
  }
  return pyrt::Call(Records().def_info, pyrt::ToPython(info->kind), ToText(info->scope_name),
                    pyrt::ToPython(info->line),
                    info->bases ? ToText(*info->bases) : Object::None());
}

// --- Classes -------------------------------------------------------------------------------------

class CScope {
 public:
  static CScope& From(PyObject* self) { return pyrt::PlainClass<CScope>::From(self); }
  static int Init(PyObject* self, PyObject* args, PyObject* kwargs) noexcept {
    return pyrt::Guard([&] {
      const Object name = Object::Share(pyrt::BindInit<"CScope(scope_name)">(args, kwargs)[0]);
      if (!name.is_none() && !pyrt::IsText(name)) pyrt::RaiseUnexpected("str", name);
      CScope& scope = From(self);
      const Object old_name = std::exchange(scope.scope_name_, name);
      const Object old_form = std::exchange(scope.unspecialized_, Object());
    });
  }

  Object scope_name() const { return scope_name_; }

  Object UnspecializedName() {
    if (unspecialized_) return unspecialized_;
    static constinit pyrt::Name kFunction{"RemoveAllScopeNameSubscripts"};
    const Object name = Layer(kFunction, scope_name_);
    if (name.is_none()) return name;
    if (!pyrt::IsText(name)) pyrt::RaiseUnexpected("str", name);
    unspecialized_ = name;
    return name;
  }
  Object ParentName() {
    static constinit pyrt::Name kFunction{"ParentScopeName"};
    return Layer(kFunction, scope_name_);
  }
  Object ParentAndLeaf() {
    static constinit pyrt::Name kFunction{"ParentAndLeafScopeNames"};
    return Layer(kFunction, scope_name_);
  }
  bool IsTopLevelModule() { return pyrt::Size(scope_name_) == 0; }
  Object ExprIn(const Object& expr, const Object& type_hint) {
    static constinit pyrt::Name kFunction{"FullyScopedNameWithScope"};
    return Layer(kFunction, Object::Share(pyrt::PlainClass<CScope>::ObjectOf(*this)), expr,
                 type_hint);
  }

  void Traverse(pyrt::Visitor& visit) const noexcept { visit.All(scope_name_, unspecialized_); }
  void Drop() noexcept {
    const Object name = std::move(scope_name_);
    const Object form = std::move(unspecialized_);
  }

 private:
  Object scope_name_;
  Object unspecialized_;
};

// The content of a text that is one plain string literal, such as the hint 'C'; else the text.
std::string_view Unquoted(std::string_view expr) {
  if (expr.size() < 2 || (expr[0] != '"' && expr[0] != '\'')) return expr;
  const char* const end = expr.data() + expr.size();
  const std::size_t quotes = IsTripleQuote(expr.data(), end) && expr.size() >= 6 ? 3 : 1;
  const StringSkip body = SkipStringBody(expr.data() + quotes, end, end, expr[0], quotes == 3);
  if (body.stop != StringStop::kClosed || body.pos != end) return expr;
  return expr.substr(quotes, expr.size() - 2 * quotes);
}

std::string_view Stripped(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\n\r\f\v";
  const std::size_t begin = std::min(text.find_first_not_of(kBlanks), text.size());
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

Object FullyScopedNameWithScope(const Object& scope, const Utf8Text& expr, bool type_hint) {
  if (!pyrt::PlainClass<CScope>::IsInstance(scope.get())) {
    pyrt::RaiseArgumentType("scope", "CScope", scope);
  }
  std::string_view name = Stripped(expr.view());
  if (type_hint) name = Stripped(Unquoted(name));
  return pyrt::Call(Records().fully_scoped_name, CScope::From(scope.get()).scope_name(),
                    ToText(name), type_hint);
}

class KindFilter {
 public:
  static KindFilter& From(PyObject* self) { return pyrt::PlainClass<KindFilter>::From(self); }
  static int Init(PyObject* self, PyObject* args, PyObject* kwargs) noexcept {
    return pyrt::Guard([&] {
      PyObject* kinds = pyrt::BindInit<"CKindFilter(kinds=())">(args, kwargs)[0];
      CKindFilter filter;
      if (kinds != nullptr) {
        pyrt::ForEach(Object::Share(kinds), [&](const Object& kind) {
          filter.Add(pyrt::FromPython<unsigned char>(kind.get()));
        });
      }
      From(self).filter_ = filter;
    });
  }

  bool KindMatches(unsigned char kind) { return filter_.KindMatches(kind); }

  void Traverse(pyrt::Visitor&) const noexcept {}
  void Drop() noexcept {}

 private:
  CKindFilter filter_;
};

class CLocationCache {
 public:
  static CLocationCache& From(PyObject* self) {
    return pyrt::PlainClass<CLocationCache>::From(self);
  }

  Object GetBuiltinLoc() {
    if (builtin_loc_.is_none()) {
      static constinit pyrt::Name kFind{"_FindBuiltinLoc"};
      builtin_loc_ =
          pyrt::CallMethod(Object::Share(pyrt::PlainClass<CLocationCache>::ObjectOf(*this)), kFind);
    }
    return builtin_loc_;
  }
  // For a subclass to supply; without it the builtins aren't known.
  Object FindBuiltinLoc() { return Object::None(); }

  void Traverse(pyrt::Visitor& visit) const noexcept { visit(builtin_loc_); }
  void Drop() noexcept { builtin_loc_ = Object(); }

 private:
  Object builtin_loc_;
};

class CInferContext {
 public:
  static CInferContext& From(PyObject* self) { return pyrt::PlainClass<CInferContext>::From(self); }
  static int Init(PyObject* self, PyObject* args, PyObject* kwargs) noexcept {
    return pyrt::Guard([&] {
      const auto bound = pyrt::BindInit<"CInferContext(isolated=0, reasons=None)">(args, kwargs);
      const std::int64_t isolated =
          bound[0] != nullptr ? pyrt::FromPython<std::int64_t>(bound[0]) : 0;
      CInferContext& context = From(self);
      context.isolated_ = isolated;
      context.reasons_ = Object::Share(bound[1]);
    });
  }

  bool Isolated(const Object& reason) {
    if (isolated_ == 0) return false;
    const Object reasons = reasons_;
    if (reasons.is_none() || reason.is_none()) return true;
    return pyrt::Contains(reasons, reason);
  }

  void Traverse(pyrt::Visitor& visit) const noexcept { visit(reasons_); }
  void Drop() noexcept { reasons_ = Object(); }

 private:
  std::int64_t isolated_ = 0;
  Object reasons_;
};

class CNode {
 public:
  static CNode& From(PyObject* self) { return pyrt::PlainClass<CNode>::From(self); }
  // A class that derives from it takes what arguments it likes.
  static int Init(PyObject*, PyObject*, PyObject*) noexcept { return 0; }
  void Traverse(pyrt::Visitor&) const noexcept {}
  void Drop() noexcept {}
};

void FinishedWithNode(const Object& node) {
  if (!node.is_none() && !pyrt::PlainClass<CNode>::IsInstance(node.get())) {
    pyrt::RaiseArgumentType("node", "CNode", node);
  }
  static constinit pyrt::Name kTakeBack{"__FinishedWithNode"};
  Layer(kTakeBack, node);
}

// What stands at __FinishedWithNode at first: a node that nobody refers to goes by itself.
void LeaveNodeToItself(const Object&) {}

// --- The module ----------------------------------------------------------------------------------

template <pyrt::FixedText kSignature, pyrt::FixedText kDoc, auto kMember>
PyMethodDef Method() {
  using Class = typename pyrt::internal::FunctionTraits<decltype(kMember)>::Class;
  return pyrt::Operation<kSignature, kDoc, kMember,
                         [](Class& body, auto&... args) -> decltype(auto) {
                           return (body.*kMember)(args...);
                         }>::Def();
}

template <class State>
void AddClass(const Object& module, const char* name, pyrt::PlainDefinition definition) {
  pyrt::Publish(module, name, pyrt::PlainClass<State>::Create(module, std::move(definition)));
}

void AddClasses(const Object& module) {
  AddClass<CScope>(
      module, "CScope",
      {.name = "pysource.symbolinfo.CScope",
       .doc = "CScope(scope_name)\n--\n\nA scope, known by its name.",
       .init = &CScope::Init,
       .methods =
           {Method<"UnspecializedName()", "The scope name without subscripts; computed once.",
                   &CScope::UnspecializedName>(),
            Method<"ParentName()", "ParentScopeName of the scope name.", &CScope::ParentName>(),
            Method<"ParentAndLeaf()", "ParentAndLeafScopeNames of the scope name.",
                   &CScope::ParentAndLeaf>(),
            Method<"IsTopLevelModule()", "Whether the scope name is empty.",
                   &CScope::IsTopLevelModule>(),
            Method<"ExprIn(expr, type_hint=False)", "FullyScopedNameWithScope of this scope.",
                   &CScope::ExprIn>()},
       .fields = {pyrt::Field<"scope_name", "The scope name.", CScope,
                              [](CScope& scope) { return scope.scope_name(); }>::Def()}});
  AddClass<KindFilter>(
      module, "CKindFilter",
      {.name = "pysource.symbolinfo.CKindFilter",
       .doc = "CKindFilter(kinds=())\n--\n\nA set of kinds: bytes, each given as int or bytes.",
       .init = &KindFilter::Init,
       .methods = {Method<"KindMatches(kind)", "Whether the kind is one of those.",
                          &KindFilter::KindMatches>()}});
  AddClass<CLocationCache>(
      module, "CLocationCache",
      {.name = "pysource.symbolinfo.CLocationCache",
       .doc = "CLocationCache()\n--\n\nHolds the location of the builtins. A subclass finds it.",
       .methods = {Method<"GetBuiltinLoc()",
                          "The location of the builtins, or None; found by _FindBuiltinLoc() until "
                          "it gives one.",
                          &CLocationCache::GetBuiltinLoc>(),
                   Method<"_FindBuiltinLoc()",
                          "For a subclass to supply: the location of the builtins, or None.",
                          &CLocationCache::FindBuiltinLoc>()}});
  AddClass<CInferContext>(
      module, "CInferContext",
      {.name = "pysource.symbolinfo.CInferContext",
       .doc =
           "CInferContext(isolated=0, reasons=None)\n--\n\nWhether inference is isolated, and why:"
           " an integer flag, and a mapping with reasons as keys.",
       .init = &CInferContext::Init,
       .methods = {
           Method<"_CInferContext__Isolated(reason)",
                  "Whether the context is isolated for a reason, or at all if that is None.",
                  &CInferContext::Isolated>()}});
  AddClass<CNode>(module, "CNode",
                  {.name = "pysource.symbolinfo.CNode",
                   .doc = "Base class of parser nodes.",
                   .init = &CNode::Init});
}

Object MakeRecordClass(const char* name, const char* fields, const char* doc) {
  static constinit pyrt::Name kCollections{"collections"};
  static constinit pyrt::Name kNamedTuple{"namedtuple"};
  static constinit pyrt::Name kModuleKeyword{"module"};
  const Object made = pyrt::Call(pyrt::ModuleAttr(kCollections, kNamedTuple), name, fields,
                                 pyrt::Keyword{kModuleKeyword, pyrt::ToPython(kModule)});
  pyrt::SetAttr(made, "__doc__", pyrt::ToPython(doc));
  return made;
}

void AddRecords(const Object& module) {
  RecordClasses& records = Records();
  if (!records.def_info) {
    records.def_info = MakeRecordClass("CDefInfo", "kind scope_name line bases",
                                       "A definition: its kind, the scope it defines, its line "
                                       "(None if unknown), and the bases of\n"
                                       "a class with their parentheses (None if there are none).");
    records.fully_scoped_name =
        MakeRecordClass("CFullyScopedName", "scope_name expr type_hint",
                        "An expression and the scope in which its names are looked up.");
  }
  pyrt::Publish(module, "CDefInfo", records.def_info);
  pyrt::Publish(module, "CFullyScopedName", records.fully_scoped_name);
}

void AddConstants(const Object& module) {
#define PYSOURCE_PUBLISH_KIND(name, character)                            \
  pyrt::Publish(module, "k" #name "Kind", pyrt::ToPython(k##name##Kind)); \
  pyrt::Publish(module, "k" #name "Prefix", pyrt::Bytes(k##name##Prefix));
  PYSOURCE_SYMBOL_KINDS(PYSOURCE_PUBLISH_KIND)
#undef PYSOURCE_PUBLISH_KIND
  pyrt::Publish(module, "kPlainEquivKind", pyrt::ToPython(kPlainEquivKind));
  pyrt::Publish(module, "kPlainEquivSpec", pyrt::Bytes(kPlainEquivSpec));
  pyrt::Publish(module, "kSpecificScopePrefixStr", ToText(kSpecificScopePrefix));
  pyrt::Publish(module, "kSpecificUrlPrefixStr", ToText(kSpecificUrlPrefix));
  pyrt::Publish(module, "kPrefixLen", pyrt::ToPython(static_cast<int>(kPrefixLen)));
  pyrt::Publish(module, "kWildcardScope", ToText(kWildcardScope));
  pyrt::Publish(module, "kModuleScopeName", ToText(kModuleScopeName));
  pyrt::Publish(module, "kScopeIndexSep", ToText(kScopeIndexSep));
  pyrt::Publish(module, "kDefLineScopeName", ToText(kDefLineScopeName));
  pyrt::Publish(module, "_kDotLineScopeName", ToText(kDotLineScopeName));
  pyrt::Publish(module, "kClassInstanceSuffix", ToText(kClassInstanceSuffix));
  pyrt::Publish(module, "kIterationSubscript", ToText(kIterationSubscript));
  pyrt::Publish(module, "kSelfTypeVarName", ToText(kSelfTypeVarName));
  pyrt::Publish(module, "kUnknownLogicalIndex", pyrt::ToPython(kUnknownLogicalIndex));
}

void Fill(const Object& module) {
  AddConstants(module);
  AddRecords(module);
  AddClasses(module);
}

std::vector<PyMethodDef> Functions() {
  using pyrt::ModuleFunction;
  return {
      ModuleFunction<"IsDefKind(kind)", "Whether the kind is that of a function or method.",
                     &IsDefKind>::Def(),
      ModuleFunction<"IsDefOrClassKind(kind)",
                     "Whether the kind is that of a function, method or class.",
                     &IsDefOrClassKind>::Def(),
      ModuleFunction<"GetInfoBytesKind(ibytes_ptr)",
                     "The kind of a part: the byte behind a leading ':', else kPlainEquivKind.",
                     &PyGetInfoBytesKind>::Def(),
      ModuleFunction<"IsTopLevelModuleScope(scope)", "Whether the scope name is empty.",
                     &PyIsTopLevelModuleScope>::Def(),
      ModuleFunction<"IsDefLineScope(scope)",
                     "Whether the scope name is that of the def line of a function or class.",
                     &PyIsDefLineScope>::Def(),
      ModuleFunction<
          "IsParentOfDefLineScope(maybe_parent, def_line_scope)",
          "Whether the lengths fit. No text is compared: the caller vouches for the rest.",
          &PyIsParentOfDefLineScope>::Def(),
      ModuleFunction<
          "NextNonNestedUtf8PtrIndex(utf8_ptr, pos, end_pos)",
          "The next byte index at nesting level 0, or -1 if pos isn't before end_pos.\n\n"
          "String literals and bracketed groups are stepped over as a whole; one that "
          "isn't closed ends at\nend_pos, or at its line end if it is a literal of single "
          "quotes. ValueError if a position would\nread outside the text.",
          &NextIndex<&NextNonNestedUtf8PtrIndex>>::Def(),
      ModuleFunction<"_NonInlineNextNonNestedUtf8PtrIndex(utf8_ptr, pos, end_pos)",
                     "The same for a quote or an opening bracket at pos.",
                     &NextIndex<&NonInlineNextNonNestedUtf8PtrIndex>>::Def(),
      ModuleFunction<"ParentScopeName(scope_name)",
                     "The name of the enclosing scope; '' for a top-level scope and for ''.",
                     &PyParentScopeName>::Def(),
      ModuleFunction<"ParentAndLeafScopeNames(scope_name)", "The pair (parent name, leaf name).",
                     &PyParentAndLeafScopeNames>::Def(),
      ModuleFunction<"IsInstanceScope(scope_name)",
                     "Whether the name is that of an instance scope.", &PyIsInstanceScope>::Def(),
      ModuleFunction<"GetInstanceNameForClass(class_name)",
                     "The instance scope of a class scope, 'C()' for 'C'; None for ''.",
                     &PyGetInstanceNameForClass>::Def(),
      ModuleFunction<
          "GetClassForInstanceName(instance_name)",
          "The class scope of an instance scope; another name is given back as it stands.",
          &PyGetClassForInstanceName>::Def(),
      ModuleFunction<"SplitScopeNameFromSuffixes(leaf)",
                     "The pair (name, suffixes): ('f', '#2()') for 'f#2()'.",
                     &PySplitScopeNameFromSuffixes>::Def(),
      ModuleFunction<"RemoveAllScopeNameSubscripts(scope_name)", "The name without '[...]' groups.",
                     &PyRemoveAllScopeNameSubscripts>::Def(),
      ModuleFunction<"InfoContains(information, prefixes)",
                     "Whether any part begins with the prefix, or with one of a tuple of prefixes.",
                     &PyInfoContains>::Def(),
      ModuleFunction<"NonNestedSplit(information, separator)",
                     "The parts between separators that stand outside of brackets and literals.",
                     &PyNonNestedSplit>::Def(),
      ModuleFunction<"UnpackDefInfoStr(part)",
                     "The CDefInfo of the part, bytes, of a function, method or class.\n\n"
                     "TypeError if it isn't bytes, ValueError if it isn't such a part.",
                     &PyUnpackDefInfoStr>::Def(),
      ModuleFunction<"FullyScopedNameWithScope(scope, expr, type_hint=False)",
                     "The CFullyScopedName of an expression in a CScope.\n\nBlanks around it don't "
                     "count. A type hint that is one string literal stands for what is quoted.",
                     &FullyScopedNameWithScope>::Def(),
      ModuleFunction<"FinishedWithNode(node)",
                     "Passes a CNode or None on to what stands at __FinishedWithNode.",
                     &FinishedWithNode>::Def(),
      ModuleFunction<"__FinishedWithNode(node)",
                     "Takes a node back; the node layer replaces it. At first nodes are left to "
                     "themselves.",
                     &LeaveNodeToItself>::Def(),
  };
}

}  // namespace
}  // namespace pysource

PyMODINIT_FUNC PyInit_symbolinfo() {
  static auto& module = *new pyrt::ModuleDefinition<&pysource::Fill>(
      "pysource.symbolinfo", "Scope names, kinds of information, and the reference symbol layer.",
      pysource::Functions());
  return module.Init();
}
