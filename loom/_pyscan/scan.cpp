// The walk from logical line to logical line, and the blocks that their indentation makes.

#include <algorithm>
#include <utility>

#include "loom/_pyscan.h"

namespace loom::pyscan {

// What finding the home of a name is worth, in bytes of lexing.
constexpr std::size_t kBytesPerHome = 32;

SourceScan::SourceScan(std::string_view source, bool record_uses)
    : source_size_(source.size()),
      results_(source.size()),
      uses_(record_uses ? std::make_optional<UseCollector>(source, results_) : std::nullopt),
      lexer_(source, errors_, record_uses),
      parser_(source, results_, errors_, uses_ ? &*uses_ : nullptr) {
  if (uses_) results_.set_uses(&*uses_);
  blocks_.push_back({});
}

bool SourceScan::Scan(std::size_t max_bytes) {
  std::size_t left = std::max<std::size_t>(max_bytes, 1);
  while (!at_end_) {
    const Lexer::Event event = lexer_.Run(left);
    walked_ += lexer_.walked();
    position_ = std::max(position_, lexer_.position());
    if (event == Lexer::Event::kLine) {
      TakeLine(lexer_.line());
    } else if (event == Lexer::Event::kEnd) {
      if (expects_block_) errors_.Add(last_line_, "expected an indented block");
      while (!blocks_.empty()) PopBlock();
      at_end_ = true;
    }
    if (lexer_.walked() >= left) {
      if (uses_) return false;
      break;
    }
    left -= lexer_.walked();
  }
  if (at_end_) done_ = !uses_ || uses_->Resolve(std::max<std::size_t>(left / kBytesPerHome, 1));
  return done_;
}

bool SourceScan::MayGrow(ScopeIndex scope) const {
  if (done_) return false;
  if (scope >= results_.scopes().size()) return true;
  if (expects_block_ && expected_.scope == scope) return true;
  const auto belongs = [scope](const Block& block) { return block.context.scope == scope; };
  return std::any_of(blocks_.begin(), blocks_.end(), belongs) ||
         std::any_of(ended_.begin(), ended_.end(), belongs);
}

void SourceScan::TakeLine(const LogicalLine& line) {
  const std::uint32_t first_line = line.tokens.front().line;
  const bool lacks_block = expects_block_ && line.column <= blocks_.back().column;
  if (lacks_block) {
    errors_.Add(first_line, "expected an indented block");
    ended_.clear();
  } else if (expects_block_ && !ResumesEnded(line)) {
    if (line.alt_column <= blocks_.back().alt_column) {
      errors_.Add(first_line, "inconsistent use of tabs and spaces in indentation");
    }
    ended_.clear();
    PushBlock(line, std::move(expected_));
  }
  const std::uint32_t header_column = blocks_.back().column;
  if (line.column > blocks_.back().column) {
    Indent(line);
  } else if (line.column < blocks_.back().column) {
    Unindent(line);
  }
  if (lacks_block) {
    // It may begin behind this line.
    ended_.insert(ended_.begin(), {header_column + 1, header_column + 1, std::move(expected_)});
  }
  if (line.column == blocks_.back().column && line.alt_column != blocks_.back().alt_column) {
    errors_.Add(first_line, "inconsistent use of tabs and spaces in indentation");
  }
  const ScopeIndex scope = blocks_.back().context.scope;
  expects_block_ = parser_.ParseLine(line, blocks_.back().context);
  if (uses_) uses_->TakeLine(line, scope);
  if (expects_block_) expected_ = parser_.opened();
  last_line_ = line.last_line;
}

// Whether the line goes on with a block that a half-typed definition seemed to end.
bool SourceScan::ResumesEnded(const LogicalLine& line) const {
  return expected_.half_typed &&
         std::any_of(ended_.begin(), ended_.end(),
                     [&line](const Block& block) { return block.column == line.column; });
}

// A line that is indented more than its block, where none was to begin. If deeper blocks have just
// ended, what ended them was probably a slip, and those that it may belong to go on.
void SourceScan::Indent(const LogicalLine& line) {
  errors_.Add(line.tokens.front().line, "unexpected indent");
  const std::uint32_t top = blocks_.back().column;
  for (auto block = ended_.rbegin(); block != ended_.rend(); ++block) {
    if (block->column > top && block->column <= line.column) blocks_.push_back(std::move(*block));
  }
  ended_.clear();
  if (blocks_.back().column < line.column) {
    BlockContext context = blocks_.back().context;
    PushBlock(line, std::move(context));
  }
}

void SourceScan::Unindent(const LogicalLine& line) {
  // A line between two levels belongs to the inner one.
  const auto level = std::find_if(blocks_.begin(), blocks_.end(), [&line](const Block& block) {
    return block.column >= line.column;
  });
  if (level->column != line.column) {
    errors_.Add(line.tokens.front().line, "unindent does not match any outer indentation level");
  }
  ended_.clear();
  const std::size_t keep = static_cast<std::size_t>(level - blocks_.begin()) + 1;
  while (blocks_.size() > keep) PopBlock();
}

void SourceScan::PushBlock(const LogicalLine& line, BlockContext context) {
  if (blocks_.size() >= kMaxBlocks) {
    errors_.Add(line.tokens.front().line, "too many levels of indentation");
    return;
  }
  blocks_.push_back({line.column, line.alt_column, std::move(context)});
}

void SourceScan::PopBlock() {
  Block block = std::move(blocks_.back());
  blocks_.pop_back();
  const bool ends_scope = blocks_.empty() || blocks_.back().context.scope != block.context.scope;
  if (ends_scope) results_.EndScope(block.context.scope, last_line_);
  ended_.push_back(std::move(block));
}

}  // namespace loom::pyscan
