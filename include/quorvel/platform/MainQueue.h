#pragma once
/// @file
/// The host application's main thread, as a queue.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "quorvel/Export.h"

namespace qvl {

/// The queue of the host's main thread. The proximity subsystem, every delegate call and
/// the icon badge run here. Exactly one thread runs its tasks, and always the same one: the
/// first thread that runs any of them becomes the queue's thread for the queue's lifetime,
/// so "the main thread's store handle" is stable. Tasks run in the order they were added.
///
/// Two ways to drive it:
/// - the host calls run() on its main thread (it returns after stop()), or calls
///   runUntilIdle() from its own loop whenever it likes;
/// - the host passes a `HostPost` hook: every async() then hands the hook one closure
///   ("drain") that the host's loop must call soon on the main thread (a glib idle source,
///   asio::post, a Qt queued call). The drain runs every task queued by then.
/// Tests run it on their own thread with runUntilIdle().
///
/// Running tasks from a second thread throws std::logic_error. A task that throws is logged
/// and the queue goes on.
class QVL_EXPORT MainQueue : public std::enable_shared_from_this<MainQueue> {
 public:
  /// The host's hook: schedules `drain` to run soon on the host's main thread.
  using HostPost = std::function<void(std::function<void()> drain)>;

  /// A queue driven by run() or runUntilIdle().
  MainQueue();
  /// A queue driven by the host's loop through `post`. The hook is called on the thread
  /// that calls async(), without any lock of the queue held. When the queue is owned by a
  /// shared_ptr (as in the environment) a drain that runs after the queue is gone does
  /// nothing.
  explicit MainQueue(HostPost post);

  ~MainQueue();
  MainQueue(const MainQueue&) = delete;
  MainQueue& operator=(const MainQueue&) = delete;

  /// Adds a task and returns at once, never running it inline, even on the main thread.
  /// Thread-safe.
  void async(std::function<void()> task);

  /// True on the queue's thread (once it has one), inside or outside a task.
  bool isCurrent() const;
  /// isCurrent(), after making the calling thread the queue's thread when it has none yet
  /// (as running a task would). The library's main-queue-only operations call it, so a
  /// host that calls them before it first runs the queue does so from its main thread.
  /// Thread-safe.
  bool adoptCallingThread();

  /// Runs tasks on the calling thread as they come, until stop(). A stop() made before
  /// run() makes it return at once (and is then used up).
  void run();
  /// Makes run() return after the task it is running. Thread-safe.
  void stop();

  /// Runs, on the calling thread, every task queued and every task those tasks add, then
  /// returns how many ran. Never waits for tasks from other threads.
  std::size_t runUntilIdle();

 private:
  void bindToCurrentThread();

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qvl
