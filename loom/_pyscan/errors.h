// What is wrong with a source text: a bounded list of remarks.

#ifndef LOOM_PYSCAN_ERRORS_H_
#define LOOM_PYSCAN_ERRORS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace loom::pyscan {

struct SourceError {
  std::uint32_t line;
  std::string text;
};

// Keeps the first kMaxErrors remarks in the order in which they were made.
class ErrorList {
 public:
  static constexpr std::size_t kMaxErrors = 100;

  // A second remark with the same text on the same line as the last one is dropped.
  void Add(std::uint32_t line, const char* text) {
    if (errors_.size() == kMaxErrors) return;
    if (!errors_.empty() && errors_.back().line == line && errors_.back().text == text) return;
    errors_.push_back({line, text});
  }
  void AddBracket(std::uint32_t line, const char* before, char bracket, const char* after) {
    if (errors_.size() == kMaxErrors) return;
    Add(line, (std::string(before) + "'" + bracket + "'" + after).c_str());
  }
  const std::vector<SourceError>& errors() const { return errors_; }

 private:
  std::vector<SourceError> errors_;
};

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_ERRORS_H_
