#include "quorvel/networking/PinValidator.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <ctime>
#include <map>
#include <mutex>

#include <nlohmann/json.hpp>

#include "networking/HostNames.h"
#include "networking/StandardNetworking.h"
#include "platform/Base64.h"
#include "platform/ContextCore.h"
#include "platform/CountersImpl.h"
#include "platform/JsonImpl.h"
#include "quorvel/platform/BundleInfo.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"

namespace qvl {
namespace {

constexpr auto kReportInterval = std::chrono::hours(24);

// The most specific pinned domain covering `host`, or null.
const PinnedDomainConfiguration* findDomain(const PinningConfiguration& configuration,
                                            const std::string& host) {
  const std::string name = detail::normalizedHost(host);
  const PinnedDomainConfiguration* best = nullptr;
  size_t bestLength = 0;
  for (const auto& domain : configuration.pinnedDomains) {
    const std::string pinned = detail::normalizedHost(domain.domain);
    if (pinned.empty()) continue;
    if (!detail::hostIsInDomain(name, pinned, domain.includeSubdomains)) continue;
    if (name == pinned) return &domain;
    if (pinned.size() > bestLength) {
      best = &domain;
      bestLength = pinned.size();
    }
  }
  return best;
}

std::unique_ptr<X509, decltype(&X509_free)> parseCertificate(const std::string& der) {
  const auto* in = reinterpret_cast<const unsigned char*>(der.data());
  return {d2i_X509(nullptr, &in, static_cast<long>(der.size())), &X509_free};
}

std::string pemText(const std::string& der) {
  auto certificate = parseCertificate(der);
  if (!certificate) return {};
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), &BIO_free);
  if (!bio || PEM_write_bio_X509(bio.get(), certificate.get()) != 1) return {};
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

std::string utcTimestamp(Date date) {
  const std::time_t now = std::chrono::system_clock::to_time_t(
      std::chrono::time_point_cast<std::chrono::system_clock::duration>(date));
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

}  // namespace

struct PinValidator::State {
  std::mutex mutex;
  std::shared_ptr<const PinningConfiguration> configuration;
  std::map<std::string, Date> sentReports;  // by the environment's clock
};

PinValidator::PinValidator() : state_(std::make_unique<State>()) {}
PinValidator::~PinValidator() = default;

PinValidator& detail::pinValidatorOf(const Env& env) {
  if (env.pinValidator) return *env.pinValidator;
  // One per context: each configures pinning for its own service.
  static const char key = 0;
  return currentContext()->service<PinValidator>(&key,
                                                 [] { return std::make_shared<PinValidator>(); });
}

PinValidator& PinValidator::shared() { return detail::pinValidatorOf(*Env::current()); }

void PinValidator::configure(PinningConfiguration configuration) {
  auto next = std::make_shared<const PinningConfiguration>(std::move(configuration));
  std::lock_guard lock(state_->mutex);
  state_->configuration = std::move(next);
}

bool PinValidator::isConfigured() const {
  std::lock_guard lock(state_->mutex);
  return state_->configuration != nullptr;
}

std::optional<PinningConfiguration> PinValidator::configuration() const {
  std::lock_guard lock(state_->mutex);
  if (!state_->configuration) return std::nullopt;
  return *state_->configuration;
}

bool PinValidator::handleChallenge(const ServerTrustChallenge& challenge,
                                   TrustDisposition* disposition) {
  std::shared_ptr<const PinningConfiguration> configuration;
  {
    std::lock_guard lock(state_->mutex);
    configuration = state_->configuration;
  }
  if (!configuration) return false;
  const PinnedDomainConfiguration* domain = findDomain(*configuration, challenge.host);
  if (!domain) return false;

  std::vector<std::string> chainPins;
  for (const auto& der : challenge.certificateChainDer) chainPins.push_back(publicKeyHash(der));
  const bool pinned = std::any_of(chainPins.begin(), chainPins.end(), [&](const auto& pin) {
    return !pin.empty() && std::find(domain->publicKeyHashes.begin(), domain->publicKeyHashes.end(),
                                     pin) != domain->publicKeyHashes.end();
  });
  if (pinned) {
    if (disposition) *disposition = TrustDisposition::UseCredential;
    return true;
  }
  count(Counter::pinningRefusals);
  log(LogLevel::error, "certificate pinning failed for " + challenge.host + "; connection refused");
  if (disposition) *disposition = TrustDisposition::CancelAuthenticationChallenge;
  sendReport(*domain, challenge, chainPins);
  return true;
}

void PinValidator::sendReport(const PinnedDomainConfiguration& domain,
                              const ServerTrustChallenge& challenge,
                              const std::vector<std::string>& chainPins) {
  if (domain.reportUris.empty()) return;
  std::string key = detail::normalizedHost(challenge.host) + "\n" + std::to_string(challenge.port);
  for (const auto& pin : chainPins) key += "\n" + pin;
  const Date now = qvl::now();
  {
    std::lock_guard lock(state_->mutex);
    std::erase_if(state_->sentReports,
                  [&](const auto& entry) { return now - entry.second >= kReportInterval; });
    if (!state_->sentReports.emplace(std::move(key), now).second) return;
  }

  nlohmann::json report = nlohmann::json::object();
  const nlohmann::json info = detail::nlohmannOf(BundleInfo::infoDictionary());
  if (auto it = info.find("CFBundleIdentifier"); it != info.end() && it->is_string()) {
    report["app-bundle-id"] = *it;
  }
  if (auto it = info.find("CFBundleShortVersionString"); it != info.end() && it->is_string()) {
    report["app-version"] = *it;
  }
  report["hostname"] = challenge.host;
  report["port"] = challenge.port;
  report["noted-hostname"] = domain.domain;
  report["include-subdomains"] = domain.includeSubdomains;
  report["enforce-pinning"] = true;
  nlohmann::json chain = nlohmann::json::array();
  for (const auto& der : challenge.certificateChainDer) chain.push_back(pemText(der));
  report["validated-certificate-chain"] = std::move(chain);
  nlohmann::json knownPins = nlohmann::json::array();
  for (const auto& pin : domain.publicKeyHashes) knownPins.push_back("pin-sha256=\"" + pin + "\"");
  report["known-pins"] = std::move(knownPins);
  report["validation-result"] = 1;  // the chain is valid but no pinned key is in it
  report["date-time"] = utcTimestamp(now);
  const std::string body = report.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);

  // Default trust only: the report must not depend on the pins that just failed.
  HttpSessionConfiguration config = detail::sessionConfigurationOf(*Env::current());
  config.additionalHeaders = {{"Content-Type", "application/json"}};
  for (const auto& uri : domain.reportUris) {
    auto session = HttpSession::create(config, nullptr);
    session->dataTask(HttpRequest{"POST", uri, {}, body}, [uri](
                                                              std::string,
                                                              std::optional<HttpResponse> response,
                                                              std::optional<QVLError> error) {
      if (error) {
        log(LogLevel::warning,
            "pin failure report to " + uri + " failed: " +
                detail::nlohmannOf(error->userInfo.value_or(Json::object())).value("message", ""));
      } else if (response && (response->statusCode < 200 || response->statusCode >= 300)) {
        log(LogLevel::warning,
            "pin failure report to " + uri + " answered " + std::to_string(response->statusCode));
      }
    });
  }
}

std::string PinValidator::publicKeyHash(const std::string& certificateDer) {
  auto certificate = parseCertificate(certificateDer);
  if (!certificate) return {};
  X509_PUBKEY* key = X509_get_X509_PUBKEY(certificate.get());
  unsigned char* spki = nullptr;
  const int length = i2d_X509_PUBKEY(key, &spki);
  if (length <= 0) return {};
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  const bool ok = EVP_Digest(spki, static_cast<size_t>(length), digest, &digestLength, EVP_sha256(),
                             nullptr) == 1;
  OPENSSL_free(spki);
  if (!ok) return {};
  return base64Encode(std::string_view(reinterpret_cast<const char*>(digest), digestLength));
}

}  // namespace qvl
