#include "quorvel/platform/Queue.h"

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

#include "platform/ContextCore.h"
#include "platform/Guarded.h"
#include "platform/Immortal.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"

namespace qvl {

struct SerialQueue::State {
  std::shared_ptr<Executor> executor;
  std::mutex mutex;
  std::deque<std::function<void()>> tasks;
  bool scheduled = false;  // a job of this queue is waiting on the executor or running
};

namespace {

thread_local const SerialQueue::State* tCurrentQueue = nullptr;

// Worker threads shared by every queue of the process. Created on demand, capped in number.
class WorkerPool final : public Executor {
 public:
  WorkerPool()
      : maxThreads_(std::max<size_t>(8, 2 * std::max(1u, std::thread::hardware_concurrency()))) {}

  void post(std::function<void()> job) override {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    ready_.push_back(std::move(job));
    if (ready_.size() > idle_ && threads_.size() < maxThreads_) {
      try {
        threads_.emplace_back([this] { work(); });
        ++live_;  // the new thread cannot run before the lock is released
      } catch (const std::system_error& e) {
        // The existing workers (if any) still drain the ready list.
        log(LogLevel::warning, std::string("cannot start a worker thread: ") + e.what());
      }
    }
    wake_.notify_one();
  }

  // Workers finish their current job and exit; waiting jobs are dropped. The wait is
  // bounded so that a stuck job cannot hold the process at exit.
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

 private:
  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      ++idle_;
      wake_.wait(lock, [this] { return stopping_ || !ready_.empty(); });
      --idle_;
      if (stopping_) break;
      std::function<void()> job = std::move(ready_.front());
      ready_.pop_front();
      lock.unlock();
      detail::runGuarded("a worker job", job);
      job = nullptr;  // release what the job captured before the next one starts
      lock.lock();
    }
    --live_;
    exited_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable exited_;
  std::deque<std::function<void()>> ready_;
  std::vector<std::thread> threads_;
  const size_t maxThreads_;
  size_t idle_ = 0;
  size_t live_ = 0;
  bool stopping_ = false;
};

struct PoolHolder {
  std::shared_ptr<WorkerPool> pool = std::make_shared<WorkerPool>();
};

struct PoolShutdown {
  ~PoolShutdown() { detail::immortal<PoolHolder>().pool->shutdown(); }
};

// Runs the queue's first task, then hands the queue back to its executor if more are
// waiting, so that every task is one job and a busy queue cannot starve the others.
void runOne(const std::shared_ptr<SerialQueue::State>& queue) {
  std::function<void()> task;
  {
    std::lock_guard lock(queue->mutex);
    task = std::move(queue->tasks.front());
    queue->tasks.pop_front();
  }
  tCurrentQueue = queue.get();
  detail::runGuarded("a queued task", task);
  tCurrentQueue = nullptr;
  task = nullptr;

  bool more;
  {
    std::lock_guard lock(queue->mutex);
    more = !queue->tasks.empty();
    if (!more) queue->scheduled = false;
  }
  if (more) queue->executor->post([queue] { runOne(queue); });
}

}  // namespace

std::shared_ptr<Executor> threadPoolExecutor() {
  PoolHolder& holder = detail::immortal<PoolHolder>();
  static PoolShutdown guard;
  return holder.pool;
}

SerialQueue::SerialQueue() : SerialQueue(Env::current()->executor) {}

SerialQueue::SerialQueue(std::shared_ptr<Executor> executor) : state_(std::make_shared<State>()) {
  state_->executor = executor ? std::move(executor) : threadPoolExecutor();
}

SerialQueue::~SerialQueue() = default;

void SerialQueue::async(std::function<void()> task) {
  {
    std::lock_guard lock(state_->mutex);
    state_->tasks.push_back(detail::carried(std::move(task)));
    if (state_->scheduled) return;
    state_->scheduled = true;
  }
  state_->executor->post([state = state_] { runOne(state); });
}

bool SerialQueue::isCurrent() const { return tCurrentQueue == state_.get(); }

}  // namespace qvl
