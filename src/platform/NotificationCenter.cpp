#include "quorvel/platform/NotificationCenter.h"

#include <algorithm>
#include <exception>

#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"

namespace qvl {

struct ObserverToken::Impl {
  std::weak_ptr<NotificationCenter> center;
  std::uint64_t id;
};

ObserverToken::ObserverToken() = default;

ObserverToken::ObserverToken(std::weak_ptr<NotificationCenter> center, std::uint64_t id)
    : impl_(new Impl{std::move(center), id}) {}

ObserverToken::ObserverToken(ObserverToken&& other) noexcept = default;

ObserverToken& ObserverToken::operator=(ObserverToken&& other) noexcept {
  if (this != &other) {
    reset();
    impl_ = std::move(other.impl_);
  }
  return *this;
}

ObserverToken::~ObserverToken() { reset(); }

bool ObserverToken::active() const { return impl_ != nullptr; }

void ObserverToken::release() { impl_.reset(); }

void ObserverToken::reset() {
  if (!impl_) return;
  if (auto center = impl_->center.lock()) center->remove(impl_->id);
  impl_.reset();
}

struct NotificationCenter::Impl {
  struct Entry {
    std::uint64_t id;
    std::string name;
    const void* sender;
    std::shared_ptr<const Observer> observer;
  };

  // Ids grow with every registration and entries keep registration order, so they are sorted.
  std::vector<Entry>::iterator find(std::uint64_t id) {
    auto it =
        std::lower_bound(entries.begin(), entries.end(), id,
                         [](const Entry& entry, std::uint64_t key) { return entry.id < key; });
    return it != entries.end() && it->id == id ? it : entries.end();
  }

  std::mutex mutex;
  std::uint64_t nextId = 1;
  std::vector<Entry> entries;
};

NotificationCenter::NotificationCenter() : impl_(std::make_unique<Impl>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  return *Env::current()->notificationCenter;
}

ObserverToken NotificationCenter::addObserver(std::string name, const void* sender,
                                              Observer observer) {
  std::lock_guard lock(impl_->mutex);
  const std::uint64_t id = impl_->nextId++;
  impl_->entries.push_back(
      {id, std::move(name), sender, std::make_shared<const Observer>(std::move(observer))});
  return ObserverToken(weak_from_this(), id);
}

void NotificationCenter::post(Notification notification) {
  std::vector<Impl::Entry> snapshot;
  {
    std::lock_guard lock(impl_->mutex);
    for (const Impl::Entry& entry : impl_->entries) {
      if ((entry.name.empty() || entry.name == notification.name) &&
          (!entry.sender || entry.sender == notification.sender)) {
        snapshot.push_back(entry);
      }
    }
  }
  for (const Impl::Entry& entry : snapshot) {
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
  std::lock_guard lock(impl_->mutex);
  auto it = impl_->find(id);
  if (it == impl_->entries.end()) return;
  released = std::move(it->observer);
  impl_->entries.erase(it);
}

bool NotificationCenter::isRegistered(std::uint64_t id) const {
  std::lock_guard lock(impl_->mutex);
  return impl_->find(id) != impl_->entries.end();
}

}  // namespace qvl
