// The chief header: the scheduler's classes, for C++ callers.
//
// All of it runs on the thread of the host's main loop; there are no locks.

#ifndef PYSOURCE_SCANCOORDINATOR_H_
#define PYSOURCE_SCANCOORDINATOR_H_

#include "pysource/scancoordinator/coordinator.h"
#include "pysource/scancoordinator/scan_queue.h"
#include "pysource/scancoordinator/single_scan_queue.h"
#include "pysource/scancoordinator/vocabulary.h"

#endif  // PYSOURCE_SCANCOORDINATOR_H_
