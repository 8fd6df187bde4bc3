#pragma once
// Runs one HttpSession data task and waits (bounded) for its completion.

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "quorvel/networking/HttpSession.h"

namespace qvl::test {

struct DataTaskOutcome {
  bool completed = false;  // false: no completion within the time limit
  std::string body;
  std::optional<HttpResponse> response;
  std::optional<QVLError> error;
  std::thread::id thread;        // where the completion ran
  bool onCallbackQueue = false;  // the session's callbackQueue()->isCurrent() in it
};

/// Starts `request` on `session` and blocks the calling thread until its completion ran or
/// `timeout` passed.
inline DataTaskOutcome runDataTask(const std::shared_ptr<HttpSession>& session, HttpRequest request,
                                   std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
  struct Shared {
    std::mutex mutex;
    std::condition_variable done;
    DataTaskOutcome outcome;
  };
  // Shared with the completion, which may still run after a time-out.
  auto shared = std::make_shared<Shared>();
  session->dataTask(std::move(request), [shared, queue = session->callbackQueue()](
                                            std::string body, std::optional<HttpResponse> response,
                                            std::optional<QVLError> error) {
    std::lock_guard lock(shared->mutex);
    shared->outcome = {true,
                       std::move(body),
                       std::move(response),
                       std::move(error),
                       std::this_thread::get_id(),
                       queue->isCurrent()};
    shared->done.notify_all();
  });
  std::unique_lock lock(shared->mutex);
  shared->done.wait_for(lock, timeout, [&] { return shared->outcome.completed; });
  return shared->outcome;
}

}  // namespace qvl::test
