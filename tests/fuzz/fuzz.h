// What the fuzz targets share. cmake/Fuzz.cmake builds a target with libFuzzer, and replay.h runs
// its kept corpus in any other build.

#ifndef TESTS_FUZZ_FUZZ_H_
#define TESTS_FUZZ_FUZZ_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

// Ends the process, so that the fuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                           \
  do {                                                                                  \
    if (!(condition)) {                                                                 \
      std::fprintf(stderr, "%s:%d: %s doesn't hold\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                     \
    }                                                                                   \
  } while (false)

namespace fuzz {

// A copy with no byte around it, so that the sanitizers see each read outside of it.
class Exact {
 public:
  explicit Exact(std::string_view text) : size_(text.size()), bytes_(new char[text.size()]) {
    text.copy(bytes_.get(), text.size());
  }
  const char* data() const { return bytes_.get(); }
  const char* end() const { return bytes_.get() + size_; }
  std::ptrdiff_t size() const { return static_cast<std::ptrdiff_t>(size_); }
  std::string_view view() const { return {data(), size_}; }

 private:
  std::size_t size_;
  std::unique_ptr<char[]> bytes_;
};

inline std::string_view View(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Cuts an input into small choices and the text that they are made for.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(View(data, size)) {}

  // 0 when the input is used up.
  std::uint8_t Byte() {
    if (rest_.empty()) return 0;
    const char first = rest_.front();
    rest_.remove_prefix(1);
    return static_cast<std::uint8_t>(first);
  }
  std::string_view Take(std::size_t size) {
    const std::string_view taken = rest_.substr(0, size);
    rest_.remove_prefix(taken.size());
    return taken;
  }
  std::string_view Rest() const { return rest_; }

 private:
  std::string_view rest_;
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_FUZZ_H_
