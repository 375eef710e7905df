// The source scanner as C++ uses it: without an interpreter, and in steps of any size.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "loom/_pyscan.h"

namespace loom::pyscan {
namespace {

// All that a scan has found, as lines of text.
std::vector<std::string> Found(const SourceScan& scan) {
  std::vector<std::string> lines;
  const Results& results = scan.results();
  for (std::size_t i = 0; i < results.scopes().size(); ++i) {
    const Scope& scope = results.scopes()[i];
    lines.push_back("scope " + scope.name + " " + std::to_string(scope.line) + "-" +
                    std::to_string(scope.end_line));
    results.ForEachInfo(static_cast<ScopeIndex>(i),
                        [&](std::string_view name, std::string_view information) {
                          lines.push_back(std::string(name) + " " + std::string(information));
                        });
  }
  for (const std::string_view import : results.imports()) {
    lines.push_back("import " + std::string(import));
  }
  return lines;
}

std::vector<std::string> ScanInSteps(std::string_view source, std::size_t step) {
  SourceScan scan(source);
  std::size_t position = 0;
  while (!scan.Scan(step)) {
    EXPECT_GE(scan.position(), position);
    position = scan.position();
  }
  EXPECT_TRUE(scan.done());
  EXPECT_EQ(scan.position(), source.size());
  return Found(scan);
}

std::vector<std::string> ScopeNames(std::string_view source) {
  SourceScan scan(source);
  while (!scan.Scan(1 << 20)) {
  }
  std::vector<std::string> names;
  for (const Scope& scope : scan.results().scopes()) names.push_back(scope.name);
  return names;
}

constexpr std::string_view kSource = R"py(
import os.path as p
from . import sibling

@decorated(lambda x: x)
class Shape(Base, metaclass=Meta):
    """A docstring with def inside():"""
    area: float = 0.0

    def __init__(self, *args, **kwargs):
        self.sides = [n for n in args if n]
        def inner(): return f"{self.sides!r:>{kwargs['width']}}"

    async def draw(self): ...

if (n := len(Shape.__mro__)) > 1: x, *y = 1, 2
type Alias[T] = list[T]
)py";

TEST(SourceScan, AnEmptySourceHasTheModuleOnly) { EXPECT_EQ(ScopeNames("").size(), 1u); }

TEST(SourceScan, FindsNestedScopes) {
  const auto names = ScopeNames(kSource);
  EXPECT_EQ(names.front(), "");
  for (const std::string_view wanted : {"Shape", "__init__", "inner", "draw"}) {
    EXPECT_TRUE(std::ranges::any_of(names, [&](const std::string& name) {
      return name.find(wanted) != std::string::npos;
    })) << wanted;
  }
}

TEST(SourceScan, FindsNoScopeInALiteral) {
  EXPECT_EQ(ScopeNames("'''\ndef f(): pass\n'''\nx = 'class C: pass'\n").size(), 1u);
}

TEST(SourceScan, KeepsLines) {
  SourceScan scan("\n\ndef f():\n    pass\n");
  while (!scan.Scan(1 << 20)) {
  }
  ASSERT_EQ(scan.results().scopes().size(), 2u);
  EXPECT_EQ(scan.results().scopes()[1].line, 3u);
}

TEST(SourceScan, StepsOfAnySizeFindTheSame) {
  const auto whole = ScanInSteps(kSource, kSource.size() + 1);
  EXPECT_GT(whole.size(), 10u);
  for (const std::size_t step : {1u, 2u, 3u, 7u, 64u, 100u}) {
    EXPECT_EQ(ScanInSteps(kSource, step), whole) << step;
  }
}

TEST(SourceScan, EndsOnWhateverItIsGiven) {
  std::mt19937 random(7);
  const std::string_view pieces = "def class:\n    ('\"\"\"{[)]}\\\n\t@,=;#f\xC3\xFF";
  for (int round = 0; round < 500; ++round) {
    std::string source(random() % 300, ' ');
    for (char& c : source) c = pieces[random() % pieces.size()];
    const auto whole = ScanInSteps(source, source.size() + 1);
    EXPECT_EQ(ScanInSteps(source, 1 + random() % 50), whole) << source;
  }
}

TEST(SourceScan, WorkGrowsWithTheLengthOnly) {
  const auto steps_for = [](std::size_t depth) {
    std::string source(depth, '(');
    source += '\n';
    SourceScan scan(source);
    while (!scan.Scan(1 << 16)) {
    }
    return scan.steps();
  };
  EXPECT_LT(steps_for(200'000), 40 * steps_for(10'000));
}

}  // namespace
}  // namespace loom::pyscan
