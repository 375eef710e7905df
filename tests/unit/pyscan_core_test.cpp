// The core of the source scanner without Python: byte searches, string literals, and scans of text
// in buffers of exactly its size, so that sanitizers see each read behind the end.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "loom/_pyscan.h"
#include "loom/_pyscan/chars.h"
#include "loom/_pyscan/keywords.h"
#include "loom/_pyscan/packinfo.h"
#include "pysource/stringliteral.h"

namespace loom::pyscan {
namespace {

// A copy of a text without a byte behind it.
class Tight {
 public:
  explicit Tight(std::string_view text) : size_(text.size()), data_(new char[text.size()]) {
    std::copy(text.begin(), text.end(), data_.get());
  }
  const char* begin() const { return data_.get(); }
  const char* end() const { return data_.get() + size_; }
  std::string_view view() const { return {data_.get(), size_}; }

 private:
  std::size_t size_;
  std::unique_ptr<char[]> data_;
};

TEST(Chars, FindAnyFindsTheFirstAtEachPlace) {
  for (std::size_t size = 0; size < 40; ++size) {
    for (std::size_t place = 0; place <= size; ++place) {
      std::string text(size, 'a');
      // Neighbours of the wanted bytes, which a careless search by words would take for them.
      for (std::size_t i = 0; i < size; ++i) text[i] = "a\x0b\x21\x8a\xff"[i % 5];
      if (place < size) text[place] = '\n';
      const Tight tight(text);
      EXPECT_EQ(FindAny(tight.begin(), tight.end(), '\n', '"') - tight.begin(),
                static_cast<std::ptrdiff_t>(place));
    }
  }
}

TEST(Chars, SkipRunEndsAtTheFirstOtherByte) {
  for (std::size_t size = 0; size < 40; ++size) {
    for (std::size_t run = 0; run <= size; ++run) {
      std::string text(size, ' ');
      if (run < size) text[run] = '\t';
      const Tight tight(text);
      EXPECT_EQ(SkipRun(tight.begin(), tight.end(), ' ') - tight.begin(),
                static_cast<std::ptrdiff_t>(run));
    }
  }
}

TEST(Keywords, AreToldFromNames) {
  EXPECT_EQ(ClassifyWord("lambda", 6), Tok::kKwLambda);
  EXPECT_EQ(ClassifyWord("nonlocal", 8), Tok::kKwNonlocal);
  EXPECT_EQ(ClassifyWord("True", 4), Tok::kKwTrue);
  EXPECT_EQ(ClassifyWord(std::string_view("importer").substr(0, 6), 8), Tok::kKwImport);
  for (std::string_view name : {"", "i", "match", "case", "type", "_", "true", "lambdas", "Def",
                                "nonlocals", "continue_", "print"}) {
    EXPECT_EQ(ClassifyWord(name, name.size()), Tok::kName) << name;
  }
}

TEST(StringLiterals, PrefixesOfAllVersions) {
  for (std::string_view prefix : {"r", "R", "b", "u", "U", "br", "rB", "Rb", "ur", "BR"}) {
    EXPECT_TRUE(ClassifyStringPrefix(prefix).valid) << prefix;
    EXPECT_FALSE(ClassifyStringPrefix(prefix).formatted) << prefix;
  }
  for (std::string_view prefix : {"f", "F", "rf", "fR", "t", "Tr", "rT"}) {
    EXPECT_TRUE(ClassifyStringPrefix(prefix).formatted) << prefix;
  }
  for (std::string_view word : {"", "rr", "bf", "fb", "ub", "x", "fx", "rbr", "ft"}) {
    EXPECT_FALSE(ClassifyStringPrefix(word).valid) << word;
  }
  EXPECT_TRUE(ClassifyStringPrefix("Rb").raw);
  EXPECT_FALSE(ClassifyStringPrefix("b").raw);
}

struct Literal {
  std::string_view body;
  char quote;
  bool triple;
  StringStop stop;
  std::size_t length;
  std::uint32_t newlines;
};

// The text behind the opening quotes.
const Literal kLiterals[] = {
    {"abc' x", '\'', false, StringStop::kClosed, 4, 0},
    {"a\\'b'", '\'', false, StringStop::kClosed, 5, 0},
    {"a\\\\'b'", '\'', false, StringStop::kClosed, 4, 0},
    {"a\"b'", '\'', false, StringStop::kClosed, 4, 0},
    {"a\nb'", '\'', false, StringStop::kLineEnd, 1, 0},
    {"a\\\nb'", '\'', false, StringStop::kClosed, 5, 1},
    {"a\\\r\nb'", '\'', false, StringStop::kClosed, 6, 1},
    {"abc", '\'', false, StringStop::kTextEnd, 3, 0},
    {"abc\\", '\'', false, StringStop::kTextEnd, 4, 0},
    {"a\"b\"\"c\"\"\" ", '"', true, StringStop::kClosed, 9, 0},
    {"a\nb\r\nc\rd\"\"\"", '"', true, StringStop::kClosed, 11, 3},
    {"a\\\"\"\"\"", '"', true, StringStop::kClosed, 6, 0},
    {"a\"\"", '"', true, StringStop::kTextEnd, 3, 0},
};

TEST(StringLiterals, EndWhereTheyShouldWhateverTheLimits) {
  for (const Literal& literal : kLiterals) {
    const Tight text(literal.body);
    for (std::ptrdiff_t stride = 1; stride < 20; ++stride) {
      const char* p = text.begin();
      std::uint32_t newlines = 0;
      StringSkip skip{p, 0, StringStop::kLimit};
      while (skip.stop == StringStop::kLimit) {
        const char* limit = text.end() - p > stride ? p + stride : text.end();
        skip = SkipStringBody(p, limit, text.end(), literal.quote, literal.triple);
        newlines += skip.newlines;
        p = skip.pos;
      }
      EXPECT_EQ(skip.stop, literal.stop) << literal.body;
      EXPECT_EQ(static_cast<std::size_t>(p - text.begin()), literal.length) << literal.body;
      EXPECT_EQ(newlines, literal.newlines) << literal.body;
    }
  }
}

// Everything that a scan has found, as text.
std::string Found(const SourceScan& scan) {
  std::string text;
  const Results& results = scan.results();
  for (ScopeIndex i = 0; i < results.scopes().size(); ++i) {
    const Scope& scope = results.scopes()[i];
    text += scope.name + " " + std::to_string(scope.line) + "-" + std::to_string(scope.end_line);
    results.ForEachInfo(i, [&text](std::string_view name, std::string_view info) {
      text.append("\n  ").append(name).append(" ").append(info);
    });
    text += '\n';
  }
  for (const Binding& binding : results.bindings()) {
    text += std::to_string(binding.entry) + ":" + std::to_string(binding.line) + ' ';
  }
  for (std::string_view import : results.imports()) text.append(import).append("\n");
  for (const SourceError& error : scan.errors().errors()) {
    text += std::to_string(error.line) + error.text + '\n';
  }
  return text;
}

std::string ScanInChunks(std::string_view source, std::size_t chunk) {
  const Tight tight(source);
  SourceScan scan(tight.view());
  while (!scan.Scan(chunk)) {
  }
  EXPECT_EQ(scan.position(), source.size());
  EXPECT_LE(scan.steps(), 40 * source.size() + 100);
  return Found(scan);
}

TEST(SourceScan, RandomTextIsReadWithinItsBoundsAndTheSameInAnyChunks) {
  const std::vector<std::string> pieces = {
      "(",       ")",         "[",       "]",       "{",           "}",       "'",     "\"",
      "\"\"\"",  "'''",       "f'",      "f\"\"\"", "rf'{",        "\n",      "\r",    "\r\n",
      "\\",      "\\\n",      "#",       ":=",      ":",           "=",       ";",     "x",
      "lambda ", "def ",      "class ",  "import ", "from ",       "match ",  "case ", "type ",
      "\t",      " ",         "    ",    "\f",      "@",           "async ",  "self.", "*",
      "**",      "->",        "\\N{",    "\xff",    "<<<<<<< a\n", "global ", "for ",  "in ",
      "with ",   "as ",       "except ", "0x",      "1e",          ",",       "...",   "!r",
      "\n    ",  "\n        "};
  std::mt19937 random(20);
  for (int round = 0; round < 3000; ++round) {
    std::string source;
    const std::size_t count = random() % 120;
    for (std::size_t i = 0; i < count; ++i) source += pieces[random() % pieces.size()];
    const std::string whole = ScanInChunks(source, source.size() + 1);
    ASSERT_EQ(ScanInChunks(source, 1), whole) << source;
    ASSERT_EQ(ScanInChunks(source, 1 + random() % 30), whole) << source;
  }
}

TEST(SourceScan, EveryCutOfASourceIsRead) {
  constexpr std::string_view kSource =
      "@d(1)\nclass A[T](B, m=f'{x!r:>{w}}'):\n    '''doc\n    '''\n    x: int = 1 + \\\n  2\n"
      "    async def f(self, *a, k=lambda y, z=1: {y: z}) -> r'\\'':\n        self.x, (b, *c) = 1\n"
      "match p:\n    case {'k': q, **r} if (s := 1): pass\nfrom ..t import (u as v,\n  w)\n";
  for (std::size_t size = 0; size <= kSource.size(); ++size) {
    const std::string_view cut = kSource.substr(0, size);
    EXPECT_EQ(ScanInChunks(cut, 1), ScanInChunks(cut, 1000));
  }
}

TEST(PackedInfo, DamagedDataIsReadWithinItsBounds) {
  InfoPacker packer;
  packer.Add("name", ":=value");
  packer.Add(std::string(200, 'n'), std::string(20000, 'v'));
  const std::string packed = packer.Finish();
  std::mt19937 random(30);
  for (int round = 0; round < 2000; ++round) {
    std::string damaged = packed.substr(0, random() % (packed.size() + 1));
    for (std::size_t i = random() % 3; i > 0 && !damaged.empty(); --i) {
      damaged[random() % std::min<std::size_t>(damaged.size(), 20)] = static_cast<char>(random());
    }
    const Tight tight(damaged);
    InfoUnpacker unpacker(tight.view());
    std::size_t total = 0;
    while (const std::optional<InfoUnpacker::Item> item = unpacker.Next()) {
      total += item->name.size() + item->info.size();
    }
    EXPECT_LE(total, damaged.size());
  }
}

}  // namespace
}  // namespace loom::pyscan
