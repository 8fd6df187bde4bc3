#include "devserver/Certificates.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "platform/PrivateFiles.h"

namespace qvl::devserver {
namespace {

using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using CertPtr = std::unique_ptr<X509, decltype(&X509_free)>;

constexpr const char* kServerNames =
    "DNS:dev.localhost,DNS:api.localhost,DNS:play.localhost,DNS:localhost,IP:127.0.0.1";
constexpr long kValidDays = 365;

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("certificate generation failed: ") + what);
}

struct Material {
  KeyPtr key{nullptr, &EVP_PKEY_free};
  CertPtr certificate{nullptr, &X509_free};
  Certificate files;
};

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

// Owner-only like everything else in the directory: only this user's programs read them.
void writePem(const std::string& path, X509* certificate, EVP_PKEY* key) {
  std::unique_ptr<BIO, decltype(&BIO_free)> buffer(BIO_new(BIO_s_mem()), &BIO_free);
  check(buffer != nullptr, "BIO");
  const bool ok = certificate ? PEM_write_bio_X509(buffer.get(), certificate) == 1
                              : PEM_write_bio_PrivateKey(buffer.get(), key, nullptr, nullptr, 0,
                                                         nullptr, nullptr) == 1;
  check(ok, "PEM write");
  char* data = nullptr;
  const long length = BIO_get_mem_data(buffer.get(), &data);
  if (auto written = qvl::detail::writeFileAtomically(
          path, std::string_view(data, static_cast<size_t>(length)));
      !written) {
    throw std::runtime_error(written.error);
  }
}

void describe(Material& material, std::string certificatePath, std::string keyPath) {
  material.files.certificatePath = std::move(certificatePath);
  material.files.privateKeyPath = std::move(keyPath);
  material.files.certificateDer = der(material.certificate.get());
  material.files.pin = pinOf(material.key.get());
}

// Issues a certificate; with a null issuer it is self-signed.
Material issue(const std::string& commonName, bool isCa, const Material* issuer) {
  Material result;
  result.key.reset(EVP_RSA_gen(2048));
  check(result.key != nullptr, "RSA key");
  result.certificate.reset(X509_new());
  X509* certificate = result.certificate.get();
  check(X509_set_version(certificate, X509_VERSION_3) == 1, "version");

  std::unique_ptr<BIGNUM, decltype(&BN_free)> serial(BN_new(), &BN_free);
  check(BN_rand(serial.get(), 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1, "serial");
  check(BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate)) != nullptr, "serial");
  X509_gmtime_adj(X509_getm_notBefore(certificate), -24 * 3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate), kValidDays * 24 * 3600);
  check(X509_set_pubkey(certificate, result.key.get()) == 1, "public key");

  X509_NAME* subject = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("Quorvel Development"), -1, -1,
                             0);
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
  return result;
}

// The stored pair, or nothing when a file is missing or unreadable, the key does not
// match, the certificate expires within a day, or `signer` did not sign it.
std::optional<Material> load(const std::string& certificatePath, const std::string& keyPath,
                             EVP_PKEY* signer) {
  Material material;
  if (FILE* file = std::fopen(certificatePath.c_str(), "r")) {
    material.certificate.reset(PEM_read_X509(file, nullptr, nullptr, nullptr));
    std::fclose(file);
  }
  if (FILE* file = std::fopen(keyPath.c_str(), "r")) {
    material.key.reset(PEM_read_PrivateKey(file, nullptr, nullptr, nullptr));
    std::fclose(file);
  }
  if (!material.certificate || !material.key) return std::nullopt;
  X509* certificate = material.certificate.get();
  if (X509_check_private_key(certificate, material.key.get()) != 1) return std::nullopt;
  std::time_t tomorrow = std::time(nullptr) + 24 * 3600;
  if (X509_cmp_time(X509_get0_notAfter(certificate), &tomorrow) <= 0) return std::nullopt;
  if (X509_verify(certificate, signer ? signer : material.key.get()) != 1) return std::nullopt;
  describe(material, certificatePath, keyPath);
  return material;
}

Material loadOrIssue(const std::string& directory, const std::string& name,
                     const std::string& commonName, bool isCa, const Material* issuer) {
  const std::string certificatePath = directory + "/" + name + ".pem";
  const std::string keyPath = directory + "/" + name + "-key.pem";
  if (auto stored = load(certificatePath, keyPath, issuer ? issuer->key.get() : nullptr)) {
    return std::move(*stored);
  }
  Material made = issue(commonName, isCa, issuer);
  writePem(keyPath, nullptr, made.key.get());
  writePem(certificatePath, made.certificate.get(), nullptr);
  describe(made, certificatePath, keyPath);
  return made;
}

}  // namespace

struct Certificates::Authority {
  Material material;
};

Certificates::Certificates(std::string directory) : directory_(std::move(directory)) {
  if (auto made = qvl::detail::makePrivateDirectories(directory_); !made) {
    throw std::runtime_error(made.error);
  }
  authority_ = std::make_unique<Authority>(
      Authority{loadOrIssue(directory_, "ca", "Quorvel Development CA", true, nullptr)});
}

Certificates::~Certificates() = default;

const Certificate& Certificates::ca() const { return authority_->material.files; }

Certificate Certificates::server(const std::string& name, Issuer issuer) {
  std::lock_guard lock(mutex_);
  const Material* signer = issuer == Issuer::ca ? &authority_->material : nullptr;
  return loadOrIssue(directory_, name, "dev.localhost", false, signer).files;
}

}  // namespace qvl::devserver
