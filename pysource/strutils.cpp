// The module `pysource.strutils`: text as UTF-8 bytes, walked by byte position.

#include "pysource/strutils.h"

#include <array>
#include <memory>
#include <string>

#include "pysource/pyrt/containers.h"
#include "pysource/pyrt/module.h"
#include "pysource/pyrt/operation.h"
#include "pysource/pyrt/textargs.h"

namespace pysource {

using pyrt::Object;
using pyrt::Utf8Text;

namespace {

constexpr Py_UCS4 kCodePoints = 0x110000;
constexpr std::size_t kPageSize = 256;
// Set in the table for each code point that has been asked about.
constexpr std::uint8_t kKnownCharacter = 128;

using Page = std::array<std::uint8_t, kPageSize>;

std::uint8_t AskPython(Py_UCS4 u) {
  static constinit pyrt::Name kIsSpace{"isspace"};
  static constinit pyrt::Name kIsDigit{"isdigit"};
  static constinit pyrt::Name kIsAlnum{"isalnum"};
  static constinit pyrt::Name kIsIdentifier{"isidentifier"};
  const Object text = pyrt::Own(PyUnicode_FromOrdinal(static_cast<int>(u)));
  const auto ask = [&](const pyrt::Name& method, int flag) {
    return pyrt::IsTrue(pyrt::CallMethod(text, method)) ? flag : 0;
  };
  return static_cast<std::uint8_t>(ask(kIsSpace, kSpaceCharacter) | ask(kIsDigit, kDigitCharacter) |
                                   ask(kIsAlnum, kAlnumCharacter) |
                                   ask(kIsIdentifier, kIdentifierCharacter) | kKnownCharacter);
}

int ClassesOf(Py_UCS4 u) {
  if (u >= kCodePoints) pyrt::Raise(PyExc_ValueError, "code point not in range(0x110000)");
  static auto& pages = *new std::array<std::unique_ptr<Page>, kCodePoints / kPageSize>;
  std::unique_ptr<Page>& page = pages[u / kPageSize];
  if (page == nullptr) page = std::make_unique<Page>();
  std::uint8_t& classes = (*page)[u % kPageSize];
  if (classes == 0) classes = AskPython(u);
  return classes & ~kKnownCharacter;
}

// Throws UnicodeDecodeError for the sequence at `pos`, which is shown by `sequence`.
[[noreturn]] void RaiseMalformed(std::string_view sequence, std::ptrdiff_t pos,
                                 const char* reason) {
  const std::string text = std::string(reason) + " at byte position " + std::to_string(pos);
  const Object error = pyrt::Call(Object::Share(PyExc_UnicodeDecodeError), "utf-8",
                                  pyrt::Bytes(sequence), 0, 1, text.c_str());
  PyErr_SetObject(PyExc_UnicodeDecodeError, error.get());
  pyrt::ThrowPending();
}

Py_UCS4 Decode(const char* utf8_ptr, std::ptrdiff_t pos, std::ptrdiff_t end_pos) {
  const DecodedCharacter decoded = DecodeUtf8(utf8_ptr, pos, end_pos);
  if (decoded.error == nullptr) return decoded.u;
  RaiseMalformed({utf8_ptr + pos, static_cast<std::size_t>(decoded.length)}, pos, decoded.error);
}

}  // namespace

int NonAsciiClasses(Py_UCS4 u) noexcept {
  return pyrt::OrPending(-2, [&] { return ClassesOf(u); });
}

Py_UCS4 NonInlineUcs4CharAtUtf8Pos(const char* utf8_ptr, std::ptrdiff_t pos,
                                   std::ptrdiff_t end_pos) noexcept {
  return pyrt::OrPending(kNoCharacter, [&] { return Decode(utf8_ptr, pos, end_pos); });
}

int NonAsciiClassesAtUtf8Pos(const char* utf8_ptr, std::ptrdiff_t pos,
                             std::ptrdiff_t end_pos) noexcept {
  return pyrt::OrPending(-2, [&] { return ClassesOf(Decode(utf8_ptr, pos, end_pos)); });
}

std::ptrdiff_t FailWithInvalidStart() noexcept {
  PyErr_SetString(PyExc_ValueError, "Invalid start");
  return -2;
}

std::ptrdiff_t BytesFindByte(PyObject* b, unsigned char c, std::ptrdiff_t start) noexcept {
  return pyrt::OrPending<std::ptrdiff_t>(-2, [&] {
    const Object object = Object::Share(b);
    if (!pyrt::IsExactlyBytes(object)) pyrt::RaiseUnexpected("bytes", object);
    const std::string_view bytes = pyrt::BytesView(object);
    return PtrFindByte(bytes.data(), static_cast<std::ptrdiff_t>(bytes.size()), c, start);
  });
}

Py_UCS4 OrdAt(PyObject* s, std::ptrdiff_t i) noexcept {
  return pyrt::OrPending(kNoCharacter, [&]() -> Py_UCS4 {
    const Object object = Object::Share(s);
    const bool is_text = pyrt::IsExactlyText(object);
    if (!is_text && !pyrt::IsExactlyBytes(object)) pyrt::RaiseUnexpected("str or bytes", object);
    const auto length = static_cast<std::ptrdiff_t>(pyrt::Size(object));
    if (i < 0) i += length;
    if (i < 0 || i >= length) pyrt::Raise(PyExc_IndexError, "string index out of range");
    if (is_text) return pyrt::CodePointAt(pyrt::Text(object), i);
    return static_cast<unsigned char>(pyrt::BytesView(object)[static_cast<std::size_t>(i)]);
  });
}

const char* GetUtf8Ptr(PyObject* u) noexcept {
  return pyrt::OrPending<const char*>(nullptr,
                                      [&] { return Utf8Text(Object::Share(u)).view().data(); });
}

PyObject* Utf8Concat5(PyObject* s0, PyObject* s1, PyObject* s2, PyObject* s3,
                      PyObject* s4) noexcept {
  return pyrt::Guard([&] {
    static constinit pyrt::Name kJoin{"join"};
    pyrt::List parts;
    for (PyObject* given : {s0, s1, s2, s3, s4}) {
      const Object part = Object::Share(given);
      if (part.is_none()) continue;
      if (!pyrt::IsText(part)) pyrt::RaiseUnexpected("str", part);
      parts.Append(part);
    }
    return pyrt::CallMethod(pyrt::ToPython(""), kJoin, parts);
  });
}

namespace {

// A text from Python: no position reads outside of it.
class CheckedBytes {
 public:
  explicit CheckedBytes(std::string_view text) : text_(text) {}
  unsigned char operator[](std::ptrdiff_t i) const {
    if (i < 0 || i >= static_cast<std::ptrdiff_t>(text_.size())) {
      pyrt::Raise(PyExc_ValueError, "position outside of the text");
    }
    return static_cast<unsigned char>(text_[static_cast<std::size_t>(i)]);
  }

 private:
  std::string_view text_;
};

std::int64_t PyOrdAt(const Object& s, std::int64_t i) {
  return pyrt::ThrowIfPending(OrdAt(s.get(), i));
}

Object PyConcat2(const Object& s0, const Object& s1) {
  return pyrt::Own(Utf8Concat2(s0.get(), s1.get()));
}
Object PyConcat3(const Object& s0, const Object& s1, const Object& s2) {
  return pyrt::Own(Utf8Concat3(s0.get(), s1.get(), s2.get()));
}
Object PyConcat4(const Object& s0, const Object& s1, const Object& s2, const Object& s3) {
  return pyrt::Own(Utf8Concat4(s0.get(), s1.get(), s2.get(), s3.get()));
}
Object PyConcat5(const Object& s0, const Object& s1, const Object& s2, const Object& s3,
                 const Object& s4) {
  return pyrt::Own(Utf8Concat5(s0.get(), s1.get(), s2.get(), s3.get(), s4.get()));
}

Object PyGetUtf8Ptr(const Utf8Text& u) { return pyrt::Bytes(u.view()); }

std::int64_t PyAdjustUtf8Pos(const Utf8Text& utf8_ptr, std::int64_t pos, std::int64_t diff,
                             std::int64_t end_pos) {
  return AdjustPosInBytes(CheckedBytes(utf8_ptr.view()), pos, diff, end_pos);
}

// Fails if the character at `pos` doesn't lie inside of the text.
void CheckCharacter(std::string_view text, std::int64_t pos, std::int64_t end_pos) {
  if (pos < end_pos) DecodeUtf8(CheckedBytes(text), pos, end_pos);
}

std::int64_t PyUcs4CharAtUtf8Pos(const Utf8Text& utf8_ptr, std::int64_t pos, std::int64_t end_pos) {
  CheckCharacter(utf8_ptr.view(), pos, end_pos);
  return pyrt::ThrowIfPending(Ucs4CharAtUtf8Pos(utf8_ptr.view().data(), pos, end_pos));
}

template <auto kTest>
bool Test(const Utf8Text& utf8_ptr, std::int64_t pos, std::int64_t end_pos) {
  CheckCharacter(utf8_ptr.view(), pos, end_pos);
  return pyrt::ThrowIfPending(kTest(utf8_ptr.view().data(), pos, end_pos));
}

bool PyIsIdentifierChar(std::int64_t u, bool initial) {
  if (u < 0 || u >= kCodePoints) {
    pyrt::Raise(PyExc_ValueError, "code point not in range(0x110000)");
  }
  return pyrt::ThrowIfPending(IsIdentifierChar(static_cast<Py_UCS4>(u), initial)) != 0;
}

bool PyIsIdentifierCharAtUtf8Pos(const Utf8Text& utf8_ptr, std::int64_t pos, std::int64_t end_pos,
                                 bool initial) {
  CheckCharacter(utf8_ptr.view(), pos, end_pos);
  return pyrt::ThrowIfPending(
      IsIdentifierCharAtUtf8Pos(utf8_ptr.view().data(), pos, end_pos, initial));
}

std::int64_t PyPtrFindByte(const Utf8Text& ptr, std::int64_t length, unsigned char c,
                           std::int64_t start) {
  const auto size = static_cast<std::int64_t>(ptr.view().size());
  if (start >= 0 && start < length && length > size) {
    pyrt::Raise(PyExc_ValueError, "position outside of the text");
  }
  return pyrt::ThrowIfPending(PtrFindByte(ptr.view().data(), length, c, start));
}

std::int64_t PyBytesFindByte(const Object& b, unsigned char c, std::int64_t start) {
  return pyrt::ThrowIfPending(BytesFindByte(b.get(), c, start));
}

std::int64_t PyAdjustPosArg(std::int64_t pos, std::int64_t length) {
  return AdjustPosArg(pos, length);
}

std::vector<PyMethodDef> Functions() {
  using pyrt::ModuleFunction;
  return {
      ModuleFunction<
          "OrdAt(s, i)",
          "The code of the element at an index, which counts from the end if it is "
          "negative.\n\nTypeError unless s is exactly a str or bytes, IndexError outside.",
          &PyOrdAt>::Def(),
      ModuleFunction<"Utf8Concat2(s0, s1)", "The concatenation; None is left out.",
                     &PyConcat2>::Def(),
      ModuleFunction<"Utf8Concat3(s0, s1, s2)", "The concatenation; None is left out.",
                     &PyConcat3>::Def(),
      ModuleFunction<"Utf8Concat4(s0, s1, s2, s3)", "The concatenation; None is left out.",
                     &PyConcat4>::Def(),
      ModuleFunction<"Utf8Concat5(s0, s1, s2, s3, s4)", "The concatenation; None is left out.",
                     &PyConcat5>::Def(),
      ModuleFunction<"GetUtf8Ptr(u)", "The UTF-8 form of a text, as bytes.", &PyGetUtf8Ptr>::Def(),
      ModuleFunction<
          "AdjustUtf8Pos(utf8_ptr, pos, diff, end_pos)",
          "The byte position that is diff characters away, from inside of one by way of its "
          "first byte.\n\n-1 beyond the start, end_pos beyond the end. ValueError if a "
          "byte outside of the text would be read.",
          &PyAdjustUtf8Pos>::Def(),
      ModuleFunction<"Ucs4CharAtUtf8Pos(utf8_ptr, pos, end_pos)",
                     "The code point at a byte position, 0 if it isn't before end_pos.\n\n"
                     "UnicodeDecodeError for malformed UTF-8.",
                     &PyUcs4CharAtUtf8Pos>::Def(),
      ModuleFunction<"IsSpaceAtUtf8Pos(utf8_ptr, pos, end_pos)",
                     "Whether the character there is white space: C's isspace below 128, else "
                     "str.isspace.",
                     &Test<&IsSpaceAtUtf8Pos>>::Def(),
      ModuleFunction<"IsDigitAtUtf8Pos(utf8_ptr, pos, end_pos)",
                     "Whether the character there is a digit, by str.isdigit.",
                     &Test<&IsDigitAtUtf8Pos>>::Def(),
      ModuleFunction<"IsAlnumAtUtf8Pos(utf8_ptr, pos, end_pos)",
                     "Whether the character there is a letter or number, by str.isalnum.",
                     &Test<&IsAlnumAtUtf8Pos>>::Def(),
      ModuleFunction<
          "IsIdentifierChar(u, initial)",
          "Whether the code point can stand in a name; with initial, at its first position.",
          &PyIsIdentifierChar>::Def(),
      ModuleFunction<"IsIdentifierCharAtUtf8Pos(utf8_ptr, pos, end_pos, initial)",
                     "IsIdentifierChar of the character there; False if pos isn't before end_pos.",
                     &PyIsIdentifierCharAtUtf8Pos>::Def(),
      ModuleFunction<"PtrFindByte(ptr, length, c, start)",
                     "The index of the byte c in [start, length), or -1.\n\nValueError \"Invalid "
                     "start\" unless 0 <= start < length.",
                     &PyPtrFindByte>::Def(),
      ModuleFunction<"BytesFindByte(b, c, start=0)",
                     "PtrFindByte over the whole of a bytes object.", &PyBytesFindByte>::Def(),
      ModuleFunction<"AdjustPosArg(pos, length)",
                     "The position within 0 to length that a slice takes for pos.",
                     &PyAdjustPosArg>::Def(),
  };
}

}  // namespace
}  // namespace pysource

PyMODINIT_FUNC PyInit_strutils() {
  static auto& module = *new pyrt::ModuleDefinition<[](const pyrt::Object&) {}>(
      "pysource.strutils", "Text as UTF-8 bytes, walked by byte position.", pysource::Functions());
  return module.Init();
}
