// The spine of the queue: how a scan enters it, how the next one is chosen, how one leaves.

#include <algorithm>

#include "host/destroyable.h"
#include "host/lgtk.h"
#include "host/location.h"
#include "host/location_data_cache.h"
#include "host/singletons.h"
#include "host/symbols.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/scan_queue.h"

namespace pysource {
namespace {

const Text* LowerBound(const Scopes& scopes, const Text& scope_name) {
  return std::lower_bound(scopes.begin(), scopes.end(), scope_name);
}

Scopes One(const Text& scope_name) {
  Scopes scopes;
  scopes.Append(scope_name);
  return scopes;
}

}  // namespace

_CScanQueue::_CScanQueue(PyObject* shell)
    : Body(shell), _fScansToOrder(pyrt::Dict().object()), store_(std::make_shared<ScanStore>()) {}

void _CScanQueue::Init(const Object& location_data_cache) {
  static constinit pyrt::Name kBranchesReady{"_CB_TreeBranchesNowReady"};
  static constinit pyrt::Name kInspectFailed{"_CB_InspectFailed"};
  static constinit pyrt::Name kCleared{"_CB_LocReadyCleared"};
  static constinit pyrt::Name kSingletonChanged{"_CB_SingletonChanged"};

  // The other fields have their initial values from the start.
  _fLocationDataCache = location_data_cache;

  host::ConnectWhileAlive(_fLocationDataCache, "now-tree-branch-ready", Bound(kBranchesReady),
                          self());
  host::ConnectWhileAlive(_fLocationDataCache, "inspect-failed", Bound(kInspectFailed), self());
  host::ConnectWhileAlive(_fLocationDataCache, "cleared", Bound(kCleared), self());

  host::ConnectWhileAlive(host::Singletons::Get().object(), "changed",
                          host::lgtk::NoArgCallback(Bound(kSingletonChanged)), self());
}

void _CScanQueue::_destroy_impl() {
  pyrt::AllSteps steps;
  steps.Run([&] { Clear(); });
  steps.Run([&] {
    if (!_fSignalEmitIdle.is_none()) host::lgtk::idle_remove(_fSignalEmitIdle);
  });
  steps.Finish();
}

bool _CScanQueue::Empty(bool include_waiting) {
  if (store_->queued_location_count() != 0) return false;
  return !include_waiting ||
         (_fWaitingForInspectByLoc.empty() && _fScanItemsWaitingForData.empty());
}

// ---------------------------------------------------------------------------------------------
// Single queues

void _CScanQueue::SetScansToOrder(const Object& scans_to_order) {
  if (!pyrt::IsMapping(scans_to_order)) {
    pyrt::Raise(PyExc_TypeError, "scans_to_order must be a mapping");
  }
  _fScansToOrder = scans_to_order;
}

std::optional<std::int64_t> _CScanQueue::OrderOf(const Text& scan_name) const {
  const Object order = pyrt::GetOrEmpty(_fScansToOrder, scan_name.object());
  if (!order) return std::nullopt;
  return pyrt::FromPython<std::int64_t>(order.get());
}

Object _CScanQueue::_GetSingleQueue(const Text& scan_name, Priority priority) {
  const std::optional<std::int64_t> known_order = OrderOf(scan_name);
  if (!known_order && pyrt::DebugChecks()) {
    pyrt::Print(pyrt::Format("Scan without order: %U", scan_name));
  }
  const std::int64_t order = known_order.value_or(0);
  if (const auto found = PositionOf(priority, order); IsAt(found, priority, order)) return *found;
  // Creating an object runs the host's constructor, which may come back in: look again.
  const Object created = _CSingleScanQueue::New(scan_name, priority, order, store_);
  const auto place = PositionOf(priority, order);
  if (IsAt(place, priority, order)) return *place;
  _fOrderedQueues.insert(place, created);
  return created;
}

// The first single queue that isn't before (priority, order).
std::vector<Object>::const_iterator _CScanQueue::PositionOf(Priority priority,
                                                            std::int64_t order) const {
  return std::find_if(_fOrderedQueues.begin(), _fOrderedQueues.end(), [&](const Object& queue) {
    const auto& single = _CSingleScanQueue::From(queue.get());
    return std::pair(single.fPriority, single.fOrder) >= std::pair(priority, order);
  });
}

bool _CScanQueue::IsAt(std::vector<Object>::const_iterator position, Priority priority,
                       std::int64_t order) const {
  if (position == _fOrderedQueues.end()) return false;
  const auto& single = _CSingleScanQueue::From(position->get());
  return single.fPriority == priority && single.fOrder == order;
}

// ---------------------------------------------------------------------------------------------
// The map of queued scans and its counters

void _CScanQueue::_AddScanToPerLocationMap(const Location& loc, const Text& scope_name,
                                           const Text& scan_name, Priority priority) {
  const LocationPin pin(*store_, loc);
  const NameId name = store_->InternName(scan_name);
  const bool is_new_location = pin.record().scans.empty();
  if (QueuedScan* queued = store_->FindScan(pin.id(), scope_name, name); queued != nullptr) {
    pyrt::DebugCheck(false, "the scan is in the queue already");
    queued->priority = store_->InternPriority(priority);
    ++store_->totals(name).scan_count;
    return;
  }
  store_->AddScan(pin.id(), scope_name, name, priority);
  ScanNameTotals& totals = store_->totals(name);
  ++totals.scan_count;
  if (store_->CountScans(pin.id(), name) == 1) ++totals.file_count;
  pyrt::DebugCheck(totals.scan_count >= totals.file_count);
  // Last, when the map is whole: this leads out to the host.
  if (is_new_location) _UpdatePendingSets(LocationSet::Of(pin.location()), LocationSet::Empty());
}

bool _CScanQueue::_RemoveScanFromPerLocationMap(const Location& loc, const Text& scope_name,
                                                const Text& scan_name, Priority priority) {
  const LocationPin pin(*store_, loc);
  const NameId name = store_->FindName(scan_name);
  const QueuedScan* queued = store_->FindScan(pin.id(), scope_name, name);
  if (queued == nullptr || store_->priority(queued->priority) != priority) return false;

  const QueuedScan removed = store_->TakeScan(pin.id(), queued);
  ScanNameTotals& totals = store_->totals(name);
  --totals.scan_count;
  if (store_->CountScans(pin.id(), name) == 0) --totals.file_count;
  pyrt::DebugCheck(totals.scan_count >= totals.file_count && totals.file_count >= 0);
  // Last, when the map is whole: this leads out to the host.
  if (pin.record().scans.empty()) {
    _UpdatePendingSets(LocationSet::None(), LocationSet::Of(pin.location()));
  }
  return true;
}

MaybePriority _CScanQueue::_FindScanPriority(const Location& loc, const Text& scope_name,
                                             const Text& scan_name) {
  const LocId id = store_->Find(loc);
  if (id != kNoIndex && !(*store_)[id].scans.empty()) {
    const QueuedScan* queued = store_->FindScan(id, scope_name, store_->FindName(scan_name));
    if (queued == nullptr) return std::nullopt;
    return store_->priority(queued->priority);
  }
  if (_fWaitingForInspectByLoc.empty()) return std::nullopt;
  const Object waiting = _fWaitingForInspectByLoc.Get(loc.object());
  if (!waiting) return std::nullopt;
  const auto [item_set, check_priority] = pyrt::Unpack<2>(waiting);
  if (!check_priority.is_none()) return pyrt::FromPython<Priority>(check_priority.get());
  const pyrt::List items = pyrt::List::Of(item_set);
  if (items.empty()) {
    pyrt::DebugCheck(false, "should not be reached");
    return std::nullopt;
  }
  return CScanItem::FromRecord(items[0]).priority();
}

bool _CScanQueue::IsQueuedAt(LocId id, const Text& scope_name, const Text& scan_name,
                             Priority priority) const {
  const QueuedScan* queued = store_->FindScan(id, scope_name, store_->FindName(scan_name));
  return queued != nullptr && store_->priority(queued->priority) == priority;
}

std::vector<QueuedScan> _CScanQueue::SnapshotOf(const Location& loc) const {
  const LocId id = store_->Find(loc);
  if (id == kNoIndex) return {};
  const auto& scans = (*store_)[id].scans;
  return {scans.begin(), scans.end()};
}

// ---------------------------------------------------------------------------------------------
// Entering

bool _CScanQueue::IsTreeBranchReady(const Location& leaf_loc) {
  if (!fAnyAsyncInspectLocation) return true;
  if (!host::location::Functions().IsAsyncInspectLocation(leaf_loc.object())) return true;
  return host::TreeBranchReady(_fLocationDataCache, leaf_loc.object());
}

void _CScanQueue::AddScanPairs(const Object& pair_seq, const Text& scan_name,
                               MaybePriority priority, bool add_to_check) {
  const Priority at = priority.value_or(kBackgroundPriority);
  ScanPairs ready;
  const host::location::Functions location_functions;
  pyrt::ForEach(pair_seq, [&](const Object& element) {
    ScanPair pair = pyrt::FromPython<ScanPair>(element.get());
    if (!fAnyAsyncInspectLocation && location_functions.IsAsyncInspectLocation(pair.loc.object())) {
      fAnyAsyncInspectLocation = true;
    }
    if (IsTreeBranchReady(pair.loc)) {
      ready.pairs.push_back(std::move(pair));
      return;
    }
    const pyrt::List items =
        pyrt::List::With(CScanItem(pair.loc, pair.scope_name, scan_name, at).record());
    _AddItemsWaitingForInspect(pair.loc, items.object());
    if (add_to_check) _SetWholeFileCheckWaitingForInspect(pair.loc, at);
  });
  if (!ready.pairs.empty()) _AddReadyScanPairs(ready, scan_name, at, add_to_check);
}

void _CScanQueue::_AddReadyScanPairs(const ScanPairs& ready_pair_list, const Text& scan_name,
                                     Priority priority, bool add_to_check) {
  Object target = _GetSingleQueue(scan_name, priority);
  const Text wildcard = host::symbols::WildcardScope();
  const std::vector<ScanPair>& pairs = ready_pair_list.pairs;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    constexpr std::size_t kAhead = 8;
    if (i + kAhead < pairs.size()) store_->Prefetch(pairs[i + kAhead].loc);
    const ScanPair& pair = pairs[i];
    if (!AddReadyPair(pair, scan_name, priority, wildcard, target)) continue;
    if (add_to_check) store_->SetCheck(store_->Intern(pair.loc), priority);
  }
  ready_pair_list.ThrowFailure();
}

// Adds one pair, unless it is covered already; tells whether it was added.
bool _CScanQueue::AddReadyPair(const ScanPair& pair, const Text& scan_name, Priority priority,
                               const Text& wildcard, Object& target) {
  LocationPin pin(*store_, pair.loc);
  const Location released = pin.RenewIfNotQueued(pair.loc);
  const Location& loc = pin.location();
  const Text& scope_name = pair.scope_name;
  const MaybePriority existing = _FindScanPriority(loc, scope_name, scan_name);
  if (existing && *existing <= priority) return false;  // early enough as it is
  // Asked first, since it may fail: what is taken out below must go in again.
  const bool visible = !_fVisibleDocLocs.empty() && _fVisibleDocLocs.Contains(loc.object());
  if (existing) RemoveScanTriple({loc, scope_name, scan_name}, existing);

  if (!(scope_name == wildcard)) {
    const MaybePriority whole_file = _FindScanPriority(loc, wildcard, scan_name);
    if (whole_file && *whole_file <= priority) return false;
  }

  // From here to the placing nothing of the host runs.
  OrderedScopes& ordered = TargetInUse(scan_name, priority, target);
  Scopes* scopes = ordered.Get(pin.id(), visible);
  pyrt::AllSteps steps;
  if (scopes == nullptr) {
    ordered.Set(pin.id(), One(scope_name), visible);
  } else if ((*scopes)[0] == wildcard) {
    return false;
  } else if (scope_name == wildcard) {
    Absorb(pin, scope_name, scan_name, priority, target, steps);
  } else {
    const Text* place = LowerBound(*scopes, scope_name);
    if (place != scopes->end() && *place == scope_name) return false;
    scopes->Insert(static_cast<std::size_t>(place - scopes->begin()), scope_name);
  }
  steps.Run([&] { _AddScanToPerLocationMap(loc, scope_name, scan_name, priority); });
  // A failure before the map has changed must not leave the scope behind.
  if (steps.failed() && !IsQueuedAt(pin.id(), scope_name, scan_name, priority)) {
    RemoveScope(Own(target).fOrderedDict(), pin.id(), scope_name);
  }
  steps.Finish();
  return true;
}

// Lets the whole-file scan take the place of the location's scopes in one single queue.
void _CScanQueue::Absorb(const LocationPin& pin, const Text& wildcard, const Text& scan_name,
                         Priority priority, Object& target, pyrt::AllSteps& steps) {
  const Scopes& present = *Own(target).fOrderedDict().Get(pin.id());
  const std::vector<Text> old(present.begin(), present.end());
  for (const Text& scope_name : old) {
    steps.Run(
        [&] { _RemoveScanFromPerLocationMap(pin.location(), scope_name, scan_name, priority); });
  }
  // The host was called meanwhile: look again.
  OrderedScopes& ordered = TargetInUse(scan_name, priority, target);
  if (Scopes* scopes = ordered.Get(pin.id()); scopes != nullptr) {
    const Scopes released = std::exchange(*scopes, One(wildcard));
  } else {
    ordered.Set(pin.id(), One(wildcard), false);
  }
}

// A single queue of this very queue. TypeError or ValueError for anything else, such as an override
// or a caller may bring.
_CSingleScanQueue& _CScanQueue::Own(const Object& queue) const {
  _CSingleScanQueue& single = _CSingleScanQueue::Checked(queue);
  if (&single.store() != store_.get()) {
    pyrt::Raise(PyExc_ValueError, "the _CSingleScanQueue belongs to another queue");
  }
  return single;
}

bool _CScanQueue::IsInUse(const Object& queue) const {
  return std::any_of(_fOrderedQueues.begin(), _fOrderedQueues.end(),
                     [&](const Object& used) { return used.is(queue); });
}

// The entries of `target`, which is fetched anew if a Clear has dropped it meanwhile.
OrderedScopes& _CScanQueue::TargetInUse(const Text& scan_name, Priority priority, Object& target) {
  if (!IsInUse(target)) target = _GetSingleQueue(scan_name, priority);
  return Own(target).fOrderedDict();
}

// ---------------------------------------------------------------------------------------------
// Choosing

Object _CScanQueue::_FirstOrNone() {
  const auto found =
      std::find_if(_fOrderedQueues.begin(), _fOrderedQueues.end(), [](const Object& queue) {
        return !_CSingleScanQueue::From(queue.get()).fOrderedDict().empty();
      });
  if (found == _fOrderedQueues.end()) return CScanItem::NoScan();
  const Object queue = *found;
  _CSingleScanQueue& single = _CSingleScanQueue::From(queue.get());
  OrderedScopes& ordered = single.fOrderedDict();

  const LocId first = ordered.first();
  const LocationPin pin(*store_, first);
  const Text scope_name = ordered.At(first)[0];
  if (!IsTreeBranchReady(pin.location())) {
    _MoveScansForLocToWaitingForInspect(pin.location(), std::nullopt);
    pyrt::DebugCheck(ordered.first() != first);
    return Object();
  }
  return CScanItem(pin.location(), scope_name, single.fScanName, single.fPriority).record();
}

Object _CScanQueue::First() {
  for (;;) {
    // Each none takes one location out of the queues.
    if (Object item = _FirstOrNone(); !item.is_none()) return item;
  }
}

// ---------------------------------------------------------------------------------------------
// Leaving

void _CScanQueue::ScanCompleted(const CScanItem& scan_item) {
  const LocationPin pin(*store_, scan_item.loc());
  store_->CountCompleted(pin.id(), scan_item.scope_name(),
                         store_->InternName(scan_item.scan_name()));
  RemoveScanTriple({pin.location(), scan_item.scope_name(), scan_item.scan_name()},
                   scan_item.priority());
}

bool _CScanQueue::RemoveScanTriple(const ScanTriple& scan_triple, MaybePriority priority,
                                   bool remove_waiting) {
  const auto& [loc, scope_name, scan_name] = scan_triple;
  if (remove_waiting && !_fWaitingForInspectByLoc.empty() &&
      _fWaitingForInspectByLoc.Contains(loc.object())) {
    return RemoveWaitingTriple(scan_triple, priority);
  }
  if (!priority) priority = _FindScanPriority(loc, scope_name, scan_name);
  if (!priority) return false;

  const LocationPin pin(*store_, loc);
  pyrt::AllSteps steps;
  bool removed = false;
  steps.Run([&] {
    removed = _RemoveScanFromPerLocationMap(pin.location(), scope_name, scan_name, *priority);
  });
  // A failure that comes when the map has changed already must not leave the scope behind.
  if (!removed && (!steps.failed() || IsQueuedAt(pin.id(), scope_name, scan_name, *priority))) {
    steps.Finish();
    return false;
  }
  bool found = false;
  Object queue;
  steps.Run([&] { queue = _GetSingleQueue(scan_name, *priority); });
  steps.Run([&] {
    if (!queue) queue = QueueThatHolds(pin.id(), scan_name, *priority);
    if (queue) {
      found = RemoveScope(Own(queue).fOrderedDict(), pin.id(), scope_name);
    }
  });
  steps.Finish();
  return found;
}

// The single queue that holds the location for a name and priority, or empty. For a failure of
// _GetSingleQueue, which asks the host for the order of the name.
Object _CScanQueue::QueueThatHolds(LocId id, const Text& scan_name, Priority priority) const {
  for (const Object& queue : _fOrderedQueues) {
    auto& single = _CSingleScanQueue::From(queue.get());
    if (single.fPriority == priority && single.fScanName == scan_name &&
        single.fOrderedDict().Get(id) != nullptr) {
      return queue;
    }
  }
  return Object();
}

// Removes a scope from the location's list in a single queue, and with the last one the location.
bool _CScanQueue::RemoveScope(OrderedScopes& ordered, LocId id, const Text& scope_name) {
  Scopes* scopes = ordered.Get(id);
  if (scopes == nullptr) return false;
  const Text* place = LowerBound(*scopes, scope_name);
  if (place == scopes->end() || !(*place == scope_name)) return false;
  const Text released = scopes->Take(static_cast<std::size_t>(place - scopes->begin()));
  if (scopes->empty()) const Scopes emptied = ordered.Take(id);
  return true;
}

// Deals with the waiting entry of a location. With a priority the result is true whether or not
// the item was there: whoever removes a known item of a waiting location need not ask again.
bool _CScanQueue::RemoveWaitingTriple(const ScanTriple& scan_triple, MaybePriority priority) {
  const Object waiting = _fWaitingForInspectByLoc.Get(scan_triple.loc.object());
  pyrt::Set item_set{pyrt::Unpack<2>(waiting)[0]};
  pyrt::List to_remove;
  if (priority) {
    to_remove.Append(
        CScanItem(scan_triple.loc, scan_triple.scope_name, scan_triple.scan_name, priority)
            .record());
  } else {
    pyrt::ForEach(pyrt::List::Of(item_set.object()).object(), [&](const Object& record) {
      const CScanItem item = CScanItem::FromRecord(record);
      if (item.scope_name() == scan_triple.scope_name &&
          item.scan_name() == scan_triple.scan_name) {
        to_remove.Append(record);
      }
    });
  }
  pyrt::ForEach(to_remove.object(), [&](const Object& record) { item_set.Discard(record); });
  if (item_set.empty()) _fWaitingForInspectByLoc.Discard(scan_triple.loc.object());
  return !to_remove.empty();
}

}  // namespace pysource
