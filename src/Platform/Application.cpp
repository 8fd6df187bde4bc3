#include "quorvel/Platform/Application.h"

#include "Platform/MainQueueOnly.h"

#include "quorvel/Platform/Clock.h"
#include "quorvel/Platform/Env.h"
#include "quorvel/Platform/MainQueue.h"
#include "quorvel/Platform/NotificationCenter.h"

namespace qvl {

Application& Application::shared() { return *Env::current()->application; }

void Application::post(const char* name) { Env::current()->notificationCenter->post(name, this); }

void Application::didBecomeActive() { post(kDidBecomeActiveNotification); }

void Application::didEnterBackground() { post(kDidEnterBackgroundNotification); }

void Application::willTerminate() { post(kWillTerminateNotification); }

bool Application::registerUserNotificationSettings(unsigned, const std::vector<std::string>&) {
  return false;
}

Application::BackgroundTaskId StandardApplication::beginBackgroundTask(
    std::string name, std::function<void()> expirationHandler) {
  const std::shared_ptr<const Env> env = Env::current();
  std::unique_lock lock(mutex_);
  const BackgroundTaskId id = nextTaskId_++;
  const std::chrono::milliseconds allowance = allowance_;
  running_[id] = Task{std::move(name), env->clock, 0};
  lock.unlock();
  // The timer only hands the expiry to the main queue, where the handler must run.
  const Clock::TimerId timer =
      env->clock->runAfter(allowance, [self = weak_from_this(), id, mainQueue = env->mainQueue,
                                       handler = std::move(expirationHandler)]() mutable {
        mainQueue->async([self, id, handler = std::move(handler)] {
          if (auto application = self.lock()) application->expire(id, handler);
        });
      });
  lock.lock();
  if (auto it = running_.find(id); it != running_.end()) {
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
    std::lock_guard lock(mutex_);
    auto it = running_.find(id);
    if (it == running_.end()) return;  // ended meanwhile
    name = std::move(it->second.name);
    running_.erase(it);
  }
  tasksChanged_.notify_all();
  tell(id, name, TaskOutcome::expired);
  if (handler) handler();
}

void StandardApplication::endBackgroundTask(BackgroundTaskId id) {
  Task task;
  {
    std::lock_guard lock(mutex_);
    auto it = running_.find(id);
    if (it == running_.end()) return;
    task = std::move(it->second);
    running_.erase(it);
  }
  tasksChanged_.notify_all();
  if (task.timer != 0) task.clock->cancel(task.timer);
  tell(id, task.name, TaskOutcome::ended);
}

void StandardApplication::tell(BackgroundTaskId id, const std::string& name, TaskOutcome outcome) {
  TaskObserver observer;
  {
    std::lock_guard lock(mutex_);
    observer = taskObserver_;
  }
  if (observer) observer(id, name, outcome);
}

void StandardApplication::setBackgroundTaskObserver(TaskObserver observer) {
  std::lock_guard lock(mutex_);
  taskObserver_ = std::move(observer);
}

std::vector<std::string> StandardApplication::runningBackgroundTasks() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const auto& [id, task] : running_) names.push_back(task.name);
  return names;
}

std::chrono::milliseconds StandardApplication::backgroundTaskAllowance() const {
  std::lock_guard lock(mutex_);
  return allowance_;
}

void StandardApplication::setBackgroundTaskAllowance(std::chrono::milliseconds allowance) {
  std::lock_guard lock(mutex_);
  allowance_ = allowance;
}

bool StandardApplication::waitForBackgroundTasks(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return tasksChanged_.wait_for(lock, timeout, [this] { return running_.empty(); });
}

int StandardApplication::applicationIconBadgeNumber() const {
  std::lock_guard lock(mutex_);
  return badgeNumber_;
}

void StandardApplication::setApplicationIconBadgeNumber(int number) {
  if (!detail::requireMainQueue("StandardApplication::setApplicationIconBadgeNumber")) return;
  std::function<void(int)> hook;
  {
    std::lock_guard lock(mutex_);
    badgeNumber_ = number;
    hook = badgeHook_;
  }
  if (hook) hook(number);
}

void StandardApplication::setBadgeHook(std::function<void(int)> hook) {
  std::lock_guard lock(mutex_);
  badgeHook_ = std::move(hook);
}

}  // namespace qvl
