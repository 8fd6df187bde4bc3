#pragma once
// HTTPS client sessions: default headers, data tasks with a completion, a serial callback
// queue per session and a server-trust hook for certificate pinning.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quorvel/Platform/Queue.h"
#include "quorvel/QVLError.h"

namespace qvl {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method = "GET";
  /// Sent as given: the client adds no percent-encoding, so a query such as
  /// "fields[posts]=title,message" travels literally. A URL libcurl cannot parse fails the
  /// task with CURLE_URL_MALFORMAT.
  std::string url;
  HttpHeaders headers;
  /// Sent when not empty; POST, PUT and PATCH always send one (Content-Length: 0 when empty).
  /// Without a Content-Type header libcurl labels it application/x-www-form-urlencoded.
  std::string body;
};

struct HttpResponse {
  long statusCode = 0;
  /// The URL that answered (redirects are never followed, so the request's URL).
  std::string url;
  /// In the order received, names as the server wrote them.
  HttpHeaders headers;

  /// The first value of the header `name`, compared case-insensitively.
  std::optional<std::string> header(std::string_view name) const;
};

struct HttpSessionConfiguration {
  /// Defaults of the limits below for configurations made from now on. Thread-safe; hosts
  /// may tune them at start-up, tests shorten them.
  struct Limits {
    std::chrono::milliseconds timeoutIntervalForRequest = std::chrono::seconds(60);
    std::chrono::milliseconds timeoutIntervalForResource = std::chrono::minutes(5);
    std::size_t maximumResponseBytes = std::size_t{64} << 20;
    std::size_t maximumDecodedBytes = std::size_t{64} << 20;
  };
  static Limits defaultLimits();
  static void setDefaultLimits(const Limits& limits);
  /// The request time-out part of defaultLimits().
  static std::chrono::milliseconds defaultTimeoutIntervalForRequest();
  static void setDefaultTimeoutIntervalForRequest(std::chrono::milliseconds timeout);

  /// Sent with every request of the session; a request header of the same name (compared
  /// case-insensitively) replaces the default one.
  HttpHeaders additionalHeaders;
  /// Idle limit (60 s by default): a task fails with CURLE_OPERATION_TIMEDOUT when no byte
  /// of the request or the answer moves for this long. Connecting plus the TLS handshake
  /// must finish within it too. Checked to within a few milliseconds.
  std::chrono::milliseconds timeoutIntervalForRequest = defaultLimits().timeoutIntervalForRequest;
  /// Upper bound for a whole task however busy (5 min by default): beyond it the task fails
  /// with CURLE_OPERATION_TIMEDOUT.
  std::chrono::milliseconds timeoutIntervalForResource = defaultLimits().timeoutIntervalForResource;
  /// The most an answer may bring, headers plus body as received (64 MiB by default).
  /// Beyond it the task fails with CURLE_FILESIZE_EXCEEDED and what came is dropped.
  std::size_t maximumResponseBytes = defaultLimits().maximumResponseBytes;
  /// The most a body may hold once decoded (gzip, deflate, brotli, zstd), 64 MiB by default,
  /// so a small compressed answer cannot expand without bound. Beyond it: as above.
  std::size_t maximumDecodedBytes = defaultLimits().maximumDecodedBytes;
};

enum class TrustDisposition {
  UseCredential,                  // accept the server
  PerformDefaultHandling,         // accept, as default verification already succeeded
  CancelAuthenticationChallenge,  // reject: the handshake fails and no request byte is sent
};

struct ServerTrustChallenge {
  std::string host;  // as in the URL, without IPv6 brackets
  int port = 0;
  /// The chain that passed default verification (trust anchors and host name), leaf first,
  /// each certificate in DER.
  std::vector<std::string> certificateChainDer;
};

/// Answers server-trust challenges of a session.
class HttpSessionDelegate {
 public:
  virtual ~HttpSessionDelegate() = default;

  /// Called synchronously during each TLS handshake of the session's tasks, on the
  /// library's network thread, only after the server's chain passed default verification.
  /// It holds up every transfer of the process while it runs, so it must be quick and must
  /// not wait for completions. An exception counts as CancelAuthenticationChallenge.
  virtual TrustDisposition didReceiveServerTrustChallenge(
      const ServerTrustChallenge& challenge) = 0;
};

/// Exactly one of two shapes: (body, response, nullopt) when the server answered with any
/// status, or ("", nullopt, error) when no answer came. A transport error has domain
/// kQVLTransportErrorDomain, code = libcurl's CURLcode and user information
/// {"message": text}. Trust failures (untrusted chain, wrong host name, a delegate's
/// rejection) are transport errors too.
using DataTaskCompletion = std::function<void(
    std::string body, std::optional<HttpResponse> response, std::optional<QVLError> error)>;

/// An HTTP(S) session over libcurl. One process-wide network thread, started on first use,
/// drives every transfer, so many tasks may be in flight at once.
///
/// Connections are never reused between tasks (each task makes its own connection and full
/// TLS handshake, no TLS session resumption), so a trust decision made for one session can
/// never carry over to another. Redirects are not followed and cookies are not kept. Proxy
/// environment variables are honoured as libcurl does. Besides the configured headers
/// libcurl sends Host, "Accept: */*" (unless given) and Accept-Encoding; compressed answers
/// reach the completion decoded.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  /// A new session. `delegate` may be null (default trust only); the session keeps it alive.
  /// Thread-safe.
  static std::shared_ptr<HttpSession> create(HttpSessionConfiguration configuration = {},
                                             std::shared_ptr<HttpSessionDelegate> delegate = {});

  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  const HttpSessionConfiguration& configuration() const { return configuration_; }

  /// The serial queue on which this session's completions run, one after another.
  const std::shared_ptr<SerialQueue>& callbackQueue() const { return callbackQueue_; }

  /// Starts the request at once and returns without waiting. The completion runs exactly
  /// once, later, on callbackQueue() (never inline on the calling thread). The session
  /// stays alive until its completions have run, even when the caller drops it.
  /// Thread-safe, also from completions and delegate calls. Tasks still running when the
  /// process exits are abandoned without a completion.
  void dataTask(HttpRequest request, DataTaskCompletion completion);

  /// Process-wide PEM file of trust anchors used instead of the system's CA bundle by tasks
  /// started afterwards; an empty path restores the system bundle. Thread-safe.
  static void setTrustAnchorsFile(std::string pemPath);
  static std::string trustAnchorsFile();

 private:
  HttpSession(HttpSessionConfiguration configuration,
              std::shared_ptr<HttpSessionDelegate> delegate);

  friend class HttpTransfer;

  const HttpSessionConfiguration configuration_;
  const std::shared_ptr<HttpSessionDelegate> delegate_;
  const std::shared_ptr<SerialQueue> callbackQueue_;
};

}  // namespace qvl
