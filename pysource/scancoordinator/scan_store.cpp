#include "pysource/scancoordinator/scan_store.h"

#include <algorithm>

namespace pysource {
namespace {

// The upper half of a mixed hash: identity hashes are addresses, and their low bits alone would
// crowd a table.
std::uint32_t Short(Py_hash_t hash) {
  return static_cast<std::uint32_t>((static_cast<std::uint64_t>(hash) * 0x9E3779B97F4A7C15ULL) >>
                                    32);
}

constexpr unsigned kInitialBits = 3;

}  // namespace

ScanStore::ScanStore() : table_(std::size_t{1} << kInitialBits), shift_(32 - kInitialBits) {}

LocId ScanStore::FindIdentical(const Location& location, bool& same_hash_seen) const {
  // A record that was freed meanwhile holds no location.
  if (last_found_ != kNoIndex && records_[last_found_].location.is(location)) return last_found_;
  const std::uint32_t short_hash = Short(location.hash());
  const std::size_t mask = table_.size() - 1;
  for (std::size_t i = HomeOf(short_hash); table_[i].id != kNoIndex; i = (i + 1) & mask) {
    if (table_[i].hash != short_hash) continue;
    const Location& candidate = records_[table_[i].id].location;
    if (candidate.is(location)) return last_found_ = table_[i].id;
    same_hash_seen = same_hash_seen || candidate.hash() == location.hash();
  }
  return kNoIndex;
}

void ScanStore::Prefetch(const Location& location) const noexcept {
  __builtin_prefetch(&table_[HomeOf(Short(location.hash()))]);
}

LocId ScanStore::Find(const Location& location) const {
  for (;;) {  // again whenever `__eq__` has changed the table
    bool same_hash_seen = false;
    const LocId identical = FindIdentical(location, same_hash_seen);
    if (identical != kNoIndex || !same_hash_seen) return identical;

    const std::uint64_t version = version_;
    const std::size_t mask = table_.size() - 1;
    for (std::size_t i = HomeOf(Short(location.hash()));; i = (i + 1) & mask) {
      const LocId id = table_[i].id;
      if (id == kNoIndex) return kNoIndex;
      if (records_[id].location.hash() != location.hash()) continue;
      const Object held = records_[id].location.object();
      const bool equal = pyrt::Equal(held, location.object());
      if (version_ != version) break;
      if (equal) return id;
    }
  }
}

LocId ScanStore::Intern(const Location& location) {
  if (const LocId found = Find(location); found != kNoIndex) return found;
  // Four fifths full at most.
  if ((used_slots_ + 1) * 5 > table_.size() * 4) Grow();
  const LocId id = records_.Allocate();
  records_[id].location = location;
  const std::size_t mask = table_.size() - 1;
  const std::uint32_t short_hash = Short(location.hash());
  std::size_t i = HomeOf(short_hash);
  while (table_[i].id != kNoIndex) i = (i + 1) & mask;
  table_[i] = {short_hash, id};
  ++used_slots_;
  ++version_;
  return last_found_ = id;
}

void ScanStore::Grow() {
  std::vector<Slot> grown(table_.size() * 2);
  --shift_;
  const std::size_t mask = grown.size() - 1;
  for (const Slot& slot : table_) {
    if (slot.id == kNoIndex) continue;
    std::size_t i = HomeOf(slot.hash);
    while (grown[i].id != kNoIndex) i = (i + 1) & mask;
    grown[i] = slot;
  }
  table_ = std::move(grown);
  ++version_;
}

void ScanStore::RemoveSlot(LocId id) {
  const std::size_t mask = table_.size() - 1;
  std::size_t hole = HomeOf(Short(records_[id].location.hash()));
  while (table_[hole].id != id) hole = (hole + 1) & mask;
  // Entries that were pushed past the hole move back, so that no search ends too early.
  for (std::size_t i = (hole + 1) & mask; table_[i].id != kNoIndex; i = (i + 1) & mask) {
    const std::size_t home = HomeOf(table_[i].hash);
    if (((i - home) & mask) >= ((i - hole) & mask)) {
      table_[hole] = table_[i];
      hole = i;
    }
  }
  table_[hole] = Slot();
  --used_slots_;
  ++version_;
}

bool ScanStore::IsUnused(const LocationRecord& record) const noexcept {
  return record.scans.empty() && record.completed.empty() && record.first_place == kNoIndex &&
         record.check_priority == kNoIndex && !record.in_pending_list && record.pins == 0;
}

Location ScanStore::ForgetIfUnused(LocId id) {
  if (!IsUnused(records_[id])) return Location();
  RemoveSlot(id);
  Location location = std::move(records_[id].location);
  records_.Free(id);
  return location;
}

NameId ScanStore::FindName(const Text& scan_name) const {
  for (std::size_t i = 0; i < names_.size(); ++i) {
    if (names_[i].scan_name == scan_name) return static_cast<NameId>(i);
  }
  return kNoIndex;
}

NameId ScanStore::InternName(const Text& scan_name) {
  if (const NameId found = FindName(scan_name); found != kNoIndex) return found;
  names_.push_back({scan_name});
  return static_cast<NameId>(names_.size() - 1);
}

PriorityId ScanStore::InternPriority(Priority priority) {
  const auto found = std::find(priorities_.begin(), priorities_.end(), priority);
  if (found == priorities_.end()) {
    priorities_.push_back(priority);
    return static_cast<PriorityId>(priorities_.size() - 1);
  }
  return static_cast<PriorityId>(found - priorities_.begin());
}

QueuedScan* ScanStore::FindScan(LocId id, const Text& scope_name, NameId scan_name) {
  for (QueuedScan& scan : records_[id].scans) {
    if (scan.scan_name == scan_name && scan.scope_name == scope_name) return &scan;
  }
  return nullptr;
}

std::int64_t ScanStore::CountScans(LocId id, NameId scan_name) const {
  const auto& scans = records_[id].scans;
  return std::count_if(scans.begin(), scans.end(),
                       [&](const QueuedScan& scan) { return scan.scan_name == scan_name; });
}

void ScanStore::AddScan(LocId id, const Text& scope_name, NameId scan_name, Priority priority) {
  LocationRecord& record = records_[id];
  const PriorityId priority_id = InternPriority(priority);
  if (record.scans.empty()) ++queued_locations_;
  record.scans.Append({scope_name, scan_name, priority_id});
}

QueuedScan ScanStore::TakeScan(LocId id, const QueuedScan* scan) {
  LocationRecord& record = records_[id];
  QueuedScan taken = record.scans.Take(static_cast<std::size_t>(scan - record.scans.begin()));
  if (record.scans.empty()) --queued_locations_;
  return taken;
}

void ScanStore::SetCheck(LocId id, Priority priority) {
  LocationRecord& record = records_[id];
  const bool is_listed = record.check_priority != kNoIndex;
  record.check_priority = InternPriority(priority);
  if (is_listed) return;
  record.older_check = newest_check_;
  if (newest_check_ != kNoIndex) {
    records_[newest_check_].newer_check = id;
  } else {
    oldest_check_ = id;
  }
  newest_check_ = id;
}

void ScanStore::RemoveCheck(LocId id) {
  LocationRecord& record = records_[id];
  if (record.check_priority == kNoIndex) return;
  if (record.older_check != kNoIndex) {
    records_[record.older_check].newer_check = record.newer_check;
  } else {
    oldest_check_ = record.newer_check;
  }
  if (record.newer_check != kNoIndex) {
    records_[record.newer_check].older_check = record.older_check;
  } else {
    newest_check_ = record.older_check;
  }
  record.older_check = record.newer_check = kNoIndex;
  record.check_priority = kNoIndex;
}

void ScanStore::MarkAdded(LocId id) {
  LocationRecord& record = records_[id];
  if (!record.in_pending_list) {
    pending_.push_back(id);
    record.in_pending_list = true;
  }
  // An earlier removal and this add cancel out.
  if (record.pending_removed) {
    record.pending_removed = false;
  } else {
    record.pending_added = true;
  }
}

void ScanStore::MarkRemoved(LocId id) {
  LocationRecord& record = records_[id];
  if (!record.in_pending_list) {
    pending_.push_back(id);
    record.in_pending_list = true;
  }
  record.pending_removed = true;
}

std::vector<Location> ScanStore::PendingAdded() const {
  std::vector<Location> locations;
  for (const LocId id : pending_) {
    if (records_[id].pending_added) locations.push_back(records_[id].location);
  }
  return locations;
}

std::vector<Location> ScanStore::PendingRemoved() const {
  std::vector<Location> locations;
  for (const LocId id : pending_) {
    if (records_[id].pending_removed) locations.push_back(records_[id].location);
  }
  return locations;
}

std::vector<Location> ScanStore::ClearPending() {
  std::vector<Location> released;
  for (const LocId id : pending_) {
    LocationRecord& record = records_[id];
    record.pending_added = record.pending_removed = record.in_pending_list = false;
    if (IsUnused(record)) released.push_back(ForgetIfUnused(id));
  }
  pending_.clear();
  return released;
}

void ScanStore::CountCompleted(LocId id, const Text& scope_name, NameId scan_name) {
  LocationRecord& record = records_[id];
  for (CompletedScan& completed : record.completed) {
    if (completed.scan_name == scan_name && completed.scope_name == scope_name) {
      if (completed.count != kNoIndex) ++completed.count;
      return;
    }
  }
  record.completed.Append({scope_name, scan_name, 1});
}

std::int64_t ScanStore::CompletedCount(LocId id, const Text& scope_name, NameId scan_name) const {
  for (const CompletedScan& completed : records_[id].completed) {
    if (completed.scan_name == scan_name && completed.scope_name == scope_name) {
      return completed.count;
    }
  }
  return 0;
}

ScanStore::Cleared ScanStore::Clear() {
  Cleared cleared;
  std::vector<LocId> ids;
  ForEachRecord([&](LocId id) { ids.push_back(id); });
  for (const LocId id : ids) {
    LocationRecord& record = records_[id];
    cleared.scans.push_back(std::move(record.scans));
    cleared.completed.push_back(std::move(record.completed));
    RemoveCheck(id);
    cleared.locations.push_back(ForgetIfUnused(id));
  }
  for (ScanNameTotals& totals : names_) totals.scan_count = totals.file_count = 0;
  queued_locations_ = 0;
  return cleared;
}

void ScanStore::Traverse(pyrt::Visitor& visit) const noexcept {
  ForEachRecord([&](LocId id) {
    const LocationRecord& record = records_[id];
    visit(record.location.object());
    for (const QueuedScan& scan : record.scans) visit(scan.scope_name.object());
    for (const CompletedScan& completed : record.completed) visit(completed.scope_name.object());
    for (std::uint32_t place = record.first_place; place != kNoIndex;
         place = places_[place].next_of_location) {
      for (const Text& scope : places_[place].scopes) visit(scope.object());
    }
  });
  for (const ScanNameTotals& totals : names_) visit(totals.scan_name.object());
}

std::uint32_t OrderedScopes::FindPlace(LocId id) const noexcept {
  std::uint32_t place = (*store_)[id].first_place;
  while (place != kNoIndex && store_->places_[place].queue != id_) {
    place = store_->places_[place].next_of_location;
  }
  return place;
}

void OrderedScopes::Link(std::uint32_t place, bool first) {
  auto& places = store_->places_;
  places[place].previous = first ? kNoIndex : last_;
  places[place].next = first ? first_ : kNoIndex;
  if (places[place].previous != kNoIndex) places[places[place].previous].next = place;
  if (places[place].next != kNoIndex) places[places[place].next].previous = place;
  if (first || first_ == kNoIndex) first_ = place;
  if (!first || last_ == kNoIndex) last_ = place;
}

void OrderedScopes::Unlink(std::uint32_t place) {
  auto& places = store_->places_;
  const std::uint32_t previous = places[place].previous;
  const std::uint32_t next = places[place].next;
  (previous != kNoIndex ? places[previous].next : first_) = next;
  (next != kNoIndex ? places[next].previous : last_) = previous;
}

Scopes* OrderedScopes::Get(LocId id, bool touch) {
  const std::uint32_t place = FindPlace(id);
  if (place == kNoIndex) return nullptr;
  if (touch && first_ != place) {
    Unlink(place);
    Link(place, true);
  }
  return &store_->places_[place].scopes;
}

void OrderedScopes::Set(LocId id, Scopes scopes, bool first) {
  const std::uint32_t place = store_->places_.Allocate();
  Place& entry = store_->places_[place];
  entry.scopes = std::move(scopes);
  entry.loc = id;
  entry.queue = id_;
  entry.next_of_location = (*store_)[id].first_place;
  (*store_)[id].first_place = place;
  Link(place, first);
  ++size_;
}

Scopes OrderedScopes::Take(LocId id) {
  const std::uint32_t place = FindPlace(id);
  Unlink(place);
  --size_;
  std::uint32_t* link = &(*store_)[id].first_place;
  while (*link != place) link = &store_->places_[*link].next_of_location;
  *link = store_->places_[place].next_of_location;
  Scopes scopes = std::move(store_->places_[place].scopes);
  store_->places_.Free(place);
  return scopes;
}

LocId OrderedScopes::first() const noexcept {
  return first_ == kNoIndex ? kNoIndex : store_->places_[first_].loc;
}

LocId OrderedScopes::After(LocId id) const noexcept {
  const std::uint32_t next = store_->places_[FindPlace(id)].next;
  return next == kNoIndex ? kNoIndex : store_->places_[next].loc;
}

const Scopes& OrderedScopes::At(LocId id) const noexcept {
  return store_->places_[FindPlace(id)].scopes;
}

}  // namespace pysource
