#include "quorvel/platform/Env.h"

#include <cstdlib>
#include <mutex>

#include "platform/Immortal.h"
#include "quorvel/platform/Application.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Executor.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/platform/NotificationCenter.h"

namespace qvl {
namespace {

// The process's standard facilities, made once: an environment that leaves a member empty
// shares these with every other such environment.
struct Standard {
  std::shared_ptr<Clock> clock = std::make_shared<SystemClock>();
  std::shared_ptr<MainQueue> mainQueue = std::make_shared<MainQueue>();
  std::shared_ptr<NotificationCenter> notificationCenter = std::make_shared<NotificationCenter>();
  std::shared_ptr<Application> application = std::make_shared<StandardApplication>();
};

struct Current {
  std::mutex mutex;
  std::shared_ptr<const Env> env;
};

std::shared_ptr<const Env> completed(Env env) {
  Standard& standard = detail::immortal<Standard>();
  if (!env.clock) env.clock = standard.clock;
  if (!env.executor) env.executor = threadPoolExecutor();
  if (!env.mainQueue) env.mainQueue = standard.mainQueue;
  if (!env.notificationCenter) env.notificationCenter = standard.notificationCenter;
  if (!env.application) env.application = standard.application;
  if (!env.bundleInfo.isObject()) env.bundleInfo = Json::object();
  return std::make_shared<const Env>(std::move(env));
}

}  // namespace

std::string Env::resolvedStoreDirectory() const {
  if (!storeDirectory.empty()) return storeDirectory;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) {
    return std::string(xdg) + "/quorvel";
  }
  if (const char* home = std::getenv("HOME"); home && *home) {
    return std::string(home) + "/.local/share/quorvel";
  }
  return "quorvel";
}

std::shared_ptr<const Env> Env::current() {
  Current& current = detail::immortal<Current>();
  std::lock_guard lock(current.mutex);
  if (!current.env) current.env = completed(Env{});
  return current.env;
}

void Env::install(Env env) {
  std::shared_ptr<const Env> next = completed(std::move(env));
  std::shared_ptr<const Env> previous;  // released outside the lock
  Current& current = detail::immortal<Current>();
  std::lock_guard lock(current.mutex);
  previous = std::move(current.env);
  current.env = std::move(next);
}

void Env::update(const std::function<void(Env&)>& change) {
  // `change` runs without the lock, so it may read the environment or log; an install that
  // lands meanwhile makes it run again over the newer environment.
  Current& current = detail::immortal<Current>();
  for (;;) {
    std::shared_ptr<const Env> base = Env::current();
    Env env = *base;
    change(env);
    std::shared_ptr<const Env> next = completed(std::move(env));
    std::lock_guard lock(current.mutex);
    if (current.env != base) continue;
    base = std::move(current.env);  // released outside the lock, after `next` is in force
    current.env = std::move(next);
    return;
  }
}

ScopedEnv::ScopedEnv(const std::function<void(Env&)>& change) : previous_(Env::current()) {
  Env env = *previous_;
  change(env);
  Env::install(std::move(env));
}

ScopedEnv::ScopedEnv(Env env) : previous_(Env::current()) { Env::install(std::move(env)); }

ScopedEnv::~ScopedEnv() { Env::install(*previous_); }

}  // namespace qvl
