#pragma once
/// @file
/// The bearer token that authorises the client's requests.

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "quorvel/Export.h"

/// The host supplies the token (a JSON Web Token) and saves it; the library only reads it,
/// afresh for every request, so a saved token applies from the next request on.
///
/// Persisted in the standard user defaults (qvl::UserDefaults) under "QVLAuthJWTToken" as a
/// keyed archive: the JSON object {"$class": "QVLToken", "content": \<text or null\>}.
/// Thread-safe: content is guarded, and the defaults are.
class QVL_EXPORT QVLToken {
 public:
  /// The user-defaults key the archive is saved under.
  static constexpr const char* kDefaultsKey = "QVLAuthJWTToken";

  /// A token with no content.
  QVLToken();
  ~QVLToken();
  QVLToken(const QVLToken&) = delete;
  QVLToken& operator=(const QVLToken&) = delete;

  /// A new token holding content (the text after "Bearer ").
  static std::shared_ptr<QVLToken> initWithContent(std::optional<std::string> content);

  /// The token text (without "Bearer "), or nullopt for none. Changing it does not save
  /// it: call saveToken() for requests to use it.
  std::optional<std::string> content() const;
  void setContent(std::optional<std::string> content);  ///< @copydoc content()

  /// Archives this token under "QVLAuthJWTToken", replacing the current one, and forces
  /// the defaults to disk. Returns false (and logs) when the file could not be written.
  bool saveToken() const;
  /// The saved token, or nullptr when none is saved. Bytes that do not decode as a token
  /// archive are logged ("QuorvelSDK: Unreadable token archive") and give nullptr.
  static std::shared_ptr<QVLToken> currentToken();

  /// The keyed archive of this token.
  std::string encodeWithCoder() const;
  /// A token from an archive, or nullptr when the bytes are not one.
  static std::shared_ptr<QVLToken> initWithCoder(const std::string& archive);

 private:
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};
