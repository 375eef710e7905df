// Whole-file primary scans of local files can be done by a second process.
//
// What it may take is sent instead of queued. It has a queue of its own and reports what enters and
// leaves it; `_fLocsQueuedInHelper` is what this side believes to be there. When the helper process
// goes away, the work comes back.

#include "host/destroyable.h"
#include "host/lgtk.h"
#include "host/location.h"
#include "pysource/scancoordinator/coordinator.h"

namespace pysource {

bool CScanCoordinator::_CanSendToHelperProcess(const Object& loc, const Object& scope_name) {
  return pyrt::Equal(scope_name, pyrt::ToPython("*")) && host::location::IsLocalFile(loc) &&
         !pyrt::IsTrue(fCacheMgr.DoesCacheBufferExist(loc).object());
}

void CScanCoordinator::_UpdateForHelperProcess() {
  if (fAnaMgr.fHelperProcessProxy().is_none() && !_fLocsQueuedInHelper.empty()) {
    const Object wildcard = pyrt::ToPython("*");
    pyrt::List pairs;
    pyrt::ForEach(pyrt::List::Of(_fLocsQueuedInHelper.object()).object(),
                  [&](const Object& loc) { pairs.Append(pyrt::MakeTuple(loc, wildcard)); });
    AddPairsToPrimaryQueue(pairs.object(), false);
    _fLocsQueuedInHelper.Clear();
  }
  const Object callback_obj = fAnaMgr.HelperCallbackObj();
  if (callback_obj.is_none() || pyrt::Equal(callback_obj, _fHelperCallbackObjConnected)) return;

  // A new helper process is there: it takes what it may of the local queue.
  const std::vector<Object> queues = queue()._fOrderedQueues;
  for (const Object& single_queue : queues) SendLocalScansToHelper(single_queue);

  const Object locs_removed =
      pyrt::Closure<"locs_removed(loc_seq)", &OnHelperLocsRemoved>::New(self());
  const Object locs_added = pyrt::Closure<"locs_added(loc_seq)", &OnHelperLocsAdded>::New(self());
  host::ClassConnectWhileAlive(callback_obj, "scan-queue-locs-removed",
                               host::lgtk::NoObjCallback(locs_removed), self());
  host::ClassConnectWhileAlive(callback_obj, "scan-queue-locs-added",
                               host::lgtk::NoObjCallback(locs_added), self());
  _fHelperCallbackObjConnected = callback_obj;
}

// Collects first and removes then, so that the queue isn't changed while it is walked.
void CScanCoordinator::SendLocalScansToHelper(const Object& single_queue) {
  auto& single = _CSingleScanQueue::From(single_queue.get());
  if (!(single.fScanName == fAnaMgr.fPrimaryScanName())) return;
  std::vector<Location> whole_files;
  OrderedScopes& ordered = single.fOrderedDict();
  for (LocId id = ordered.first(); id != kNoIndex; id = ordered.After(id)) {
    const Scopes& scopes = ordered.At(id);
    if (scopes.size() == 1 && scopes[0].equals("*")) {
      whole_files.push_back(single.store()[id].location);
    }
  }
  const Text wildcard = Text::FromUtf8("*");
  std::erase_if(whole_files, [&](const Location& loc) {
    return !_CanSendToHelperProcess(loc.object(), wildcard.object());
  });
  pyrt::List pairs;
  for (const Location& loc : whole_files) {
    queue().RemoveScanTriple({loc, wildcard, single.fScanName}, single.fPriority);
    pairs.Append(pyrt::MakeTuple(loc.object(), wildcard.object()));
  }
  if (!pairs.empty()) AddPairsToPrimaryQueue(pairs.object(), true, single.fPriority);
}

void CScanCoordinator::OnHelperLocsAdded(const Object& self, const Object& loc_seq) {
  pyrt::Set& locs = From(self.get())._fLocsQueuedInHelper;
  pyrt::ForEach(loc_seq, [&](const Object& loc) { locs.Add(loc); });
}

void CScanCoordinator::OnHelperLocsRemoved(const Object& self, const Object& loc_seq) {
  pyrt::Set& locs = From(self.get())._fLocsQueuedInHelper;
  pyrt::ForEach(loc_seq, [&](const Object& loc) { locs.Discard(loc); });
}

}  // namespace pysource
