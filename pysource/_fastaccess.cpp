// The module `pysource._fastaccess`: what is needed often and must be cheap.

#include "pysource/_fastaccess.h"

#include <cctype>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "pysource/pyrt/module.h"
#include "pysource/pyrt/operation.h"
#include "pysource/pyrt/plainclass.h"
#include "pysource/pyrt/textargs.h"
#include "pysource/pyrt/varargs.h"

namespace pysource::fastaccess {

using pyrt::Object;
using pyrt::Text;

double DoubleValueForPyIntBits(const Object& l) {
  const Object number = pyrt::Own(PyNumber_Index(l.get_or_none()));
  const unsigned long long bits = PyLong_AsUnsignedLongLongMask(number.get());
  if (bits == ~0ULL && PyErr_Occurred() != nullptr) pyrt::ThrowPending();
  return DoubleValueForULongLongBits(bits);
}

bool StrInStr(const Object& sub, const Object& whole) {
  if (!pyrt::IsExactlyBytes(sub) || !pyrt::IsExactlyBytes(whole)) {
    pyrt::Raise(PyExc_TypeError, "Both sub and whole must be strings");
  }
  return std::strstr(pyrt::BytesView(whole).data(), pyrt::BytesView(sub).data()) != nullptr;
}

bool IsAlnum(unsigned char c) { return std::isalnum(c) != 0; }
bool IsDigit(unsigned char c) { return std::isdigit(c) != 0; }

std::int64_t UpdateNestingLevel(std::int64_t level, const Object& t, bool forward) noexcept {
  return pyrt::OrPending(kNoNestingLevel, [&] {
    if (!pyrt::IsText(t)) pyrt::RaiseArgumentType("t", "str", t);
    const Text token(t);
    if (pyrt::Length(token) != 1) return level;
    const std::int64_t step = forward ? 1 : -1;
    switch (pyrt::CodePointAt(token, 0)) {
      case '(':
      case '[':
      case '{':
        return level + step;
      case ')':
      case ']':
      case '}':
        return level - step;
      default:
        return level;
    }
  });
}

int CNonNestedSearch::InitWith(const Object& to_search, const Object& to_find_bytes,
                               std::int64_t start, std::int64_t end) {
  return pyrt::OrPending(-1, [&] {
    Start(to_search, to_find_bytes, start, end);
    return 0;
  });
}

void CNonNestedSearch::Start(const Object& to_search, const Object& to_find_bytes,
                             std::int64_t start, std::int64_t end) {
  Object as_bytes;
  Object as_str;
  const char* text = nullptr;
  std::int64_t length = 0;
  if (pyrt::IsBytes(to_search)) {
    if (!pyrt::IsExactlyBytes(to_search)) pyrt::RaiseUnexpected("bytes", to_search);
    as_bytes = to_search;
  } else if (pyrt::IsText(to_search)) {
    if (!pyrt::IsExactlyText(to_search)) pyrt::RaiseUnexpected("str", to_search);
    as_str = to_search;
  }
  if (as_bytes || as_str) {
    const std::string_view view = pyrt::Utf8Text(to_search).view();
    text = view.data();
    length = static_cast<std::int64_t>(view.size());
  }
  if (!pyrt::IsBytes(to_find_bytes)) {
    const Text message = pyrt::Format("expected bytes, %S found", pyrt::TypeName(to_find_bytes));
    pyrt::Raise(PyExc_TypeError, std::string(pyrt::Utf8(message)));
  }
  const std::string_view to_find = pyrt::BytesView(to_find_bytes);
  if (text != nullptr) {
    if (pyrt::DebugChecks()) {
      const auto c_length = static_cast<std::int64_t>(std::strlen(text));
      pyrt::DebugCheck(start >= 0 && start <= c_length, "start outside of the text");
      pyrt::DebugCheck(end >= 0 && end <= c_length, "end outside of the text");
    }
    if (start < 0 || end > length) {
      pyrt::Raise(PyExc_ValueError, "position outside of the text");
    }
  }
  std::swap(to_search_bytes_, as_bytes);
  std::swap(to_search_str_, as_str);
  const Object old_to_find = std::exchange(to_find_bytes_, to_find_bytes);
  InitNonNestedStruct(&struct_, text, to_find.data(), static_cast<std::ptrdiff_t>(to_find.size()),
                      start, end);
}

std::int64_t CNonNestedSearch::FindNext() {
  if (!to_search_bytes_ && !to_search_str_) return -1;
  const std::ptrdiff_t found = FindNextNonNestedStruct(&struct_);
  if (found == -1) Clear();
  return found;
}

void CNonNestedSearch::Clear() {
  struct_ = tNonNestedStruct();
  const Object as_bytes = std::move(to_search_bytes_);
  const Object as_str = std::move(to_search_str_);
  const Object to_find = std::move(to_find_bytes_);
}

namespace {

// A logger that is called like a function. While there is no output file a call only looks at the
// type of its format.
class CLogger {
 public:
  static CLogger& From(PyObject* self) { return pyrt::PlainClass<CLogger>::From(self); }

  static int Init(PyObject* self, PyObject* args, PyObject* kwargs) noexcept {
    return pyrt::Guard([&] {
      From(self).name_ =
          Text(Object::Share(pyrt::BindInit<"CLogger(name)">(args, kwargs)[0])).object();
    });
  }

  void Log(PyObject* format, pyrt::Arguments args) {
    if (format != Py_None && PyUnicode_Check(format) == 0) {
      pyrt::RaiseArgumentType("s", "str or None", Object::Share(format));
    }
    if (output_.is_none()) return;
    // What is called here may set another output file, or drop the last reference to this one.
    const Object output = output_;
    Write(output, Line(format, args));
  }

  Object Output() { return output_; }
  Object LoggerName() { return name_ ? name_ : pyrt::ToPython(""); }

  static int SetOutput(PyObject* self, PyObject* value, void*) noexcept {
    return pyrt::Guard([&] {
      if (value == nullptr) pyrt::Raise(PyExc_AttributeError, "fOutputFile can't be deleted");
      From(self).output_ = Object::Share(value);
    });
  }

  void Traverse(pyrt::Visitor& visit) const noexcept { visit.All(name_, output_); }
  void Drop() noexcept { output_ = Object(); }

 private:
  // "name: text\n". A format of none is the empty text.
  Object Line(PyObject* format, pyrt::Arguments args) const {
    Object text = format == Py_None ? pyrt::ToPython("") : Object::Share(format);
    if (!args.empty()) text = pyrt::Own(PyUnicode_Format(text.get(), pyrt::TupleOf(args).get()));
    const Py_ssize_t length = pyrt::Length(Text(text));
    const bool ended = length > 0 && pyrt::CodePointAt(Text(text), length - 1) == '\n';
    const char* end = ended ? "" : "\n";
    if (!name_) return pyrt::Format("%U%s", text, end).object();
    return pyrt::Format("%U: %U%s", name_, text, end).object();
  }

  static void Write(const Object& output, const Object& line) {
    static constinit pyrt::Name kWrite{"write"};
    pyrt::CallMethod(output, kWrite, line);
  }

  Object name_;
  Object output_;
};

using Call = pyrt::VariadicOperation<"__call__(s, *args)", "", &CLogger::Log>;

void AddLogger(const Object& module) {
  pyrt::PlainDefinition definition{
      .name = "pysource._fastaccess.CLogger",
      .doc =
          "CLogger(name)\n--\n\nA logger: called with a format, str or None, and its arguments.\n\n"
          "Nothing is written or formatted while fOutputFile is None, as it is at first. "
          "Otherwise\n"
          "each call makes one call of its write() with one line: the name, and the format as it\n"
          "stands if there are no arguments, else formatted with them as by %. A format of "
          "another\n"
          "type is a TypeError. Failures of the formatting and of write() are the caller's.",
      .init = &CLogger::Init,
      .methods =
          {pyrt::VariadicOperation<"Log1(s, *args)", "Logs a line, as calling the logger does.",
                                   &CLogger::Log>::Def(),
           pyrt::VariadicOperation<"Log2(s, *args)", "Logs a line, as calling the logger does.",
                                   &CLogger::Log>::Def(),
           pyrt::VariadicOperation<"Log3(s, *args)", "Logs a line, as calling the logger does.",
                                   &CLogger::Log>::Def()},
      .fields =
          {pyrt::Field<"fOutputFile", "Where lines are written to, or None.", CLogger,
                       [](CLogger& logger) { return logger.Output(); }>::Def(&CLogger::SetOutput),
           pyrt::Field<"fName", "The name that lines begin with.", CLogger,
                       [](CLogger& logger) { return logger.LoggerName(); }>::Def()},
      .call = &Call::Vectorcall};
  pyrt::Publish(module, "CLogger",
                pyrt::PlainClass<CLogger>::Create(module, std::move(definition)));
}

void AddSearch(const Object& module) {
  using Search = CNonNestedSearch;
  pyrt::PlainDefinition definition{
      .name = "pysource._fastaccess.CNonNestedSearch",
      .doc =
          "CNonNestedSearch()\n--\n\nA search for bytes outside of brackets and literals.\n\n"
          "Positions are byte positions, of a str in its UTF-8 form.",
      .methods =
          {pyrt::Operation<
               "InitWith(to_search, to_find_bytes, start, end)",
               "Starts a search in [start, end) of bytes or a str; anything else holds nothing.\n\n"
               "Returns 0. TypeError for a subclass of bytes or str, or if to_find_bytes isn't "
               "bytes;\nAssertionError under __debug__ for a position behind the end or the first "
               "zero byte;\nValueError for one outside of the text.",
               &Search::InitWith,
               [](Search& search, auto&... args) {
                 return pyrt::ThrowIfPending(search.InitWith(args...));
               }>::Def(),
           pyrt::Operation<
               "FindNext()",
               "The position of the next match at nesting level 0, or -1, which ends the "
               "search.\n\n"
               "A string literal is stepped over as a whole. It ends behind its closing quotes; a "
               "backslash\ntakes the next character with it, in raw literals too. One of single "
               "quotes that a line end\ncuts off ends there, one of triple quotes at the end of "
               "the text. In an f-string the quotes inside\na replacement field belong to literals "
               "of their own; a field that isn't closed runs to the end\nof the text.",
               &Search::FindNext, [](Search& search) { return search.FindNext(); }>::Def(),
           pyrt::Operation<"Clear()", "Forgets the search.", &Search::Clear,
                           [](Search& search) { search.Clear(); }>::Def()},
      .fields = {pyrt::Field<"fToSearchBytes", "The text that is searched, if it is bytes.", Search,
                             [](Search& search) { return search.to_search_bytes(); }>::Def(),
                 pyrt::Field<"fToSearchStr", "The text that is searched, if it is a str.", Search,
                             [](Search& search) { return search.to_search_str(); }>::Def()}};
  pyrt::Publish(module, "CNonNestedSearch",
                pyrt::PlainClass<Search>::Create(module, std::move(definition)));
}

void Fill(const Object& module) {
  static constinit pyrt::Name kTimeModule{"time"};
  static constinit pyrt::Name kTime{"time"};
  pyrt::Publish(module, "__TimeFunc", pyrt::ModuleAttr(kTimeModule, kTime));
  AddLogger(module);
  AddSearch(module);
}

std::int64_t PyUpdateNestingLevel(std::int64_t level, const Object& t, bool forward) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
  if (level > kMax || level < -kMax) {
    pyrt::Raise(PyExc_OverflowError, "a nesting level has 32 bits");
  }
  return pyrt::ThrowIfPending(UpdateNestingLevel(level, t, forward));
}

}  // namespace
}  // namespace pysource::fastaccess

PyMODINIT_FUNC PyInit__fastaccess() {
  using namespace pysource::fastaccess;
  using pyrt::ModuleFunction;
  static auto& module = *new pyrt::ModuleDefinition<&Fill>(
      "pysource._fastaccess",
      "What is needed often and must be cheap: clock, logger, text helpers.",
      {ModuleFunction<"GetNowTime()",
                      "The time in seconds, from what stands at __TimeFunc at this moment.",
                      &GetNowTime>::Def(),
       ModuleFunction<"OutOfTime(end_time)",
                      "Whether GetNowTime() has come to end_time, an absolute time.",
                      &OutOfTime>::Def(),
       ModuleFunction<"ULongLongValueForDoubleBits(f)",
                      "The unsigned 64-bit integer with the bits of a double.",
                      &ULongLongValueForDoubleBits>::Def(),
       ModuleFunction<"DoubleValueForULongLongBits(l)",
                      "The double with the bits of an unsigned 64-bit integer, else OverflowError.",
                      &DoubleValueForULongLongBits>::Def(),
       ModuleFunction<"DoubleValueForPyIntBits(l)",
                      "The double with the low 64 bits of an integer of any size.",
                      &DoubleValueForPyIntBits>::Def(),
       ModuleFunction<"StrInStr(sub, whole)",
                      "Whether sub occurs in whole, both bytes that end at their first zero byte.",
                      &StrInStr>::Def(),
       ModuleFunction<"IsAlnum(c)", "The C library's isalnum for a byte.", &IsAlnum>::Def(),
       ModuleFunction<"IsDigit(c)", "The C library's isdigit for a byte.", &IsDigit>::Def(),
       ModuleFunction<"LocationsEqual(loc1, loc2)", "Whether the two are the very same object.",
                      &LocationsEqual>::Def(),
       ModuleFunction<"UpdateNestingLevel(level, t, forward=True)",
                      "The nesting level behind a token, or before it if forward is false.",
                      &PyUpdateNestingLevel>::Def()});
  return module.Init();
}
