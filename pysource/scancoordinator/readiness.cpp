// Scanners that wait for data, and the modification times of files.

#include "host/destroyable.h"
#include "host/location.h"
#include "pysource/scancoordinator/coordinator.h"

namespace pysource {

void CScanCoordinator::_WaitForScannerToBeReady(const Object& scanner, const CScanItem& scan_item) {
  queue().StartWaitingForData(scan_item);
  // The callback is made before the id of its own connection is known.
  pyrt::List connect_id_holder = pyrt::List::With(Object::None());
  const Object callback = pyrt::Closure<"cb_state_change(scanner)", &OnScannerStateChange>::New(
      pyrt::MakeTuple(self(), scan_item, connect_id_holder));
  const Object id = host::ConnectWhileAlive(scanner, "scan-state-changed", callback, self());
  connect_id_holder.Set(0, id);
}

void CScanCoordinator::OnScannerStateChange(const Object& held, const Object& scanner) {
  const auto [self, record, connect_id_holder] = pyrt::Unpack<3>(held);
  CScanCoordinator& coordinator = From(self.get());
  coordinator.queue().FinishedWaitingForData(CScanItem::FromRecord(record));
  coordinator._ScheduleIdle();
  const Object connect_id = pyrt::Unpack<1>(connect_id_holder)[0];
  if (!connect_id.is_none()) host::Disconnect(scanner, connect_id);
}

Object CScanCoordinator::__GetModtimeDict(const Object& loc_seq) { return ModtimesOf(loc_seq); }

// All disk times are fetched before the first is entered, so that a failure leaves no part.
Object CScanCoordinator::ModtimesOf(const Object& loc_seq) {
  constexpr int kUnsavedChanges = -2;
  pyrt::Dict modtime_dict;
  pyrt::List check_disk_list;
  pyrt::ForEach(loc_seq, [&](const Object& loc) {
    const host::Buffer buffer = fCacheMgr.DoesCacheBufferExist(loc);
    if (buffer.is_none()) {
      check_disk_list.Append(loc);
    } else if (buffer.IsModified()) {
      modtime_dict.Set(loc, pyrt::ToPython(kUnsavedChanges));
    } else {
      modtime_dict.Set(loc, buffer._GetLastKnownModTime());
    }
  });
  host::Singletons::Get();
  std::vector<double> disk_times;
  for (std::size_t i = 0; i < check_disk_list.size(); ++i) {
    disk_times.push_back(_fInfoCache.GetDiskMTime(check_disk_list[i]));
  }
  for (std::size_t i = 0; i < disk_times.size(); ++i) {
    modtime_dict.Set(check_disk_list[i], pyrt::ToPython(disk_times[i]));
  }
  host::Emit(self(), "modtimes-updated", modtime_dict);
  return modtime_dict.object();
}

void CScanCoordinator::__GetModtimes(const Object& loc_seq, const Object& completion_cb,
                                     const Object& force) {
  const Object callback = pyrt::Closure<"process_modtimes(abort)", &OnModtimesReady>::New(
      pyrt::MakeTuple(self(), loc_seq, completion_cb));
  host::location::WaitForInspectMultiple(loc_seq, callback, force);
}

void CScanCoordinator::OnModtimesReady(const Object& held, const Object& abort) {
  const auto [self, loc_seq, completion_cb] = pyrt::Unpack<3>(held);
  if (pyrt::IsTrue(abort)) {
    pyrt::Print("Skipping modtime processing due to remote agent abort:", loc_seq);
    return;
  }
  const Object modtime_dict = From(self.get()).ModtimesOf(loc_seq);
  pyrt::Call(completion_cb, modtime_dict);
}

}  // namespace pysource
