// Runs a fuzz target over its kept corpus, so that every build and sanitizer sees these inputs.

#ifndef TESTS_FUZZ_REPLAY_H_
#define TESTS_FUZZ_REPLAY_H_

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// How many inputs there are. An input that breaks something ends the process.
inline int Replay(const char* target) {
  const auto corpus = std::filesystem::path(__FILE__).parent_path() / "corpus" / target;
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(corpus)) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    ++count;
  }
  return count;
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_REPLAY_H_
