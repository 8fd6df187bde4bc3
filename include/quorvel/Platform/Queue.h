#pragma once
// Serial executors over one shared pool of worker threads.

#include <functional>
#include <memory>

namespace qvl {

/// A serial queue: its tasks run one at a time, in the order they were added, on one of the
/// library's worker threads (not necessarily the same thread each time). Tasks of different
/// queues may run at the same time. Queues are cheap; the library makes one per request.
///
/// The workers are shared by every queue, created on demand and capped in number, so a task
/// must not block waiting for tasks of other queues. A task that throws is logged and the
/// queue goes on with its next task. When the process exits, tasks still waiting are
/// dropped and the exit does not wait long for a task that is running.
class SerialQueue {
 public:
  SerialQueue();
  ~SerialQueue();

  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Adds a task and returns at once, never running it inline. Thread-safe. Destroying the
  /// queue does not cancel tasks already added: they still run.
  void async(std::function<void()> task);

  /// True exactly when called from inside a task of this queue.
  bool isCurrent() const;

  struct State;  // shared with the worker pool; defined in the implementation

 private:
  std::shared_ptr<State> state_;
};

}  // namespace qvl
