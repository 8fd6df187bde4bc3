#pragma once
/// @file
/// The host application as the library sees it: lifecycle events, background tasks and the
/// icon badge.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quorvel/Export.h"

namespace qvl {

class Clock;

/// The host reports its lifecycle here; the library's managers observe the notifications.
/// Every operation is thread-safe unless it says otherwise. Owned by a shared_ptr (the
/// environment holds it), so an expiry that comes after the object is gone does nothing.
class QVL_EXPORT Application : public std::enable_shared_from_this<Application> {
 public:
  ///@{
  /// Posted by didBecomeActive() and didEnterBackground() to the environment's notification
  /// centre, with this application as object and sender. The names are the platform's own.
  static constexpr const char* kDidBecomeActiveNotification =
      "UIApplicationDidBecomeActiveNotification";
  static constexpr const char* kDidEnterBackgroundNotification =
      "UIApplicationDidEnterBackgroundNotification";
  ///@}

  /// Identifies a task from beginBackgroundTask(); an application never reuses an id.
  using BackgroundTaskId = std::uint64_t;
  /// Never a running task; endBackgroundTask() ignores it.
  static constexpr BackgroundTaskId kInvalidBackgroundTask = 0;

  /// The application of the environment in force (Env::current().application).
  static Application& shared();

  Application() = default;
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  /// The host became active (started, or back in front). Observers run on the calling
  /// thread before this returns.
  void didBecomeActive();
  /// The host went to the background, or is about to exit. Observers run on the calling
  /// thread before this returns; work they start in background tasks may still be running:
  /// a host that exits next calls waitForBackgroundTasks().
  void didEnterBackground();

  /// Starts a background task. If it is not ended within backgroundTaskAllowance() (on the
  /// environment's clock), `expirationHandler` runs once on the main queue and the task
  /// counts as expired: it no longer holds up waitForBackgroundTasks(). Never fails.
  BackgroundTaskId beginBackgroundTask(std::string name, std::function<void()> expirationHandler);
  /// Ends a task (running or expired); unknown ids are ignored. Callable from any thread,
  /// including network callback queues.
  void endBackgroundTask(BackgroundTaskId id);
  /// Names of the tasks begun and neither ended nor expired, in the order they began.
  std::vector<std::string> runningBackgroundTasks() const;

  /// How long a background task may run before it expires: 30 s unless changed. A change
  /// applies to tasks begun afterwards; running tasks keep their deadline.
  ///@{
  std::chrono::milliseconds backgroundTaskAllowance() const;
  void setBackgroundTaskAllowance(std::chrono::milliseconds allowance);
  ///@}

  /// For a host about to exit: blocks the calling thread until no background task is
  /// running (each ended or expired) or `timeout` (real time) has passed. True when none is
  /// left. Must not be called from a task that the waited-for work needs (for example the
  /// completion queue of the sync being waited for).
  bool waitForBackgroundTasks(std::chrono::milliseconds timeout);

  /// The icon badge number (0 at start).
  int applicationIconBadgeNumber() const;
  /// Sets the badge; main queue only. Called off the main queue it changes nothing and logs
  /// "QuorvelSDK: the icon badge can only be set on the main queue". The badge hook, if
  /// any, runs with the new number on the main queue.
  void setApplicationIconBadgeNumber(int number);
  /// How the host shows the badge (for example on a desktop launcher entry).
  void setBadgeHook(std::function<void(int)> hook);

 private:
  struct Task {
    std::string name;
    std::shared_ptr<Clock> clock;  // the clock its expiry timer waits on
    std::uint64_t timer = 0;
  };
  void post(const char* name);
  void expire(BackgroundTaskId id, const std::function<void()>& handler);

  mutable std::mutex mutex_;
  std::condition_variable tasksChanged_;
  std::map<BackgroundTaskId, Task> running_;
  BackgroundTaskId nextTaskId_ = 1;
  std::chrono::milliseconds allowance_ = std::chrono::seconds(30);
  int badgeNumber_ = 0;
  std::function<void(int)> badgeHook_;
};

}  // namespace qvl
