#pragma once
/// @file
/// Registers the device as a push-message endpoint and attaches the guest to it.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/networking/HttpSession.h"
#include "quorvel/platform/Json.h"
#include "quorvel/platform/QVLError.h"

/// Class operations only. The one piece of state is the endpoint id that the service gave
/// the device, kept in the user defaults under "QVLPushManagerEndpointIdKey" (0: none yet).
///
/// Requests go through a session of QVLApiClient::sharedClient() (its standing headers and
/// pinning) to the client's versioned base URL. Every completion runs exactly once: on the
/// session's callback queue, except the early failure of
/// updateGuestIdForEndpointWithCompletion(), which runs on the caller's thread before it
/// returns. Errors (domains in QVLError.h): the transport's error; the client's error for a
/// failure status (kQVLApiClientErrorDomain); kQVLJSONErrorDomain code 3840 for a create
/// answer that is not JSON; kQVLPushManagerErrorDomain code 1 (no endpoint yet, {"info": "No
/// existing endpoint id"}) or 500 (the create answer has no "id", or 0; the answer as user
/// information). A
/// failed create leaves the stored id alone. Nothing is logged or retried.
class QVL_EXPORT QVLPushManager {
 public:
  /// The user-defaults key described above.
  static constexpr const char* kEndpointIdKey = "QVLPushManagerEndpointIdKey";
  /// Called exactly once, as described above; the error is absent on success.
  using Completion = std::function<void(std::optional<QVLError> error)>;

  QVLPushManager() = delete;

  /// POST "endpoints" {"guest_id", "platform": "APNS", "token": hex}; stores the answer's
  /// "id". `deviceToken` is the platform's raw token bytes.
  static void createEndpointWithDeviceToken(const std::string& deviceToken, Completion completion);
  /// PUT "endpoints/<id>" {"guest_id"} for the stored endpoint id.
  static void updateGuestIdForEndpointWithCompletion(Completion completion);

  ///@{
  /// The request the operation above sends, built now (guest id and endpoint id read
  /// afresh); nothing is sent.
  static qvl::HttpRequest createRequestWithDeviceToken(const std::string& deviceToken);
  static qvl::HttpRequest updateRequest();
  ///@}
  /// A request with the method and the body as compact JSON; no headers (the session adds
  /// the client's). A body that cannot be serialised (text that is not UTF-8) leaves the
  /// request's body empty; never throws for it.
  static qvl::HttpRequest requestWithURL(std::string url, std::string method,
                                         const qvl::Json& body);
  /// "APNS".
  static std::string platform();
  /// The first guest's guestId, or 0 without a guest; read afresh on every call.
  static std::int64_t guestId();
  /// The bytes as plain lower-case hexadecimal, two digits each, no separators.
  static std::string stringFromDeviceToken(const std::string& deviceToken);
  /// The stored endpoint id, 0 when none is stored. Read from the defaults on every call.
  static std::int64_t endpointId();
  /// Stored and written through at once.
  static void setEndpointId(std::int64_t endpointId);
};
