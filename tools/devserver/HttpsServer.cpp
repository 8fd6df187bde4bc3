#include "devserver/HttpsServer.h"

#include <netinet/in.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

// cpp-httplib is a prebuilt, uninstrumented library: ThreadSanitizer cannot see its inline
// synchronisation (such as the fast path of its function-local statics) and would report
// the memory functions it calls as racing. Ignore accesses made from inside that library.
// OpenSSL is uninstrumented too: its socket writes on a descriptor number that another
// thread closed earlier (and the kernel reused) are reported as races on the descriptor.
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libcpp-httplib.so\n"
         "called_from_lib:libssl.so.3\n";
}

namespace qvl::devserver {
namespace {

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// cpp-httplib adds the connection's addresses to the request headers; they were not sent.
bool isInjectedByServer(std::string_view name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
         name == "LOCAL_PORT";
}

void defaultHandler(const RecordedRequest&, httplib::Response& response) {
  response.status = 200;
  response.set_content("{}", "application/json");
}

[[noreturn]] void portInUse(int port) {
  throw std::runtime_error("port " + std::to_string(port) + " is in use");
}

}  // namespace

void checkPortIsFree(int port) {
  if (port == 0) return;
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;  // the real bind reports it
  const int yes = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool taken =
      ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 && errno == EADDRINUSE;
  ::close(fd);
  if (taken) portInUse(port);
}

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (sameName(key, name)) return value;
  }
  return std::nullopt;
}

size_t RecordedRequest::headerCount(std::string_view name) const {
  size_t count = 0;
  for (const auto& entry : headers) count += sameName(entry.first, name) ? 1 : 0;
  return count;
}

HttpsServer::HttpsServer(const Certificate& certificate, HttpsServerOptions options)
    : handler_(defaultHandler), recordRequests_(options.recordRequests) {
  // A client that aborts a handshake must not kill the process through SIGPIPE.
  ::signal(SIGPIPE, SIG_IGN);
  server_ = std::make_unique<httplib::SSLServer>(certificate.certificatePath.c_str(),
                                                 certificate.privateKeyPath.c_str());
  if (!server_->is_valid()) throw std::runtime_error("HTTPS server: invalid certificate");
  // Enough workers for many requests held open at once (tests hold dozens).
  server_->new_task_queue = [] { return new httplib::ThreadPool(64); };
  server_->set_keep_alive_timeout(1);
  // cpp-httplib's default also sets SO_REUSEPORT, which lets a second server bind a port
  // this one listens on. SO_REUSEADDR alone still allows listening again after a close.
  server_->set_socket_options([](socket_t sock) {
    const int yes = 1;
    ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  if (options.maxBody > 0) {
    const size_t limit = options.maxBody;
    server_->set_payload_max_length(limit);
    // Decided from the headers, before any of the body is read.
    server_->set_pre_routing_handler(
        [limit](const httplib::Request& request, httplib::Response& response) {
          const bool chunked = request.has_header("Transfer-Encoding");
          const std::string length = request.get_header_value("Content-Length");
          if (!chunked && (length.empty() || std::strtoull(length.c_str(), nullptr, 10) <= limit)) {
            return httplib::Server::HandlerResponse::Unhandled;
          }
          response.status = chunked ? 411 : 413;
          response.set_header("Connection", "close");
          response.set_content(chunked ? R"({"status":411,"error":"Length Required"})"
                                       : R"({"status":413,"error":"Payload Too Large"})",
                               "application/json; charset=utf-8");
          return httplib::Server::HandlerResponse::Handled;
        });
  }
  auto route = [this](const httplib::Request& request, httplib::Response& response) {
    handle(request, response);
  };
  server_->Get(".*", route);
  server_->Post(".*", route);
  server_->Put(".*", route);
  server_->Patch(".*", route);
  server_->Delete(".*", route);
  server_->Options(".*", route);
  errno = 0;
  if (options.port == 0) {
    port_ = server_->bind_to_any_port("127.0.0.1");
  } else if (server_->bind_to_port("127.0.0.1", options.port)) {
    port_ = options.port;
  }
  if (port_ <= 0) {
    const int error = errno;
    if (error == EADDRINUSE) portInUse(options.port);
    throw std::runtime_error("HTTPS server: cannot bind 127.0.0.1:" + std::to_string(options.port) +
                             ": " + std::strerror(error));
  }
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // stop() only ends a server that is already running: one destroyed before its thread got
  // there would block in accept() for ever. Wait (bounded) until it runs.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!server_->is_running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!server_->is_running()) {
    // Its thread holds this object and cannot be stopped: nothing sensible is left to do.
    std::fprintf(stderr, "HTTPS server: did not start listening\n");
    std::abort();
  }
}

HttpsServer::~HttpsServer() {
  server_->stop();
  thread_.join();
}

std::string HttpsServer::url(std::string_view host) const {
  return "https://" + std::string(host) + ":" + std::to_string(port_);
}

void HttpsServer::setHandler(RequestHandler handler) {
  std::lock_guard lock(mutex_);
  handler_ = handler ? std::move(handler) : RequestHandler(defaultHandler);
}

std::vector<RecordedRequest> HttpsServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

bool HttpsServer::waitForRequests(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return recorded_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

void HttpsServer::handle(const httplib::Request& request, httplib::Response& response) {
  RecordedRequest recorded;
  recorded.method = request.method;
  recorded.target = request.target;
  const size_t question = request.target.find('?');
  recorded.hasQuery = question != std::string::npos;
  recorded.path = request.target.substr(0, question);
  if (recorded.hasQuery) recorded.query = request.target.substr(question + 1);
  for (const auto& [name, value] : request.headers) {
    if (!isInjectedByServer(name)) recorded.headers.emplace_back(name, value);
  }
  recorded.body = request.body;

  RequestHandler handler;
  {
    std::lock_guard lock(mutex_);
    if (recordRequests_) requests_.push_back(recorded);
    handler = handler_;
  }
  recorded_.notify_all();
  handler(recorded, response);
}

}  // namespace qvl::devserver
