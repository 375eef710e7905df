// What the fuzz targets share. A target is built by run.sh with libFuzzer, and its corpus is
// replayed by tests/unit/*_corpus_test.cpp with every compiler.

#ifndef TESTS_FUZZ_FUZZ_H_
#define TESTS_FUZZ_FUZZ_H_

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

// A copy that ends where its memory ends, so that the sanitizers see a byte read too many.
class Exact {
 public:
  explicit Exact(std::string_view text) : size_(text.size()), bytes_(new char[text.size() + 1]) {
    text.copy(bytes_.get() + 1, text.size());
  }
  const char* data() const { return bytes_.get() + 1; }
  std::ptrdiff_t size() const { return static_cast<std::ptrdiff_t>(size_); }
  std::string_view view() const { return {data(), size_}; }

 private:
  std::size_t size_;
  std::unique_ptr<char[]> bytes_;
};

inline std::string_view View(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_FUZZ_H_
