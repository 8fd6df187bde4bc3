#include "quorvel/platform/Clock.h"

#include <condition_variable>
#include <thread>
#include <vector>

#include "platform/ContextCore.h"
#include "platform/Guarded.h"
#include "platform/Immortal.h"
#include "quorvel/platform/Env.h"

namespace qvl {
namespace {

// One thread runs every SystemClock timer of the process, in due order.
class TimerThread {
 public:
  Clock::TimerId add(std::chrono::steady_clock::time_point due, std::function<void()> task) {
    std::lock_guard lock(mutex_);
    if (!thread_.joinable())
      thread_ = std::thread([this] {
        detail::refuseTeardownOnThisThread();  // a timer's context may wait for this thread
        run();
      });
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

}  // namespace qvl
