#pragma once
// What the radio reported between two ticks, per beacon, and the frame each beacon device
// last advertised (an RSSI report names a device, not a beacon). Both tables are bounded:
// a new entry past the cap evicts the least recently heard one, and a beacon not heard for
// `expiry` ticks is forgotten, so that a flood of made-up identifiers costs O(1) per advertisement
// and a fixed amount of memory.
//
// Not thread-safe: the owner keeps it behind its own lock.

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "proximity/ProximityEngine.h"

namespace qvl::device {

// A hash map that keeps its entries in order of use and at most `capacity` of them.
template <class Key, class Value, class Hash = std::hash<Key>>
class RecentMap {
 public:
  explicit RecentMap(std::size_t capacity) : capacity_(capacity) {}

  // The entry of `key`, made when new (evicting the least recent past the capacity), and
  // made the most recent.
  Value& touch(const Key& key, bool* added = nullptr) {
    auto it = index_.find(key);
    if (added) *added = it == index_.end();
    if (it != index_.end()) {
      order_.splice(order_.begin(), order_, it->second);
      return it->second->second;
    }
    if (index_.size() >= capacity_) {
      index_.erase(order_.back().first);
      order_.pop_back();
      ++evicted_;
    }
    order_.emplace_front(key, Value{});
    index_.emplace(key, order_.begin());
    return order_.front().second;
  }
  Value* find(const Key& key) {
    auto it = index_.find(key);
    return it == index_.end() ? nullptr : &it->second->second;
  }
  void erase(const Key& key) {
    if (auto it = index_.find(key); it != index_.end()) {
      order_.erase(it->second);
      index_.erase(it);
    }
  }
  void clear() {
    order_.clear();
    index_.clear();
  }
  // Drops least recent entries while `stale(value)` holds for them.
  template <class Stale>
  void expire(const Stale& stale) {
    while (!order_.empty() && stale(order_.back().second)) {
      index_.erase(order_.back().first);
      order_.pop_back();
    }
  }
  std::list<std::pair<Key, Value>>& entries() { return order_; }  // most recent first
  std::size_t size() const { return index_.size(); }
  std::uint64_t evicted() const { return evicted_; }

 private:
  std::size_t capacity_;
  std::list<std::pair<Key, Value>> order_;
  std::unordered_map<Key, typename std::list<std::pair<Key, Value>>::iterator, Hash> index_;
  std::uint64_t evicted_ = 0;
};

class Sightings {
 public:
  struct Stats {
    std::size_t beacons = 0;
    std::size_t devices = 0;
    std::uint64_t evicted = 0;  // beacons and devices
  };

  Sightings(std::size_t capacity, std::uint64_t expiry)
      : beacons_(capacity), devices_(capacity), expiry_(expiry) {}

  // A device's manufacturer data changed: its beacon frame, or none.
  void setFrame(const std::string& device, const std::optional<proximity::BeaconFrame>& frame);
  // An RSSI report of a device: a sighting of the frame it last advertised, if any.
  void heard(const std::string& device, std::int16_t rssi);
  void forgetDevice(const std::string& device) { devices_.erase(device); }
  void forgetDevices() { devices_.clear(); }
  // One tick: the mean RSSI per beacon heard since the last one, in the order the beacons
  // were first heard; then forgets the beacons not heard within the expiry.
  std::vector<proximity::Heard> take();
  Stats stats() const {
    return {beacons_.size(), devices_.size(), beacons_.evicted() + devices_.evicted()};
  }

 private:
  struct Beacon {
    std::uint64_t firstHeard = 0;
    std::uint64_t lastTick = 0;
    proximity::BeaconFrame frame;
    double sum = 0.0;
    int count = 0;
  };

  RecentMap<proximity::BeaconKey, Beacon, proximity::BeaconKeyHash> beacons_;
  RecentMap<std::string, proximity::BeaconFrame> devices_;
  std::uint64_t expiry_;
  std::uint64_t tick_ = 0;
  std::uint64_t heardSoFar_ = 0;
};

}  // namespace qvl::device
