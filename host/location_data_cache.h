// The host's knowledge of which remote tree branches have been inspected.

#ifndef HOST_LOCATION_DATA_CACHE_H_
#define HOST_LOCATION_DATA_CACHE_H_

#include "pysource/pyrt/call.h"

namespace host {

// Whether the tree branch down to the location is ready; asked for async inspect locations only.
inline bool TreeBranchReady(const pyrt::Object& location_data_cache, const pyrt::Object& leaf_loc) {
  static constinit pyrt::Name kName{"TreeBranchReady"};
  return pyrt::IsTrue(pyrt::CallMethod(location_data_cache, kName, leaf_loc, true));
}

}  // namespace host

#endif  // HOST_LOCATION_DATA_CACHE_H_
