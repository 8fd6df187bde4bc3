#include "support/FaultServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <strings.h>
#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace qvl::test {

FaultConnection::FaultConnection(FaultServer& server, int fd) : server_(server), fd_(fd) {}

FaultConnection::~FaultConnection() {
  if (ssl_) {
    if (open_) SSL_shutdown(ssl_);
    SSL_free(ssl_);
  }
  {
    std::lock_guard lock(server_.mutex_);
    auto& live = server_.liveSockets_;
    live.erase(std::remove(live.begin(), live.end(), fd_), live.end());
  }
  ::close(fd_);
}

bool FaultConnection::handshake() {
  ssl_ = SSL_new(server_.context_);
  if (!ssl_ || SSL_set_fd(ssl_, fd_) != 1 || SSL_accept(ssl_) != 1) {
    open_ = false;  // no close_notify on a failed handshake
    return false;
  }
  return true;
}

bool FaultConnection::readRequest() {
  std::string received;
  size_t headEnd = std::string::npos;
  size_t contentLength = 0;
  char buffer[4096];
  while (headEnd == std::string::npos || received.size() < headEnd + 4 + contentLength) {
    const int n = SSL_read(ssl_, buffer, sizeof buffer);
    if (n <= 0) return false;
    received.append(buffer, static_cast<size_t>(n));
    if (headEnd == std::string::npos &&
        (headEnd = received.find("\r\n\r\n")) != std::string::npos) {
      static constexpr std::string_view kLength = "\r\ncontent-length:";
      auto it = std::search(received.begin(), received.begin() + static_cast<long>(headEnd),
                            kLength.begin(), kLength.end(),
                            [](char a, char b) { return std::tolower(a) == b; });
      if (it != received.begin() + static_cast<long>(headEnd)) {
        contentLength = std::strtoul(&*(it + static_cast<long>(kLength.size())), nullptr, 10);
      }
    }
  }
  const size_t targetStart = received.find(' ') + 1;
  target_ = received.substr(targetStart, received.find(' ', targetStart) - targetStart);
  return true;
}

bool FaultConnection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const int n = SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size()));
    if (n <= 0) {
      open_ = false;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool FaultConnection::pause(std::chrono::milliseconds duration) {
  std::unique_lock lock(server_.mutex_);
  return !server_.wake_.wait_for(lock, duration, [this] { return server_.stopping_.load(); });
}

void FaultConnection::reset() {
  linger abortive{1, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  open_ = false;
}

FaultServer::FaultServer(FaultScript script, const devserver::Certificate& certificate)
    : script_(std::move(script)) {
  ::signal(SIGPIPE, SIG_IGN);  // writes to a client that left must not kill the test
  context_ = SSL_CTX_new(TLS_server_method());
  if (!context_ ||
      SSL_CTX_use_certificate_chain_file(context_, certificate.certificatePath.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context_, certificate.privateKeyPath.c_str(), SSL_FILETYPE_PEM) !=
          1) {
    SSL_CTX_free(context_);
    throw std::runtime_error("fault server: cannot load the certificate");
  }
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) ||
      ::listen(listener_, 16) ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length)) {
    if (listener_ >= 0) ::close(listener_);
    SSL_CTX_free(context_);
    throw std::runtime_error("fault server: cannot listen on 127.0.0.1");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { run(); });
}

FaultServer::~FaultServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    for (int fd : liveSockets_) ::shutdown(fd, SHUT_RDWR);  // unblocks reads and writes
  }
  wake_.notify_all();
  thread_.join();  // no new connection threads after this
  for (auto& connection : connections_) connection.join();
  ::close(listener_);
  SSL_CTX_free(context_);
}

size_t FaultServer::connectionCount() const {
  std::lock_guard lock(mutex_);
  return accepted_;
}

void FaultServer::run() {
  while (!stopping_) {
    pollfd entry{listener_, POLLIN, 0};
    if (::poll(&entry, 1, 50) <= 0) continue;
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard lock(mutex_);
    if (stopping_) {
      ::close(fd);
      break;
    }
    liveSockets_.push_back(fd);
    ++accepted_;
    connections_.emplace_back([this, fd] { serve(fd); });
  }
}

void FaultServer::serve(int fd) {
  FaultConnection connection(*this, fd);
  script_(connection);
}

}  // namespace qvl::test
