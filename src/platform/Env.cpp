#include "quorvel/platform/Env.h"

#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "platform/ContextCore.h"
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

// The standard context: configured by Env::configure() until its first use, then fixed.
struct StandardContext {
  std::mutex mutex;
  std::optional<Env> configured;
  std::shared_ptr<detail::ContextCore> core;  // set once, under the mutex
  std::atomic<detail::ContextCore*> made{nullptr};
};

thread_local std::shared_ptr<detail::ContextCore> tBound;
thread_local bool tRefusesTeardown = false;

std::string homeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* result = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result &&
      result->pw_dir) {
    return result->pw_dir;
  }
  return ".";
}

}  // namespace

namespace detail {

ContextCore::ContextCore(std::shared_ptr<const Env> env) : env_(std::move(env)) {}

ContextCore::~ContextCore() {
  std::vector<std::pair<const void*, std::shared_ptr<void>>> services;
  {
    std::lock_guard lock(mutex_);
    services.swap(services_);
  }
  while (!services.empty()) services.pop_back();
}

void* ContextCore::serviceOf(const void* key, const std::function<std::shared_ptr<void>()>& make) {
  std::lock_guard lock(mutex_);
  for (const auto& [k, service] : services_) {
    if (k == key) return service.get();
  }
  std::shared_ptr<void> made = make();
  // `make` may have made this very service through another (it holds the lock throughout).
  for (const auto& [k, service] : services_) {
    if (k == key) return service.get();
  }
  services_.emplace_back(key, made);
  return made.get();
}

std::shared_ptr<ContextCore> makeContext(Env env) {
  return std::shared_ptr<ContextCore>(new ContextCore(completedEnv(std::move(env))),
                                      [](ContextCore* core) {
                                        if (!tRefusesTeardown) {
                                          delete core;
                                        } else {
                                          threadPoolExecutor()->post([core] { delete core; });
                                        }
                                      });
}

void refuseTeardownOnThisThread() { tRefusesTeardown = true; }

std::shared_ptr<const Env> completedEnv(Env env) {
  Standard& standard = immortal<Standard>();
  if (!env.clock) env.clock = standard.clock;
  if (!env.executor) env.executor = threadPoolExecutor();
  if (!env.mainQueue) env.mainQueue = standard.mainQueue;
  if (!env.notificationCenter) env.notificationCenter = standard.notificationCenter;
  if (!env.application) env.application = standard.application;
  if (!env.bundleInfo.isObject()) env.bundleInfo = Json::object();
  return std::make_shared<const Env>(std::move(env));
}

const std::shared_ptr<ContextCore>& boundContext() { return tBound; }

std::shared_ptr<ContextCore> currentContext() {
  if (tBound) return tBound;
  StandardContext& standard = immortal<StandardContext>();
  if (standard.made.load(std::memory_order_acquire)) return standard.core;
  std::lock_guard lock(standard.mutex);
  if (!standard.core) {
    standard.core = makeContext(standard.configured ? std::move(*standard.configured) : Env{});
    standard.configured.reset();
    standard.made.store(standard.core.get(), std::memory_order_release);
  }
  return standard.core;
}

std::shared_ptr<ContextCore> exchangeBoundContext(std::shared_ptr<ContextCore> context) {
  return std::exchange(tBound, std::move(context));
}

ContextBinding::ContextBinding(std::shared_ptr<ContextCore> context)
    : previous_(exchangeBoundContext(std::move(context))) {}

ContextBinding::~ContextBinding() {
  // Swapped out first: the context may go here, and its teardown may log.
  std::shared_ptr<ContextCore> leaving = exchangeBoundContext(std::move(previous_));
}

std::function<void()> carried(std::function<void()> job) {
  if (!tBound) return job;
  return [context = tBound, job = std::move(job)] {
    ContextBinding binding(context);
    job();
  };
}

std::function<void()> carriedWeakly(std::function<void()> job) {
  if (!tBound) return job;
  return [context = std::weak_ptr<ContextCore>(tBound), job = std::move(job)] {
    ContextBinding binding(context.lock());
    job();
  };
}

}  // namespace detail

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

std::string Env::standardConfigDirectory() {
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && xdg[0] == '/') return xdg;
  return homeDirectory() + "/.config";
}

std::shared_ptr<const Env> Env::current() { return detail::currentContext()->env(); }

Env Env::completed() const { return *detail::completedEnv(*this); }

std::function<void()> inCurrentContext(std::function<void()> work, bool weakly) {
  return weakly ? detail::carriedWeakly(std::move(work)) : detail::carried(std::move(work));
}

void Env::configure(Env env) {
  StandardContext& standard = detail::immortal<StandardContext>();
  std::lock_guard lock(standard.mutex);
  if (standard.core) {
    throw std::logic_error(
        "qvl::Env::configure: the library's standard context is already in use; configure "
        "it once, before the first call into the library");
  }
  standard.configured = std::move(env);
}

}  // namespace qvl
