// What the host's status display is told, and when results are written to the database.

#include "host/destroyable.h"
#include "host/lgtk.h"
#include "pysource/scancoordinator/coordinator.h"

namespace pysource {
namespace {

constexpr int kStatusIntervalMilliseconds = 1000;

}  // namespace

Object CScanCoordinator::GetStatus() {
  pyrt::List queue_status_list;
  const std::vector<Object> queues = queue()._fOrderedQueues;
  for (const Object& object : queues) {
    auto& single = _CSingleScanQueue::From(object.get());
    const std::size_t file_count = single.fOrderedDict().size();
    if (file_count == 0) continue;
    queue_status_list.Append(records::SingleQueueStatus(single.fScanName, single.fPriority,
                                                        static_cast<std::int64_t>(file_count)));
  }
  return records::ScanStatus(queue_status_list, queue().GetWaitingCount());
}

void CScanCoordinator::__EnsureStatusTimeout() {
  static constinit pyrt::Name kUpdateStatus{"_CB_UpdateStatus"};
  if (QueuesEmpty(false) || !__fStatusTimeout.is_none()) return;
  __fStatusTimeout = host::lgtk::timeout_add_while_alive(kStatusIntervalMilliseconds,
                                                         Bound(kUpdateStatus), self());
}

bool CScanCoordinator::_CB_UpdateStatus() {
  // First, so that the listeners get a last update with empty queues.
  host::Emit(self(), "scan-status-update", self(), GetStatus());
  if (!QueuesEmpty(false)) return true;
  __fStatusTimeout = nullptr;
  return false;
}

void CScanCoordinator::_ScheduleWriteToDatabaseIdle() {
  static constinit pyrt::Name kWriteToDatabase{"_CB_WriteToDatabase"};
  if (!_fIdleToWriteToDatabase.is_none()) return;
  _fIdleToWriteToDatabase = host::lgtk::idle_add_while_alive(Bound(kWriteToDatabase), self());
}

void CScanCoordinator::_CB_WriteToDatabase() {
  _fIdleToWriteToDatabase = nullptr;
  host::InfoCache(fAnaMgr.fInfoCache()).WriteToDatabase();
}

}  // namespace pysource
