#include "quorvel/platform/Application.h"

#include "platform/ContextCore.h"
#include "platform/MainQueueOnly.h"

#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/platform/NotificationCenter.h"

namespace qvl {

Application& Application::shared() { return *Env::current()->application; }

void Application::post(const char* name) { Env::current()->notificationCenter->post(name, this); }

void Application::didBecomeActive() { post(kDidBecomeActiveNotification); }

void Application::didEnterBackground() { post(kDidEnterBackgroundNotification); }

void Application::willTerminate() { post(kWillTerminateNotification); }

bool Application::registerUserNotificationSettings(unsigned, const std::vector<std::string>&) {
  return false;
}

struct StandardApplication::Impl {
  struct Task {
    std::string name;
    std::shared_ptr<Clock> clock;  // the clock its expiry timer waits on
    std::uint64_t timer = 0;
  };

  std::mutex mutex;
  std::condition_variable tasksChanged;
  std::map<BackgroundTaskId, Task> running;
  BackgroundTaskId nextTaskId = 1;
  std::chrono::milliseconds allowance = std::chrono::seconds(30);
  int badgeNumber = 0;
  std::function<void(int)> badgeHook;
  TaskObserver taskObserver;
};

StandardApplication::StandardApplication() : impl_(std::make_unique<Impl>()) {}
StandardApplication::~StandardApplication() = default;

Application::BackgroundTaskId StandardApplication::beginBackgroundTask(
    std::string name, std::function<void()> expirationHandler) {
  const std::shared_ptr<const Env> env = Env::current();
  std::unique_lock lock(impl_->mutex);
  const BackgroundTaskId id = impl_->nextTaskId++;
  const std::chrono::milliseconds allowance = impl_->allowance;
  impl_->running[id] = Impl::Task{std::move(name), env->clock, 0};
  lock.unlock();
  // The timer only hands the expiry to the main queue, where the handler must run.
  const Clock::TimerId timer = env->clock->runAfter(
      allowance, [self = weak_from_this(), id, mainQueue = env->mainQueue,
                  handler = detail::carriedWeakly(std::move(expirationHandler))]() mutable {
        mainQueue->async([self, id, handler = std::move(handler)] {
          if (auto application = self.lock()) application->expire(id, handler);
        });
      });
  lock.lock();
  if (auto it = impl_->running.find(id); it != impl_->running.end()) {
    it->second.timer = timer;
  } else {
    lock.unlock();
    env->clock->cancel(timer);  // ended before its timer was known
  }
  return id;
}

void StandardApplication::expire(BackgroundTaskId id, const std::function<void()>& handler) {
  std::string name;
  {
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->running.find(id);
    if (it == impl_->running.end()) return;  // ended meanwhile
    name = std::move(it->second.name);
    impl_->running.erase(it);
  }
  impl_->tasksChanged.notify_all();
  tell(id, name, TaskOutcome::expired);
  if (handler) handler();
}

void StandardApplication::endBackgroundTask(BackgroundTaskId id) {
  Impl::Task task;
  {
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->running.find(id);
    if (it == impl_->running.end()) return;
    task = std::move(it->second);
    impl_->running.erase(it);
  }
  impl_->tasksChanged.notify_all();
  if (task.timer != 0) task.clock->cancel(task.timer);
  tell(id, task.name, TaskOutcome::ended);
}

void StandardApplication::tell(BackgroundTaskId id, const std::string& name, TaskOutcome outcome) {
  TaskObserver observer;
  {
    std::lock_guard lock(impl_->mutex);
    observer = impl_->taskObserver;
  }
  if (observer) observer(id, name, outcome);
}

void StandardApplication::setBackgroundTaskObserver(TaskObserver observer) {
  std::lock_guard lock(impl_->mutex);
  impl_->taskObserver = std::move(observer);
}

std::vector<std::string> StandardApplication::runningBackgroundTasks() const {
  std::lock_guard lock(impl_->mutex);
  std::vector<std::string> names;
  for (const auto& [id, task] : impl_->running) names.push_back(task.name);
  return names;
}

std::chrono::milliseconds StandardApplication::backgroundTaskAllowance() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->allowance;
}

void StandardApplication::setBackgroundTaskAllowance(std::chrono::milliseconds allowance) {
  std::lock_guard lock(impl_->mutex);
  impl_->allowance = allowance;
}

bool StandardApplication::waitForBackgroundTasks(std::chrono::milliseconds timeout) {
  std::unique_lock lock(impl_->mutex);
  return impl_->tasksChanged.wait_for(lock, timeout, [this] { return impl_->running.empty(); });
}

int StandardApplication::applicationIconBadgeNumber() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->badgeNumber;
}

void StandardApplication::setApplicationIconBadgeNumber(int number) {
  if (!detail::requireMainQueue("StandardApplication::setApplicationIconBadgeNumber")) return;
  std::function<void(int)> hook;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->badgeNumber = number;
    hook = impl_->badgeHook;
  }
  if (hook) hook(number);
}

void StandardApplication::setBadgeHook(std::function<void(int)> hook) {
  std::lock_guard lock(impl_->mutex);
  impl_->badgeHook = std::move(hook);
}

}  // namespace qvl
