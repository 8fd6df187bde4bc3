#pragma once
/// @file
/// The library's source of "now" and of delayed work.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "quorvel/Export.h"
#include "quorvel/platform/Date.h"

namespace qvl {

/// Every time-dependent rule of the library (validity windows, view times, background-task
/// allowances, the simulated world) asks the clock of the environment in force.
/// Implementations are thread-safe.
class QVL_EXPORT Clock {
 public:
  /// Identifies a timer from runAfter(); never 0 for a scheduled task.
  using TimerId = std::uint64_t;

  virtual ~Clock() = default;

  /// The current time on this clock. Callable from any thread.
  virtual Date now() = 0;

  /// Runs `task` once, when `delay` has passed on this clock, and returns an id for
  /// cancel(). Where it runs depends on the clock (SystemClock: its timer thread;
  /// ManualClock: inside advance()), so a task should only hand work to a queue.
  virtual TimerId runAfter(std::chrono::milliseconds delay, std::function<void()> task) = 0;

  /// Drops a task that has not started; an unknown or finished id is ignored.
  virtual void cancel(TimerId id) = 0;
};

/// The environment's clock: Env::current().clock->now().
QVL_EXPORT Date now();

/// Wall-clock time; timers run on one timer thread of the process, started on first use.
class QVL_EXPORT SystemClock final : public Clock {
 public:
  /// std::chrono::system_clock's time.
  Date now() override;
  TimerId runAfter(std::chrono::milliseconds delay, std::function<void()> task) override;
  void cancel(TimerId id) override;
};

}  // namespace qvl
