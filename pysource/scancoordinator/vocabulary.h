// The shared words of the scheduler: locations, scans and their shapes, priorities, records.

#ifndef PYSOURCE_SCANCOORDINATOR_VOCABULARY_H_
#define PYSOURCE_SCANCOORDINATOR_VOCABULARY_H_

#include <cstdint>
#include <exception>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "pysource/pyrt/containers.h"
#include "pysource/pyrt/convert.h"

namespace pysource {

using pyrt::Object;
using pyrt::Text;

// A lower priority runs earlier. Only within one priority does the order of scan names decide.
using Priority = std::int64_t;
using MaybePriority = std::optional<Priority>;

inline constexpr Priority kTypingModulePriority = 0;  // typing modules, ahead of all else
inline constexpr Priority kInteractivePriority = 1;   // what the user looks at or waits for
inline constexpr Priority kBackgroundPriority = 2;    // the rest; the default

// Seconds for which a completed scan isn't repeated.
inline constexpr double kMinSecondsBetweenScans = 5.0;
// Whole files taken for a check at a time, less one.
inline constexpr std::int64_t kDefaultWholeFilesToCheckCount = 25;

// A host's file location as a key. The hash is asked for once, when the key is made; equality is
// the host's too, and is asked only of objects that are not identical and have the same hash.
class Location {
 public:
  Location() noexcept = default;
  explicit Location(Object object) : object_(std::move(object)) {
    hash_ = PyObject_Hash(object_.get_or_none());
    if (hash_ == -1) pyrt::ThrowPending();
  }

  const Object& object() const noexcept { return object_; }
  Py_hash_t hash() const noexcept { return hash_; }
  bool is(const Location& other) const noexcept { return object_.get() == other.object_.get(); }
  bool is_none() const noexcept { return object_.is_none(); }

 private:
  Object object_;
  Py_hash_t hash_ = 0;
};

// What clients ask to have scanned.
struct ScanPair {
  Location loc;
  Text scope_name;
};

// Pairs for one call. Those read from Python end at the first that is no pair; its failure is
// thrown when the pairs before it have been processed.
struct ScanPairs {
  std::vector<ScanPair> pairs;
  std::exception_ptr failure;

  void ThrowFailure() const {
    if (failure) std::rethrow_exception(failure);
  }
};

// One scan, apart from its priority.
struct ScanTriple {
  Location loc;
  Text scope_name;
  Text scan_name;
};

// One queued scan. Where it came from Python it remembers its record, so that the same object goes
// back.
class CScanItem {
 public:
  CScanItem() = default;
  CScanItem(Location loc, Text scope_name, Text scan_name, MaybePriority priority)
      : loc_(std::move(loc)),
        scope_name_(std::move(scope_name)),
        scan_name_(std::move(scan_name)),
        priority_(priority) {}
  // Reads a record of that class or any tuple of four.
  // Holds it: asking its location for the hash may make the owner let go of it.
  static CScanItem FromRecord(Object record);
  // The record of four nones, which stands for "no scan".
  static Object NoScan();
  // TypeError if scope name or scan name is none.
  void RequireScan() const;

  const Location& loc() const noexcept { return loc_; }
  const Text& scope_name() const noexcept { return scope_name_; }
  const Text& scan_name() const noexcept { return scan_name_; }
  const MaybePriority& priority() const noexcept { return priority_; }
  ScanTriple triple() const { return {loc_, scope_name_, scan_name_}; }
  // The Python record.
  const Object& record() const;

 private:
  Location loc_;
  Text scope_name_;
  Text scan_name_;
  MaybePriority priority_;
  mutable Object record_;
};

// Locations for one call: a view of somebody else's, or a set read from Python, or none.
class LocationSet {
 public:
  static LocationSet None() { return LocationSet(); }
  static LocationSet Empty() { return LocationSet(std::vector<Location>()); }
  // Requires: `loc` outlives the set.
  static LocationSet Of(const Location& loc) {
    LocationSet set;
    set.given_ = true;
    set.view_ = {&loc, 1};
    return set;
  }
  explicit LocationSet(std::vector<Location> locations)
      : given_(true), owned_(std::move(locations)), view_(owned_) {}
  LocationSet(LocationSet&&) = default;
  LocationSet(const LocationSet&) = delete;
  LocationSet& operator=(const LocationSet&) = delete;

  bool is_none() const noexcept { return !given_; }
  bool empty() const noexcept { return view_.empty(); }
  auto begin() const noexcept { return view_.begin(); }
  auto end() const noexcept { return view_.end(); }

 private:
  LocationSet() = default;

  bool given_ = false;
  std::vector<Location> owned_;
  std::span<const Location> view_;  // a moved vector keeps its elements in place
};

// The named tuples. `__module__` of each is the delivering module.
namespace records {

// Made once, when the module is loaded.
void Create(const Object& module);

Object PerLocationInfo(const Object& scan_name_counts, const Object& pending_dict);
Object ScanNameCounts(std::int64_t scan_count, std::int64_t file_count);
Object WaitingForInspect(const Object& item_set, const Object& check_whole_file_priority);
Object SingleQueueStatus(const Text& scan_name, Priority priority, std::int64_t file_count);
Object ScanStatus(const pyrt::List& queue_status_list, std::int64_t waiting_count);

// A new collections.Counter: absent keys read as 0.
pyrt::Dict Counter();
// A new collections.defaultdict of sets: a read of an absent key creates an empty one.
pyrt::Dict DictOfSets();

}  // namespace records
}  // namespace pysource

namespace pyrt {

template <>
struct Converter<pysource::Location> {
  static pysource::Location From(PyObject* value) {
    return pysource::Location(Object::Share(value));
  }
  static Object To(const pysource::Location& value) { return ToPython(value.object()); }
};

template <>
struct Converter<pysource::ScanPair> {
  static pysource::ScanPair From(PyObject* value);
  static Object To(const pysource::ScanPair& value) {
    return MakeTuple(value.loc.object(), value.scope_name);
  }
};

template <>
struct Converter<pysource::ScanPairs> {
  static pysource::ScanPairs From(PyObject* value);
  static Object To(const pysource::ScanPairs& value);
};

template <>
struct Converter<pysource::ScanTriple> {
  static pysource::ScanTriple From(PyObject* value);
  static Object To(const pysource::ScanTriple& value) {
    return MakeTuple(value.loc.object(), value.scope_name, value.scan_name);
  }
};

template <>
struct Converter<pysource::CScanItem> {
  static pysource::CScanItem From(PyObject* value) {
    return pysource::CScanItem::FromRecord(Object::Share(value));
  }
  static Object To(const pysource::CScanItem& value) { return value.record(); }
};

// None stays none; anything else is iterated.
template <>
struct Converter<pysource::LocationSet> {
  static pysource::LocationSet From(PyObject* value);
  static Object To(const pysource::LocationSet& value);
};

}  // namespace pyrt

#endif  // PYSOURCE_SCANCOORDINATOR_VOCABULARY_H_
