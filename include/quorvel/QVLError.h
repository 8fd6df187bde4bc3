#pragma once
/// @file
/// The error value every completion of the library carries.

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "quorvel/Export.h"

/// An error: a domain text, an integer code and optional user information.
/// "QVLApiClientErrorDomain": the service answered with a failure status (code = HTTP
/// status, user information = the parsed answer body) or, with code 0, a request lacked
/// an argument. "QVLTransportErrorDomain": no answer came (code = libcurl's code,
/// user information {"message": text}). "QVLMappingErrorDomain": a record of the answer
/// had a value of the wrong kind, or the answer nested JSON deeper than kQVLMaxJSONDepth
/// (user information {"errorMessage": text}).
/// "QVLStoreErrorDomain": the answer came but the library's store could not be opened or
/// written (user information {"errorMessage": text}); nothing was stored.
struct QVL_EXPORT QVLError {
  std::string domain;  ///< One of the kQVL...ErrorDomain texts, or a manager's own domain.
  long long code = 0;  ///< Meaning depends on the domain, as above.
  std::optional<nlohmann::json> userInfo;  ///< Details as above; absent when there are none.

  /// Equal domain, code and user information.
  bool operator==(const QVLError&) const = default;
};

/// The service answered with a failure status.
inline constexpr const char* kQVLApiClientErrorDomain = "QVLApiClientErrorDomain";
/// No answer came.
inline constexpr const char* kQVLTransportErrorDomain = "QVLTransportErrorDomain";
/// A record of the answer could not be mapped.
inline constexpr const char* kQVLMappingErrorDomain = "QVLMappingErrorDomain";
/// The store could not be opened or written.
inline constexpr const char* kQVLStoreErrorDomain = "QVLStoreErrorDomain";
