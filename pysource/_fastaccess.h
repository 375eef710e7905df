// What is needed often and must be cheap. The state (which clock) lives in the Python module
// `pysource._fastaccess` alone, so that every extension that includes this header shares it.

#ifndef PYSOURCE__FASTACCESS_H_
#define PYSOURCE__FASTACCESS_H_

#include <bit>
#include <cstddef>
#include <cstdint>

#include "pysource/nonnestedsearch.h"
#include "pysource/pyrt/call.h"
#include "pysource/pyrt/convert.h"
#include "pysource/pyrt/plainclass.h"

namespace pysource::fastaccess {

inline constinit pyrt::Name kModuleName{"pysource._fastaccess"};

// The time in seconds, from what stands at the module's attribute `__TimeFunc` at this moment.
// All times of the system are on its scale. May call Python; throws what that raises, or TypeError
// if the result is no number.
inline double GetNowTime() {
  static constinit pyrt::Name kTimeFunc{"__TimeFunc"};
  return pyrt::FromPython<double>(pyrt::Call(pyrt::ModuleAttr(kModuleName, kTimeFunc)).get());
}

// Whether an absolute time has come: a slice is over at the exact moment of its end time.
inline bool OutOfTime(double end_time) { return GetNowTime() >= end_time; }

// --- Doubles by their bits -----------------------------------------------------------------------

constexpr std::uint64_t ULongLongValueForDoubleBits(double f) {
  return std::bit_cast<std::uint64_t>(f);
}
constexpr double DoubleValueForULongLongBits(std::uint64_t l) { return std::bit_cast<double>(l); }
// Of an integer of any size the low 64 bits count, and negative values wrap. Throws TypeError for
// what is no integer.
double DoubleValueForPyIntBits(const pyrt::Object& l);

// --- Tests ---------------------------------------------------------------------------------------

// Whether one bytes object occurs in another. They are compared as C strings: a zero byte ends
// either. Throws TypeError unless both are exactly bytes.
bool StrInStr(const pyrt::Object& sub, const pyrt::Object& whole);

// As the C library's isalnum and isdigit.
bool IsAlnum(unsigned char c);
bool IsDigit(unsigned char c);

// Locations are unique objects, so identity is equality; nothing of them is compared.
inline bool LocationsEqual(const pyrt::Object& loc1, const pyrt::Object& loc2) {
  return loc1.is(loc2);
}

// The nesting level behind a token, or before it if `forward` is false. Only a token of a single
// bracket changes it; the kinds of brackets aren't told apart, and a level can go below zero.
// kNoNestingLevel with the pending failure TypeError if the token isn't text.
std::int64_t UpdateNestingLevel(std::int64_t level, const pyrt::Object& t,
                                bool forward = true) noexcept;
// A value that no level reaches.
inline constexpr std::int64_t kNoNestingLevel = -1000;

// --- Search --------------------------------------------------------------------------------------

// A search that keeps what it searches alive. It is cleared, or searching from InitWith until
// FindNext finds no more.
class CNonNestedSearch {
 public:
  static CNonNestedSearch& From(PyObject* self) {
    return pyrt::PlainClass<CNonNestedSearch>::From(self);
  }

  // `to_search` is bytes or a str, whose positions are those of its UTF-8 form, or anything else,
  // which counts as none. Returns 0, or -1 with a pending failure; then a search that was under way
  // goes on. Failures: TypeError for a subclass of bytes or str, or if `to_find_bytes` isn't bytes;
  // AssertionError, with debug checks on, if a position lies behind the first zero byte of the text
  // or its end; ValueError if one lies outside of the text.
  int InitWith(const pyrt::Object& to_search, const pyrt::Object& to_find_bytes, std::int64_t start,
               std::int64_t end);
  // The position of the next match, or -1, which ends the search for good.
  std::int64_t FindNext();
  void Clear();

  pyrt::Object to_search_bytes() const { return to_search_bytes_; }
  pyrt::Object to_search_str() const { return to_search_str_; }

  void Traverse(pyrt::Visitor&) const noexcept {}  // bytes and str refer to nothing
  void Drop() noexcept { Clear(); }

 private:
  void Start(const pyrt::Object& to_search, const pyrt::Object& to_find_bytes, std::int64_t start,
             std::int64_t end);

  tNonNestedStruct struct_;
  pyrt::Object to_search_bytes_;
  pyrt::Object to_search_str_;
  pyrt::Object to_find_bytes_;
};

}  // namespace pysource::fastaccess

#endif  // PYSOURCE__FASTACCESS_H_
