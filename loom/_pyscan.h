// A scanner of Python source: what each scope of a file defines, found in one resumable walk over
// its UTF-8 bytes, without a syntax tree. This is its whole interface to C++; it knows nothing of
// Python as an interpreter. docs/scanner.md tells what is recorded and in which form.
//
// It reads the grammar of Python 3.12, with what later versions have added to it, and takes
// whatever it is given: what isn't Python is remarked upon and passed over, and the rest of the
// file is found as if it were not there, as far as that can be told.
//
// Time and memory are proportional to the length of the source. Nothing recurses.

#ifndef LOOM_PYSCAN_H_
#define LOOM_PYSCAN_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "loom/_pyscan/errors.h"
#include "loom/_pyscan/lexer.h"
#include "loom/_pyscan/results.h"
#include "loom/_pyscan/statements.h"
#include "loom/_pyscan/uses.h"

namespace loom::pyscan {

class SourceScan {
 public:
  // Longer sources are refused by whoever makes a scan.
  static constexpr std::size_t kMaxSource = 0xFFFFFFF0u;
  // Deeper blocks are scanned as if they belonged to the one around them. Python allows 100.
  static constexpr std::size_t kMaxBlocks = 100;

  // Requires: source.size() <= kMaxSource. The text is not copied and must outlive the scan. Uses
  // of names are recorded only with record_uses.
  explicit SourceScan(std::string_view source, bool record_uses = false);
  SourceScan(const SourceScan&) = delete;
  SourceScan& operator=(const SourceScan&) = delete;

  // Goes on for about max_bytes, and at least one token. True when the scan is at its end. What has
  // been found does not depend on how the walk was divided.
  bool Scan(std::size_t max_bytes);
  bool done() const { return done_; }
  // Whether what follows may still add to a scope: its block is open, or goes on if the next line
  // is indented too deeply. A scope that hasn't been found yet may.
  bool MayGrow(ScopeIndex scope) const;
  // How far the walk has come; never goes back.
  std::size_t position() const { return done_ ? source_size_ : position_; }
  // A measure of the work done: bytes walked, tokens looked at.
  std::uint64_t steps() const { return walked_ + parser_.steps(); }

  const Results& results() const { return results_; }
  // None without record_uses. The homes of names are known when the scan is done.
  const UseCollector* uses() const { return uses_ ? &*uses_ : nullptr; }
  const ErrorList& errors() const { return errors_; }

 private:
  struct Block {
    std::uint32_t column = 0;
    std::uint32_t alt_column = 0;
    BlockContext context;
  };

  void TakeLine(const LogicalLine& line);
  bool ResumesEnded(const LogicalLine& line) const;
  void Indent(const LogicalLine& line);
  void Unindent(const LogicalLine& line);
  void PushBlock(const LogicalLine& line, BlockContext context);
  void PopBlock();

  const std::size_t source_size_;
  ErrorList errors_;
  Results results_;
  std::optional<UseCollector> uses_;
  Lexer lexer_;
  StatementParser parser_;
  std::vector<Block> blocks_;
  // Blocks that the last decrease of indentation ended, and one that was to begin and didn't,
  // innermost first: where a line that is indented too deeply may belong.
  std::vector<Block> ended_;
  bool expects_block_ = false;
  BlockContext expected_;
  std::uint32_t last_line_ = 1;  // line on which the last logical line ended
  bool at_end_ = false;          // of the text; the homes of uses may still be looked for
  bool done_ = false;
  std::size_t position_ = 0;
  std::uint64_t walked_ = 0;
};

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_H_
