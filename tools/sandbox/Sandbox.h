#pragma once
// qvl-sandbox: a local stand-in for the service's v8 HTTPS interface on 127.0.0.1, seeded
// from a JSON file, with its state in a directory so that it survives a restart.
//
// The state directory holds state.sqlite (the records), secret (signs bearer tokens), the
// CA and server certificates (ca.pem, server.pem and their keys), pin.txt (the server
// key's SubjectPublicKeyInfo pin) and sandbox.json (port, pin, CA file, API key, token and
// the control token that /_sandbox/* requests must carry as "Authorization: Bearer ...").
//
// Threads: the constructor returns once the server accepts connections; requests are
// answered on server threads; every public member may be called from any thread.

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

namespace qvl::sandbox {

struct Options {
  std::string stateDirectory;  // required
  std::string seedFile;        // read when the state is empty or reset
  std::string apiKey = "sandbox-api-key";
  int port = 0;  // 0: a free port
  bool reset = false;
  double failureRate = 0;                   // share of /v8 requests answered 503
  std::chrono::milliseconds offlineFor{0};  // listener closed right after start for this long
  size_t maxBody = 1 << 20;                 // longer request bodies are answered 413
  size_t logBytes = 64 << 20;  // the request log drops its oldest entries beyond this size
};

class Sandbox {
 public:
  /// Opens (or seeds) the state, loads or makes the certificates, makes a new control
  /// token, writes pin.txt and sandbox.json and starts listening. Throws
  /// std::runtime_error (bad seed, unusable state directory, "port N is in use").
  explicit Sandbox(Options options);
  /// Stops listening and joins every thread.
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  int port() const;
  /// "https://<host>:<port>".
  std::string url(const std::string& host = "dev.localhost") const;
  /// The server key's pin (base64 SHA-256 of its SubjectPublicKeyInfo).
  const std::string& pin() const;
  /// The CA file a client trusts.
  const std::string& caFile() const;
  const std::string& apiKey() const;
  /// A bearer token for the first seeded guest.
  std::string token() const;
  /// The bearer token /_sandbox/* requests need (random, new on every start).
  const std::string& controlToken() const;
  /// What sandbox.json holds.
  nlohmann::json info() const;

  /// failureRate in [0, 1]; offlineFor > 0 closes the listener now for that long
  /// (connections are refused), then listens on the same port again.
  void setFaults(double failureRate, std::chrono::milliseconds offlineFor);

  /// The requests received (oldest first, at most the last 10000 and Options::logBytes of
  /// JSON), each with the status it was answered with; `since` skips those with a sequence
  /// number up to it.
  nlohmann::json requests(std::int64_t since = 0) const;
  /// Record counts, guests, views, redemptions, endpoints, faults and how many logged
  /// requests were dropped to keep the log bounded ("requests_dropped").
  nlohmann::json state() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qvl::sandbox
