#include "support/TestCertificates.h"

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

#include "support/TempDir.h"

namespace qvl::test {
namespace {

using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using CertPtr = std::unique_ptr<X509, decltype(&X509_free)>;

constexpr const char* kServerNames =
    "DNS:dev.localhost,DNS:api.localhost,DNS:play.localhost,DNS:localhost,IP:127.0.0.1";

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test certificate generation failed: ") + what);
}

struct Issued {
  KeyPtr key{nullptr, &EVP_PKEY_free};
  CertPtr certificate{nullptr, &X509_free};
  TestCertificate files;
};

const TempDir& directory() {
  static TempDir dir;
  return dir;
}

void addExtension(X509* certificate, X509V3_CTX* context, int nid, const char* value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, context, nid, value);
  check(extension != nullptr, value);
  check(X509_add_ext(certificate, extension, -1) == 1, value);
  X509_EXTENSION_free(extension);
}

std::string der(X509* certificate) {
  unsigned char* buffer = nullptr;
  const int length = i2d_X509(certificate, &buffer);
  check(length > 0, "i2d_X509");
  std::string out(reinterpret_cast<char*>(buffer), static_cast<size_t>(length));
  OPENSSL_free(buffer);
  return out;
}

// Computed from the key itself, independently of the library's certificate-based hashing.
std::string pinOf(EVP_PKEY* key) {
  unsigned char* spki = nullptr;
  const int length = i2d_PUBKEY(key, &spki);
  check(length > 0, "i2d_PUBKEY");
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  check(EVP_Digest(spki, static_cast<size_t>(length), digest, &digestLength, EVP_sha256(),
                   nullptr) == 1,
        "SHA-256");
  OPENSSL_free(spki);
  unsigned char text[64];
  const int textLength = EVP_EncodeBlock(text, digest, static_cast<int>(digestLength));
  return std::string(reinterpret_cast<char*>(text), static_cast<size_t>(textLength));
}

void writePem(const std::string& path, X509* certificate, EVP_PKEY* key) {
  FILE* file = std::fopen(path.c_str(), "w");
  check(file != nullptr, "fopen");
  const bool ok = certificate
                      ? PEM_write_X509(file, certificate) == 1
                      : PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
  std::fclose(file);
  check(ok, "PEM write");
}

// Issues a certificate; with a null issuer it is self-signed.
Issued issue(const std::string& name, const std::string& commonName, bool isCa,
             const Issued* issuer) {
  Issued result;
  result.key.reset(EVP_RSA_gen(2048));
  check(result.key != nullptr, "RSA key");
  result.certificate.reset(X509_new());
  X509* certificate = result.certificate.get();
  check(X509_set_version(certificate, X509_VERSION_3) == 1, "version");

  std::unique_ptr<BIGNUM, decltype(&BN_free)> serial(BN_new(), &BN_free);
  check(BN_rand(serial.get(), 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1, "serial");
  check(BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate)) != nullptr, "serial");
  X509_gmtime_adj(X509_getm_notBefore(certificate), -24 * 3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 30 * 24 * 3600);
  check(X509_set_pubkey(certificate, result.key.get()) == 1, "public key");

  X509_NAME* subject = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("Quorvel Tests"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  X509* issuerCertificate = issuer ? issuer->certificate.get() : certificate;
  EVP_PKEY* issuerKey = issuer ? issuer->key.get() : result.key.get();
  check(X509_set_issuer_name(certificate, X509_get_subject_name(issuerCertificate)) == 1, "issuer");

  X509V3_CTX context;
  X509V3_set_ctx(&context, issuerCertificate, certificate, nullptr, nullptr, 0);
  addExtension(certificate, &context, NID_subject_key_identifier, "hash");
  addExtension(certificate, &context, NID_authority_key_identifier, "keyid:always");
  if (isCa) {
    addExtension(certificate, &context, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate, &context, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    addExtension(certificate, &context, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(certificate, &context, NID_key_usage, "critical,digitalSignature,keyEncipherment");
    addExtension(certificate, &context, NID_ext_key_usage, "serverAuth");
    addExtension(certificate, &context, NID_subject_alt_name, kServerNames);
  }
  check(X509_sign(certificate, issuerKey, EVP_sha256()) > 0, "sign");

  result.files.certificatePath = directory().file(name + ".pem");
  result.files.privateKeyPath = directory().file(name + "-key.pem");
  writePem(result.files.certificatePath, certificate, nullptr);
  writePem(result.files.privateKeyPath, nullptr, result.key.get());
  result.files.certificateDer = der(certificate);
  result.files.pin = pinOf(result.key.get());
  return result;
}

const Issued& caMaterial() {
  static const Issued ca = issue("ca", "Quorvel Test CA", true, nullptr);
  return ca;
}

}  // namespace

const TestCertificate& TestCertificates::ca() { return caMaterial().files; }

const TestCertificate& TestCertificates::leaf() {
  static const Issued leaf = issue("leaf", "dev.localhost", false, &caMaterial());
  return leaf.files;
}

const TestCertificate& TestCertificates::otherLeaf() {
  static const Issued leaf = issue("other-leaf", "dev.localhost", false, &caMaterial());
  return leaf.files;
}

const TestCertificate& TestCertificates::untrustedLeaf() {
  static const Issued leaf = issue("untrusted-leaf", "dev.localhost", false, nullptr);
  return leaf.files;
}

}  // namespace qvl::test
