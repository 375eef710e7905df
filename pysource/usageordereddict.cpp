// The module `pysource.usageordereddict`.

#include "pysource/usageordereddict.h"

#include <utility>

#include "pysource/pyrt/guard.h"
#include "pysource/pyrt/module.h"
#include "pysource/pyrt/operation.h"
#include "pysource/pyrt/textargs.h"

namespace pysource {

using pyrt::List;
using pyrt::Object;

namespace {

[[noreturn]] void RaiseKeyError(const Object& key) {
  PyErr_SetObject(PyExc_KeyError, key.get_or_none());
  pyrt::ThrowPending();
}

}  // namespace

int CUsageOrderedDictItem::Init(PyObject* self, PyObject* args, PyObject* kwargs) noexcept {
  return pyrt::Guard([&] {
    const auto bound = pyrt::BindInit<"_CUsageOrderedDictItem(key, val)">(args, kwargs);
    CUsageOrderedDictItem& item = From(self);
    if (item.key_) pyrt::Raise(PyExc_TypeError, "an entry has its key and value already");
    item.key_ = Object::Share(bound[0]);
    item.val_ = Object::Share(bound[1]);
  });
}

void CUsageOrderedDictItem::Drop() noexcept {
  const Object key = std::move(key_);
  const Object val = std::move(val_);
}

Py_hash_t CUsageOrderedDict::HashOf(const Object& key) {
  const Py_hash_t hash = PyObject_Hash(key.get_or_none());
  if (hash == -1) pyrt::ThrowPending();
  return hash;
}

CUsageOrderedDict::Index::iterator CUsageOrderedDict::Find(const Object& key, Py_hash_t hash) {
  for (;;) {
    const std::uint64_t version = version_;
    auto [position, end] = index_.equal_range(hash);
    for (; position != end; ++position) {
      const Object candidate = Item::From(position->second.get()).key_;
      if (candidate.is(key)) return position;
      const bool equal = pyrt::Equal(candidate, key);
      // The comparison may have changed the mapping; then nothing that was seen counts.
      if (version != version_) break;
      if (equal) return position;
    }
    if (version == version_) return index_.end();
  }
}

Object CUsageOrderedDict::get(const Object& key, const Object& default_value, bool touch) {
  const auto position = Find(key, HashOf(key));
  if (position == index_.end()) return default_value;
  Item& item = Item::From(position->second.get());
  if (touch) {
    Unlink(item);
    Link(item, true);
  }
  return item.val_;
}

void CUsageOrderedDict::Set(const Object& key, const Object& val, bool first) {
  const Py_hash_t hash = HashOf(key);
  Object fresh;
  auto position = Find(key, hash);
  if (position == index_.end()) {
    const std::uint64_t version = version_;
    fresh = pyrt::PlainClass<Item>::New();
    // Making an object may run the garbage collector, and that may run anything.
    if (version != version_) position = Find(key, hash);
  }
  // From here on nothing is called back, until the old value is released at the end.
  Object old_val;
  if (position != index_.end()) {
    Item& item = Item::From(position->second.get());
    old_val = std::exchange(item.val_, val);
    Unlink(item);
    Link(item, first);
    return;
  }
  Item& item = Item::From(fresh.get());
  item.key_ = key;
  item.val_ = val;
  item.hash_ = hash;
  index_.emplace(hash, std::move(fresh));
  Link(item, first);
  ++version_;
}

Object CUsageOrderedDict::pop(const Object& key, const Object& default_value) {
  const auto position = Find(key, HashOf(key));
  if (position == index_.end()) return default_value;
  const Object item = Remove(position);
  return Item::From(item.get()).val_;
}

bool CUsageOrderedDict::Contains(const Object& key) {
  return Find(key, HashOf(key)) != index_.end();
}

Object CUsageOrderedDict::At(const Object& key) {
  const auto position = Find(key, HashOf(key));
  if (position == index_.end()) RaiseKeyError(key);
  return Item::From(position->second.get()).val_;
}

void CUsageOrderedDict::Delete(const Object& key) {
  const auto position = Find(key, HashOf(key));
  if (position == index_.end()) RaiseKeyError(key);
  const Object item = Remove(position);
}

Object CUsageOrderedDict::Remove(Index::iterator position) {
  Object item = std::move(position->second);
  Unlink(Item::From(item.get()));
  index_.erase(position);
  ++version_;
  return item;
}

std::vector<Object> CUsageOrderedDict::Snapshot() const {
  std::vector<Object> entries;
  entries.reserve(size());
  for (const Item* item = first_; item != nullptr; item = item->next_) {
    entries.push_back(Object::Share(pyrt::PlainClass<Item>::ObjectOf(*item)));
  }
  return entries;
}

List CUsageOrderedDict::keys() const {
  List result;
  for (const Object& entry : Snapshot()) result.Append(Item::From(entry.get()).key_);
  return result;
}

List CUsageOrderedDict::values() const {
  List result;
  for (const Object& entry : Snapshot()) result.Append(Item::From(entry.get()).val_);
  return result;
}

List CUsageOrderedDict::items() const {
  List result;
  for (const Object& entry : Snapshot()) {
    const Item& item = Item::From(entry.get());
    result.Append(pyrt::MakeTuple(item.key_, item.val_));
  }
  return result;
}

Object CUsageOrderedDict::first() const {
  if (first_ == nullptr) return Object();
  return Object::Share(pyrt::PlainClass<Item>::ObjectOf(*first_));
}

void CUsageOrderedDict::Drop() noexcept {
  Index index;
  std::swap(index, index_);
  first_ = nullptr;
  last_ = nullptr;
  ++version_;
  // Entries may outlive the mapping; they forget their neighbours before any of them goes.
  for (const auto& [hash, entry] : index) {
    Item& item = Item::From(entry.get());
    item.previous_ = nullptr;
    item.next_ = nullptr;
  }
}

void CUsageOrderedDict::Link(Item& item, bool first) noexcept {
  item.previous_ = first ? nullptr : last_;
  item.next_ = first ? first_ : nullptr;
  (item.previous_ != nullptr ? item.previous_->next_ : first_) = &item;
  (item.next_ != nullptr ? item.next_->previous_ : last_) = &item;
}

void CUsageOrderedDict::Unlink(Item& item) noexcept {
  (item.previous_ != nullptr ? item.previous_->next_ : first_) = item.next_;
  (item.next_ != nullptr ? item.next_->previous_ : last_) = item.previous_;
  item.previous_ = nullptr;
  item.next_ = nullptr;
}

namespace {

using Item = CUsageOrderedDictItem;

Py_ssize_t LengthSlot(PyObject* self) noexcept {
  return static_cast<Py_ssize_t>(CUsageOrderedDict::From(self).size());
}

int ContainsSlot(PyObject* self, PyObject* key) noexcept {
  return pyrt::Guard(
      [&] { return CUsageOrderedDict::From(self).Contains(Object::Share(key)) ? 1 : 0; });
}

PyObject* SubscriptSlot(PyObject* self, PyObject* key) noexcept {
  return pyrt::Guard([&] { return CUsageOrderedDict::From(self).At(Object::Share(key)); });
}

int AssignSlot(PyObject* self, PyObject* key, PyObject* val) noexcept {
  return pyrt::Guard([&] {
    CUsageOrderedDict& dict = CUsageOrderedDict::From(self);
    if (val == nullptr) {
      dict.Delete(Object::Share(key));
    } else {
      dict.Set(Object::Share(key), Object::Share(val), false);
    }
  });
}

PyObject* IterSlot(PyObject* self) noexcept {
  return pyrt::Guard([&] {
    return pyrt::Own(PyObject_GetIter(CUsageOrderedDict::From(self).keys().object().get()));
  });
}

PyObject* ReprSlot(PyObject* self) noexcept {
  return pyrt::Guard([&]() -> Object {
    const Object name = pyrt::TypeName(Object::Share(self));
    if (pyrt::Check(Py_ReprEnter(self)) != 0) {
      return pyrt::Format("%U(...)", name).object();
    }
    struct Leave {
      PyObject* object;
      ~Leave() { Py_ReprLeave(object); }
    } const leave{self};
    const List items = CUsageOrderedDict::From(self).items();
    return pyrt::Format("%U(%R)", name, items.object()).object();
  });
}

void AddItemType(const Object& module) {
  pyrt::PlainDefinition definition{
      .name = "pysource.usageordereddict._CUsageOrderedDictItem",
      .doc = "_CUsageOrderedDictItem(key, val)\n--\n\nAn entry of a CUsageOrderedDict.",
      .init = &Item::Init,
      .fields =
          {pyrt::Field<"key", "The key.", Item, [](Item& item) { return item.key(); }>::Def(),
           pyrt::Field<"val", "The value.", Item, [](Item& item) { return item.val(); }>::Def()},
      .subclassable = false};
  pyrt::Publish(module, "_CUsageOrderedDictItem",
                pyrt::PlainClass<Item>::Create(module, std::move(definition)));
}

template <pyrt::FixedText kSignature, pyrt::FixedText kDoc, auto kMember>
constexpr auto kOperation =
    pyrt::Operation<kSignature, kDoc, kMember,
                    [](CUsageOrderedDict& dict, auto&... args) -> decltype(auto) {
                      return (dict.*kMember)(args...);
                    }>{};

void AddDictType(const Object& module) {
  using Dict = CUsageOrderedDict;
  pyrt::PlainDefinition definition{
      .name = "pysource.usageordereddict.CUsageOrderedDict",
      .doc =
          "CUsageOrderedDict()\n--\n\nA mapping that keeps its entries in a sequence from first to "
          "last.\n\nd[key] = val is Set(key, val). Iteration, keys(), values() and items() give the\n"
          "entries that are there at the call.",
      .methods =
          {kOperation<"get(key, default=None, touch=False)",
                      "The value of the key, else the default. With touch, an entry found becomes "
                      "the first.",
                      &Dict::get>.Def(),
           kOperation<"Set(key, val, first=False)",
                      "Stores the entry, at the front of the sequence if first is true, at the end "
                      "otherwise.",
                      &Dict::Set>.Def(),
           kOperation<"pop(key, default=None)",
                      "Removes the entry and returns its value, else the default.",
                      &Dict::pop>.Def(),
           kOperation<"keys()", "A list of the keys, from first to last.", &Dict::keys>.Def(),
           kOperation<"values()", "A list of the values, from first to last.",
                      &Dict::values>.Def(),
           kOperation<"items()", "A list of the pairs (key, value), from first to last.",
                      &Dict::items>.Def(),
           {"__class_getitem__", &Py_GenericAlias, METH_O | METH_CLASS,
            "CUsageOrderedDict[key, value], for annotations."}},
      .fields = {pyrt::Field<"_fFirst", "The first entry, or None.", Dict,
                             [](Dict& dict) { return dict.first(); }>::Def()},
      .slots = {{Py_mp_length, reinterpret_cast<void*>(&LengthSlot)},
                {Py_mp_subscript, reinterpret_cast<void*>(&SubscriptSlot)},
                {Py_mp_ass_subscript, reinterpret_cast<void*>(&AssignSlot)},
                {Py_sq_contains, reinterpret_cast<void*>(&ContainsSlot)},
                {Py_tp_iter, reinterpret_cast<void*>(&IterSlot)},
                {Py_tp_repr, reinterpret_cast<void*>(&ReprSlot)}}};
  pyrt::Publish(module, "CUsageOrderedDict",
                pyrt::PlainClass<Dict>::Create(module, std::move(definition)));
}

void Fill(const Object& module) {
  AddItemType(module);
  AddDictType(module);
}

}  // namespace
}  // namespace pysource

PyMODINIT_FUNC PyInit_usageordereddict() {
  static auto& module = *new pyrt::ModuleDefinition<&pysource::Fill>(
      "pysource.usageordereddict",
      "A mapping that keeps its entries in a sequence from first to last.", {});
  return module.Init();
}
