// A sequence that takes no more room than one element while it holds one, and none on the heap.
//
// Nearly every location in a queue has one scan with one scope; some have hundreds.

#ifndef PYSOURCE_SCANCOORDINATOR_ONE_OR_MANY_H_
#define PYSOURCE_SCANCOORDINATOR_ONE_OR_MANY_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <utility>
#include <vector>

namespace pysource {

// Requires of T: its first word is a pointer that isn't null and has its lowest bit clear for as
// long as the element is in the sequence; a move constructor that doesn't throw.
template <class T>
class OneOrMany {
  static_assert(sizeof(T) >= sizeof(std::uintptr_t));

 public:
  OneOrMany() noexcept { SetWord(0); }
  OneOrMany(OneOrMany&& other) noexcept {
    std::memcpy(storage_, other.storage_, sizeof storage_);
    other.SetWord(0);
  }
  OneOrMany& operator=(OneOrMany&& other) noexcept {
    OneOrMany old(std::move(*this));
    std::memcpy(storage_, other.storage_, sizeof storage_);
    other.SetWord(0);
    return *this;
  }
  ~OneOrMany() {
    if (is_many()) {
      delete many();
    } else if (!empty()) {
      std::destroy_at(one());
    }
  }

  bool empty() const noexcept { return Word() == 0; }
  std::size_t size() const noexcept { return is_many() ? many()->size() : (empty() ? 0 : 1); }
  T* begin() noexcept { return is_many() ? many()->data() : one(); }
  T* end() noexcept { return begin() + size(); }
  const T* begin() const noexcept { return const_cast<OneOrMany*>(this)->begin(); }
  const T* end() const noexcept { return begin() + size(); }
  T& operator[](std::size_t i) noexcept { return begin()[i]; }
  const T& operator[](std::size_t i) const noexcept { return begin()[i]; }

  // Requires: index <= size().
  void Insert(std::size_t index, T value) {
    if (empty()) {
      new (storage_) T(std::move(value));
      return;
    }
    if (!is_many()) {
      auto vector = std::make_unique<std::vector<T>>();
      vector->reserve(4);
      vector->push_back(std::move(*one()));
      std::destroy_at(one());
      SetWord(reinterpret_cast<std::uintptr_t>(vector.release()) | kManyBit);
    }
    many()->insert(many()->begin() + static_cast<std::ptrdiff_t>(index), std::move(value));
  }
  void Append(T value) { Insert(size(), std::move(value)); }

  // Takes an element out; the caller releases it. Requires: index < size().
  T Take(std::size_t index) {
    if (!is_many()) {
      T value = std::move(*one());
      std::destroy_at(one());
      SetWord(0);
      return value;
    }
    T value = std::move((*many())[index]);
    many()->erase(many()->begin() + static_cast<std::ptrdiff_t>(index));
    if (many()->empty()) {
      delete many();
      SetWord(0);
    }
    return value;
  }

 private:
  static constexpr std::uintptr_t kManyBit = 1;

  std::uintptr_t Word() const noexcept {
    std::uintptr_t word = 0;
    std::memcpy(&word, storage_, sizeof word);
    return word;
  }
  void SetWord(std::uintptr_t word) noexcept { std::memcpy(storage_, &word, sizeof word); }
  bool is_many() const noexcept { return (Word() & kManyBit) != 0; }
  T* one() noexcept { return std::launder(reinterpret_cast<T*>(storage_)); }
  std::vector<T>* many() const noexcept {
    return reinterpret_cast<std::vector<T>*>(Word() & ~kManyBit);
  }

  alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace pysource

#endif  // PYSOURCE_SCANCOORDINATOR_ONE_OR_MANY_H_
