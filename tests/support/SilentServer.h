#pragma once
// A TCP port on 127.0.0.1 that takes connections and never answers, for time-out tests:
// the kernel completes each connection into the listen backlog, and nothing reads it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace qvl::test {

class SilentServer {
 public:
  SilentServer() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 64) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      if (listener_ >= 0) ::close(listener_);
      throw std::runtime_error("silent server: cannot listen on 127.0.0.1");
    }
    port_ = ntohs(address.sin_port);
  }
  /// Closes the listener and every connection still waiting in its backlog.
  ~SilentServer() { ::close(listener_); }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;

  int port() const { return port_; }

 private:
  int listener_;
  int port_ = 0;
};

}  // namespace qvl::test
