#include "pysource/scancoordinator/vocabulary.h"

#include "pysource/pyrt/values.h"
namespace pysource {
namespace {

// Kept for the life of the process, like the types of the module.
struct RecordClasses {
  Object scan_item;
  Object single_queue_status;
  Object scan_status;
  Object per_location_info;
  Object scan_name_counts;
  Object waiting_for_inspect;
  Object no_scan;
};

RecordClasses& Classes() {
  static auto* const classes = new RecordClasses;
  return *classes;
}

constinit pyrt::Name kCollections{"collections"};

// A named tuple of the module; published if its name has no underscore in front.
Object MakeClass(const Object& module, const char* name, const char* fields) {
  static constinit pyrt::Name kNamedTuple{"namedtuple"};
  static constinit pyrt::Name kModuleName{"__name__"};
  const Object made = pyrt::Call(pyrt::ModuleAttr(kCollections, kNamedTuple), name, fields);
  pyrt::SetAttr(made, "__module__", pyrt::GetAttr(module, kModuleName));
  if (name[0] != '_') pyrt::SetAttr(module, name, made);
  return made;
}

// Past the class's own `__new__`, which is written in Python and slow.
template <class... Values>
Object MakeRecord(const Object& record_class, const Values&... values) {
  return pyrt::NewTuple(record_class, values...);
}

}  // namespace

CScanItem CScanItem::FromRecord(Object record) {
  if (!pyrt::IsTuple(record)) pyrt::RaiseUnexpected("CScanItem", record);
  auto [loc, scope_name, scan_name, priority] = pyrt::Unpack<4>(record);
  CScanItem item(Location(std::move(loc)), Text::OrNone(std::move(scope_name)),
                 Text::OrNone(std::move(scan_name)),
                 pyrt::FromPython<MaybePriority>(priority.get()));
  if (pyrt::IsExactly(record, Classes().scan_item)) item.record_ = std::move(record);
  return item;
}

void CScanItem::RequireScan() const {
  if (scope_name_.is_none() || scan_name_.is_none()) {
    pyrt::Raise(PyExc_TypeError, "expected a CScanItem with a scope name and a scan name");
  }
}

Object CScanItem::NoScan() { return Classes().no_scan; }

const Object& CScanItem::record() const {
  if (!record_) {
    record_ = MakeRecord(Classes().scan_item, loc_.object(), scope_name_, scan_name_, priority_);
  }
  return record_;
}

namespace records {

void Create(const Object& module) {
  RecordClasses& classes = Classes();
  classes.scan_item = MakeClass(module, "CScanItem", "loc scope_name scan_name priority");
  classes.single_queue_status =
      MakeClass(module, "CSingleQueueStatus", "scan_name priority file_count");
  classes.scan_status = MakeClass(module, "CScanStatus", "queue_status_list waiting_count");
  classes.per_location_info =
      MakeClass(module, "_CPerLocationInfo", "scan_name_counts pending_dict");
  classes.scan_name_counts = MakeClass(module, "_CScanNameCounts", "scan_count file_count");
  classes.waiting_for_inspect =
      MakeClass(module, "_CWaitingForInspect", "item_set check_whole_file_priority");
  const Object none = Object::None();
  classes.no_scan = MakeRecord(classes.scan_item, none, none, none, none);
}

Object PerLocationInfo(const Object& scan_name_counts, const Object& pending_dict) {
  return MakeRecord(Classes().per_location_info, scan_name_counts, pending_dict);
}

Object ScanNameCounts(std::int64_t scan_count, std::int64_t file_count) {
  return MakeRecord(Classes().scan_name_counts, scan_count, file_count);
}

Object WaitingForInspect(const Object& item_set, const Object& check_whole_file_priority) {
  return MakeRecord(Classes().waiting_for_inspect, item_set, check_whole_file_priority);
}

Object SingleQueueStatus(const Text& scan_name, Priority priority, std::int64_t file_count) {
  return MakeRecord(Classes().single_queue_status, scan_name, priority, file_count);
}

Object ScanStatus(const pyrt::List& queue_status_list, std::int64_t waiting_count) {
  return MakeRecord(Classes().scan_status, queue_status_list, waiting_count);
}

pyrt::Dict Counter() {
  static constinit pyrt::Name kCounter{"Counter"};
  return pyrt::Dict(pyrt::Call(pyrt::ModuleAttr(kCollections, kCounter)));
}

pyrt::Dict DictOfSets() {
  static constinit pyrt::Name kDefaultDict{"defaultdict"};
  return pyrt::Dict(pyrt::Call(pyrt::ModuleAttr(kCollections, kDefaultDict), pyrt::SetClass()));
}

}  // namespace records
}  // namespace pysource

namespace pyrt {

using pysource::Location;
using pysource::LocationSet;
using pysource::ScanPair;
using pysource::ScanPairs;
using pysource::ScanTriple;

ScanPair Converter<ScanPair>::From(PyObject* value) {
  auto [loc, scope_name] = Unpack<2>(Object::Share(value));
  return {Location(std::move(loc)), Text(std::move(scope_name))};
}

ScanPairs Converter<ScanPairs>::From(PyObject* value) {
  ScanPairs result;
  const auto read = [&](const Object& pair) {
    result.pairs.push_back(FromPython<ScanPair>(pair.get()));
  };
  try {
    ForEach(Object::Share(value), read);
  } catch (const PythonError&) {
    result.failure = std::current_exception();
  }
  return result;
}

Object Converter<ScanPairs>::To(const ScanPairs& value) {
  List list;
  for (const ScanPair& pair : value.pairs) list.Append(ToPython(pair));
  return list.object();
}

ScanTriple Converter<ScanTriple>::From(PyObject* value) {
  auto [loc, scope_name, scan_name] = Unpack<3>(Object::Share(value));
  return {Location(std::move(loc)), Text(std::move(scope_name)), Text(std::move(scan_name))};
}

LocationSet Converter<LocationSet>::From(PyObject* value) {
  if (value == Py_None) return LocationSet::None();
  std::vector<Location> locations;
  ForEach(Object::Share(value), [&](Object loc) { locations.emplace_back(std::move(loc)); });
  return LocationSet(std::move(locations));
}

Object Converter<LocationSet>::To(const LocationSet& value) {
  if (value.is_none()) return Object::None();
  Set set;
  for (const Location& loc : value) set.Add(loc.object());
  return set.object();
}

}  // namespace pyrt
