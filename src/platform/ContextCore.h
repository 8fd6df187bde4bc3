#pragma once
// What a qvl::Context is below the managers: an environment and the services made in it,
// and which context is in force on each thread.
//
// A thread has a context in force while a ContextBinding lives on it; otherwise the
// process's standard context is. Work handed from one thread to another (queues, the main
// queue, request completions, device threads) carries the context it was handed over in,
// so everything the library does for a context reads that context's environment.

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "quorvel/platform/Env.h"

namespace qvl::detail {

class ContextCore {
 public:
  /// `env` must be completed (every platform member set).
  explicit ContextCore(std::shared_ptr<const Env> env);
  /// Destroys the services, newest first.
  ~ContextCore();
  ContextCore(const ContextCore&) = delete;
  ContextCore& operator=(const ContextCore&) = delete;

  const std::shared_ptr<const Env>& env() const { return env_; }

  /// The service kept under `key` (the address of a static of its owner), made by `make` on
  /// first use and kept for the context's life. `make` may reach other services.
  template <class T>
  T& service(const void* key, const std::function<std::shared_ptr<T>()>& make) {
    return *static_cast<T*>(serviceOf(key, [&make]() -> std::shared_ptr<void> { return make(); }));
  }

 private:
  void* serviceOf(const void* key, const std::function<std::shared_ptr<void>()>& make);

  const std::shared_ptr<const Env> env_;
  std::recursive_mutex mutex_;  // held while a service is made: it may make others
  std::vector<std::pair<const void*, std::shared_ptr<void>>> services_;  // in the order made
};

/// The context bound to the calling thread, else the process's standard one.
std::shared_ptr<ContextCore> currentContext();

/// The context bound to the calling thread; null when none is.
const std::shared_ptr<ContextCore>& boundContext();

/// A new context on `env` (completed with completedEnv()). The services go with the last
/// reference; when that drops on a thread that must not wait for them (a device or network
/// thread, see refuseTeardownOnThisThread()), they go on a worker thread instead.
std::shared_ptr<ContextCore> makeContext(Env env);

/// Marks the calling thread as one on which a context is never torn down: it may be the
/// very thread that teardown waits for.
void refuseTeardownOnThisThread();

/// An environment with every platform member filled with the standard facilities.
std::shared_ptr<const Env> completedEnv(Env env);

/// Binds `context` to the calling thread (null: none) and returns the one bound before.
std::shared_ptr<ContextCore> exchangeBoundContext(std::shared_ptr<ContextCore> context);

/// Puts `context` in force on the calling thread for the binding's life. Bindings nest.
class ContextBinding {
 public:
  explicit ContextBinding(std::shared_ptr<ContextCore> context);
  ~ContextBinding();
  ContextBinding(const ContextBinding&) = delete;
  ContextBinding& operator=(const ContextBinding&) = delete;

 private:
  std::shared_ptr<ContextCore> previous_;
};

/// `job`, made to run under the context bound on the calling thread now; `job` itself when
/// none is bound (it then runs under whatever is in force where it runs).
std::function<void()> carried(std::function<void()> job);

/// Like carried(), for jobs that may wait long (timers): the context is held weakly, and the
/// job runs in no context once it has gone.
std::function<void()> carriedWeakly(std::function<void()> job);

}  // namespace qvl::detail
