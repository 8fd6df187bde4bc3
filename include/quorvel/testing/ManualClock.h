#pragma once
/// @file
/// A clock that moves only when told to.

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "quorvel/Export.h"
#include "quorvel/platform/Clock.h"

namespace qvl {

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
