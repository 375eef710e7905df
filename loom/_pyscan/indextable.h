// A hash table of indexes into somebody else's vector.

#ifndef LOOM_PYSCAN_INDEXTABLE_H_
#define LOOM_PYSCAN_INDEXTABLE_H_

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace loom::pyscan {

// A hash of a text and a number, seeded anew in each process, so that no source file can be written
// to make all its names collide.
std::uint32_t HashText(std::string_view text, std::uint32_t number);

class IndexTable {
 public:
  static constexpr std::uint32_t kNone = 0xFFFFFFFFu;

  IndexTable() = default;
  // Makes room for about so many indexes, within reason.
  explicit IndexTable(std::size_t expected) {
    slots_.resize(std::bit_ceil(2 * std::min<std::size_t>(expected, 1u << 14) + 32));
  }

  // Returns the index for which equal(index) holds, among those added with this hash, or kNone.
  template <class Equal>
  std::uint32_t Find(std::uint32_t hash, Equal&& equal) const {
    if (slots_.empty()) return kNone;
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = hash & mask; slots_[i].index != kNone; i = (i + 1) & mask) {
      if (slots_[i].hash == hash && equal(slots_[i].index)) return slots_[i].index;
    }
    return kNone;
  }

  void Add(std::uint32_t hash, std::uint32_t index) {
    if (2 * (count_ + 1) > slots_.size()) Grow();
    Put({hash, index});
    ++count_;
  }

 private:
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t index = kNone;
  };

  void Put(Slot slot) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = slot.hash & mask;
    while (slots_[i].index != kNone) i = (i + 1) & mask;
    slots_[i] = slot;
  }

  void Grow() {
    std::vector<Slot> old(slots_.empty() ? 64 : 2 * slots_.size());
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.index != kNone) Put(slot);
    }
  }

  std::vector<Slot> slots_;
  std::size_t count_ = 0;
};

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_INDEXTABLE_H_
