#pragma once
// A TCP listener on 127.0.0.1 that accepts connections and never writes a byte, for
// time-out tests.

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace qvl::test {

class SilentServer {
 public:
  SilentServer();
  /// Stops accepting, joins its thread and closes every connection.
  ~SilentServer();
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;

  int port() const { return port_; }
  size_t acceptedCount() const;

 private:
  void run();

  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
  mutable std::mutex mutex_;
  std::vector<int> connections_;
};

}  // namespace qvl::test
