#pragma once
/// @file
/// An ordered list of weak references without duplicates: the beacon manager's delegates.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "quorvel/Export.h"

/// Slots in insertion order, each a weak reference that empties itself when its object
/// goes away. An object is present at most once; every comparison is by identity (the
/// object's address). The list never keeps an object alive.
///
/// Not thread-safe: the beacon manager uses it on the main queue only.
template <class T>
class QVL_EXPORT QVLWeakPointerArray {
 public:
  /// What indexForObject() answers for an absent object: the largest signed word.
  static constexpr std::size_t kNotFound =
      static_cast<std::size_t>(std::numeric_limits<std::intptr_t>::max());

  /// Appends the object unless it is present (an empty pointer is ignored).
  void addObject(const std::shared_ptr<T>& object) {
    if (object && !containsObject(object.get())) slots_.push_back({object, object.get()});
  }

  /// Whether a live slot holds the object (compacts the list, as indexForObject()).
  bool containsObject(const T* object) { return indexForObject(object) != kNotFound; }

  /// Removes the object's slot; an absent object is a no-op.
  void removeObject(const T* object) {
    const std::size_t index = indexForObject(object);
    if (!containsObject(object) || index >= slots_.size()) return;
    slots_.erase(slots_.begin() + static_cast<std::ptrdiff_t>(index));
  }

  /// Compacts the list (removeAllNulls), then the first position holding the object, or
  /// kNotFound.
  std::size_t indexForObject(const T* object) {
    removeAllNulls();
    for (std::size_t i = 0; i < slots_.size(); ++i) {
      if (slots_[i].address == object && !slots_[i].reference.expired()) return i;
    }
    return kNotFound;
  }

  /// Drops every emptied slot. The positions are removed from the highest down, so each
  /// removal leaves the positions still to be removed where they were: exactly the empty
  /// slots go and every live one stays, in order.
  void removeAllNulls() {
    std::vector<std::size_t> empty;
    for (std::size_t i = 0; i < slots_.size(); ++i) {
      if (slots_[i].reference.expired()) empty.push_back(i);
    }
    for (auto it = empty.rbegin(); it != empty.rend(); ++it) {
      slots_.erase(slots_.begin() + static_cast<std::ptrdiff_t>(*it));
    }
  }

  /// The live objects in order, emptied slots left out (the list itself is not compacted).
  std::vector<std::shared_ptr<T>> allObjects() const {
    std::vector<std::shared_ptr<T>> live;
    live.reserve(slots_.size());
    for (const auto& slot : slots_) {
      if (auto object = slot.reference.lock()) live.push_back(std::move(object));
    }
    return live;
  }

  /// Slots, emptied ones included.
  std::size_t count() const { return slots_.size(); }

 private:
  struct Slot {
    std::weak_ptr<T> reference;
    const T* address;
  };
  std::vector<Slot> slots_;
};
