// A mapping that keeps its entries in a sequence from first to last, in constant time an operation.
//
// Keys are generic: their `__hash__` and `__eq__` may run anything, raise, or change the very
// mapping that is being searched. Identical keys are equal without a call. Each operation takes one
// hash.

#ifndef PYSOURCE_USAGEORDEREDDICT_H_
#define PYSOURCE_USAGEORDEREDDICT_H_

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "pysource/pyrt/call.h"
#include "pysource/pyrt/containers.h"
#include "pysource/pyrt/object.h"
#include "pysource/pyrt/plainclass.h"

namespace pysource {

// One entry. It keeps its key and value when it has left its mapping.
class CUsageOrderedDictItem {
 public:
  static CUsageOrderedDictItem& From(PyObject* self) {
    return pyrt::PlainClass<CUsageOrderedDictItem>::From(self);
  }
  static int Init(PyObject* self, PyObject* args, PyObject* kwargs) noexcept;

  const pyrt::Object& key() const noexcept { return key_; }
  const pyrt::Object& val() const noexcept { return val_; }

  void Traverse(pyrt::Visitor& visit) const noexcept { visit.All(key_, val_); }
  void Drop() noexcept;

 private:
  friend class CUsageOrderedDict;

  pyrt::Object key_;
  pyrt::Object val_;
  Py_hash_t hash_ = 0;
  // Neighbours in the sequence; the mapping owns them.
  CUsageOrderedDictItem* previous_ = nullptr;
  CUsageOrderedDictItem* next_ = nullptr;
};

// The state of a CUsageOrderedDict of Python's. All operations may call back through the keys, but
// for those that say so; each changes the mapping at once, between such calls.
class CUsageOrderedDict {
 public:
  static CUsageOrderedDict& From(PyObject* self) {
    return pyrt::PlainClass<CUsageOrderedDict>::From(self);
  }

  CUsageOrderedDict() = default;
  CUsageOrderedDict(const CUsageOrderedDict&) = delete;
  CUsageOrderedDict& operator=(const CUsageOrderedDict&) = delete;
  ~CUsageOrderedDict() { Drop(); }

  // The value of the key, else the default. With `touch`, an entry found becomes the first.
  pyrt::Object get(const pyrt::Object& key, const pyrt::Object& default_value, bool touch);
  // Stores the entry at the front or at the end, also one that is there already; such a one keeps
  // its key object.
  void Set(const pyrt::Object& key, const pyrt::Object& val, bool first);
  // Removes the entry and returns its value, else the default.
  pyrt::Object pop(const pyrt::Object& key, const pyrt::Object& default_value);

  bool Contains(const pyrt::Object& key);
  // The value; KeyError if there is no such key.
  pyrt::Object At(const pyrt::Object& key);
  // Removes the entry; KeyError if there is none.
  void Delete(const pyrt::Object& key);

  // These call nothing back. New lists, from first to last.
  pyrt::List keys() const;
  pyrt::List values() const;
  pyrt::List items() const;
  std::size_t size() const noexcept { return index_.size(); }
  // The first entry, or empty.
  pyrt::Object first() const;

  void Traverse(pyrt::Visitor& visit) const noexcept {
    for (const auto& [hash, item] : index_) visit(item);
  }
  void Drop() noexcept;

 private:
  using Item = CUsageOrderedDictItem;
  // By hash; the values are the entries' Python objects.
  using Index = std::unordered_multimap<Py_hash_t, pyrt::Object>;

  static Py_hash_t HashOf(const pyrt::Object& key);
  // The entry of the key, or end(). What it returns is true until the next call into Python.
  Index::iterator Find(const pyrt::Object& key, Py_hash_t hash);
  // Takes an entry out. The result may hold the last reference to it.
  pyrt::Object Remove(Index::iterator position);
  std::vector<pyrt::Object> Snapshot() const;

  void Link(Item& item, bool first) noexcept;
  void Unlink(Item& item) noexcept;

  Index index_;
  Item* first_ = nullptr;
  Item* last_ = nullptr;
  // Grows with every entry that comes or goes.
  std::uint64_t version_ = 0;
};

// For other extensions, which reach the type through its Python module: a new, empty mapping, and
// its operation Set.
inline pyrt::Object NewUsageOrderedDict() {
  static constinit pyrt::Name kModule{"pysource.usageordereddict"};
  static constinit pyrt::Name kClass{"CUsageOrderedDict"};
  return pyrt::Call(pyrt::ModuleAttr(kModule, kClass));
}
inline void SetInUsageOrderedDict(const pyrt::Object& dict, const pyrt::Object& key,
                                  const pyrt::Object& val, bool first = false) {
  static constinit pyrt::Name kSet{"Set"};
  pyrt::CallMethod(dict, kSet, key, val, first);
}

}  // namespace pysource

#endif  // PYSOURCE_USAGEORDEREDDICT_H_
