#include "quorvel/testing/ManualClock.h"

#include <algorithm>
#include <map>
#include <mutex>

namespace qvl {

struct ManualClock::Impl {
  explicit Impl(Date start) : now(start) {}
  std::mutex mutex;
  Date now;
  TimerId nextId = 1;
  std::multimap<Date, std::pair<TimerId, std::function<void()>>> timers;
};

ManualClock::ManualClock(Date start) : impl_(std::make_unique<Impl>(start)) {}
ManualClock::~ManualClock() = default;

Date ManualClock::now() {
  std::lock_guard lock(impl_->mutex);
  return impl_->now;
}

Clock::TimerId ManualClock::runAfter(std::chrono::milliseconds delay, std::function<void()> task) {
  std::lock_guard lock(impl_->mutex);
  const TimerId id = impl_->nextId++;
  impl_->timers.emplace(impl_->now + std::max(delay, std::chrono::milliseconds(0)),
                        std::make_pair(id, std::move(task)));
  return id;
}

void ManualClock::cancel(TimerId id) {
  std::lock_guard lock(impl_->mutex);
  std::erase_if(impl_->timers, [id](const auto& entry) { return entry.second.first == id; });
}

void ManualClock::advance(std::chrono::milliseconds duration) {
  std::unique_lock lock(impl_->mutex);
  if (duration.count() < 0) return;
  const Date end = impl_->now + duration;
  while (!impl_->timers.empty() && impl_->timers.begin()->first <= end) {
    auto first = impl_->timers.begin();
    impl_->now = std::max(impl_->now, first->first);
    std::function<void()> task = std::move(first->second.second);
    impl_->timers.erase(first);
    lock.unlock();
    task();
    lock.lock();
  }
  impl_->now = std::max(impl_->now, end);
}

void ManualClock::set(Date now) {
  std::lock_guard lock(impl_->mutex);
  impl_->now = now;
}

std::size_t ManualClock::pendingTimers() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->timers.size();
}

}  // namespace qvl
