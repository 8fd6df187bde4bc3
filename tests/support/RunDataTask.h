#pragma once
// Runs one HttpSession data task and waits (bounded) for its completion.

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "quorvel/Platform/HttpSession.h"

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
DataTaskOutcome runDataTask(const std::shared_ptr<HttpSession>& session, HttpRequest request,
                            std::chrono::milliseconds timeout = std::chrono::seconds(30));

}  // namespace qvl::test
