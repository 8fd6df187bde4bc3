#pragma once
// An HTTPS server on 127.0.0.1 for tests: answers every method and path through one
// replaceable handler and records every request it receives.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <httplib.h>

#include "support/TestCertificates.h"

namespace qvl::test {

struct RecordedRequest {
  std::string method;
  std::string target;     // the raw request target as sent on the wire
  std::string path;       // raw target before '?'
  std::string query;      // raw target after the first '?', "" when there is none
  bool hasQuery = false;  // the target contained '?'
  std::vector<std::pair<std::string, std::string>> headers;  // as sent, in order
  std::string body;

  /// First value of the header `name` (case-insensitive), or absent.
  std::optional<std::string> header(std::string_view name) const;
  /// How many times the header `name` was sent (case-insensitive).
  size_t headerCount(std::string_view name) const;
};

/// Called on a server thread for every request, after it was recorded.
using TestHandler = std::function<void(const RecordedRequest&, httplib::Response&)>;

class TestHttpsServer {
 public:
  /// Listens on 127.0.0.1 with an OS-chosen port, presenting `certificate`.
  explicit TestHttpsServer(const TestCertificate& certificate = TestCertificates::leaf());
  /// Stops listening and joins the server threads.
  ~TestHttpsServer();
  TestHttpsServer(const TestHttpsServer&) = delete;
  TestHttpsServer& operator=(const TestHttpsServer&) = delete;

  int port() const { return port_; }
  /// "https://<host>:<port>", e.g. https://dev.localhost:40123.
  std::string url(std::string_view host = "dev.localhost") const;

  /// Replaces the handler; the default answers 200 with the JSON body "{}".
  void setHandler(TestHandler handler);

  std::vector<RecordedRequest> requests() const;
  /// Waits until at least `count` requests were recorded; false on time-out.
  bool waitForRequests(size_t count, std::chrono::milliseconds timeout) const;

 private:
  void handle(const httplib::Request& request, httplib::Response& response);

  std::unique_ptr<httplib::SSLServer> server_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable recorded_;
  std::vector<RecordedRequest> requests_;
  TestHandler handler_;
};

}  // namespace qvl::test
