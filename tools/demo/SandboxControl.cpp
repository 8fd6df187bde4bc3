#include "demo/SandboxControl.h"

#include <future>
#include <memory>
#include <utility>

#include "quorvel/networking/HttpSession.h"

namespace qvl::demo {

SandboxControl::SandboxControl(std::string baseUrl, std::string controlToken,
                               std::chrono::milliseconds timeout)
    : baseUrl_(std::move(baseUrl)), controlToken_(std::move(controlToken)), timeout_(timeout) {}

ControlAnswer SandboxControl::get(const std::string& path) const { return call("GET", path, ""); }

ControlAnswer SandboxControl::post(const std::string& path, const nlohmann::json& body) const {
  return call("POST", path, body.dump());
}

ControlAnswer SandboxControl::call(const std::string& method, const std::string& path,
                                   const std::string& body) const {
  HttpSessionConfiguration configuration;
  configuration.timeoutIntervalForRequest = timeout_;
  configuration.timeoutIntervalForResource = timeout_;
  configuration.additionalHeaders = {{"Content-Type", "application/json"},
                                     {"Authorization", "Bearer " + controlToken_}};
  auto session = HttpSession::create(configuration);
  // Shared with the completion, which may outlive this call when the wait below gives up.
  auto answer = std::make_shared<std::promise<ControlAnswer>>();
  auto future = answer->get_future();
  session->dataTask({method, baseUrl_ + path, {}, body},
                    [answer](std::string data, std::optional<HttpResponse> response,
                             std::optional<QVLError> error) {
                      ControlAnswer out;
                      if (response) {
                        out.reached = true;
                        out.status = response->statusCode;
                        out.body = nlohmann::json::parse(data, nullptr, false);
                      } else if (error) {
                        out.error = error->domain + " " + std::to_string(error->code);
                        if (error->userInfo) out.error.append(" ").append(error->userInfo->dump());
                      }
                      answer->set_value(std::move(out));
                    });
  // The session fails the task itself after the time-out; the margin covers its queue.
  if (future.wait_for(timeout_ + std::chrono::seconds(2)) != std::future_status::ready) {
    ControlAnswer out;
    out.error = "no completion within " + std::to_string(timeout_.count()) + " ms";
    return out;
  }
  return future.get();
}

}  // namespace qvl::demo
