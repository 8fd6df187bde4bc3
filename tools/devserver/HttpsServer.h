#pragma once
// An HTTPS server on 127.0.0.1: answers every method and path through one replaceable
// handler and (unless told not to) records every request it receives.

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

#include "devserver/Certificates.h"

namespace qvl::devserver {

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
using RequestHandler = std::function<void(const RecordedRequest&, httplib::Response&)>;

struct HttpsServerOptions {
  int port = 0;  // 0: an OS-chosen port
  /// Keep every request for requests(); a long-running server that keeps its own log
  /// turns this off.
  bool recordRequests = true;
  /// Requests declaring a longer body are answered 413 from their headers alone, and a
  /// body without a declared length is refused (411); 0: no limit.
  size_t maxBody = 0;
};

/// Throws std::runtime_error "port N is in use" when a socket listens on 127.0.0.1:`port`
/// (nothing for port 0), so that a server can fail before its slower preparations.
void checkPortIsFree(int port);

class HttpsServer {
 public:
  /// Listens on 127.0.0.1, presenting `certificate`, and returns once it accepts
  /// connections. Throws std::runtime_error when the certificate is unusable or the port
  /// cannot be bound ("port N is in use" when another socket listens on it).
  explicit HttpsServer(const Certificate& certificate, HttpsServerOptions options = {});
  /// Stops listening (new connections are refused from then on), lets the requests in
  /// progress finish and joins the server threads.
  ~HttpsServer();
  HttpsServer(const HttpsServer&) = delete;
  HttpsServer& operator=(const HttpsServer&) = delete;

  int port() const { return port_; }
  /// "https://<host>:<port>", e.g. https://dev.localhost:40123.
  std::string url(std::string_view host = "dev.localhost") const;

  /// Replaces the handler; the default answers 200 with the JSON body "{}".
  void setHandler(RequestHandler handler);

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
  RequestHandler handler_;
  bool recordRequests_ = true;
};

}  // namespace qvl::devserver
