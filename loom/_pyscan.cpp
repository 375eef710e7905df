// The module loom._pyscan: the source scanner for Python callers. See _pyscan.h for what it does
// and _pyscan.pyi for what it gives.
//
// A scanner owns its bytes object, whose content cannot change, and a SourceScan over it. It refers
// to nothing else and so takes no part in garbage collection. No method runs Python code but
// pack_info, which reads the caller's mapping before it packs.

#include "loom/_pyscan.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "loom/_pyscan/exports.h"
#include "loom/_pyscan/packinfo.h"
#include "pysource/pyrt/containers.h"
#include "pysource/pyrt/operation.h"
#include "pysource/pyrt/shell.h"
#include "pysource/symbolkinds.h"

namespace loom::pyscan {
namespace {

using pyrt::Dict;
using pyrt::List;
using pyrt::MakeTuple;
using pyrt::Object;
using pyrt::Own;
using pyrt::ToPython;

// Bytes that are no UTF-8 become escapes, so that a name can be printed and stored anywhere.
Object MakeName(std::string_view text) {
  return Own(
      PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "backslashreplace"));
}

Object MakeBytes(std::string_view data) {
  return Own(PyBytes_FromStringAndSize(data.data(), static_cast<Py_ssize_t>(data.size())));
}

Object MakeInt(std::int64_t value) { return ToPython(value); }

// The content of a bytes object, which owns it.
std::string_view BytesOf(const Object& bytes) {
  char* data = nullptr;
  Py_ssize_t size = 0;
  pyrt::Check(PyBytes_AsStringAndSize(bytes.get(), &data, &size));
  return {data, static_cast<std::size_t>(size)};
}

// The argument as an object of the very type bytes.
Object ExactBytes(PyObject* value, const char* what) {
  if (!PyBytes_Check(value)) {
    PyErr_Format(PyExc_TypeError, "%s must be bytes, not %R", what, Py_TYPE(value));
    pyrt::ThrowPending();
  }
  return PyBytes_CheckExact(value) ? Object::Share(value)
                                   : MakeBytes(BytesOf(Object::Share(value)));
}

// A part of a list of results: `limit` of them from `first` on, all if it is -1.
struct Range {
  Range(std::size_t size, std::int64_t first, std::int64_t limit) : begin(0), end(size) {
    if (first < 0) pyrt::Raise(PyExc_ValueError, "first must not be negative");
    if (limit < -1) pyrt::Raise(PyExc_ValueError, "limit must be -1 or more");
    begin = std::min(static_cast<std::size_t>(first), size);
    if (limit >= 0) end = begin + std::min(static_cast<std::size_t>(limit), size - begin);
  }

  std::size_t begin;
  std::size_t end;
};

class Scanner {
 public:
  Scanner(Object source, bool uses) : source_(std::move(source)), scan_(BytesOf(source_), uses) {}

  static Scanner& From(PyObject* self);

  bool Scan(std::int64_t max_bytes) {
    if (max_bytes <= 0) pyrt::Raise(PyExc_ValueError, "max_bytes must be positive");
    return scan_.Scan(static_cast<std::size_t>(max_bytes));
  }

  std::int64_t position() const { return static_cast<std::int64_t>(scan_.position()); }
  std::int64_t steps() const { return static_cast<std::int64_t>(scan_.steps()); }

  bool MayGrow(std::int64_t scope) {
    if (scope < 0) pyrt::Raise(PyExc_ValueError, "scope must not be negative");
    return scan_.MayGrow(static_cast<ScopeIndex>(std::min<std::int64_t>(scope, kNoIndex)));
  }

  Object Scopes(std::int64_t first, std::int64_t limit) const {
    const Results& results = scan_.results();
    const Range range(results.scopes().size(), first, limit);
    List list;
    for (std::size_t i = range.begin; i < range.end; ++i) {
      const Scope& scope = results.scopes()[i];
      InfoPacker packer;
      results.ForEachInfo(
          static_cast<ScopeIndex>(i),
          [&packer](std::string_view name, std::string_view info) { packer.Add(name, info); });
      const std::int64_t parent = scope.parent == kNoIndex ? -1 : std::int64_t{scope.parent};
      list.Append(MakeTuple(MakeName(scope.name), MakeInt(parent), MakeInt(scope.kind),
                            MakeInt(scope.line), MakeInt(scope.end_line),
                            MakeBytes(packer.Finish())));
    }
    return list.object();
  }

  Object Names(std::int64_t first, std::int64_t limit) const {
    const Results& results = scan_.results();
    const Range range(results.bindings().size(), first, limit);
    List list;
    for (std::size_t i = range.begin; i < range.end; ++i) {
      const Binding& binding = results.bindings()[i];
      const Entry& entry = results.entries()[binding.entry];
      list.Append(MakeTuple(MakeInt(entry.scope), MakeName(entry.name), MakeInt(binding.kind),
                            MakeInt(binding.line)));
    }
    return list.object();
  }

  Object Definitions(std::int64_t first, std::int64_t limit) const {
    const std::vector<Definition>& definitions = scan_.results().definitions();
    const Range range(definitions.size(), first, limit);
    List list;
    for (std::size_t i = range.begin; i < range.end; ++i) {
      const Definition& definition = definitions[i];
      list.Append(MakeTuple(MakeInt(definition.scope), MakeName(definition.name),
                            MakeInt(definition.kind), MakeInt(definition.line)));
    }
    return list.object();
  }

  Object Imports() const {
    List list;
    for (std::string_view equivalent : scan_.results().imports()) {
      list.Append(MakeBytes(equivalent));
    }
    return list.object();
  }

  Object ExportDigest() const {
    if (!scan_.done()) pyrt::Raise(PyExc_ValueError, "the source isn't scanned to its end");
    const auto digest = DigestExports(scan_.results());
    std::string bytes;
    for (const std::uint64_t number : digest) {
      for (int shift = 0; shift < 64; shift += 8) bytes += static_cast<char>(number >> shift);
    }
    return MakeBytes(bytes);
  }

  Object Uses(std::int64_t first, std::int64_t limit) const {
    const UseCollector& collector = Collector();
    const Range range(collector.uses().size(), first, limit);
    List list;
    for (std::size_t i = range.begin; i < range.end; ++i) {
      const NameUse& use = collector.uses()[i];
      const UseGroup& group = collector.groups()[use.group];
      list.Append(MakeTuple(MakeInt(group.scope), MakeInt(group.home), MakeName(group.text),
                            MakeInt(static_cast<std::int64_t>(group.kind)), MakeInt(use.line),
                            MakeInt(use.column)));
    }
    return list.object();
  }

  Object Used(std::int64_t first, std::int64_t limit) const {
    const UseCollector& collector = Collector();
    const Range range(collector.groups().size(), first, limit);
    List list;
    for (std::size_t i = range.begin; i < range.end; ++i) {
      const UseGroup& group = collector.groups()[i];
      if (!group.first || IsLocalVariable(group)) continue;
      list.Append(MakeTuple(MakeInt(group.home), MakeName(group.text),
                            MakeInt(static_cast<std::int64_t>(group.kind))));
    }
    return list.object();
  }

  std::int64_t UsedGroups() const { return static_cast<std::int64_t>(Collector().groups().size()); }

  Object Errors() const {
    List list;
    for (const SourceError& error : scan_.errors().errors()) {
      list.Append(MakeTuple(MakeInt(error.line), MakeName(error.text)));
    }
    return list.object();
  }

 private:
  const UseCollector& Collector() const {
    if (scan_.uses() == nullptr) pyrt::Raise(PyExc_ValueError, "uses aren't recorded");
    if (!scan_.done()) pyrt::Raise(PyExc_ValueError, "the source isn't scanned to its end");
    return *scan_.uses();
  }

  // Whether nothing but the function itself can mean the name.
  bool IsLocalVariable(const UseGroup& group) const {
    if (group.text.find('.') != group.text.npos) return false;
    return group.home == kExpression ||
           (group.home >= 0 &&
            IsFunctionKind(scan_.results().scopes()[static_cast<std::size_t>(group.home)].kind));
  }

  static bool IsFunctionKind(unsigned char kind) {
    return kind != pysource::kModuleKind && kind != pysource::kClassKind;
  }

  const Object source_;
  SourceScan scan_;
};

struct ScannerObject {
  PyObject ob_base;
  Scanner* scanner;
};

Scanner& Scanner::From(PyObject* self) { return *reinterpret_cast<ScannerObject*>(self)->scanner; }

PyObject* NewScanner(PyTypeObject* type, PyObject* args, PyObject* kwargs) noexcept {
  return pyrt::Guard([&]() -> Object {
    const auto [source, uses] = pyrt::BindInit<"SourceScanner(source, uses=False)">(args, kwargs);
    Object bytes = ExactBytes(source, "source");
    if (BytesOf(bytes).size() > SourceScan::kMaxSource) {
      pyrt::Raise(PyExc_ValueError, "source is longer than 4 GiB");
    }
    const auto alloc = reinterpret_cast<allocfunc>(PyType_GetSlot(type, Py_tp_alloc));
    Object self = Own(alloc(type, 0));
    reinterpret_cast<ScannerObject*>(self.get())->scanner =
        new Scanner(std::move(bytes), uses != nullptr && pyrt::Check(PyObject_IsTrue(uses)) != 0);
    return self;
  });
}

void DeallocScanner(PyObject* self) noexcept {
  delete reinterpret_cast<ScannerObject*>(self)->scanner;
  PyTypeObject* const type = Py_TYPE(self);
  reinterpret_cast<freefunc>(PyType_GetSlot(type, Py_tp_free))(self);
  // An instance of a heap type owns a reference to its type.
  Object::Steal(reinterpret_cast<PyObject*>(type));
}

Object UnpackInfo(const Object& packed) {
  const Object bytes = ExactBytes(packed.get_or_none(), "packed");
  InfoUnpacker unpacker(BytesOf(bytes));
  Dict info;
  std::size_t count = 0;
  while (const std::optional<InfoUnpacker::Item> item = unpacker.Next()) {
    info.Set(MakeName(item->name), MakeBytes(item->info));
    ++count;
  }
  if (!unpacker.valid() || info.size() != count) {
    pyrt::Raise(PyExc_ValueError, "damaged scope information");
  }
  return info.object();
}

Object PackInfo(const Object& info) {
  const Object items = Own(PyMapping_Items(info.get_or_none()));
  InfoPacker packer;
  pyrt::ForEach(items, [&packer](const Object& item) {
    const auto [name, value] = pyrt::Unpack<2>(item);
    if (!PyBytes_Check(value.get())) {
      PyErr_Format(PyExc_TypeError, "information must be bytes, not %R", Py_TYPE(value.get()));
      pyrt::ThrowPending();
    }
    packer.Add(pyrt::Utf8(pyrt::Text(name)), BytesOf(value));
  });
  return MakeBytes(packer.Finish());
}

template <pyrt::FixedText kSignature, pyrt::FixedText kDoc, auto kMember>
constexpr auto kMethod = &pyrt::Operation<kSignature, kDoc, kMember,
                                          [](auto& scanner, auto&... arguments) -> decltype(auto) {
                                            return (scanner.*kMember)(arguments...);
                                          }>::Def;

Object MakeScannerType(const Object& module) {
  static PyMethodDef methods[] = {
      kMethod<"scan(max_bytes)",
              "Go on for about max_bytes bytes; return True when the source is scanned.",
              &Scanner::Scan>(),
      kMethod<"may_grow(scope)", "Return whether what follows may still add to a scope.",
              &Scanner::MayGrow>(),
      kMethod<"scopes(first=0, limit=-1)", "Return the scopes found so far, the module first.",
              &Scanner::Scopes>(),
      kMethod<"names(first=0, limit=-1)", "Return each binding of a name found so far.",
              &Scanner::Names>(),
      kMethod<"definitions(first=0, limit=-1)", "Return the names worth finding from anywhere.",
              &Scanner::Definitions>(),
      kMethod<"imports()", "Return what the source imports, each once.", &Scanner::Imports>(),
      kMethod<"export_digest()", "Return a digest of what others can see of the source.",
              &Scanner::ExportDigest>(),
      kMethod<"uses(first=0, limit=-1)", "Return each place where a name stands.",
              &Scanner::Uses>(),
      kMethod<"used(first=0, limit=-1)", "Return what the source uses, each once.",
              &Scanner::Used>(),
      kMethod<"errors()", "Return what is wrong with the source, the first 100 remarks.",
              &Scanner::Errors>(),
      {nullptr, nullptr, 0, nullptr}};
  static PyGetSetDef fields[] = {
      pyrt::Field<"position", "How many bytes have been walked.", Scanner,
                  [](Scanner& scanner) { return scanner.position(); }>::Def(),
      pyrt::Field<"used_groups", "How many groups of uses used() walks over.", Scanner,
                  [](Scanner& scanner) { return scanner.UsedGroups(); }>::Def(),
      pyrt::Field<"_steps", "How much work was done: bytes walked and tokens looked at.", Scanner,
                  [](Scanner& scanner) { return scanner.steps(); }>::Def(),
      {nullptr, nullptr, nullptr, nullptr, nullptr}};
  static constexpr char kDoc[] =
      "SourceScanner(source, uses=False)\n--\n\nA resumable scan of Python source in UTF-8.";
  static PyType_Slot slots[] = {{Py_tp_doc, const_cast<char*>(kDoc)},
                                {Py_tp_new, reinterpret_cast<void*>(&NewScanner)},
                                {Py_tp_dealloc, reinterpret_cast<void*>(&DeallocScanner)},
                                {Py_tp_methods, methods},
                                {Py_tp_getset, fields},
                                {0, nullptr}};
  static PyType_Spec type{"loom._pyscan.SourceScanner", sizeof(ScannerObject), 0,
                          Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE, slots};
  return Own(PyType_FromModuleAndSpec(module.get(), &type, nullptr));
}

int ExecModule(PyObject* self) noexcept {
  return pyrt::Guard([self] {
    const Object module = Object::Share(self);
    const Object type = MakeScannerType(module);
    pyrt::Check(PyModule_AddType(self, reinterpret_cast<PyTypeObject*>(type.get())));
  });
}

PyModuleDef* ModuleDefinition() {
  static PyMethodDef functions[] = {
      pyrt::ModuleFunction<"unpack_info(packed)",
                           "Return the names of a scope with their information.",
                           &UnpackInfo>::Def(),
      pyrt::ModuleFunction<"pack_info(info)", "Return the packed form of names with information.",
                           &PackInfo>::Def(),
      {nullptr, nullptr, 0, nullptr}};
  static PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(&ExecModule)},
                                     {0, nullptr}};
  static PyModuleDef definition{PyModuleDef_HEAD_INIT,
                                "loom._pyscan",
                                "The native scanner of Python source.",
                                0,
                                functions,
                                slots,
                                nullptr,
                                nullptr,
                                nullptr};
  return &definition;
}

}  // namespace
}  // namespace loom::pyscan

PyMODINIT_FUNC PyInit__pyscan() { return PyModuleDef_Init(loom::pyscan::ModuleDefinition()); }
