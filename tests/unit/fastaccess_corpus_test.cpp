// The inputs that fuzzing has kept for the target "search", run once more.

#include <gtest/gtest.h>

#include "tests/fuzz/replay.h"
#include "tests/fuzz/search_fuzz.cpp"

namespace {

TEST(Corpus, IsReplayed) { EXPECT_GT(fuzz::Replay("search"), 50); }

}  // namespace
