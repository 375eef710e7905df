// Elements with small numbers for names, in chunks that never move.

#ifndef PYSOURCE_SCANCOORDINATOR_POOL_H_
#define PYSOURCE_SCANCOORDINATOR_POOL_H_

#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <vector>

namespace pysource {

inline constexpr std::uint32_t kNoIndex = std::numeric_limits<std::uint32_t>::max();

// Requires of T: a default constructor; a default-constructed T owns nothing.
template <class T>
class Pool {
 public:
  T& operator[](std::uint32_t index) noexcept {
    return chunks_[index / kChunkSize][index % kChunkSize];
  }
  const T& operator[](std::uint32_t index) const noexcept {
    return chunks_[index / kChunkSize][index % kChunkSize];
  }

  // A default-constructed element; its address stays until Free.
  std::uint32_t Allocate() {
    if (!free_.empty()) {
      const std::uint32_t index = free_.back();
      free_.pop_back();
      return index;
    }
    if (used_ == kNoIndex) throw std::length_error("too many elements in a pool");
    if (used_ / kChunkSize == chunks_.size()) {
      chunks_.push_back(std::make_unique<T[]>(kChunkSize));
    }
    return used_++;
  }
  // Requires: the element owns nothing any more.
  void Free(std::uint32_t index) {
    (*this)[index] = T();
    free_.push_back(index);
  }
  // One past the greatest index in use.
  std::uint32_t end_index() const noexcept { return used_; }

 private:
  static constexpr std::uint32_t kChunkSize = 512;

  std::vector<std::unique_ptr<T[]>> chunks_;
  std::vector<std::uint32_t> free_;
  std::uint32_t used_ = 0;
};

}  // namespace pysource

#endif  // PYSOURCE_SCANCOORDINATOR_POOL_H_
