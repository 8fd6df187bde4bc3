#include "quorvel/networking/HttpSession.h"

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "networking/StandardNetworking.h"
#include "platform/ContextCore.h"
#include "platform/Immortal.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"

namespace qvl {
namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool hasHeader(const HttpHeaders& headers, std::string_view name) {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& header) { return equalsIgnoringCase(header.first, name); });
}

bool isHeaderSafe(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return c > 0x20 && c < 0x7f && std::strchr("\"(),/:;<=>?@[\\]{}", c) == nullptr;
  });
}

std::string trim(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos) return {};
  const size_t end = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(begin, end - begin + 1));
}

using SteadyClock = std::chrono::steady_clock;

QVLError transportError(CURLcode code, std::string message) {
  return QVLError{kQVLTransportErrorDomain, static_cast<long long>(code),
                  Json::object({{"message", std::move(message)}})};
}

}  // namespace

namespace {

// One request in flight. Owned by the caller until handed to the network loop, then by the
// loop; every libcurl call on it after that happens on the network thread.
class HttpTransfer {
 public:
  HttpTransfer(std::shared_ptr<HttpSession> session, DataTaskCompletion completion)
      : session_(std::move(session)), completion_(std::move(completion)) {
    errorBuffer_[0] = '\0';
  }

  ~HttpTransfer() {
    if (easy_) curl_easy_cleanup(easy_);
    curl_slist_free_all(headerList_);
  }

  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;

  CURL* easy() const { return easy_; }

  // Sets the handle up; on failure returns the error the completion should receive.
  std::optional<QVLError> configure(HttpRequest request) {
    request_ = std::move(request);
    easy_ = curl_easy_init();
    if (!easy_) return transportError(CURLE_FAILED_INIT, "cannot create a transfer");
    if (!isToken(request_.method)) {
      return transportError(CURLE_BAD_FUNCTION_ARGUMENT,
                            "invalid HTTP method \"" + request_.method + "\"");
    }
    if (auto error = buildHeaderList()) return error;
    parseHostAndPort();

    const HttpSessionConfiguration& config = session_->configuration();
    idleLimit_ = std::max(std::chrono::milliseconds(1), config.timeoutIntervalForRequest);
    const long long idleMs = idleLimit_.count();
    const long long resourceMs =
        std::clamp<long long>(config.timeoutIntervalForResource.count(), 1, 0x7fffffff);
    maximumResponseBytes_ = config.maximumResponseBytes;
    maximumDecodedBytes_ = config.maximumDecodedBytes;

    // A refused option fails the task before anything is sent: silently running without
    // it could leave the trust checks, the key-log choice or a limit unset.
    CURLcode code = CURLE_OK;
    CURLoption failed{};
    auto set = [&](CURLoption option, auto value) {
      if (code == CURLE_OK && (code = curl_easy_setopt(easy_, option, value)) != CURLE_OK) {
        failed = option;
      }
    };
    set(CURLOPT_URL, request_.url.c_str());
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_FOLLOWLOCATION, 0L);
    set(CURLOPT_ACCEPT_ENCODING, "");
    set(CURLOPT_ERRORBUFFER, errorBuffer_);
    set(CURLOPT_WRITEFUNCTION, &HttpTransfer::onBody);
    set(CURLOPT_WRITEDATA, this);
    set(CURLOPT_HEADERFUNCTION, &HttpTransfer::onHeader);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_HTTPHEADER, headerList_);
    // The network loop measures idleness (failIdleTransfers); libcurl enforces the overall
    // limit, and rejects an answer whose declared length is over the cap before it arrives.
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(std::min({idleMs, resourceMs, 0x7fffffffLL})));
    set(CURLOPT_TIMEOUT_MS, static_cast<long>(resourceMs));
    set(CURLOPT_MAXFILESIZE_LARGE,
        static_cast<curl_off_t>(std::min<std::size_t>(maximumResponseBytes_, INT64_MAX)));
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_XFERINFOFUNCTION, &HttpTransfer::onProgress);
    set(CURLOPT_XFERINFODATA, this);
    // Each task gets a fresh connection and a full handshake, so a connection or TLS session
    // accepted under one session's trust decision is never used by another session.
    set(CURLOPT_FORBID_REUSE, 1L);
    set(CURLOPT_FRESH_CONNECT, 1L);
    set(CURLOPT_SSL_SESSIONID_CACHE, 0L);
    set(CURLOPT_SSL_CTX_FUNCTION, &HttpTransfer::onSslContext);
    set(CURLOPT_SSL_CTX_DATA, this);
    const std::shared_ptr<const Env> env = Env::current();
    keyLogPath_ = env->tlsKeyLogFile;
    if (std::string anchors = env->trustAnchorsFile; !anchors.empty()) {
      trustAnchorsPath_ = std::move(anchors);
      set(CURLOPT_CAINFO, trustAnchorsPath_.c_str());
      set(CURLOPT_CAPATH, static_cast<char*>(nullptr));
    }

    const std::string& method = request_.method;
    if (method == "HEAD") {
      set(CURLOPT_NOBODY, 1L);
    } else if (!request_.body.empty() || method == "POST" || method == "PUT" || method == "PATCH") {
      set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request_.body.size()));
      set(CURLOPT_POSTFIELDS, request_.body.data());
      if (method != "POST") set(CURLOPT_CUSTOMREQUEST, method.c_str());
    } else if (method != "GET") {
      set(CURLOPT_CUSTOMREQUEST, method.c_str());
    }
    if (code != CURLE_OK) {
      return transportError(code, "cannot set up the transfer (option " +
                                      std::to_string(static_cast<int>(failed)) +
                                      "): " + curl_easy_strerror(code));
    }
    return std::nullopt;
  }

  // Hands the outcome of a finished transfer to the session's callback queue.
  void complete(CURLcode result) {
    if (failure_) {  // a limit of ours stopped the transfer; libcurl's code says less
      deliver({}, std::nullopt, std::move(failure_));
      return;
    }
    if (result != CURLE_OK) {
      std::string message = trim(errorBuffer_);
      if (message.empty()) message = curl_easy_strerror(result);
      deliver({}, std::nullopt, transportError(result, std::move(message)));
      return;
    }
    HttpResponse response;
    char* effectiveUrl = nullptr;
    if (const CURLcode code =
            curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &response.statusCode);
        code != CURLE_OK) {
      deliver({}, std::nullopt, transportError(code, "cannot read the answer's status"));
      return;
    }
    if (const CURLcode code = curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &effectiveUrl);
        code != CURLE_OK) {
      deliver({}, std::nullopt, transportError(code, "cannot read the answer's URL"));
      return;
    }
    response.url = effectiveUrl ? effectiveUrl : request_.url;
    response.headers = std::move(responseHeaders_);
    deliver(std::move(body_), std::move(response), std::nullopt);
  }

  // Starts the idle clock; called when the network loop takes the transfer up.
  void started(SteadyClock::time_point now) { lastActivity_ = now; }
  // How long until the idle limit is reached (zero or less: reached).
  SteadyClock::duration idleTimeLeft(SteadyClock::time_point now) const {
    return lastActivity_ + idleLimit_ - now;
  }
  void failIdle() {
    failure_ = transportError(CURLE_OPERATION_TIMEDOUT,
                              "no byte moved for " + std::to_string(idleLimit_.count()) + " ms");
  }

  void deliver(std::string body, std::optional<HttpResponse> response,
               std::optional<QVLError> error) {
    DataTaskCompletion completion = std::move(completion_);
    detail::ContextBinding binding(context_);  // the completion is queued under it
    if (completion) completion(std::move(body), std::move(response), std::move(error));
  }

 private:
  std::optional<QVLError> buildHeaderList() {
    HttpHeaders headers = request_.headers;
    // libcurl would otherwise wait for "100 Continue" before sending larger bodies.
    if (!hasHeader(headers, "Expect")) headers.emplace_back("Expect", "");

    for (const auto& [name, value] : headers) {
      if (!isToken(name) || !isHeaderSafe(value)) {
        return transportError(CURLE_BAD_FUNCTION_ARGUMENT, "invalid HTTP header \"" + name + "\"");
      }
      // "Name;" is libcurl's way to send a header with an empty value; "Expect:" removes it.
      std::string line = name;
      if (!value.empty()) {
        line += ": " + value;
      } else {
        line += equalsIgnoringCase(name, "Expect") ? ":" : ";";
      }
      curl_slist* next = curl_slist_append(headerList_, line.c_str());
      if (!next) return transportError(CURLE_OUT_OF_MEMORY, "cannot build the request headers");
      headerList_ = next;
    }
    return std::nullopt;
  }

  void parseHostAndPort() {
    CURLU* url = curl_url();
    if (!url) return;
    if (curl_url_set(url, CURLUPART_URL, request_.url.c_str(), 0) == CURLUE_OK) {
      char* host = nullptr;
      if (curl_url_get(url, CURLUPART_HOST, &host, 0) == CURLUE_OK && host) {
        host_ = host;
        if (host_.size() > 2 && host_.front() == '[' && host_.back() == ']') {
          host_ = host_.substr(1, host_.size() - 2);
        }
      }
      curl_free(host);
      char* port = nullptr;
      if (curl_url_get(url, CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK && port) {
        port_ = std::atoi(port);
      }
      curl_free(port);
    }
    curl_url_cleanup(url);
  }

  void failOverLimit(const char* what, std::size_t limit) {
    failure_ = transportError(CURLE_FILESIZE_EXCEEDED,
                              std::string(what) + " exceeds " + std::to_string(limit) + " bytes");
  }

  // Called by libcurl at least once a second and whenever bytes move. Request and answer
  // bytes count as activity; TLS handshake bytes do not (the connect limit covers them).
  static int onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t,
                        curl_off_t uploaded) {
    auto* self = static_cast<HttpTransfer*>(user);
    if (downloaded != self->downloaded_ || uploaded != self->uploaded_) {
      self->downloaded_ = downloaded;
      self->uploaded_ = uploaded;
      self->lastActivity_ = SteadyClock::now();
    }
    if (static_cast<std::size_t>(downloaded) + self->headerBytes_ > self->maximumResponseBytes_) {
      self->failOverLimit("the answer", self->maximumResponseBytes_);
      return 1;
    }
    return 0;
  }

  static size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* self = static_cast<HttpTransfer*>(user);
    self->lastActivity_ = SteadyClock::now();
    if (size * count > self->maximumDecodedBytes_ - self->body_.size()) {
      self->failOverLimit("the decoded answer", self->maximumDecodedBytes_);
      return 0;  // stops the transfer
    }
    self->body_.append(data, size * count);
    return size * count;
  }

  static size_t onHeader(char* data, size_t size, size_t count, void* user) {
    auto* self = static_cast<HttpTransfer*>(user);
    self->lastActivity_ = SteadyClock::now();
    self->headerBytes_ += size * count;
    if (self->headerBytes_ > self->maximumResponseBytes_) {
      self->failOverLimit("the answer", self->maximumResponseBytes_);
      return 0;
    }
    const std::string_view line(data, size * count);
    if (line.rfind("HTTP/", 0) == 0) {
      self->responseHeaders_.clear();  // a new (possibly final after 1xx) response begins
    } else if (const size_t colon = line.find(':'); colon != std::string_view::npos) {
      self->responseHeaders_.emplace_back(trim(line.substr(0, colon)),
                                          trim(line.substr(colon + 1)));
    }
    return size * count;
  }

  static CURLcode onSslContext(CURL*, void* sslContext, void* user) {
    auto* context = static_cast<SSL_CTX*>(sslContext);
    auto* self = static_cast<HttpTransfer*>(user);
    SSL_CTX_set_cert_verify_callback(context, &HttpTransfer::onVerify, user);
    // libcurl installs a key logger of its own when SSLKEYLOGFILE was set as it started;
    // this replaces it, so keys go to the file the host named in the environment or nowhere.
    if (self->keyLogPath_.empty()) {
      SSL_CTX_set_keylog_callback(context, nullptr);
    } else {
      if (SSL_CTX_set_ex_data(context, keyLogIndex(), self) != 1) return CURLE_SSL_CONNECT_ERROR;
      SSL_CTX_set_keylog_callback(context, &HttpTransfer::onKeyLog);
    }
    return CURLE_OK;
  }

  static int keyLogIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
  }

  // One NSS key-log line per call, appended to a file only the user may read; a symbolic
  // link is refused, so the file cannot be made to point at another.
  static void onKeyLog(const SSL* ssl, const char* line) {
    const auto* self =
        static_cast<const HttpTransfer*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), keyLogIndex()));
    if (!self) return;
    const int fd = ::open(self->keyLogPath_.c_str(),
                          O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    struct stat info {};
    if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || ::fchmod(fd, 0600) != 0) {
      log(LogLevel::warning, "cannot write TLS keys to " + self->keyLogPath_);
    } else {
      const std::string text = std::string(line) + "\n";
      if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        log(LogLevel::warning, "cannot write TLS keys to " + self->keyLogPath_);
      }
    }
    if (fd >= 0) ::close(fd);
  }

  // Replaces OpenSSL's chain verification for this connection: default verification first
  // (including the host name, so the delegate only sees chains valid for this host), then
  // the session's delegate.
  static int onVerify(X509_STORE_CTX* store, void* user) {
    auto* self = static_cast<HttpTransfer*>(user);
    X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(store);
    if (X509_VERIFY_PARAM_set1_ip_asc(param, self->host_.c_str()) != 1) {
      X509_VERIFY_PARAM_set1_host(param, self->host_.c_str(), self->host_.size());
    }
    if (X509_verify_cert(store) != 1) return 0;

    const std::shared_ptr<HttpSessionDelegate>& delegate = self->session_->delegate();
    if (!delegate) return 1;
    detail::ContextBinding binding(self->context_);  // the delegate decides in its context

    ServerTrustChallenge challenge;
    challenge.host = self->host_;
    challenge.port = self->port_;
    STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(store);
    for (int i = 0; chain && i < sk_X509_num(chain); ++i) {
      X509* certificate = sk_X509_value(chain, i);
      const int length = i2d_X509(certificate, nullptr);
      if (length <= 0) continue;
      std::string der(static_cast<size_t>(length), '\0');
      auto* out = reinterpret_cast<unsigned char*>(der.data());
      i2d_X509(certificate, &out);
      challenge.certificateChainDer.push_back(std::move(der));
    }

    TrustDisposition disposition;
    try {
      disposition = delegate->didReceiveServerTrustChallenge(challenge);
    } catch (...) {
      log(LogLevel::error, "a server-trust delegate threw; the connection is refused");
      disposition = TrustDisposition::CancelAuthenticationChallenge;
    }
    if (disposition == TrustDisposition::CancelAuthenticationChallenge) {
      X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
      return 0;
    }
    return 1;
  }

  std::shared_ptr<HttpSession> session_;
  DataTaskCompletion completion_;
  // The context the request was made in: its callbacks run in it on the network thread.
  std::shared_ptr<detail::ContextCore> context_ = detail::boundContext();
  HttpRequest request_;
  std::string trustAnchorsPath_;
  std::string keyLogPath_;
  std::string host_;
  int port_ = 0;
  CURL* easy_ = nullptr;
  curl_slist* headerList_ = nullptr;
  std::string body_;
  HttpHeaders responseHeaders_;
  char errorBuffer_[CURL_ERROR_SIZE];
  // Limits, and what the transfer used of them; touched on the network thread only.
  std::chrono::milliseconds idleLimit_{1};
  std::size_t maximumResponseBytes_ = 0;
  std::size_t maximumDecodedBytes_ = 0;
  SteadyClock::time_point lastActivity_;
  curl_off_t downloaded_ = 0;
  curl_off_t uploaded_ = 0;
  std::size_t headerBytes_ = 0;
  std::optional<QVLError> failure_;
};

// The process-wide libcurl multi loop: one thread adds new transfers, drives all of them
// and hands finished ones back to their sessions.
class NetworkLoop {
 public:
  NetworkLoop() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_ = curl_multi_init();
    thread_ = std::thread([this] { run(); });
  }

  static NetworkLoop& instance() {
    // Never destroyed, so that late callers find it; the guard stops the thread at exit.
    NetworkLoop& loop = detail::immortal<NetworkLoop>();
    static ShutdownGuard guard{&loop};
    return loop;
  }

  // False when the process is shutting down; the transfer is then dropped.
  bool add(std::unique_ptr<HttpTransfer> transfer) {
    std::lock_guard lock(mutex_);
    if (stopping_) return false;
    pending_.push_back(std::move(transfer));
    curl_multi_wakeup(multi_);
    return true;
  }

 private:
  struct ShutdownGuard {
    NetworkLoop* loop;
    ~ShutdownGuard() { loop->shutdown(); }
  };

  void run() {
    detail::refuseTeardownOnThisThread();
    for (;;) {
      std::vector<std::unique_ptr<HttpTransfer>> incoming;
      {
        std::lock_guard lock(mutex_);
        if (stopping_) break;
        incoming.swap(pending_);
      }
      for (auto& transfer : incoming) {
        CURL* easy = transfer->easy();
        if (const CURLMcode code = curl_multi_add_handle(multi_, easy); code != CURLM_OK) {
          log(LogLevel::error,
              std::string("cannot start a transfer: ") + curl_multi_strerror(code));
          transfer->complete(CURLE_FAILED_INIT);
          continue;
        }
        transfer->started(SteadyClock::now());
        active_.emplace(easy, std::move(transfer));
      }

      int running = 0;
      curl_multi_perform(multi_, &running);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* easy = message->easy_handle;
        const CURLcode result = message->data.result;
        auto it = active_.find(easy);
        if (it == active_.end()) continue;
        std::unique_ptr<HttpTransfer> transfer = std::move(it->second);
        active_.erase(it);
        curl_multi_remove_handle(multi_, easy);
        transfer->complete(result);
      }
      curl_multi_poll(multi_, nullptr, 0, failIdleTransfers(), nullptr);
    }

    // Shutting down: abandon what is left.
    for (auto& [easy, transfer] : active_) curl_multi_remove_handle(multi_, easy);
    active_.clear();
    std::vector<std::unique_ptr<HttpTransfer>> pending;
    {
      std::lock_guard lock(mutex_);
      pending.swap(pending_);
      curl_multi_cleanup(multi_);
      multi_ = nullptr;
      exited_ = true;
    }
    exitedSignal_.notify_all();
  }

  // Ends the transfers in which no byte moved for their idle limit; returns how long the
  // loop may wait (milliseconds) before the next one could reach its limit.
  int failIdleTransfers() {
    const SteadyClock::time_point now = SteadyClock::now();
    auto wait = std::chrono::milliseconds(1000);
    for (auto it = active_.begin(); it != active_.end();) {
      const auto left = it->second->idleTimeLeft(now);
      if (left > SteadyClock::duration::zero()) {
        wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(left));
        ++it;
        continue;
      }
      std::unique_ptr<HttpTransfer> transfer = std::move(it->second);
      curl_multi_remove_handle(multi_, it->first);
      it = active_.erase(it);
      transfer->failIdle();
      transfer->complete(CURLE_OPERATION_TIMEDOUT);
    }
    return static_cast<int>(wait.count());
  }

  // The wait is bounded so that a stuck delegate cannot hold the process at exit.
  void shutdown() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    if (multi_) curl_multi_wakeup(multi_);
    const bool exited =
        exitedSignal_.wait_for(lock, std::chrono::seconds(1), [this] { return exited_; });
    lock.unlock();
    if (exited) {
      thread_.join();
    } else {
      thread_.detach();
    }
  }

  std::mutex mutex_;
  std::condition_variable exitedSignal_;
  std::vector<std::unique_ptr<HttpTransfer>> pending_;
  bool stopping_ = false;
  bool exited_ = false;
  CURLM* multi_ = nullptr;
  std::thread thread_;
  std::unordered_map<CURL*, std::unique_ptr<HttpTransfer>> active_;  // network thread only
};

class CurlTransport final : public HttpTransport {
 public:
  void send(const std::shared_ptr<HttpSession>& session, HttpRequest request,
            DataTaskCompletion done) override {
    NetworkLoop& loop = NetworkLoop::instance();  // initialises libcurl before first use
    auto transfer = std::make_unique<HttpTransfer>(session, std::move(done));
    if (std::optional<QVLError> error = transfer->configure(std::move(request))) {
      transfer->deliver({}, std::nullopt, std::move(*error));
      return;
    }
    loop.add(std::move(transfer));  // dropped, without a completion, only at process exit
  }
};

}  // namespace

std::shared_ptr<HttpTransport> makeCurlTransport() { return std::make_shared<CurlTransport>(); }

std::shared_ptr<HttpTransport> detail::transportOf(const Env& env) {
  if (env.transport) return env.transport;
  // One for the process, never destroyed, like the network loop it hands transfers to.
  struct Standard {
    std::shared_ptr<HttpTransport> transport = makeCurlTransport();
  };
  return detail::immortal<Standard>().transport;
}

HttpSessionConfiguration detail::sessionConfigurationOf(const Env& env) {
  return env.httpSessionConfiguration ? *env.httpSessionConfiguration : HttpSessionConfiguration{};
}

std::optional<std::string> HttpResponse::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (equalsIgnoringCase(key, name)) return value;
  }
  return std::nullopt;
}

struct HttpSession::Impl {
  HttpSessionConfiguration configuration;
  std::shared_ptr<HttpSessionDelegate> delegate;
  std::shared_ptr<SerialQueue> callbackQueue;
};

HttpSession::HttpSession(HttpSessionConfiguration configuration,
                         std::shared_ptr<HttpSessionDelegate> delegate)
    : impl_(new Impl{std::move(configuration), std::move(delegate),
                     std::make_shared<SerialQueue>()}) {}

HttpSession::~HttpSession() = default;

const HttpSessionConfiguration& HttpSession::configuration() const { return impl_->configuration; }
const std::shared_ptr<SerialQueue>& HttpSession::callbackQueue() const {
  return impl_->callbackQueue;
}
const std::shared_ptr<HttpSessionDelegate>& HttpSession::delegate() const {
  return impl_->delegate;
}

std::shared_ptr<HttpSession> HttpSession::create(HttpSessionConfiguration configuration,
                                                 std::shared_ptr<HttpSessionDelegate> delegate) {
  return std::shared_ptr<HttpSession>(
      new HttpSession(std::move(configuration), std::move(delegate)));
}

std::optional<QVLError> HttpSessionDelegate::willSendRequest(const HttpRequest&) {
  return std::nullopt;
}

void HttpSession::dataTask(HttpRequest request, DataTaskCompletion completion) {
  std::shared_ptr<HttpSession> self = shared_from_this();
  std::optional<QVLError> refusal;
  if (impl_->delegate) {
    try {
      refusal = impl_->delegate->willSendRequest(request);
    } catch (...) {
      refusal = transportError(CURLE_ABORTED_BY_CALLBACK, "the session's delegate failed");
    }
  }
  if (refusal) {
    impl_->callbackQueue->async(
        [self, completion = std::move(completion), error = std::move(*refusal)]() mutable {
          if (completion) completion({}, std::nullopt, std::move(error));
        });
    return;
  }
  HttpHeaders headers;
  for (const auto& header : impl_->configuration.additionalHeaders) {
    if (!hasHeader(request.headers, header.first)) headers.push_back(header);
  }
  headers.insert(headers.end(), std::make_move_iterator(request.headers.begin()),
                 std::make_move_iterator(request.headers.end()));
  request.headers = std::move(headers);
  detail::transportOf(*Env::current())
      ->send(self, std::move(request),
             [self, completion = std::move(completion)](std::string body,
                                                        std::optional<HttpResponse> response,
                                                        std::optional<QVLError> error) mutable {
               self->callbackQueue()->async([completion = std::move(completion),
                                             body = std::move(body), response = std::move(response),
                                             error = std::move(error)]() mutable {
                 if (completion) completion(std::move(body), std::move(response), std::move(error));
               });
             });
}

}  // namespace qvl
