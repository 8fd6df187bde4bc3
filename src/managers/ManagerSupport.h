#pragma once
// What the engagement managers share: the current guest, error text, application observers.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "networking/CountedDataTask.h"
#include "platform/ContextCore.h"
#include "platform/Guarded.h"
#include "quorvel/networking/HttpSession.h"
#include "quorvel/platform/NotificationCenter.h"
#include "quorvel/platform/QVLError.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/store/Results.h"

namespace qvl {

class NotificationCenter;

/// The first guest in the calling thread's store, or null (also when the store cannot be
/// opened).
std::shared_ptr<QVLGuest> firstGuest();

/// The error as one log-line fragment: "Error Domain=<domain> Code=<code> UserInfo=<json>".
std::string describe(const QVLError& error);

/// Logs "<operation> failed: <what>" as an error.
void logOperationFailure(const char* operation, const std::string& what) noexcept;

/// Runs one operation of a manager for the host. What it throws (a store that fails, a
/// record of another thread's handle) is logged as an error naming `operation` and goes no
/// further; the operation then answers `fallback`.
template <class R, class Work>
R withoutThrowing(const char* operation, R fallback, const Work& work) noexcept {
  std::optional<R> result;
  if (auto what = detail::failureOf([&] { result.emplace(work()); })) {
    logOperationFailure(operation, *what);
    return fallback;
  }
  return std::move(*result);
}
template <class Work>
void withoutThrowing(const char* operation, const Work& work) noexcept {
  if (auto what = detail::failureOf(work)) logOperationFailure(operation, *what);
}
/// Sends the guest's whole list (QVLApiClient::syncRelations) inside a background task named
/// `taskName`, whose expiry only logs `expiredLine`. The answer clears `changesFlag` on
/// success or logs `failurePrefix` followed by the error, then ends the task.
void syncInBackgroundTask(const std::string& taskName, const std::string& expiredLine,
                          const std::string& failurePrefix, const AnyList& relations,
                          const std::shared_ptr<QVLGuest>& guest,
                          const std::optional<std::string>& relationship,
                          std::atomic<bool>& changesFlag);

/// A manager's observers of its context's notification centre: registered when made, removed
/// when it goes, so a handler never outlives the manager it calls.
class CenterObservation {
 public:
  using Handlers = std::vector<std::pair<std::string, std::function<void()>>>;

  /// Registers `handlers` with the notification centre of the context in force.
  explicit CenterObservation(const Handlers& handlers);

 private:
  std::vector<ObserverToken> tokens_;
};

}  // namespace qvl
