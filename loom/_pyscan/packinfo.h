// The packed form of the information of one scope: names with their information strings.
//
// The number of names, then for each its length, the length of its information, and both texts.
// Numbers take seven bits a byte, lowest first, the high bit set on all bytes but the last. No name
// at all is packed as nothing.

#ifndef LOOM_PYSCAN_PACKINFO_H_
#define LOOM_PYSCAN_PACKINFO_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace loom::pyscan {

class InfoPacker {
 public:
  void Add(std::string_view name, std::string_view info);
  // The packed form of all that was added.
  std::string Finish() const;

 private:
  std::string body_;
  std::uint64_t count_ = 0;
};

// Reads the packed form from first to last, never outside of it.
class InfoUnpacker {
 public:
  struct Item {
    std::string_view name;
    std::string_view info;
  };

  // Requires: `packed` outlives the unpacker and what it returns.
  explicit InfoUnpacker(std::string_view packed);

  // The next name, or nothing at the end and where the data is damaged.
  std::optional<Item> Next();
  // Whether what has been read so far is well-formed; once the end is reached, whether all of it
  // is.
  bool valid() const { return valid_; }

 private:
  std::uint64_t Number();

  std::string_view rest_;
  std::uint64_t left_ = 0;
  bool valid_ = true;
};

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_PACKINFO_H_
