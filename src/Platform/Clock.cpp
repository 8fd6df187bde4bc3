#include "quorvel/Platform/Clock.h"

#include <condition_variable>
#include <thread>
#include <vector>

#include "Platform/Guarded.h"
#include "Platform/Immortal.h"
#include "quorvel/Platform/Env.h"

namespace qvl {
namespace {

// One thread runs every SystemClock timer of the process, in due order.
class TimerThread {
 public:
  Clock::TimerId add(std::chrono::steady_clock::time_point due, std::function<void()> task) {
    std::lock_guard lock(mutex_);
    if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
    const Clock::TimerId id = nextId_++;
    timers_.emplace(due, std::make_pair(id, std::move(task)));
    wake_.notify_one();
    return id;
  }

  void cancel(Clock::TimerId id) {
    std::lock_guard lock(mutex_);
    std::erase_if(timers_, [id](const auto& entry) { return entry.second.first == id; });
  }

 private:
  [[noreturn]] void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (timers_.empty()) {
        wake_.wait(lock);
        continue;
      }
      const auto first = timers_.begin();
      // A copy: cancel() may erase the entry while the wait has the lock released.
      const std::chrono::steady_clock::time_point due = first->first;
      if (std::chrono::steady_clock::now() < due) {
        wake_.wait_until(lock, due);
        continue;
      }
      std::function<void()> task = std::move(first->second.second);
      timers_.erase(first);
      lock.unlock();
      detail::runGuarded("a timer task", task);
      task = nullptr;
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::thread thread_;  // detached in effect: the object is never destroyed
  Clock::TimerId nextId_ = 1;
  std::multimap<std::chrono::steady_clock::time_point,
                std::pair<Clock::TimerId, std::function<void()>>>
      timers_;
};

}  // namespace

Date now() { return Env::current()->clock->now(); }

Date SystemClock::now() {
  return std::chrono::floor<Date::duration>(std::chrono::system_clock::now());
}

Clock::TimerId SystemClock::runAfter(std::chrono::milliseconds delay, std::function<void()> task) {
  return detail::immortal<TimerThread>().add(std::chrono::steady_clock::now() + delay,
                                             std::move(task));
}

void SystemClock::cancel(TimerId id) { detail::immortal<TimerThread>().cancel(id); }

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
