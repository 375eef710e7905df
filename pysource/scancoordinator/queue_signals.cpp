// The batched signals for changes of the set of queued locations, and the dump of the queue.

#include <algorithm>

#include "host/destroyable.h"
#include "host/lgtk.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/scan_queue.h"

namespace pysource {

void _CScanQueue::_UpdatePendingSets(const LocationSet& added_set, const LocationSet& removed_set) {
  static constinit pyrt::Name kSignalEmitIdle{"_SignalEmitIdle"};
  for (const Location& loc : added_set) store_->MarkAdded(store_->Intern(loc));
  for (const Location& loc : removed_set) store_->MarkRemoved(store_->Intern(loc));
  if (_fSignalEmitIdle.is_none()) {
    _fSignalEmitIdle = host::lgtk::idle_add(Bound(kSignalEmitIdle));
  }
}

void _CScanQueue::_SignalEmitIdle() {
  const std::vector<Location> added = store_->PendingAdded();
  const std::vector<Location> removed = store_->PendingRemoved();
  const std::vector<Location> released = store_->ClearPending();
  _fSignalEmitIdle = nullptr;
  if (!added.empty()) host::Emit(self(), "locations-added", self(), LocationSet(added));
  if (!removed.empty()) host::Emit(self(), "locations-removed", self(), LocationSet(removed));
}

namespace {

// A line of the dump: a format with %R for values in their debugging form and %U for text.
template <class... Args>
void Write(const Object& write, const char* format, const Args&... args) {
  pyrt::Call(write, pyrt::Format(format, args...));
}

struct QueueEntry {
  Object loc;
  std::vector<Text> names;
};

// Returns the number of lines written, at least one.
std::int64_t WriteForLoc(const Object& write, const QueueEntry& entry, std::int64_t loc_limit) {
  Write(write, "  %R\n", entry.loc);
  std::int64_t loc_lines_written = 1;
  for (const Text& name : entry.names) {
    if (loc_lines_written >= loc_limit) {
      Write(write, "    ...\n");
      return loc_lines_written;
    }
    Write(write, "    %U\n", name);
    ++loc_lines_written;
  }
  return loc_lines_written;
}

// The first entries of a container, at most `limit`: the writer may change the container.
pyrt::List FirstOf(const Object& container, std::int64_t limit) {
  const pyrt::List all = pyrt::List::Of(container);
  pyrt::List first;
  for (std::size_t i = 0; i < all.size() && static_cast<std::int64_t>(i) < limit; ++i) {
    first.Append(all[i]);
  }
  return first;
}

void WriteWaiting(const Object& write, const char* format, const Object& container,
                  std::int64_t limit) {
  const auto size = static_cast<std::int64_t>(pyrt::Size(container));
  pyrt::ForEach(FirstOf(container, limit).object(),
                [&](const Object& element) { Write(write, format, element); });
  if (size >= limit) Write(write, "  ...\n");
}

Object StandardOutputWrite() {
  static constinit pyrt::Name kSys{"sys"};
  static constinit pyrt::Name kStdout{"stdout"};
  static constinit pyrt::Name kWrite{"write"};
  return pyrt::GetAttr(pyrt::ModuleAttr(kSys, kStdout), kWrite);
}

}  // namespace

void _CScanQueue::PrintScanQueues(const Object& write_or_none, std::int64_t limit) {
  const Object write = write_or_none.is_none() ? StandardOutputWrite() : write_or_none;
  std::int64_t lines_written = 0;
  Write(write, "_CScanQueue contents:\n");
  const std::vector<Object> queues = _fOrderedQueues;
  for (const Object& queue : queues) {
    auto& single = _CSingleScanQueue::From(queue.get());
    OrderedScopes& ordered = single.fOrderedDict();
    // Each location takes a line at least, so that no more than these can be written.
    std::vector<QueueEntry> entries;
    for (LocId id = ordered.first();
         id != kNoIndex && static_cast<std::int64_t>(entries.size()) < limit - lines_written;
         id = ordered.After(id)) {
      const Scopes& names = ordered.At(id);
      entries.push_back({(*store_)[id].location.object(), {names.begin(), names.end()}});
    }
    const std::size_t count = ordered.size();
    Write(write, " Scan queue for %U; priority=%lld count=%zu\n", single.fScanName,
          static_cast<long long>(single.fPriority), count);
    std::size_t next = 0;
    bool all_written = false;
    while (!all_written && lines_written < limit) {
      if (next == entries.size()) {
        all_written = true;
      } else {
        lines_written += WriteForLoc(write, entries[next++], limit - lines_written);
      }
    }
    if (!all_written) Write(write, "  ...\n");
  }
  if (!_fWaitingForInspectByLoc.empty()) {
    // No line end: the next output follows on the same line.
    Write(write, "Waiting for %zu remote files to be inspected", _fWaitingForInspectByLoc.size());
    WriteWaiting(write, "  File: %R\n", _fWaitingForInspectByLoc.object(), limit);
  }
  if (!_fScanItemsWaitingForData.empty()) {
    Write(write, "Waiting for remote on %zu scans\n", _fScanItemsWaitingForData.size());
    WriteWaiting(write, "  Scan: %R\n", _fScanItemsWaitingForData.object(), limit);
  }
}

}  // namespace pysource
