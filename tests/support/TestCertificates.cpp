#include "support/TestCertificates.h"

#include "support/TempDir.h"

namespace qvl::test {
namespace {

devserver::Certificates& certificates() {
  static TempDir directory;
  static devserver::Certificates certificates(directory.path());
  return certificates;
}

}  // namespace

const devserver::Certificate& TestCertificates::ca() { return certificates().ca(); }

const devserver::Certificate& TestCertificates::leaf() {
  static const devserver::Certificate leaf = certificates().server("leaf");
  return leaf;
}

const devserver::Certificate& TestCertificates::otherLeaf() {
  static const devserver::Certificate leaf = certificates().server("other-leaf");
  return leaf;
}

const devserver::Certificate& TestCertificates::untrustedLeaf() {
  static const devserver::Certificate leaf =
      certificates().server("untrusted-leaf", devserver::Certificates::Issuer::self);
  return leaf;
}

}  // namespace qvl::test
