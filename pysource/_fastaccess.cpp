// The module `pysource._fastaccess`: what is needed often and must be cheap.

#include "pysource/_fastaccess.h"

#include "pysource/pyrt/module.h"
#include "pysource/pyrt/operation.h"
#include "pysource/pyrt/plainclass.h"
#include "pysource/pyrt/varargs.h"

namespace pysource::fastaccess {
namespace {

using pyrt::Object;
using pyrt::Text;

// A logger that is called like a function. While there is no output file a call only looks at the
// type of its format.
class CLogger {
 public:
  static CLogger& From(PyObject* self) { return pyrt::PlainClass<CLogger>::From(self); }

  static int Init(PyObject* self, PyObject* args, PyObject* kwargs) noexcept {
    return pyrt::Guard([&] {
      From(self).name_ = Text(Object::Share(pyrt::BindInit<"CLogger(name)">(args, kwargs)[0]));
    });
  }

  void Log(PyObject* format, pyrt::Arguments args) {
    if (format != Py_None && PyUnicode_Check(format) == 0) {
      const Object type = pyrt::Own(PyType_GetName(Py_TYPE(format)));
      PyErr_Format(PyExc_TypeError, "expected str or None as format, got %U", type.get());
      pyrt::ThrowPending();
    }
    if (output_.is_none()) return;
    // What is called here may set another output file, or drop the last reference to this one.
    const Object output = output_;
    Write(output, Line(format, args));
  }

  Object Output() { return output_; }
  Object LoggerName() { return name_ ? name_.object() : pyrt::ToPython(""); }

  static int SetOutput(PyObject* self, PyObject* value, void*) noexcept {
    return pyrt::Guard([&] {
      if (value == nullptr) pyrt::Raise(PyExc_AttributeError, "fOutputFile can't be deleted");
      From(self).output_ = Object::Share(value);
    });
  }

  void Traverse(pyrt::Visitor& visit) const noexcept { visit.All(name_.object(), output_); }
  void Drop() noexcept { output_ = Object(); }

 private:
  // "name: text\n". A format of none is the empty text.
  Object Line(PyObject* format, pyrt::Arguments args) const {
    Object text = format == Py_None ? pyrt::ToPython("") : Object::Share(format);
    if (!args.empty()) text = pyrt::Own(PyUnicode_Format(text.get(), pyrt::TupleOf(args).get()));
    const Py_ssize_t length = PyUnicode_GetLength(text.get());
    const bool ended = length > 0 && PyUnicode_ReadChar(text.get(), length - 1) == '\n';
    const char* end = ended ? "" : "\n";
    if (!name_) return pyrt::Own(PyUnicode_FromFormat("%U%s", text.get(), end));
    return pyrt::Own(PyUnicode_FromFormat("%U: %U%s", name_.get(), text.get(), end));
  }

  static void Write(const Object& output, const Object& line) {
    static constinit pyrt::Name kWrite{"write"};
    pyrt::CallMethod(output, kWrite, line);
  }

  Text name_;
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

void Fill(const Object& module) {
  static constinit pyrt::Name kTimeModule{"time"};
  static constinit pyrt::Name kTime{"time"};
  pyrt::Publish(module, "__TimeFunc", pyrt::ModuleAttr(kTimeModule, kTime));
  AddLogger(module);
}

}  // namespace
}  // namespace pysource::fastaccess

PyMODINIT_FUNC PyInit__fastaccess() {
  using namespace pysource::fastaccess;
  static auto& module = *new pyrt::ModuleDefinition(
      "pysource._fastaccess",
      "What is needed often and must be cheap: clock, logger, text helpers.",
      {pyrt::ModuleFunction<"GetNowTime()",
                            "The time in seconds, from what stands at __TimeFunc at this moment.",
                            &GetNowTime>::Def(),
       pyrt::ModuleFunction<"OutOfTime(end_time)",
                            "Whether GetNowTime() has come to end_time, an absolute time.",
                            &OutOfTime>::Def()},
      &Fill);
  return module.Init();
}
