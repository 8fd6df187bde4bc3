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
#include "quorvel/Platform/Date.h"

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

/// A clock that moves only when told to: tests, and simulations that run faster than real
/// time. Timers run on the thread that calls advance(), in due order (ties in the order they
/// were added), each seeing now() equal to its due time.
class QVL_EXPORT ManualClock final : public Clock {
 public:
  /// Starts at `start` (default 2026-01-01T00:00:00Z).
  explicit ManualClock(Date start = Date{std::chrono::seconds(1767225600)});
  ~ManualClock() override;

  /// The time last set or advanced to; it does not move on its own.
  Date now() override;
  TimerId runAfter(std::chrono::milliseconds delay, std::function<void()> task) override;
  void cancel(TimerId id) override;

  /// Moves time forward by `duration`, running every timer that falls due on the way
  /// (including timers those timers add). Negative durations are ignored.
  void advance(std::chrono::milliseconds duration);
  /// Sets the time without running timers (moving backwards included).
  void set(Date now);
  /// Timers not yet run.
  std::size_t pendingTimers() const;

 private:
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qvl
