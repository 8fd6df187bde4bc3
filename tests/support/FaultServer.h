#pragma once
// A TLS server on 127.0.0.1 that misbehaves on purpose, for tests of hostile answers: each
// connection runs a script that decides which bytes go out, how slowly, and how the
// connection ends (orderly close, reset, or never).

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/TestCertificates.h"

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

namespace qvl::test {

class FaultServer;

/// One accepted connection, handed to the script on its own thread. Ends with an orderly
/// TLS close unless the script reset it.
class FaultConnection {
 public:
  /// The TLS handshake; false when it failed.
  bool handshake();
  /// Reads the request head and its Content-Length body; false when the client went away.
  bool readRequest();
  /// The request target read by readRequest(), e.g. "/v8/shops?include=x".
  const std::string& target() const { return target_; }
  /// Writes bytes at once; false when the client went away.
  bool send(std::string_view bytes);
  /// Waits, returning false at once when the server is being destroyed.
  bool pause(std::chrono::milliseconds duration);
  /// Ends the connection with a TCP reset instead of a close.
  void reset();

  FaultConnection(FaultServer& server, int fd);
  ~FaultConnection();
  FaultConnection(const FaultConnection&) = delete;
  FaultConnection& operator=(const FaultConnection&) = delete;

 private:
  FaultServer& server_;
  int fd_;
  SSL* ssl_ = nullptr;
  bool open_ = true;
  std::string target_;
};

using FaultScript = std::function<void(FaultConnection&)>;

class FaultServer {
 public:
  /// Listens with an OS-chosen port and runs `script` for every connection.
  explicit FaultServer(FaultScript script,
                       const devserver::Certificate& certificate = TestCertificates::leaf());
  /// Stops accepting, wakes every paused script, unblocks every socket and joins.
  ~FaultServer();
  FaultServer(const FaultServer&) = delete;
  FaultServer& operator=(const FaultServer&) = delete;

  int port() const { return port_; }
  size_t connectionCount() const;

 private:
  friend class FaultConnection;
  void run();
  void serve(int fd);

  FaultScript script_;
  SSL_CTX* context_ = nullptr;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::vector<int> liveSockets_;
  std::vector<std::thread> connections_;
  size_t accepted_ = 0;
  std::thread thread_;
};

}  // namespace qvl::test
