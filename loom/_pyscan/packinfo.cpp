#include "loom/_pyscan/packinfo.h"

namespace loom::pyscan {
namespace {

constexpr unsigned kBitsPerByte = 7;
constexpr std::uint64_t kMore = 0x80;
// Lengths and counts have fewer bits than this.
constexpr unsigned kMaxBits = 56;

void AppendNumber(std::uint64_t number, std::string& out) {
  for (; number >= kMore; number >>= kBitsPerByte) {
    out += static_cast<char>((number & (kMore - 1)) | kMore);
  }
  out += static_cast<char>(number);
}

}  // namespace

void InfoPacker::Add(std::string_view name, std::string_view info) {
  AppendNumber(name.size(), body_);
  AppendNumber(info.size(), body_);
  body_ += name;
  body_ += info;
  ++count_;
}

std::string InfoPacker::Finish() const {
  std::string packed;
  if (count_ != 0) {
    AppendNumber(count_, packed);
    packed += body_;
  }
  return packed;
}

InfoUnpacker::InfoUnpacker(std::string_view packed) : rest_(packed) {
  if (!rest_.empty()) left_ = Number();
}

std::uint64_t InfoUnpacker::Number() {
  std::uint64_t number = 0;
  for (unsigned bits = 0; bits < kMaxBits && !rest_.empty(); bits += kBitsPerByte) {
    const std::uint64_t byte = static_cast<unsigned char>(rest_.front());
    rest_.remove_prefix(1);
    number |= (byte & (kMore - 1)) << bits;
    if (byte < kMore) return number;
  }
  valid_ = false;
  return 0;
}

std::optional<InfoUnpacker::Item> InfoUnpacker::Next() {
  if (!valid_) return std::nullopt;
  if (left_ == 0) {
    valid_ = rest_.empty();
    return std::nullopt;
  }
  --left_;
  const std::uint64_t name_size = Number();
  const std::uint64_t info_size = Number();
  if (!valid_ || name_size > rest_.size() || info_size > rest_.size() - name_size) {
    valid_ = false;
    return std::nullopt;
  }
  const Item item{rest_.substr(0, name_size), rest_.substr(name_size, info_size)};
  rest_.remove_prefix(name_size + info_size);
  return item;
}

}  // namespace loom::pyscan
