#pragma once
/// @file
/// Serial queues over an executor.

#include <functional>
#include <memory>

#include "quorvel/Export.h"
#include "quorvel/platform/Executor.h"

namespace qvl {

/// A serial queue: its tasks run one at a time, in the order they were added, on the
/// threads of an executor (not necessarily the same thread each time). Tasks of different
/// queues may run at the same time. Queues are cheap; the library makes one per request.
///
/// Each task is one job of the executor, so a busy queue cannot starve the others. A task
/// must not block waiting for tasks of other queues. A task that throws is logged and the
/// queue goes on with its next task.
class QVL_EXPORT SerialQueue {
 public:
  /// A queue on the executor of the environment in force.
  SerialQueue();
  /// A queue whose tasks run as jobs of `executor`, which the queue keeps alive.
  explicit SerialQueue(std::shared_ptr<Executor> executor);
  ~SerialQueue();

  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Adds a task and returns at once, never running it inline. Thread-safe. Destroying the
  /// queue does not cancel tasks already added: they still run.
  void async(std::function<void()> task);

  /// True exactly when called from inside a task of this queue.
  bool isCurrent() const;

  struct State;  // shared with the jobs on the executor; defined in the implementation

 private:
  std::shared_ptr<State> state_;
};

}  // namespace qvl
