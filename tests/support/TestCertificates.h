#pragma once
// Certificates made at test time: a test CA and server certificates for the loopback names
// dev.localhost, api.localhost, play.localhost, localhost and 127.0.0.1. Generated once per
// process (RSA 2048) into a temporary directory removed at exit. Thread-safe.

#include <string>

namespace qvl::test {

struct TestCertificate {
  std::string certificatePath;  // PEM
  std::string privateKeyPath;   // PEM
  std::string certificateDer;
  std::string pin;  // base64 SHA-256 of the DER SubjectPublicKeyInfo
};

class TestCertificates {
 public:
  /// The self-signed test CA; its certificatePath is the trust anchors file for tests.
  static const TestCertificate& ca();
  /// A server certificate issued by the test CA.
  static const TestCertificate& leaf();
  /// Another server certificate from the test CA with the same names but its own key, so a
  /// configuration pinning leaf() does not match it.
  static const TestCertificate& otherLeaf();
  /// A self-signed server certificate with the same names, trusted by nobody.
  static const TestCertificate& untrustedLeaf();
};

}  // namespace qvl::test
