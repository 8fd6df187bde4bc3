#include "support/SilentServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace qvl::test {

SilentServer::SilentServer() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener_ < 0) throw std::runtime_error("silent server: socket failed");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(listener_);
    throw std::runtime_error("silent server: cannot listen on 127.0.0.1");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { run(); });
}

SilentServer::~SilentServer() {
  stopping_ = true;
  thread_.join();
  ::close(listener_);
  std::lock_guard lock(mutex_);
  for (int fd : connections_) ::close(fd);
}

size_t SilentServer::acceptedCount() const {
  std::lock_guard lock(mutex_);
  return connections_.size();
}

void SilentServer::run() {
  // Polls with a short time-out so that the destructor's stop request is seen promptly.
  while (!stopping_) {
    pollfd entry{listener_, POLLIN, 0};
    if (::poll(&entry, 1, 50) <= 0) continue;
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard lock(mutex_);
    connections_.push_back(fd);
  }
}

}  // namespace qvl::test
