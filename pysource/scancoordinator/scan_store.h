// What the queue remembers of each location, in little memory.
//
// A location has one record, found by one search of an open-addressing table, however many facts
// are kept of it: its queued scans, its places in the single queues, its due whole-file check, the
// changes to be reported, its completed scans. A record lives as long as any of these does.
//
// Nothing here calls back into Python, with two exceptions that the comments name: finding a
// location may run the host's `__eq__`, and releasing a reference may run anything. What is taken
// out is therefore handed to the caller, to be released when the structure is whole again. Pointers
// into the store are good until the next call into Python.

#ifndef PYSOURCE_SCANCOORDINATOR_SCAN_STORE_H_
#define PYSOURCE_SCANCOORDINATOR_SCAN_STORE_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "pysource/pyrt/shell.h"
#include "pysource/scancoordinator/one_or_many.h"
#include "pysource/scancoordinator/pool.h"
#include "pysource/scancoordinator/vocabulary.h"

namespace pysource {

using LocId = std::uint32_t;       // a location with a record
using NameId = std::uint32_t;      // a scan name
using PriorityId = std::uint32_t;  // a priority

// A scan of a location in the queue: the key (scope_name, scan_name) and the priority.
struct QueuedScan {
  Text scope_name;
  NameId scan_name = kNoIndex;
  PriorityId priority = kNoIndex;
};

// How often a scan of a location was completed.
struct CompletedScan {
  Text scope_name;
  NameId scan_name = kNoIndex;
  std::uint32_t count = 0;
};

using Scopes = OneOrMany<Text>;

struct LocationRecord {
  Location location;
  OneOrMany<QueuedScan> scans;
  OneOrMany<CompletedScan> completed;
  std::uint32_t first_place = kNoIndex;  // chain of its places in single queues
  // Its place in the list of whole-file checks; no priority: not in the list.
  LocId older_check = kNoIndex;
  LocId newer_check = kNoIndex;
  PriorityId check_priority = kNoIndex;
  bool pending_added = false;
  bool pending_removed = false;
  bool in_pending_list = false;
  std::uint32_t pins = 0;
};

// Totals of one scan name over the whole queue.
struct ScanNameTotals {
  Text scan_name;
  std::int64_t scan_count = 0;
  std::int64_t file_count = 0;
};

// The place of a location in one single queue, with its scopes there.
struct Place {
  Scopes scopes;
  LocId loc = kNoIndex;
  std::uint32_t queue = kNoIndex;
  std::uint32_t previous = kNoIndex;
  std::uint32_t next = kNoIndex;
  std::uint32_t next_of_location = kNoIndex;
};

class ScanStore {
 public:
  ScanStore();
  ScanStore(const ScanStore&) = delete;
  ScanStore& operator=(const ScanStore&) = delete;

  // The record's number, or kNoIndex. Runs the host's `__eq__` only if no record has this very
  // object and one has its hash; starts again if that changed the table.
  LocId Find(const Location& location) const;
  // Finds or creates the record.
  LocId Intern(const Location& location);
  LocationRecord& operator[](LocId id) noexcept { return records_[id]; }
  const LocationRecord& operator[](LocId id) const noexcept { return records_[id]; }
  // Starts to fetch what Find will look at, for a walk through many locations in no order.
  void Prefetch(const Location& location) const noexcept;
  // Removes the record if nothing is kept of the location any more. The result is the location, to
  // be released by the caller.
  [[nodiscard]] Location ForgetIfUnused(LocId id);
  // Calls fn(id) for each record.
  template <class Fn>
  void ForEachRecord(Fn&& fn) const {
    for (const Slot& slot : table_) {
      if (slot.id != kNoIndex) fn(slot.id);
    }
  }

  // Few scan names and few priorities occur; each has a number for good.
  NameId InternName(const Text& scan_name);
  NameId FindName(const Text& scan_name) const;
  const Text& name(NameId id) const noexcept { return names_[id].scan_name; }
  ScanNameTotals& totals(NameId id) noexcept { return names_[id]; }
  const std::vector<ScanNameTotals>& all_totals() const noexcept { return names_; }
  PriorityId InternPriority(Priority priority);
  Priority priority(PriorityId id) const noexcept { return priorities_[id]; }

  // The queued scan of that key, or null.
  QueuedScan* FindScan(LocId id, const Text& scope_name, NameId scan_name);
  // The number of queued scans of the location with that name.
  std::int64_t CountScans(LocId id, NameId scan_name) const;
  std::size_t queued_location_count() const noexcept { return queued_locations_; }
  // Queues a scan. Requires: the key isn't there.
  void AddScan(LocId id, const Text& scope_name, NameId scan_name, Priority priority);
  // Takes a queued scan out. Requires: it is one of the location's.
  [[nodiscard]] QueuedScan TakeScan(LocId id, const QueuedScan* scan);

  // The list of due whole-file checks, oldest first. A location that is in the list keeps its
  // place.
  void SetCheck(LocId id, Priority priority);
  void RemoveCheck(LocId id);
  LocId newest_check() const noexcept { return newest_check_; }
  LocId oldest_check() const noexcept { return oldest_check_; }

  // The locations to be reported.
  void MarkAdded(LocId id);
  void MarkRemoved(LocId id);
  std::vector<Location> PendingAdded() const;
  std::vector<Location> PendingRemoved() const;
  // Nothing is to be reported any more.
  [[nodiscard]] std::vector<Location> ClearPending();

  void CountCompleted(LocId id, const Text& scope_name, NameId scan_name);
  std::int64_t CompletedCount(LocId id, const Text& scope_name, NameId scan_name) const;

  // Forgets queued scans, checks and completed scans; what is to be reported stays. The result is
  // everything that was taken out.
  struct Cleared {
    std::vector<OneOrMany<QueuedScan>> scans;
    std::vector<OneOrMany<CompletedScan>> completed;
    std::vector<Location> locations;
  };
  [[nodiscard]] Cleared Clear();

  void Traverse(pyrt::Visitor& visit) const noexcept;

 private:
  friend class LocationPin;
  friend class OrderedScopes;

  struct Slot {
    std::uint32_t hash = 0;  // in short form, so that the table grows without a look at the records
    LocId id = kNoIndex;
  };

  // Where a search for a hash in short form begins.
  std::size_t HomeOf(std::uint32_t short_hash) const noexcept { return short_hash >> shift_; }
  // Looks for the very object; tells whether another one has its hash.
  LocId FindIdentical(const Location& location, bool& same_hash_seen) const;
  void Grow();
  void RemoveSlot(LocId id);
  bool IsUnused(const LocationRecord& record) const noexcept;

  Pool<LocationRecord> records_;
  Pool<Place> places_;
  std::vector<Slot> table_;
  std::size_t used_slots_ = 0;
  mutable LocId last_found_ = kNoIndex;  // an operation asks for one location again and again
  unsigned shift_;                       // 32 less the binary logarithm of the table's size
  std::uint64_t version_ = 0;            // counts changes of the table
  std::vector<ScanNameTotals> names_;
  std::vector<Priority> priorities_;
  std::size_t queued_locations_ = 0;
  LocId oldest_check_ = kNoIndex;
  LocId newest_check_ = kNoIndex;
  std::vector<LocId> pending_;
  std::uint32_t next_queue_ = 0;
};

// Holds a location's record for the length of an operation, creating it if need be: its number
// stays good across calls into Python, and finding location() again runs no code of the host.
class LocationPin {
 public:
  // Requires: the store outlives the pin. May run the host's `__eq__`.
  LocationPin(ScanStore& store, const Location& location)
      : LocationPin(store, store.Intern(location)) {}
  // Requires: the record exists.
  LocationPin(ScanStore& store, LocId id) : store_(store), id_(id), location_(store[id].location) {
    store_.last_found_ = id_;
    ++store_[id_].pins;
  }
  LocationPin(const LocationPin&) = delete;
  LocationPin& operator=(const LocationPin&) = delete;
  ~LocationPin() {
    --store_[id_].pins;
    const Location released = store_.ForgetIfUnused(id_);
  }

  LocId id() const noexcept { return id_; }
  // The object by which the store knows the location.
  const Location& location() const noexcept { return location_; }
  LocationRecord& record() const noexcept { return store_[id_]; }
  // Lets a location that isn't queued be known by an equal object from now on, as a mapping does
  // with a key that comes back. The result is the old object, to be released by the caller.
  [[nodiscard]] Location RenewIfNotQueued(const Location& location) {
    if (!record().scans.empty() || record().first_place != kNoIndex) return Location();
    location_ = location;
    return std::exchange(record().location, location);
  }

 private:
  ScanStore& store_;
  LocId id_;
  Location location_;
};

// The locations of one single queue from first to last, each with its sorted list of scopes.
class OrderedScopes {
 public:
  // Requires: the store outlives the queue.
  explicit OrderedScopes(ScanStore& store) : store_(&store), id_(store.next_queue_++) {}

  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }

  // The location's scopes, or null. With `touch`, a location that is there becomes the first.
  Scopes* Get(LocId id, bool touch = false);
  // Enters a location with one scope, at the front or at the end. Requires: it isn't there.
  void Set(LocId id, Scopes scopes, bool first);
  // Takes a location out. Requires: it is there.
  [[nodiscard]] Scopes Take(LocId id);

  LocId first() const noexcept;
  // The location behind another, or kNoIndex.
  LocId After(LocId id) const noexcept;
  const Scopes& At(LocId id) const noexcept;

 private:
  std::uint32_t FindPlace(LocId id) const noexcept;
  void Link(std::uint32_t place, bool first);
  void Unlink(std::uint32_t place);

  ScanStore* store_;
  std::uint32_t id_;
  std::uint32_t first_ = kNoIndex;
  std::uint32_t last_ = kNoIndex;
  std::size_t size_ = 0;
};

}  // namespace pysource

#endif  // PYSOURCE_SCANCOORDINATOR_SCAN_STORE_H_
