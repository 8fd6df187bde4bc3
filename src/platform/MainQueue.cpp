#include "quorvel/platform/MainQueue.h"

#include <exception>
#include <stdexcept>
#include <string>

#include "platform/ContextCore.h"
#include "platform/Guarded.h"
#include "quorvel/platform/Log.h"

namespace qvl {
namespace {

void runTask(std::function<void()>& task) {
  detail::runGuarded("a main-queue task", task);
  task = nullptr;  // release what it captured outside the queue's lock
}

}  // namespace

struct MainQueue::Impl {
  explicit Impl(HostPost post) : hostPost(std::move(post)) {}
  const HostPost hostPost;
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::function<void()>> tasks;
  std::optional<std::thread::id> thread;
  bool stopRequested = false;
};

MainQueue::MainQueue() : impl_(std::make_unique<Impl>(HostPost{})) {}
MainQueue::MainQueue(HostPost post) : impl_(std::make_unique<Impl>(std::move(post))) {}
MainQueue::~MainQueue() = default;

void MainQueue::async(std::function<void()> task) {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->tasks.push_back(detail::carried(std::move(task)));
  }
  impl_->wake.notify_one();
  // The host's loop calls the drain later on the main thread; one drain per task keeps the
  // hook free of any state, and a drain finding nothing to do returns at once.
  if (!impl_->hostPost) return;
  if (std::weak_ptr<MainQueue> weak = weak_from_this(); !weak.expired()) {
    impl_->hostPost([weak] {
      if (auto queue = weak.lock()) queue->runUntilIdle();
    });
  } else {
    impl_->hostPost([this] { runUntilIdle(); });
  }
}

bool MainQueue::isCurrent() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->thread && *impl_->thread == std::this_thread::get_id();
}

bool MainQueue::adoptCallingThread() {
  std::lock_guard lock(impl_->mutex);
  if (!impl_->thread) impl_->thread = std::this_thread::get_id();
  return *impl_->thread == std::this_thread::get_id();
}

void MainQueue::bindToCurrentThread() {
  const auto self = std::this_thread::get_id();
  if (!impl_->thread) {
    impl_->thread = self;
  } else if (*impl_->thread != self) {
    throw std::logic_error("qvl::MainQueue: tasks must always run on the same thread");
  }
}

void MainQueue::run() {
  std::unique_lock lock(impl_->mutex);
  bindToCurrentThread();
  for (;;) {
    impl_->wake.wait(lock, [this] { return impl_->stopRequested || !impl_->tasks.empty(); });
    if (impl_->stopRequested) {
      impl_->stopRequested = false;
      return;
    }
    std::function<void()> task = std::move(impl_->tasks.front());
    impl_->tasks.pop_front();
    lock.unlock();
    runTask(task);
    lock.lock();
  }
}

void MainQueue::stop() {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->stopRequested = true;
  }
  impl_->wake.notify_all();
}

std::size_t MainQueue::runUntilIdle() {
  std::size_t ran = 0;
  std::unique_lock lock(impl_->mutex);
  bindToCurrentThread();
  while (!impl_->tasks.empty()) {
    std::function<void()> task = std::move(impl_->tasks.front());
    impl_->tasks.pop_front();
    lock.unlock();
    runTask(task);
    ++ran;
    lock.lock();
  }
  return ran;
}

}  // namespace qvl
