// The inputs that fuzzing has kept for the target "names", run once more.

#include <gtest/gtest.h>

#include "tests/fuzz/names_fuzz.cpp"
#include "tests/fuzz/replay.h"

namespace {

TEST(Corpus, IsReplayed) { EXPECT_GT(fuzz::Replay("names"), 50); }

}  // namespace
