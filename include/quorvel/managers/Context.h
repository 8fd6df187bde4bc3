#pragma once
/// @file
/// A context: one environment and the library's objects built on it.

#include <functional>
#include <memory>
#include <utility>

#include "quorvel/Export.h"
#include "quorvel/platform/Env.h"

class QVLAnalyticsManager;
class QVLApiClient;
class QVLBeaconManager;
class QVLInboxManager;
class QVLSubscriptionManager;

namespace qvl {

class Store;
class UserDefaults;

namespace detail {
class ContextCore;
}

/// Owns an environment and everything the library builds on it: the service client, the
/// four managers, the user defaults, the pin validator and the standard proximity backend,
/// each made on first use. Each context's objects read only its environment, so contexts
/// live side by side in one process (a test's, a second account's) without touching each
/// other.
///
/// The process has one standard context; every shared…() accessor (sharedClient(),
/// sharedManager(), UserDefaults::standard(), ...) reaches the objects of the context in
/// force on the calling thread, and outside any the standard one's. Configure the standard
/// context with Env::configure() before first use; build other contexts here.
///
/// Threads: a context is in force on a thread while a Scope lives there, and in every piece
/// of work the library hands to another thread from there (queued tasks, main-queue tasks,
/// request completions, device and timer callbacks). Work of a context that outlives the
/// Context object keeps its objects alive: they go when the last such work has run, on the
/// thread that ran it or on a worker thread.
class QVL_EXPORT Context {
 public:
  /// A context on `env`; empty members get the standard facilities (see Env).
  explicit Context(Env env);
  /// A context on the environment in force on the calling thread with `change` applied.
  /// `change` runs on the calling thread.
  explicit Context(const std::function<void(Env&)>& change);
  /// Drops the context; its objects go once its work has run (see above).
  ~Context();
  /// A context is one owner of its objects: neither copied nor moved.
  ///@{
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
  ///@}

  /// The context's environment, completed with the standard facilities. Thread-safe.
  std::shared_ptr<const Env> env() const;

  /// This context's objects, made on first use. Any thread; each runs the object's own
  /// thread rules (see its header).
  ///@{
  QVLApiClient& apiClient();
  QVLAnalyticsManager& analyticsManager();
  QVLBeaconManager& beaconManager();
  QVLInboxManager& inboxManager();
  QVLSubscriptionManager& subscriptionManager();
  UserDefaults& userDefaults();
  ///@}
  /// The calling thread's handle on this context's store; nullptr when it cannot be opened
  /// (logged). Never throws.
  std::shared_ptr<Store> realm();

  /// Puts a context in force on the calling thread for the scope's life, so that direct
  /// library calls made there (shared…(), records, queues) are this context's. Scopes nest
  /// and are per thread; one must end on the thread that began it.
  class QVL_EXPORT Scope {
   public:
    /// Puts `context` in force here; the context must outlive the scope.
    explicit Scope(const Context& context);
    /// Puts back the context that was in force before.
    ~Scope();
    /// Scopes are tied to their thread and place: neither copied nor moved.
    ///@{
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ///@}

   private:
    std::shared_ptr<detail::ContextCore> previous_;
  };

  /// Runs `work` on the calling thread with this context in force and returns its result.
  template <class Work>
  decltype(auto) run(Work&& work) const {
    Scope scope(*this);
    return std::forward<Work>(work)();
  }

 private:
  std::shared_ptr<detail::ContextCore> core_;
};

}  // namespace qvl
