#pragma once
/// @file
/// The host application as the library sees it: lifecycle events, background tasks, the icon
/// badge and user-notification settings.

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

/// The host application as the library reaches it: lifecycle events, background tasks, the
/// icon badge and user-notification settings.
///
/// A host may implement this interface itself, or wrap the standard one (StandardApplication),
/// and hand it to the library as Env::application. Implementations are thread-safe: the
/// library calls them from the caller's thread, the main queue and network callback queues.
/// Owned by a shared_ptr (the environment holds it).
class QVL_EXPORT Application {
 public:
  ///@{
  /// Posted by didBecomeActive(), didEnterBackground() and willTerminate() to the
  /// environment's notification centre, with this application as object and sender. The
  /// names are the platform's own.
  static constexpr const char* kDidBecomeActiveNotification =
      "UIApplicationDidBecomeActiveNotification";
  static constexpr const char* kDidEnterBackgroundNotification =
      "UIApplicationDidEnterBackgroundNotification";
  static constexpr const char* kWillTerminateNotification =
      "UIApplicationWillTerminateNotification";
  ///@}

  /// Identifies a task from beginBackgroundTask(); an application never reuses an id.
  using BackgroundTaskId = std::uint64_t;
  /// Never a running task; endBackgroundTask() ignores it.
  static constexpr BackgroundTaskId kInvalidBackgroundTask = 0;

  ///@{
  /// User-notification types for registerUserNotificationSettings(), combined with |.
  static constexpr unsigned kUserNotificationTypeBadge = 1;
  static constexpr unsigned kUserNotificationTypeSound = 2;
  static constexpr unsigned kUserNotificationTypeAlert = 4;
  ///@}

  /// The application of the environment in force (Env::current().application).
  static Application& shared();

  virtual ~Application() = default;
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  /// The host became active (started, or back in front). Observers run on the calling
  /// thread before this returns.
  void didBecomeActive();
  /// The host went to the background. Observers run on the calling thread before this
  /// returns; work they start in background tasks may still be running.
  void didEnterBackground();
  /// The host is about to exit. Observers run on the calling thread before this returns:
  /// the analytics manager waits, bounded by QVLAnalyticsManager::kTerminationFlushDeadline,
  /// for the views on their way. A host that exits calls didEnterBackground() first when it
  /// wants the inbox synchronised, and waitForBackgroundTasks() after this.
  void willTerminate();

  /// Starts a background task named `name`. If the application ends it on its own terms
  /// (expiry), `expirationHandler` runs once and the task no longer counts as running.
  /// Never fails; never calls the handler inline.
  virtual BackgroundTaskId beginBackgroundTask(std::string name,
                                               std::function<void()> expirationHandler) = 0;
  /// Ends a task; ended, expired and unknown ids are ignored. Callable from any thread,
  /// including network callback queues.
  virtual void endBackgroundTask(BackgroundTaskId id) = 0;
  /// For a host about to exit: blocks the calling thread until no background task is
  /// running (each ended or expired) or `timeout` (real time) has passed. True when none is
  /// left. Must not be called from a queue that the waited-for work needs.
  virtual bool waitForBackgroundTasks(std::chrono::milliseconds timeout) = 0;

  /// The icon badge number (0 at start).
  virtual int applicationIconBadgeNumber() const = 0;
  /// Sets the badge. The library calls it on the main queue only.
  virtual void setApplicationIconBadgeNumber(int number) = 0;

  /// Registers the user-notification settings (types: the kUserNotificationType... bits;
  /// categories: their identifiers) where the host offers that capability. Returns whether
  /// it is offered; the default offers nothing and returns false.
  virtual bool registerUserNotificationSettings(unsigned types,
                                                const std::vector<std::string>& categories);

 protected:
  Application() = default;

 private:
  void post(const char* name);
};

/// The standard application: background tasks expire after an allowance on the
/// environment's clock, the badge is kept in memory and shown through a hook. Owned by a
/// shared_ptr, so an expiry that comes after the object is gone does nothing.
class QVL_EXPORT StandardApplication : public Application,
                                       public std::enable_shared_from_this<StandardApplication> {
 public:
  /// How a background task left the running set.
  enum class TaskOutcome { ended, expired };
  /// Told once per task, when it is ended or expires: its id, name and outcome. Runs on
  /// the thread that ended it, or on the main queue (before the expiration handler).
  using TaskObserver = std::function<void(BackgroundTaskId, const std::string&, TaskOutcome)>;

  StandardApplication();
  ~StandardApplication() override;

  /// A task not ended within backgroundTaskAllowance() (on the environment's clock)
  /// expires: its handler runs once on the main queue.
  BackgroundTaskId beginBackgroundTask(std::string name,
                                       std::function<void()> expirationHandler) override;
  void endBackgroundTask(BackgroundTaskId id) override;
  bool waitForBackgroundTasks(std::chrono::milliseconds timeout) override;
  /// Names of the tasks begun and neither ended nor expired, in the order they began.
  std::vector<std::string> runningBackgroundTasks() const;
  /// Sets who hears of ended and expired tasks (empty: nobody).
  void setBackgroundTaskObserver(TaskObserver observer);

  /// How long a background task may run before it expires: 30 s unless changed. A change
  /// applies to tasks begun afterwards; running tasks keep their deadline.
  ///@{
  std::chrono::milliseconds backgroundTaskAllowance() const;
  void setBackgroundTaskAllowance(std::chrono::milliseconds allowance);
  ///@}

  int applicationIconBadgeNumber() const override;
  /// Main queue only: a call from another thread asserts in debug builds and is logged as
  /// an error in release, where it changes nothing. The badge hook, if any, runs with the
  /// new number on the main queue.
  void setApplicationIconBadgeNumber(int number) override;
  /// How the host shows the badge (for example on a desktop launcher entry).
  void setBadgeHook(std::function<void(int)> hook);

 private:
  void expire(BackgroundTaskId id, const std::function<void()>& handler);
  void tell(BackgroundTaskId id, const std::string& name, TaskOutcome outcome);

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qvl
