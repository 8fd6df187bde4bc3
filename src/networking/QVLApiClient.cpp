#include "quorvel/networking/QVLApiClient.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cctype>

#include "networking/HostNames.h"
#include "networking/StandardNetworking.h"
#include "platform/ContextCore.h"
#include "platform/CountersImpl.h"
#include "platform/JsonImpl.h"
#include "quorvel/networking/PinValidator.h"
#include "quorvel/platform/BundleInfo.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"
#include "quorvel/platform/Url.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/records/QVLToken.h"
#include "records/QVLMappingPlan.h"

namespace {

// Default pins for the service's keys (two in use, two backups). A deployment whose
// certificates differ sets its own (Env::publicKeyHashes).
const std::vector<std::string>& builtInPins() {
  static const std::vector<std::string> pins = {
      "u5QgXsm3mR2BdgFXk9Ax4e9hDAYWpNmf1pSgTyRzrSE=",
      "3kcNJzkUJ1RqMXJzFX4Zxux5WfETK+uL6Viq9lJNn4o=",
      "H0IkzshPyZztiB/2/P8UFFgrHDeeMObK6JQRt8UJrcI=",
      "r/mIkG3eEpVdm+u/ko/cwxzOMo1bk4TyHIlByibiA5E=",
  };
  return pins;
}

void appendHex(std::string& out, unsigned char c) {
  static const char* digits = "0123456789ABCDEF";
  out += '%';
  out += digits[c >> 4];
  out += digits[c & 15];
}

// One path segment: RFC 3986 pchar stays, everything else is percent-encoded.
std::string encodePathSegment(const std::string& segment) {
  std::string out;
  for (unsigned char c : segment) {
    bool keep =
        std::isalnum(c) ||
        std::string_view("-._~!$&'()*+,;=:@").find(static_cast<char>(c)) != std::string_view::npos;
    if (keep && c < 0x80)
      out += static_cast<char>(c);
    else
      appendHex(out, c);
  }
  return out;
}

// Query text travels literally; only what a URL cannot carry is percent-encoded.
std::string encodeQueryText(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    bool unsafe =
        c <= 0x20 || c >= 0x7f ||
        std::string_view("%#\"<>\\^`{|}").find(static_cast<char>(c)) != std::string_view::npos;
    if (unsafe)
      appendHex(out, c);
    else
      out += static_cast<char>(c);
  }
  return out;
}

std::string hostOf(const std::string& domain) {
  // "localhost:8443" → "localhost"; an IPv6 literal is not a service domain.
  return domain.substr(0, domain.find(':'));
}

// The pinned domain of the environment: the API domain's host.
std::string apiHost(const qvl::Env& env) {
  return qvl::detail::normalizedHost(
      hostOf(env.apiDomain.empty() ? QVLApiClient::kDefaultApiDomain : env.apiDomain));
}

bool isInApiDomain(const std::string& host, const qvl::Env& env) {
  return qvl::detail::hostIsInDomain(qvl::detail::normalizedHost(host), apiHost(env), true);
}

// How the API domain's certificates are checked.
enum class ApiTrust {
  Pinned,    // against its pins (a custom domain without pins is refused instead)
  Unpinned,  // certificate authorities only: the host opted out for a custom domain
};

bool hasNoPins(const qvl::Env& env) {
  return env.publicKeyHashes.empty() && apiHost(env) != QVLApiClient::kDefaultApiDomain;
}

ApiTrust apiTrust(const qvl::Env& env) {
  return hasNoPins(env) && env.allowUnpinnedApiDomain ? ApiTrust::Unpinned : ApiTrust::Pinned;
}

}  // namespace

struct QVLApiClient::Impl {
  std::atomic<QVLApiEnvironment> environment{QVLApiEnvironmentUnset};
};

QVLApiClient::QVLApiClient() : impl_(std::make_unique<Impl>()) {}
QVLApiClient::~QVLApiClient() = default;

QVLApiClient& QVLApiClient::sharedClient() {
  static const char key = 0;
  return qvl::detail::currentContext()->service<QVLApiClient>(
      &key, [] { return std::shared_ptr<QVLApiClient>(new QVLApiClient()); });
}

QVLApiEnvironment QVLApiClient::environment() const {
  return impl_->environment.load(std::memory_order_relaxed);
}

void QVLApiClient::setEnvironment(QVLApiEnvironment environment) {
  if (impl_->environment.exchange(environment, std::memory_order_relaxed) == environment) return;
  setupPinning();
}

std::string QVLApiClient::apiDomain() {
  std::string domain = qvl::Env::current()->apiDomain;
  return domain.empty() ? kDefaultApiDomain : domain;
}

std::vector<std::string> QVLApiClient::publicKeyHashes() {
  const std::shared_ptr<const qvl::Env> env = qvl::Env::current();
  if (env->publicKeyHashes.empty() && !hasNoPins(*env)) return builtInPins();
  return env->publicKeyHashes;
}

std::string QVLApiClient::baseURL() const {
  const char* subdomain = nullptr;
  switch (static_cast<std::uint32_t>(environment())) {
    case QVLApiEnvironmentUnset:
      qvl::log(qvl::LogLevel::warning,
               "No valid ApiEnvironment key provided - using dev environment");
      subdomain = "dev";
      break;
    case QVLApiEnvironmentDev:
      subdomain = "dev";
      break;
    case QVLApiEnvironmentApi:
      subdomain = "api";
      break;
    case QVLApiEnvironmentPlay:
      subdomain = "play";
      break;
    default:
      subdomain = "(null)";
      break;
  }
  return std::string("https://") + subdomain + "." + apiDomain();
}

std::string QVLApiClient::baseURLV8() const { return baseURL() + "/v8"; }

std::optional<std::string> QVLApiClient::apiKey() const {
  const nlohmann::json info = qvl::detail::nlohmannOf(qvl::BundleInfo::infoDictionary());
  auto settings = info.find("QuorvelSDK");
  if (settings != info.end() && settings->is_object()) {
    auto key = settings->find("ApiKey");
    if (key != settings->end() && key->is_string()) return key->get<std::string>();
  }
  qvl::log(qvl::LogLevel::warning, "No valid ApiKey provided. Add your key in your Info.plist");
  return std::nullopt;
}

std::string QVLApiClient::appVersion() const {
  const nlohmann::json info = qvl::detail::nlohmannOf(qvl::BundleInfo::infoDictionary());
  auto version = info.find("CFBundleShortVersionString");
  if (version != info.end() && version->is_string()) return version->get<std::string>();
  return "N/A";
}

qvl::HttpHeaders QVLApiClient::headers() const {
  qvl::HttpHeaders headers = {
      {"Content-Type", "application/json"},
      {"Accept", "application/json"},
      {"X-App-Version-Code", appVersion()},
  };
  if (auto key = apiKey()) headers.emplace_back("X-Api-Key", *key);
  if (auto token = QVLToken::currentToken()) {
    headers.emplace_back("Authorization", "Bearer " + token->content().value_or("(null)"));
  }
  return headers;
}

std::shared_ptr<qvl::HttpSession> QVLApiClient::urlSession() {
  const std::shared_ptr<const qvl::Env> env = qvl::Env::current();
  ensurePinning();
  if (apiTrust(*env) == ApiTrust::Unpinned) {
    qvl::log(qvl::LogLevel::warning,
             "the API domain " + apiHost(*env) +
                 " has no pins; its certificates are checked against the certificate authorities "
                 "only (Env::allowUnpinnedApiDomain is set)");
  }
  qvl::HttpSessionConfiguration configuration = qvl::detail::sessionConfigurationOf(*env);
  configuration.additionalHeaders = headers();
  return qvl::HttpSession::create(std::move(configuration), shared_from_this());
}

qvl::HttpRequest QVLApiClient::apiGetRequest(const std::string& resource,
                                             std::optional<std::int64_t> id,
                                             const std::optional<std::string>& relationship,
                                             const std::optional<std::string>& includes,
                                             const std::optional<LimitFields>& limitFields) const {
  std::string url = baseURLV8() + "/" + encodePathSegment(resource);
  if (id) url += "/" + std::to_string(*id);
  if (relationship) url += "/relationships/" + encodePathSegment(*relationship);
  std::string query;
  auto add = [&query](const std::string& name, const std::string& value) {
    query += query.empty() ? "?" : "&";
    query += encodeQueryText(name) + "=" + encodeQueryText(value);
  };
  if (includes) add("include", *includes);
  if (limitFields) {
    for (const auto& [type, fields] : *limitFields) add("fields[" + type + "]", fields);
  }
  qvl::HttpRequest request;
  request.method = "GET";
  request.url = url + query;
  return request;
}

qvl::HttpRequest QVLApiClient::apiPostRequest(const std::string& resource,
                                              const qvl::Json& object) const {
  qvl::HttpRequest request;
  request.method = "POST";
  request.url = baseURLV8() + "/" + encodePathSegment(resource);
  try {
    request.body = qvl::detail::nlohmannOf(object).dump();
  } catch (const nlohmann::json::exception&) {
    request.body.clear();  // text that is not UTF-8 cannot be serialised: the body stays empty
  }
  return request;
}

bool QVLApiClient::successfulResponse(const qvl::HttpResponse& response) {
  return response.statusCode >= 200 && response.statusCode < 300;
}

QVLError QVLApiClient::errorWithResponse(const qvl::HttpResponse& response,
                                         const std::string& data) {
  QVLError error{kQVLApiClientErrorDomain, response.statusCode, std::nullopt};
  // A body nested too deep gives no user information.
  if (auto body = qvl::detail::readServiceJSON(data);
      body && (body->is_object() || body->is_array()))
    error.userInfo = qvl::detail::fromNlohmann(std::move(*body));
  return error;
}

std::shared_ptr<qvl::Store> QVLApiClient::realm() const { return QVLRealm::realm(); }

void QVLApiClient::setupPinning() {
  qvl::PinningConfiguration configuration;
  if (apiTrust(*qvl::Env::current()) == ApiTrust::Pinned) {
    qvl::PinnedDomainConfiguration domain;
    domain.domain = hostOf(apiDomain());
    domain.includeSubdomains = true;
    domain.reportUris = {baseURL() + "/ssl-reporting"};
    domain.publicKeyHashes = publicKeyHashes();  // none for a custom domain: all refused
    configuration.pinnedDomains.push_back(std::move(domain));
  }
  qvl::PinValidator::shared().configure(std::move(configuration));
}

void QVLApiClient::ensurePinning() {
  const std::shared_ptr<const qvl::Env> env = qvl::Env::current();
  const std::optional<qvl::PinningConfiguration> current =
      qvl::PinValidator::shared().configuration();
  if (current && apiTrust(*env) == ApiTrust::Unpinned) return;
  if (current) {
    const std::string host = apiHost(*env);
    const std::vector<std::string> pins = publicKeyHashes();
    for (const auto& domain : current->pinnedDomains) {
      if (qvl::detail::normalizedHost(domain.domain) == host && domain.publicKeyHashes == pins)
        return;
    }
  }
  setupPinning();
}

std::optional<QVLError> QVLApiClient::willSendRequest(const qvl::HttpRequest& request) {
  const std::shared_ptr<const qvl::Env> env = qvl::Env::current();
  const std::optional<qvl::Url> url = qvl::Url::parse(request.url);
  if (!hasNoPins(*env) || env->allowUnpinnedApiDomain || (url && !isInApiDomain(url->host(), *env)))
    return std::nullopt;
  qvl::count(qvl::Counter::pinningRefusals);
  return QVLError{kQVLTransportErrorDomain, CURLE_PEER_FAILED_VERIFICATION,
                  qvl::Json::object({{"message", "the API domain " + apiHost(*env) +
                                                     " has no pins (Env::publicKeyHashes); "
                                                     "requests to it are refused"}})};
}

qvl::TrustDisposition QVLApiClient::didReceiveServerTrustChallenge(
    const qvl::ServerTrustChallenge& challenge) {
  qvl::TrustDisposition disposition = qvl::TrustDisposition::PerformDefaultHandling;
  if (qvl::PinValidator::shared().handleChallenge(challenge, &disposition)) return disposition;
  // An API host the validator does not cover (its configuration changed since the session
  // was made) gets no default handling unless the host opted out of pinning.
  const std::shared_ptr<const qvl::Env> env = qvl::Env::current();
  if (isInApiDomain(challenge.host, *env) && apiTrust(*env) == ApiTrust::Pinned) {
    qvl::count(qvl::Counter::pinningRefusals);
    qvl::log(qvl::LogLevel::error, challenge.host + " is not pinned; connection refused");
    return qvl::TrustDisposition::CancelAuthenticationChallenge;
  }
  return qvl::TrustDisposition::PerformDefaultHandling;
}
