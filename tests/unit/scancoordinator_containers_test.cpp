// The containers of the scan queue, by themselves: what they own, and when they let go of it.

#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

#include "pysource/scancoordinator/one_or_many.h"
#include "pysource/scancoordinator/pool.h"

namespace pysource {
namespace {

// An element as OneOrMany wants it: one pointer, never null while it stands in the sequence.
using Element = std::unique_ptr<int>;

Element Make(int value) { return std::make_unique<int>(value); }

std::vector<int> Values(const OneOrMany<Element>& sequence) {
  std::vector<int> values;
  for (const Element& element : sequence) values.push_back(*element);
  return values;
}

TEST(OneOrMany, IsNoLargerThanItsElement) {
  EXPECT_EQ(sizeof(OneOrMany<Element>), sizeof(Element));
}

TEST(OneOrMany, StartsEmpty) {
  const OneOrMany<Element> sequence;
  EXPECT_TRUE(sequence.empty());
  EXPECT_EQ(sequence.size(), 0u);
  EXPECT_EQ(sequence.begin(), sequence.end());
}

TEST(OneOrMany, HoldsOneInPlace) {
  OneOrMany<Element> sequence;
  sequence.Append(Make(1));
  EXPECT_EQ(sequence.size(), 1u);
  EXPECT_EQ(static_cast<void*>(sequence.begin()), static_cast<void*>(&sequence));
  EXPECT_EQ(Values(sequence), (std::vector{1}));
}

TEST(OneOrMany, InsertsWhereItIsTold) {
  OneOrMany<Element> sequence;
  sequence.Insert(0, Make(2));
  sequence.Insert(0, Make(1));
  sequence.Insert(2, Make(4));
  sequence.Insert(2, Make(3));
  EXPECT_EQ(Values(sequence), (std::vector{1, 2, 3, 4}));
  EXPECT_EQ(*sequence[2], 3);
}

TEST(OneOrMany, TakesElementsOutUntilItIsEmpty) {
  OneOrMany<Element> sequence;
  for (int value = 1; value <= 3; ++value) sequence.Append(Make(value));
  EXPECT_EQ(*sequence.Take(1), 2);
  EXPECT_EQ(Values(sequence), (std::vector{1, 3}));
  EXPECT_EQ(*sequence.Take(0), 1);
  EXPECT_EQ(*sequence.Take(0), 3);
  EXPECT_TRUE(sequence.empty());
  sequence.Append(Make(5));
  EXPECT_EQ(Values(sequence), (std::vector{5}));
}

TEST(OneOrMany, MovesWithItsElements) {
  OneOrMany<Element> one;
  one.Append(Make(1));
  OneOrMany<Element> many;
  for (int value = 2; value <= 4; ++value) many.Append(Make(value));

  OneOrMany<Element> taken(std::move(one));
  EXPECT_EQ(Values(taken), (std::vector{1}));
  taken = std::move(many);
  EXPECT_EQ(Values(taken), (std::vector{2, 3, 4}));
}

TEST(OneOrMany, ReleasesWhatItHolds) {
  // A pointer to a shared count is an element that tells when it goes.
  const auto counted = std::make_shared<int>(7);
  using Shared = std::unique_ptr<std::shared_ptr<int>>;
  {
    OneOrMany<Shared> sequence;
    for (int i = 0; i < 3; ++i) sequence.Append(std::make_unique<std::shared_ptr<int>>(counted));
    EXPECT_EQ(counted.use_count(), 4);
    sequence.Take(0);
    EXPECT_EQ(counted.use_count(), 3);
  }
  EXPECT_EQ(counted.use_count(), 1);
}

TEST(Pool, NamesElementsByNumber) {
  Pool<int> pool;
  const auto a = pool.Allocate();
  const auto b = pool.Allocate();
  EXPECT_NE(a, b);
  pool[a] = 1;
  pool[b] = 2;
  EXPECT_EQ(pool[a], 1);
  EXPECT_EQ(pool[b], 2);
  EXPECT_EQ(pool.end_index(), 2u);
}

TEST(Pool, GivesAFreedNumberOutAgainWithAFreshElement) {
  Pool<int> pool;
  const auto a = pool.Allocate();
  pool[a] = 1;
  pool.Free(a);
  EXPECT_EQ(pool.Allocate(), a);
  EXPECT_EQ(pool[a], 0);
}

TEST(Pool, NeverMovesAnElement) {
  Pool<int> pool;
  const auto first = pool.Allocate();
  int* const address = &pool[first];
  for (int i = 0; i < 10'000; ++i) pool.Allocate();
  EXPECT_EQ(&pool[first], address);
}

}  // namespace
}  // namespace pysource
