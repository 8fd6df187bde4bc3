#include "quorvel/Platform/MainQueue.h"

#include <exception>
#include <stdexcept>
#include <string>

#include "Platform/Guarded.h"
#include "quorvel/Platform/Log.h"

namespace qvl {
namespace {

void runTask(std::function<void()>& task) {
  detail::runGuarded("a main-queue task", task);
  task = nullptr;  // release what it captured outside the queue's lock
}

}  // namespace

MainQueue::MainQueue(HostPost post) : hostPost_(std::move(post)) {}

void MainQueue::async(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  wake_.notify_one();
  // The host's loop calls the drain later on the main thread; one drain per task keeps the
  // hook free of any state, and a drain finding nothing to do returns at once.
  if (!hostPost_) return;
  if (std::weak_ptr<MainQueue> weak = weak_from_this(); !weak.expired()) {
    hostPost_([weak] {
      if (auto queue = weak.lock()) queue->runUntilIdle();
    });
  } else {
    hostPost_([this] { runUntilIdle(); });
  }
}

bool MainQueue::isCurrent() const {
  std::lock_guard lock(mutex_);
  return thread_ && *thread_ == std::this_thread::get_id();
}

bool MainQueue::adoptCallingThread() {
  std::lock_guard lock(mutex_);
  if (!thread_) thread_ = std::this_thread::get_id();
  return *thread_ == std::this_thread::get_id();
}

void MainQueue::bindToCurrentThread() {
  const auto self = std::this_thread::get_id();
  if (!thread_) {
    thread_ = self;
  } else if (*thread_ != self) {
    throw std::logic_error("qvl::MainQueue: tasks must always run on the same thread");
  }
}

void MainQueue::run() {
  std::unique_lock lock(mutex_);
  bindToCurrentThread();
  for (;;) {
    wake_.wait(lock, [this] { return stopRequested_ || !tasks_.empty(); });
    if (stopRequested_) {
      stopRequested_ = false;
      return;
    }
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    runTask(task);
    lock.lock();
  }
}

void MainQueue::stop() {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
  }
  wake_.notify_all();
}

std::size_t MainQueue::runUntilIdle() {
  std::size_t ran = 0;
  std::unique_lock lock(mutex_);
  bindToCurrentThread();
  while (!tasks_.empty()) {
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    runTask(task);
    ++ran;
    lock.lock();
  }
  return ran;
}

}  // namespace qvl
