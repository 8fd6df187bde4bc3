#include "quorvel/Platform/Queue.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "quorvel/Platform/Log.h"

namespace qvl {

struct SerialQueue::State {
  std::mutex mutex;
  std::deque<std::function<void()>> tasks;
  bool scheduled = false;  // waiting in the pool's ready list or running
};

namespace {

thread_local const SerialQueue::State* tCurrentQueue = nullptr;

// Runs ready queues, one task per turn so that a busy queue cannot starve the others.
class WorkerPool {
 public:
  static WorkerPool& instance() {
    // Never destroyed: a worker may still touch the pool while the process exits. The guard
    // stops the workers during static destruction instead.
    static WorkerPool* pool = new WorkerPool;
    static ShutdownGuard guard{pool};
    return *pool;
  }

  void schedule(std::shared_ptr<SerialQueue::State> queue) {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    ready_.push_back(std::move(queue));
    if (ready_.size() > idle_ && threads_.size() < maxThreads_) {
      try {
        threads_.emplace_back([this] { work(); });
        ++live_;  // the new thread cannot run before the lock is released
      } catch (const std::system_error& e) {
        // The existing workers (if any) still drain the ready list.
        log(std::string("QuorvelSDK: cannot start a worker thread: ") + e.what());
      }
    }
    wake_.notify_one();
  }

 private:
  struct ShutdownGuard {
    WorkerPool* pool;
    ~ShutdownGuard() { pool->shutdown(); }
  };

  WorkerPool()
      : maxThreads_(std::max<size_t>(8, 2 * std::max(1u, std::thread::hardware_concurrency()))) {}

  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      ++idle_;
      wake_.wait(lock, [this] { return stopping_ || !ready_.empty(); });
      --idle_;
      if (stopping_) break;
      std::shared_ptr<SerialQueue::State> queue = std::move(ready_.front());
      ready_.pop_front();
      lock.unlock();
      runOne(queue);
      lock.lock();
    }
    --live_;
    exited_.notify_all();
  }

  void runOne(const std::shared_ptr<SerialQueue::State>& queue) {
    std::function<void()> task;
    {
      std::lock_guard lock(queue->mutex);
      task = std::move(queue->tasks.front());
      queue->tasks.pop_front();
    }
    tCurrentQueue = queue.get();
    try {
      task();
    } catch (const std::exception& e) {
      log(std::string("QuorvelSDK: a queued task threw: ") + e.what());
    } catch (...) {
      log("QuorvelSDK: a queued task threw");
    }
    tCurrentQueue = nullptr;
    task = nullptr;  // release what the task captured before the next one starts

    bool more;
    {
      std::lock_guard lock(queue->mutex);
      more = !queue->tasks.empty();
      if (!more) queue->scheduled = false;
    }
    if (more) schedule(queue);
  }

  // Workers finish their current task and exit; waiting tasks are dropped. The wait is
  // bounded so that a stuck task cannot hold the process at exit.
  void shutdown() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    wake_.notify_all();
    const bool allExited =
        exited_.wait_for(lock, std::chrono::seconds(1), [this] { return live_ == 0; });
    std::vector<std::thread> threads = std::move(threads_);
    lock.unlock();
    for (auto& thread : threads) {
      if (allExited) {
        thread.join();
      } else {
        thread.detach();
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable exited_;
  std::deque<std::shared_ptr<SerialQueue::State>> ready_;
  std::vector<std::thread> threads_;
  const size_t maxThreads_;
  size_t idle_ = 0;
  size_t live_ = 0;
  bool stopping_ = false;
};

}  // namespace

SerialQueue::SerialQueue() : state_(std::make_shared<State>()) {}

SerialQueue::~SerialQueue() = default;

void SerialQueue::async(std::function<void()> task) {
  {
    std::lock_guard lock(state_->mutex);
    state_->tasks.push_back(std::move(task));
    if (state_->scheduled) return;
    state_->scheduled = true;
  }
  WorkerPool::instance().schedule(state_);
}

bool SerialQueue::isCurrent() const { return tCurrentQueue == state_.get(); }

}  // namespace qvl
