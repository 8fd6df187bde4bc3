#include "quorvel/Platform/NotificationCenter.h"

#include <algorithm>
#include <exception>

#include "quorvel/Platform/Env.h"
#include "quorvel/Platform/Log.h"

namespace qvl {

ObserverToken::ObserverToken(ObserverToken&& other) noexcept
    : center_(std::move(other.center_)), id_(other.id_) {
  other.id_ = 0;
}

ObserverToken& ObserverToken::operator=(ObserverToken&& other) noexcept {
  if (this != &other) {
    reset();
    center_ = std::move(other.center_);
    id_ = other.id_;
    other.id_ = 0;
  }
  return *this;
}

ObserverToken::~ObserverToken() { reset(); }

void ObserverToken::reset() {
  if (id_ == 0) return;
  if (auto center = center_.lock()) center->remove(id_);
  id_ = 0;
  center_.reset();
}

NotificationCenter& NotificationCenter::defaultCenter() {
  return *Env::current()->notificationCenter;
}

ObserverToken NotificationCenter::addObserver(std::string name, const void* sender,
                                              Observer observer) {
  std::lock_guard lock(mutex_);
  const std::uint64_t id = nextId_++;
  entries_.push_back(
      {id, std::move(name), sender, std::make_shared<const Observer>(std::move(observer))});
  return ObserverToken(weak_from_this(), id);
}

void NotificationCenter::post(Notification notification) {
  std::vector<Entry> snapshot;
  {
    std::lock_guard lock(mutex_);
    for (const Entry& entry : entries_) {
      if ((entry.name.empty() || entry.name == notification.name) &&
          (!entry.sender || entry.sender == notification.sender)) {
        snapshot.push_back(entry);
      }
    }
  }
  for (const Entry& entry : snapshot) {
    if (!isRegistered(entry.id)) continue;  // removed by an earlier observer of this post
    try {
      (*entry.observer)(notification);
    } catch (const std::exception& e) {
      log(LogLevel::error, "an observer of " + notification.name + " threw: " + e.what());
    } catch (...) {
      log(LogLevel::error, "an observer of " + notification.name + " threw");
    }
  }
}

void NotificationCenter::remove(std::uint64_t id) {
  std::shared_ptr<const Observer> released;  // destroyed outside the lock
  std::lock_guard lock(mutex_);
  auto it = find(id);
  if (it == entries_.end()) return;
  released = std::move(it->observer);
  entries_.erase(it);
}

bool NotificationCenter::isRegistered(std::uint64_t id) const {
  std::lock_guard lock(mutex_);
  return find(id) != entries_.end();
}

// Ids grow with every registration and entries keep registration order, so they are sorted.
std::vector<NotificationCenter::Entry>::const_iterator NotificationCenter::find(
    std::uint64_t id) const {
  auto it = std::lower_bound(entries_.begin(), entries_.end(), id,
                             [](const Entry& entry, std::uint64_t key) { return entry.id < key; });
  return it != entries_.end() && it->id == id ? it : entries_.end();
}

}  // namespace qvl
