// Target: reading the packed information of a scope out of any bytes, as a damaged store may hold.

#include <string>
#include <vector>

#include "loom/_pyscan/packinfo.h"
#include "tests/fuzz/fuzz.h"

namespace {

using loom::pyscan::InfoPacker;
using loom::pyscan::InfoUnpacker;

bool IsInside(std::string_view part, const fuzz::Exact& whole) {
  return part.data() >= whole.data() && part.data() + part.size() <= whole.end();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::Exact packed(fuzz::View(data, size));
  InfoUnpacker unpacker(packed.view());
  InfoPacker packer;
  std::vector<std::string> items;
  std::size_t total = 0;
  while (const auto item = unpacker.Next()) {
    FUZZ_CHECK(IsInside(item->name, packed) && IsInside(item->info, packed));
    packer.Add(item->name, item->info);
    items.emplace_back(item->name);
    items.emplace_back(item->info);
    // Each item takes two bytes for its lengths at least.
    total += 2 + item->name.size() + item->info.size();
    FUZZ_CHECK(total < size);
  }
  FUZZ_CHECK(!unpacker.Next());
  if (!unpacker.valid()) return 0;

  // What was read packs to the same items, and to the same bytes if the numbers were short.
  const std::string again = packer.Finish();
  FUZZ_CHECK(again.size() <= size);
  FUZZ_CHECK(again.size() < size || again == packed.view());
  InfoUnpacker second(again);
  for (std::size_t i = 0; i < items.size(); i += 2) {
    const auto item = second.Next();
    FUZZ_CHECK(item && item->name == items[i] && item->info == items[i + 1]);
  }
  FUZZ_CHECK(!second.Next() && second.valid());
  return 0;
}
