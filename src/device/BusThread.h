#pragma once
// One D-Bus connection on a thread of its own. The thread makes the connection, runs the
// owner's setup on it, then dispatches incoming messages and the tasks other threads post,
// in order, until the BusThread is destroyed. Every sdbus object is made, used and dropped
// on that thread: sd-bus is not thread-safe, so nothing of it ever crosses to another.

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sdbus-c++/IConnection.h>

#include "platform/ContextCore.h"

namespace qvl::device {

/// Runs `callback` (a task, a signal or reply handler) and catches whatever it throws: the
/// first failure of each `origin` on this thread is logged, later ones are not, and the
/// loop goes on. A callback that throws must never unwind through sd-bus.
void guard(const std::string& origin, const std::function<void()>& callback) noexcept;

/// Which of `names` have an owner on the bus at `address` (empty: the system bus), asked
/// one after another, each answer awaited at most a second; nullopt, with the reason in
/// `error`, when the bus cannot be reached. Any thread; opens a connection of its own.
std::optional<std::vector<bool>> namesOwned(const std::string& address,
                                            const std::vector<std::string>& names,
                                            std::string& error);

class BusThread {
 public:
  using Task = std::function<void(sdbus::IConnection&)>;

  /// `address` empty: the system bus. `setup` runs first on the thread; `teardown` last,
  /// before the connection closes (it drops what setup made). `failed` gets the reason
  /// when the bus cannot be reached; nothing else then runs.
  BusThread(std::string address, Task setup, std::function<void()> teardown,
            std::function<void(const std::string&)> failed);
  /// Runs teardown on the thread and joins it.
  ~BusThread();
  BusThread(const BusThread&) = delete;
  BusThread& operator=(const BusThread&) = delete;

  /// Runs `task` on the bus thread, after the tasks posted before it. Any thread.
  void post(Task task);

 private:
  void run(const std::string& address, const Task& setup, const std::function<void()>& teardown,
           const std::function<void(const std::string&)>& failed);
  void wake();

  // The context the thread was made in: its handlers run in it while it lasts. Weak, as that
  // context may own the thread's owner.
  const std::weak_ptr<detail::ContextCore> context_ = detail::boundContext();
  int wakeFd_ = -1;
  std::mutex mutex_;
  std::deque<Task> tasks_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace qvl::device
