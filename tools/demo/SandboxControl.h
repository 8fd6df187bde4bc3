#pragma once
// The demo's line to the sandbox's own control endpoints (/_sandbox/...), over the SDK's
// public HTTP session so that it trusts exactly what the SDK trusts (Env::trustAnchorsFile).

#include <chrono>
#include <string>

#include <nlohmann/json.hpp>

namespace qvl::demo {

struct ControlAnswer {
  bool reached = false;  // false: no answer came (refused, timed out)
  long status = 0;
  nlohmann::json body;
  std::string error;  // why no answer came

  bool ok() const { return reached && status >= 200 && status < 300; }
};

class SandboxControl {
 public:
  /// `baseUrl`: "https://dev.localhost:PORT"; `controlToken`: sandbox.json's
  /// "control_token", sent as the bearer token. Every call is bounded by `timeout`.
  SandboxControl(std::string baseUrl, std::string controlToken,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5));

  /// Blocks the calling thread until the answer or the time-out.
  ControlAnswer get(const std::string& path) const;
  ControlAnswer post(const std::string& path, const nlohmann::json& body) const;

 private:
  ControlAnswer call(const std::string& method, const std::string& path,
                     const std::string& body) const;

  std::string baseUrl_;
  std::string controlToken_;
  std::chrono::milliseconds timeout_;
};

}  // namespace qvl::demo
