#pragma once
// An HTTP transport that records requests and answers them from the test.

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "quorvel/networking/HttpSession.h"

namespace qvl::test {

/// What the transport answers: a status and body, or a transport error (no answer came).
struct TransportAnswer {
  long status = 200;
  std::string body = "{}";
  std::optional<QVLError> error;

  TransportAnswer() = default;
  TransportAnswer(long status, std::string body) : status(status), body(std::move(body)) {}
  static TransportAnswer unreachable() {
    TransportAnswer answer(0, "");
    answer.error = QVLError{kQVLTransportErrorDomain, 7, qvl::Json{{"message", "refused"}}};
    return answer;
  }
};

/// Records every request (headers merged with the session's defaults, as sent) and answers
/// it at once through `answer`, or holds it when `answer` returns nothing until the test
/// calls release(). Thread-safe.
class RecordingTransport final : public HttpTransport {
 public:
  using Answer = std::function<std::optional<TransportAnswer>(const HttpRequest&)>;

  explicit RecordingTransport(Answer answer = {}) : answer_(std::move(answer)) {}

  void send(const std::shared_ptr<HttpSession>&, HttpRequest request,
            DataTaskCompletion done) override {
    Answer answer;
    {
      std::lock_guard lock(mutex_);
      answer = answer_;
    }
    std::optional<TransportAnswer> reply =
        answer ? answer(request) : std::optional<TransportAnswer>(TransportAnswer{});
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(request);
      if (!reply) {
        held_.push_back({std::move(request), std::move(done)});
        return;
      }
    }
    complete(request, *reply, done);
  }

  void setAnswer(Answer answer) {
    std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
  }

  std::vector<HttpRequest> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

  /// Answers every held request with what `reply` makes of it, in arrival order; returns
  /// how many.
  std::size_t release(const std::function<TransportAnswer(const HttpRequest&)>& reply) {
    std::vector<Held> held;
    {
      std::lock_guard lock(mutex_);
      held.swap(held_);
    }
    for (auto& entry : held) complete(entry.request, reply(entry.request), entry.done);
    return held.size();
  }

 private:
  struct Held {
    HttpRequest request;
    DataTaskCompletion done;
  };

  static void complete(const HttpRequest& request, const TransportAnswer& reply,
                       DataTaskCompletion& done) {
    if (reply.error) {
      done({}, std::nullopt, reply.error);
      return;
    }
    HttpResponse response;
    response.statusCode = reply.status;
    response.url = request.url;
    response.headers = {{"Content-Type", "application/json"}};
    done(reply.body, std::move(response), std::nullopt);
  }

  mutable std::mutex mutex_;
  Answer answer_;
  std::vector<HttpRequest> requests_;
  std::vector<Held> held_;
};

}  // namespace qvl::test
