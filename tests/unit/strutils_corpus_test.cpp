// The inputs that fuzzing has kept for the target "utf8", run once more.

#include <gtest/gtest.h>

#include "tests/fuzz/replay.h"
#include "tests/fuzz/utf8_fuzz.cpp"

namespace {

TEST(Corpus, IsReplayed) { EXPECT_GT(fuzz::Replay("utf8"), 50); }

}  // namespace
