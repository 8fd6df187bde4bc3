#pragma once
// An executor that runs nothing until the test says so.

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

#include "quorvel/platform/Executor.h"

namespace qvl::test {

/// Jobs wait until runUntilIdle() runs them on the calling thread, so a test steps serial
/// queues deterministically instead of sleeping.
class ManualExecutor final : public Executor {
 public:
  void post(std::function<void()> job) override {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }

  /// Runs every waiting job and every job they post; returns how many ran.
  std::size_t runUntilIdle() {
    std::size_t ran = 0;
    for (;;) {
      std::function<void()> job;
      {
        std::lock_guard lock(mutex_);
        if (jobs_.empty()) return ran;
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      job();
      ++ran;
    }
  }

 private:
  std::mutex mutex_;
  std::deque<std::function<void()>> jobs_;
};

}  // namespace qvl::test
