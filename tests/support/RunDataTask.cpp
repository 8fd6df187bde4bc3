#include "support/RunDataTask.h"

#include <condition_variable>
#include <mutex>

namespace qvl::test {

DataTaskOutcome runDataTask(const std::shared_ptr<HttpSession>& session, HttpRequest request,
                            std::chrono::milliseconds timeout) {
  struct Shared {
    std::mutex mutex;
    std::condition_variable done;
    DataTaskOutcome outcome;
  };
  auto shared = std::make_shared<Shared>();
  std::shared_ptr<SerialQueue> queue = session->callbackQueue();
  session->dataTask(std::move(request),
                    [shared, queue](std::string body, std::optional<HttpResponse> response,
                                    std::optional<QVLError> error) {
                      std::lock_guard lock(shared->mutex);
                      shared->outcome.completed = true;
                      shared->outcome.body = std::move(body);
                      shared->outcome.response = std::move(response);
                      shared->outcome.error = std::move(error);
                      shared->outcome.thread = std::this_thread::get_id();
                      shared->outcome.onCallbackQueue = queue->isCurrent();
                      shared->done.notify_all();
                    });
  std::unique_lock lock(shared->mutex);
  shared->done.wait_for(lock, timeout, [&] { return shared->outcome.completed; });
  return shared->outcome;
}

}  // namespace qvl::test
