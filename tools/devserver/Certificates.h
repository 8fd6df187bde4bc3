#pragma once
// A certificate authority and the loopback server certificates it issues, kept as PEM files
// in one directory: the first use makes them, later uses (in this or another process) load
// them. Server certificates name dev.localhost, api.localhost, play.localhost, localhost and
// 127.0.0.1. Keys are RSA 2048.

#include <memory>
#include <mutex>
#include <string>

namespace qvl::devserver {

struct Certificate {
  std::string certificatePath;  // PEM
  std::string privateKeyPath;   // PEM
  std::string certificateDer;
  std::string pin;  // base64 SHA-256 of the DER SubjectPublicKeyInfo
};

class Certificates {
 public:
  /// Uses `directory` (created 0700 when missing; refused when owned by another user or
  /// writable by others). Files are written 0600 through a unique temporary name. The CA
  /// ("ca.pem", "ca-key.pem") is loaded when its files are there, still valid for a day and
  /// matching, and made otherwise. Throws std::runtime_error when the directory is refused
  /// or a file cannot be written.
  explicit Certificates(std::string directory);
  ~Certificates();
  Certificates(const Certificates&) = delete;
  Certificates& operator=(const Certificates&) = delete;

  const std::string& directory() const { return directory_; }
  /// The CA; its certificatePath is the trust anchors file a client uses.
  const Certificate& ca() const;

  enum class Issuer { ca, self };
  /// The server certificate `name` ("<name>.pem", "<name>-key.pem"): loaded when present,
  /// still valid for a day and issued by this directory's CA (or self-signed, as asked),
  /// made and stored otherwise. Thread-safe.
  Certificate server(const std::string& name, Issuer issuer = Issuer::ca);

 private:
  struct Authority;
  std::string directory_;
  std::mutex mutex_;
  std::unique_ptr<Authority> authority_;
};

}  // namespace qvl::devserver
