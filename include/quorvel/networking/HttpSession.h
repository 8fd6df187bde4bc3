#pragma once
/// @file
/// HTTPS client sessions: default headers, data tasks with a completion, a serial callback
/// queue per session and a server-trust hook for certificate pinning.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/platform/QVLError.h"
#include "quorvel/platform/Queue.h"

namespace qvl {

/// Header name/value pairs in order; a name may repeat.
using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

/// One request as a session sends it. A plain value: the session copies it.
struct QVL_EXPORT HttpRequest {
  std::string method = "GET";  ///< The HTTP method, sent as given (upper case expected).
  /// Sent as given: the client adds no percent-encoding, so a query such as
  /// "fields[posts]=title,message" travels literally. A URL libcurl cannot parse fails the
  /// task with CURLE_URL_MALFORMAT.
  std::string url;
  /// Sent after the session's additional headers, replacing those of the same name.
  HttpHeaders headers;
  /// Sent when not empty; POST, PUT and PATCH always send one (Content-Length: 0 when empty).
  /// Without a Content-Type header libcurl labels it application/x-www-form-urlencoded.
  std::string body;
};

/// The head of an answer; the body is handed over separately by the completion.
struct QVL_EXPORT HttpResponse {
  long statusCode = 0;  ///< The HTTP status, e.g. 200; any status counts as an answer.
  /// The URL that answered (redirects are never followed, so the request's URL).
  std::string url;
  /// In the order received, names as the server wrote them.
  HttpHeaders headers;

  /// The first value of the header `name`, compared case-insensitively.
  std::optional<std::string> header(std::string_view name) const;
};

/// Fixed when the session is created; a session never changes it.
struct QVL_EXPORT HttpSessionConfiguration {
  /// Sent with every request of the session; a request header of the same name (compared
  /// case-insensitively) replaces the default one.
  HttpHeaders additionalHeaders;
  /// Idle limit: a task fails with CURLE_OPERATION_TIMEDOUT when no byte of the request or
  /// the answer moves for this long. Connecting plus the TLS handshake must finish within
  /// it too. Checked to within a few milliseconds.
  std::chrono::milliseconds timeoutIntervalForRequest = std::chrono::seconds(60);
  /// Upper bound for a whole task however busy: beyond it the task fails with
  /// CURLE_OPERATION_TIMEDOUT.
  std::chrono::milliseconds timeoutIntervalForResource = std::chrono::minutes(5);
  /// The most an answer may bring, headers plus body as received. Beyond it the task fails
  /// with CURLE_FILESIZE_EXCEEDED and what came is dropped.
  std::size_t maximumResponseBytes = std::size_t{64} << 20;
  /// The most a body may hold once decoded (gzip, deflate, brotli, zstd), so that a small
  /// compressed answer cannot expand without bound. Beyond it: as above.
  std::size_t maximumDecodedBytes = std::size_t{64} << 20;
};

/// A delegate's answer to a server-trust challenge.
enum class TrustDisposition {
  UseCredential,                  ///< Accept the server.
  PerformDefaultHandling,         ///< Accept, as default verification already succeeded.
  CancelAuthenticationChallenge,  ///< Reject: the handshake fails and no request byte is sent.
};

/// A server that passed default verification, offered to the delegate for a further check
/// (certificate pinning) before any request byte is sent.
struct QVL_EXPORT ServerTrustChallenge {
  std::string host;  ///< As in the URL, without IPv6 brackets.
  int port = 0;      ///< The port connected to (the scheme's default when the URL has none).
  /// The chain that passed default verification (trust anchors and host name), leaf first,
  /// each certificate in DER.
  std::vector<std::string> certificateChainDer;
};

/// Answers server-trust challenges of a session.
class QVL_EXPORT HttpSessionDelegate {
 public:
  virtual ~HttpSessionDelegate() = default;

  /// Called synchronously during each TLS handshake of the session's tasks, on the
  /// library's network thread, only after the server's chain passed default verification.
  /// It holds up every transfer of the process while it runs, so it must be quick and must
  /// not wait for completions. An exception counts as CancelAuthenticationChallenge.
  virtual TrustDisposition didReceiveServerTrustChallenge(
      const ServerTrustChallenge& challenge) = 0;

  /// Called by HttpSession::dataTask() on its calling thread before the request reaches the
  /// transport. An error fails the task with it (the completion still runs on the callback
  /// queue) and nothing is sent, not even a connection opened; nullopt lets the request go.
  /// An exception counts as a refusal. Standard: lets every request go.
  virtual std::optional<QVLError> willSendRequest(const HttpRequest& request);
};

/// Exactly one of two shapes: (body, response, nullopt) when the server answered with any
/// status, or ("", nullopt, error) when no answer came. A transport error has domain
/// kQVLTransportErrorDomain, code = libcurl's CURLcode and user information
/// {"message": text}. Trust failures (untrusted chain, wrong host name, a delegate's
/// rejection) are transport errors too.
using DataTaskCompletion = std::function<void(
    std::string body, std::optional<HttpResponse> response, std::optional<QVLError> error)>;

class HttpSession;

/// Carries requests to servers: libcurl in a real process (makeCurlTransport()), a recording
/// double in tests. Reached through the environment (Env::transport).
class QVL_EXPORT HttpTransport {
 public:
  virtual ~HttpTransport() = default;
  /// Sends one request of `session` (its headers already merged with the session's
  /// defaults) and returns without waiting. Calls `done` exactly once, from any thread,
  /// possibly before returning; the session moves the outcome to its callback queue.
  virtual void send(const std::shared_ptr<HttpSession>& session, HttpRequest request,
                    DataTaskCompletion done) = 0;
};

/// The libcurl transport. One process-wide network thread, started on first use, drives
/// every transfer, so many tasks may be in flight at once.
///
/// Connections are never reused between tasks (each task makes its own connection and full
/// TLS handshake, no TLS session resumption), so a trust decision made for one session can
/// never carry over to another. Redirects are not followed and cookies are not kept. Proxy
/// environment variables are honoured as libcurl does (see Env for what they and the other
/// variables can change). A libcurl option that cannot be set fails the task with libcurl's
/// code before anything is sent. TLS session keys are written only to Env::tlsKeyLogFile.
/// Besides the given headers libcurl
/// sends Host, "Accept: */*" (unless given) and Accept-Encoding; compressed answers reach
/// the completion decoded. HTTPS connections trust Env::trustAnchorsFile when set, the
/// system's CA bundle otherwise. Tasks still running when the process exits are abandoned
/// without a completion.
QVL_EXPORT std::shared_ptr<HttpTransport> makeCurlTransport();

/// An HTTP(S) session: default headers, a server-trust delegate and one serial callback
/// queue, over the environment's transport.
class QVL_EXPORT HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  /// A new session. `delegate` may be null (default trust only); the session keeps it alive.
  /// Thread-safe.
  static std::shared_ptr<HttpSession> create(HttpSessionConfiguration configuration = {},
                                             std::shared_ptr<HttpSessionDelegate> delegate = {});

  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  /// The configuration the session was created with.
  const HttpSessionConfiguration& configuration() const;

  /// The serial queue on which this session's completions run, one after another.
  const std::shared_ptr<SerialQueue>& callbackQueue() const;

  /// The server-trust delegate (may be null).
  const std::shared_ptr<HttpSessionDelegate>& delegate() const;

  /// Hands the request to the environment's transport at once and returns without
  /// waiting. The completion runs exactly once, later, on callbackQueue() (never inline on
  /// the calling thread). The session stays alive until its completions have run, even
  /// when the caller drops it. Thread-safe, also from completions and delegate calls.
  void dataTask(HttpRequest request, DataTaskCompletion completion);

 private:
  HttpSession(HttpSessionConfiguration configuration,
              std::shared_ptr<HttpSessionDelegate> delegate);

  struct Impl;
  const std::unique_ptr<const Impl> impl_;
};

}  // namespace qvl
