#pragma once
// The certificates tests present and trust: a CA and server certificates for the loopback
// names, made once per process (on first use) in a temporary directory removed at exit.
// Thread-safe.

#include "devserver/Certificates.h"

namespace qvl::test {

class TestCertificates {
 public:
  /// The CA; its certificatePath is the trust anchors file for tests.
  static const devserver::Certificate& ca();
  /// A server certificate issued by the CA.
  static const devserver::Certificate& leaf();
  /// Another server certificate from the CA with the same names but its own key, so a
  /// configuration pinning leaf() does not match it.
  static const devserver::Certificate& otherLeaf();
  /// A self-signed server certificate with the same names, trusted by nobody.
  static const devserver::Certificate& untrustedLeaf();
};

}  // namespace qvl::test
