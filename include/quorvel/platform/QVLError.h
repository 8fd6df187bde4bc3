#pragma once
/// @file
/// The error value every completion of the library carries.

#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/platform/Json.h"

/// An error: a domain text, an integer code and optional user information. Every error a
/// completion receives has one of the domains below, each named by one constant:
/// - kQVLApiClientErrorDomain: the service answered with a failure status (code = HTTP
///   status, user information = the parsed answer body, absent when it is not JSON) or,
///   with code 0, a request lacked an argument and was not sent.
/// - kQVLPushManagerErrorDomain: QVLPushManager's own failures (code 1: no endpoint yet;
///   500: the create answer has no endpoint id).
/// - kQVLTransportErrorDomain: no answer came: connection failure, timeout, TLS or pin
///   refusal (code = libcurl's code, user information {"message": text}).
/// - kQVLMappingErrorDomain: a record of the answer had a value of the wrong kind, or the
///   answer nested JSON deeper than kQVLMaxJSONDepth (user information {"errorMessage": text}).
/// - kQVLJSONErrorDomain: code 3840, an answer that had to be JSON was not.
/// - kQVLStoreErrorDomain: the answer came but the library's store could not be opened or
///   written (user information {"errorMessage": text}); nothing was stored.
/// Errors never reach the host as exceptions: a completion gets one of these, and a
/// manager operation that cannot finish logs an error line instead of throwing.
struct QVL_EXPORT QVLError {
  std::string domain;                 ///< One of the kQVL...ErrorDomain texts below.
  long long code = 0;                 ///< Meaning depends on the domain, as above.
  std::optional<qvl::Json> userInfo;  ///< Details as above; absent when there are none.

  /// Equal domain, code and user information.
  bool operator==(const QVLError&) const = default;
};

/// The service answered with a failure status.
inline constexpr const char* kQVLApiClientErrorDomain = "QVLApiClientErrorDomain";
/// QVLPushManager's own failures.
inline constexpr const char* kQVLPushManagerErrorDomain = "QVLPushManagerError";
/// No answer came.
inline constexpr const char* kQVLTransportErrorDomain = "QVLTransportErrorDomain";
/// A record of the answer could not be mapped.
inline constexpr const char* kQVLMappingErrorDomain = "QVLMappingErrorDomain";
/// An answer that had to be JSON was not.
inline constexpr const char* kQVLJSONErrorDomain = "QVLJSONErrorDomain";
/// The store could not be opened or written.
inline constexpr const char* kQVLStoreErrorDomain = "QVLStoreErrorDomain";
