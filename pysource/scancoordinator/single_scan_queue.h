// One queue in which all scans have the same priority and order.

#ifndef PYSOURCE_SCANCOORDINATOR_SINGLE_SCAN_QUEUE_H_
#define PYSOURCE_SCANCOORDINATOR_SINGLE_SCAN_QUEUE_H_

#include <memory>

#include "pysource/pyrt/shell.h"
#include "pysource/scancoordinator/scan_store.h"

namespace pysource {

// Made by a _CScanQueue, which owns it and moves its entries; torn down with `destroy()`.
class _CSingleScanQueue : public pyrt::Body {
 public:
  static pyrt::ShellClass& Shell();
  static _CSingleScanQueue& From(PyObject* self) {
    return static_cast<_CSingleScanQueue&>(Shell().BodyOf(self));
  }
  // The same for an object of unknown class, such as an override may return. TypeError if it isn't
  // a single queue.
  static _CSingleScanQueue& Checked(const Object& object);
  // A new Python object whose entries live in `store`.
  static Object New(const Text& scan_name, Priority priority, std::int64_t order,
                    std::shared_ptr<ScanStore> store);

  explicit _CSingleScanQueue(PyObject* shell);

  // The name that it was made for. Two names that share an order share a queue.
  Text fScanName;
  Priority fPriority = 0;
  std::int64_t fOrder = 0;
  // Location to sorted list of distinct scope names; "*" stands alone.
  OrderedScopes& fOrderedDict() noexcept { return ordered_; }
  const ScanStore& store() const noexcept { return *store_; }

  void Init(const Text& scan_name, Priority priority, std::int64_t order);
  void Traverse(pyrt::Visitor& visit) const noexcept override;
  void Drop() noexcept override;

 private:
  std::shared_ptr<ScanStore> store_;
  OrderedScopes ordered_;
};

}  // namespace pysource

#endif  // PYSOURCE_SCANCOORDINATOR_SINGLE_SCAN_QUEUE_H_
