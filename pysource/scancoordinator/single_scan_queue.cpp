#include "pysource/scancoordinator/single_scan_queue.h"

#include "host/destroyable.h"
#include "pysource/scancoordinator/types.h"

namespace pysource {
namespace {

int InitSingle(PyObject* self, PyObject* args, PyObject* kwargs) {
  return pyrt::Guard([&] {
    const auto [scan_name, priority, order] =
        pyrt::BindInit<"_CSingleScanQueue(scan_name, priority, order)">(args, kwargs);
    const Text name = pyrt::FromPython<Text>(scan_name);
    const Priority at = pyrt::FromPython<Priority>(priority);
    const std::int64_t in_order = pyrt::FromPython<std::int64_t>(order);
    host::InitDestroyable(_CSingleScanQueue::Shell().base(), Object::Share(self));
    _CSingleScanQueue::From(self).Init(name, at, in_order);
  });
}

// The entries as a container of their own: location to sorted list of text.
Object OrderedDictOf(_CSingleScanQueue& queue) {
  static constinit pyrt::Name kModule{"pysource.usageordereddict"};
  static constinit pyrt::Name kClass{"CUsageOrderedDict"};
  static constinit pyrt::Name kSet{"Set"};
  std::vector<std::pair<Object, std::vector<Text>>> entries;
  const OrderedScopes& ordered = queue.fOrderedDict();
  for (LocId id = ordered.first(); id != kNoIndex; id = ordered.After(id)) {
    const Scopes& scopes = ordered.At(id);
    entries.emplace_back(queue.store()[id].location.object(),
                         std::vector<Text>(scopes.begin(), scopes.end()));
  }
  const Object dict = pyrt::Call(pyrt::ModuleAttr(kModule, kClass));
  for (const auto& [loc, scopes] : entries) {
    pyrt::List names;
    for (const Text& name : scopes) names.Append(name.object());
    pyrt::CallMethod(dict, kSet, loc, names);
  }
  return dict;
}

template <pyrt::FixedText kName, pyrt::FixedText kDoc, auto kGetter>
using SingleField = pyrt::Field<kName, kDoc, _CSingleScanQueue, kGetter>;

}  // namespace

_CSingleScanQueue::_CSingleScanQueue(PyObject* shell)
    : Body(shell), store_(std::make_shared<ScanStore>()), ordered_(*store_) {}

void _CSingleScanQueue::Init(const Text& scan_name, Priority priority, std::int64_t order) {
  fScanName = scan_name;
  fPriority = priority;
  fOrder = order;
}

pyrt::ShellClass& _CSingleScanQueue::Shell() {
  static auto* const shell = new pyrt::ShellClass;
  return *shell;
}

_CSingleScanQueue& _CSingleScanQueue::Checked(const Object& object) {
  if (!Shell().IsInstance(object)) {
    pyrt::Raise(PyExc_TypeError, "expected a _CSingleScanQueue");
  }
  return From(object.get());
}

Object _CSingleScanQueue::New(const Text& scan_name, Priority priority, std::int64_t order,
                              std::shared_ptr<ScanStore> store) {
  Object object = pyrt::Call(Shell().type(), scan_name, priority, order);
  _CSingleScanQueue& queue = From(object.get());
  queue.store_ = std::move(store);
  queue.ordered_ = OrderedScopes(*queue.store_);
  return object;
}

// The entries belong to the store, whose owner, the queue, visits them.
void _CSingleScanQueue::Traverse(pyrt::Visitor& visit) const noexcept { visit(fScanName.object()); }

void _CSingleScanQueue::Drop() noexcept {}

void CreateSingleScanQueueType(const Object& module, const Object& base) {
  _CSingleScanQueue::Shell().Create(
      module, base,
      {"pysource.scancoordinator._CSingleScanQueue",
       "_CSingleScanQueue(scan_name, priority, order)\n--\n\n"
       "One queue in which all scans have the same priority and order.\n\n"
       "Made by _CScanQueue; public for inspection.",
       &InitSingle,
       {},
       {SingleField<"fScanName", "The scan name that the queue was made for.",
                    [](auto& queue) { return queue.fScanName; }>::Def(),
        SingleField<"fPriority", "The priority of its scans; a lower number runs earlier.",
                    [](auto& queue) { return queue.fPriority; }>::Def(),
        SingleField<"fOrder", "The order of its scans within the priority.",
                    [](auto& queue) { return queue.fOrder; }>::Def(),
        SingleField<"fOrderedDict",
                    "A CUsageOrderedDict from location to sorted list of scope names; a copy.",
                    [](auto& queue) { return OrderedDictOf(queue); }>::Def()},
       [](PyObject* self) -> std::unique_ptr<pyrt::Body> {
         return std::make_unique<_CSingleScanQueue>(self);
       }});
}

}  // namespace pysource
