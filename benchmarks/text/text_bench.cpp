// The text helpers beside tight loops in C++, over the texts whose files are given as arguments.
//
// Each line on standard output: text, helper, nanoseconds a call, GB/s of the text, the
// alternative, its nanoseconds a call, its GB/s. CPU time, the best of several rounds.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "pysource/nonnestedsearch.h"
#include "pysource/strutils.h"
#include "pysource/symbolinfo.h"

namespace {

using pysource::AdjustUtf8Pos;

constexpr int kRounds = 15;

double CpuSeconds() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Keeps a result from being optimized away.
std::uint64_t g_sink = 0;

struct Text {
  std::string name;
  std::string bytes;
  std::vector<std::ptrdiff_t> starts;  // of characters

  std::ptrdiff_t size() const { return static_cast<std::ptrdiff_t>(bytes.size()); }
};

// The best time of fn(), which returns a number that depends on all of its work.
template <class Fn>
double Best(Fn&& fn) {
  double best = 1e9;
  for (int round = 0; round < kRounds; ++round) {
    const double begin = CpuSeconds();
    g_sink += static_cast<std::uint64_t>(fn());
    best = std::min(best, CpuSeconds() - begin);
  }
  return best;
}

template <class Fn, class Other>
void Compare(const Text& text, const char* helper, std::size_t calls, Fn&& fn, const char* other,
             Other&& alternative) {
  const double mine = Best(fn);
  const double theirs = Best(alternative);
  const auto per_call = [&](double seconds) { return seconds * 1e9 / static_cast<double>(calls); };
  const auto speed = [&](double s) { return static_cast<double>(text.size()) / s / 1e9; };
  std::printf("%s\t%s\t%.2f\t%.2f\t%s\t%.2f\t%.2f\n", text.name.c_str(), helper, per_call(mine),
              speed(mine), other, per_call(theirs), speed(theirs));
}

// A test of each character, beside the look into a table of bytes at the same places.
template <class Test>
void CompareTest(const Text& text, const char* name, Test&& test) {
  static const std::array<bool, 256> table = [] {
    std::array<bool, 256> alnum{};
    for (std::size_t c = 0; c < 128; ++c) alnum[c] = (pysource::kAsciiClasses[c] & 4) != 0;
    return alnum;
  }();
  const char* const p = text.bytes.data();
  Compare(
      text, name, text.starts.size(),
      [&] {
        std::uint64_t count = 0;
        for (const std::ptrdiff_t pos : text.starts) count += test(p, pos, text.size()) ? 1 : 0;
        return count;
      },
      "table lookup",
      [&] {
        std::uint64_t count = 0;
        for (const std::ptrdiff_t pos : text.starts) {
          count += table[static_cast<unsigned char>(p[pos])] ? 1 : 0;
        }
        return count;
      });
}

// The rules of the search, one byte after the other.
std::ptrdiff_t SearchByteByByte(const Text& text, char wanted) {
  const char* const begin = text.bytes.data();
  const char* const end = begin + text.bytes.size();
  int level = 0;
  for (const char* p = begin; p < end;) {
    switch (*p) {
      case '"':
      case '\'':
        p = pysource::FindStringEnd(begin, p, end);
        continue;
      case '(':
      case '[':
      case '{':
        ++level;
        break;
      case ')':
      case ']':
      case '}':
        --level;
        break;
      default:
        if (*p == wanted && level == 0) return p - begin;
        break;
    }
    ++p;
  }
  return -1;
}

std::ptrdiff_t Search(const Text& text, const char* needle) {
  pysource::tNonNestedStruct search;
  pysource::InitNonNestedStruct(&search, text.bytes.data(), needle,
                                static_cast<std::ptrdiff_t>(std::strlen(needle)), 0, text.size());
  std::ptrdiff_t last = 0;
  for (std::ptrdiff_t pos; (pos = FindNextNonNestedStruct(&search)) >= 0;) last = pos;
  return last;
}

void CompareSearches(const Text& text) {
  // No source has this byte, so the whole text is walked through.
  constexpr const char* kRare = "\x01";
  const char* const p = text.bytes.data();
  Compare(
      text, "FindNext, rare byte", 1, [&] { return Search(text, kRare); }, "byte by byte",
      [&] { return SearchByteByByte(text, *kRare); });
  Compare(
      text, "FindNext, rare byte", 1, [&] { return Search(text, kRare); }, "memchr",
      [&] { return std::memchr(p, *kRare, text.bytes.size()) == nullptr ? 1 : 0; });
  Compare(
      text, "FindNext, frequent first byte", 1, [&] { return Search(text, "e\x01"); }, "memmem",
      [&] { return memmem(p, text.bytes.size(), "e\x01", 2) == nullptr ? 1 : 0; });
  Compare(
      text, "PtrFindByte, rare byte", 1,
      [&] { return pysource::PtrFindByte(p, text.size(), 1, 0); }, "memchr",
      [&] { return std::memchr(p, 1, text.bytes.size()) == nullptr ? 1 : 0; });
}

void CompareWalks(const Text& text) {
  const char* const p = text.bytes.data();
  const std::ptrdiff_t end = text.size();
  Compare(
      text, "AdjustUtf8Pos by 1", text.starts.size(),
      [&] {
        std::uint64_t sum = 0;
        for (std::ptrdiff_t pos = 0; pos < end; pos = AdjustUtf8Pos(p, pos, 1, end)) sum += 1;
        return sum;
      },
      "step by the lead byte",
      [&] {
        std::uint64_t sum = 0;
        for (std::ptrdiff_t pos = 0; pos < end; ++sum) {
          const auto lead = static_cast<unsigned char>(p[pos]);
          pos += lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        }
        return sum;
      });
  Compare(
      text, "NextNonNestedUtf8PtrIndex", text.bytes.size(),
      [&] {
        std::uint64_t sum = 0;
        for (std::ptrdiff_t pos = 0; pos >= 0;
             pos = pysource::NextNonNestedUtf8PtrIndex(p, pos, end)) {
          sum += 1;
        }
        return sum;
      },
      "byte by byte", [&] { return SearchByteByByte(text, '\x01'); });
}

void CompareTests(const Text& text) {
  CompareTest(text, "Ucs4CharAtUtf8Pos", pysource::Ucs4CharAtUtf8Pos);
  CompareTest(text, "IsSpaceAtUtf8Pos", pysource::IsSpaceAtUtf8Pos);
  CompareTest(text, "IsDigitAtUtf8Pos", pysource::IsDigitAtUtf8Pos);
  CompareTest(text, "IsAlnumAtUtf8Pos", pysource::IsAlnumAtUtf8Pos);
  CompareTest(text, "IsIdentifierCharAtUtf8Pos",
              [](const char* p, std::ptrdiff_t pos, std::ptrdiff_t end) {
                return pysource::IsIdentifierCharAtUtf8Pos(p, pos, end, false);
              });
}

}  // namespace

int main(int argc, char** argv) {
  Py_Initialize();
  for (int i = 1; i < argc; ++i) {
    std::ifstream file(argv[i], std::ios::binary);
    Text text{argv[i], {std::istreambuf_iterator<char>(file), {}}, {}};
    text.name = text.name.substr(text.name.rfind('/') + 1);
    for (std::ptrdiff_t pos = 0; pos < text.size(); ++pos) {
      const auto byte = static_cast<unsigned char>(text.bytes[static_cast<std::size_t>(pos)]);
      if (pysource::IsUtf8LeadByte(byte)) text.starts.push_back(pos);
    }
    CompareSearches(text);
    CompareWalks(text);
    CompareTests(text);
  }
  return g_sink == 1 ? 1 : 0;
}
