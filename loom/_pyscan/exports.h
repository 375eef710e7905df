// What others can see of a file, as one number: it stays the same while an edit changes nothing but
// lines, comments, and what functions do inside.

#ifndef LOOM_PYSCAN_EXPORTS_H_
#define LOOM_PYSCAN_EXPORTS_H_

#include <array>
#include <cstdint>

#include "loom/_pyscan/results.h"

namespace loom::pyscan {

using ExportDigest = std::array<std::uint64_t, 2>;

// Covers the names of the module and of classes with their information, but for line numbers, and
// of functions the arguments, what they return or yield, and attributes that they give to
// instances. If these quote a local name of the function, all its local names count. What stands
// inside of a function otherwise doesn't. The order of definitions doesn't matter, and the digest
// is the same in each process.
ExportDigest DigestExports(const Results& results);

}  // namespace loom::pyscan

#endif  // LOOM_PYSCAN_EXPORTS_H_
