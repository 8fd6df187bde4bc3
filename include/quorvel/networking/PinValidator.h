#pragma once
/// @file
/// TLS public-key pinning: decides server-trust challenges for pinned domains and reports
/// pin failures.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/networking/HttpSession.h"

namespace qvl {

/// The pins of one domain.
struct QVL_EXPORT PinnedDomainConfiguration {
  std::string domain;                   ///< E.g. "quorvel.example"; compared case-insensitively.
  bool includeSubdomains = false;       ///< Whether names under the domain are pinned too.
  std::vector<std::string> reportUris;  ///< Pin failures are POSTed here.
  std::vector<std::string> publicKeyHashes;  ///< Base64 SHA-256 of DER SubjectPublicKeyInfo.
};

/// Everything a PinValidator checks; hosts outside every domain are not pinned.
struct QVL_EXPORT PinningConfiguration {
  std::vector<PinnedDomainConfiguration> pinnedDomains;  ///< One entry per pinned domain.
};

/// Checks a server's verified chain against the pins of its domain. Pinning is enforced: a
/// chain without a pinned key is rejected. Every operation is thread-safe.
class QVL_EXPORT PinValidator {
 public:
  /// An unconfigured validator.
  PinValidator();
  ~PinValidator();
  PinValidator(const PinValidator&) = delete;
  PinValidator& operator=(const PinValidator&) = delete;

  /// The validator of the environment in force (Env::pinValidator).
  static PinValidator& shared();

  /// Replaces any previous configuration; challenges from now on use the new one.
  void configure(PinningConfiguration configuration);
  /// True once configure() has been called.
  bool isConfigured() const;
  /// A copy of the configuration in use, nullopt while unconfigured.
  std::optional<PinningConfiguration> configuration() const;

  /// Decides a server-trust challenge whose chain already passed default verification
  /// (HttpSession only asks its delegate about such chains). Returns false, leaving
  /// `disposition` untouched, when unconfigured or when the host is outside every pinned
  /// domain: the caller should then perform default handling. Otherwise sets
  /// `disposition` to UseCredential when the SubjectPublicKeyInfo of any certificate of
  /// the chain matches a pin of the domain, or to CancelAuthenticationChallenge after
  /// starting a failure report (without waiting for it), and returns true. Identical
  /// reports (same host, port and chain) go out once per 24 hours of the environment's
  /// clock.
  ///
  /// Host matching: the exact domain, or with includeSubdomains any name ending in
  /// "." + domain; the most specific pinned domain wins. Runs on the calling thread
  /// (HttpSession's network thread during a handshake) and does not block on the network.
  bool handleChallenge(const ServerTrustChallenge& challenge, TrustDisposition* disposition);

  /// Base64 SHA-256 of the certificate's DER SubjectPublicKeyInfo (44 characters), or ""
  /// when `certificateDer` is not a DER certificate.
  static std::string publicKeyHash(const std::string& certificateDer);

 private:
  void sendReport(const PinnedDomainConfiguration& domain, const ServerTrustChallenge& challenge,
                  const std::vector<std::string>& chainPins);

  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace qvl
