// The extension types of the module, each made by the file that describes it.

#ifndef PYSOURCE_SCANCOORDINATOR_TYPES_H_
#define PYSOURCE_SCANCOORDINATOR_TYPES_H_

#include "pysource/pyrt/object.h"

namespace pysource {

// Each makes its type below `base`, the host's CDestroyable. Called once.
void CreateSingleScanQueueType(const pyrt::Object& module, const pyrt::Object& base);
void CreateScanQueueType(const pyrt::Object& module, const pyrt::Object& base);
void CreateScanCoordinatorType(const pyrt::Object& module, const pyrt::Object& base);

}  // namespace pysource

#endif  // PYSOURCE_SCANCOORDINATOR_TYPES_H_
