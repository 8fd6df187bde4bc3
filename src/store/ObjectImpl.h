#pragma once
// Internal: how records and their class descriptors hold their data.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "quorvel/store/Object.h"

namespace qvl {

struct ObjectClass::Impl {
  std::string name;
  std::vector<Property> properties;
  std::string primaryKey;
  int primaryKeyIndex = -1;
  Factory factory;
  std::unordered_map<std::string, int> indexByName;
  // The layout of a record's storage: by property index, the position among the properties
  // held the same way (scalars, links, lists; -1 for inverse relations, which hold nothing).
  std::vector<int> storageIndex;
  std::vector<Value> scalarDefaults;  // a new record's scalars
  int linkCount = 0;
  int listCount = 0;
};

/// A to-one link's storage.
struct Object::LinkSlot {
  std::shared_ptr<Object> target;  // unmanaged, or managed once loaded
  std::int64_t row = 0;            // managed: the target's row, 0 = none
  bool resolved = true;            // managed: target loaded from row
};

/// A record's state. The scalars and the to-one links follow this header in the same block,
/// so a record costs one allocation besides itself, as a vector of its scalars alone did.
struct Object::Impl {
  const ObjectClass* cls;
  std::uint32_t valueCount;
  std::uint32_t linkCount;
  std::unique_ptr<ObjectList[]> lists;  // an unmanaged record's, made on first change
  std::uint64_t keepMarks = 0;          // keepStoredValue() marks of properties 0-63
  std::unique_ptr<std::uint64_t[]> keepMarksBeyond64;  // the others', made on first mark
  std::shared_ptr<Store> store;
  std::int64_t row = 0;

  /// A record of `objectClass` with the scalars `defaults` and `linkCount` empty links.
  static std::unique_ptr<Impl> create(const ObjectClass& objectClass,
                                      const std::vector<Value>& defaults, int links) {
    static_assert(sizeof(Impl) % alignof(Value) == 0);
    static_assert(alignof(Value) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
    static_assert(sizeof(Value) % alignof(LinkSlot) == 0);
    const auto valueCount = static_cast<std::uint32_t>(defaults.size());
    const auto linkCount = static_cast<std::uint32_t>(links);
    void* block =
        ::operator new(sizeof(Impl) + valueCount * sizeof(Value) + linkCount * sizeof(LinkSlot));
    std::unique_ptr<Impl> impl(new (block) Impl(objectClass));  // holds no elements yet
    std::uninitialized_copy(defaults.begin(), defaults.end(), impl->values());
    impl->valueCount = valueCount;
    std::uninitialized_value_construct_n(impl->links(), linkCount);
    impl->linkCount = linkCount;
    return impl;
  }

  ~Impl() {
    std::destroy_n(links(), linkCount);
    std::destroy_n(values(), valueCount);
  }
  static void operator delete(void* block) { ::operator delete(block); }

  Value* values() { return reinterpret_cast<Value*>(this + 1); }
  LinkSlot* links() { return reinterpret_cast<LinkSlot*>(values() + valueCount); }

 private:
  explicit Impl(const ObjectClass& objectClass) : cls(&objectClass), valueCount(0), linkCount(0) {}
};

}  // namespace qvl
