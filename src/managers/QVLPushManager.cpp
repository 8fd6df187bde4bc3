#include "quorvel/managers/QVLPushManager.h"

#include <cstdlib>

#include "managers/ManagerSupport.h"
#include "platform/JsonImpl.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/UserDefaults.h"

namespace {

// An answer's "id" as an integer: a number (truncated) or text with a leading integer.
std::int64_t integerOf(const nlohmann::json& value) {
  if (value.is_number()) return value.get<std::int64_t>();
  if (value.is_string())
    return std::strtoll(value.get_ref<const std::string&>().c_str(), nullptr, 10);
  return 0;
}

// Starts the request on a session of the shared client; the completion gets the transport
// error, the client's error for a failure status, or the answer's body.
void send(qvl::HttpRequest request,
          std::function<void(std::optional<QVLError>, const std::string& body)> done) {
  qvl::countedDataTask(
      *QVLApiClient::sharedClient().urlSession(), std::move(request),
      [done = std::move(done)](std::string body, std::optional<qvl::HttpResponse> response,
                               std::optional<QVLError> error) {
        if (error) return done(std::move(error), body);
        if (!QVLApiClient::successfulResponse(*response)) {
          return done(QVLApiClient::errorWithResponse(*response, body), body);
        }
        done(std::nullopt, body);
      });
}

}  // namespace

std::string QVLPushManager::platform() { return "APNS"; }

std::int64_t QVLPushManager::guestId() {
  auto guest = qvl::firstGuest();
  return guest ? guest->guestId().value_or(0) : 0;
}

std::string QVLPushManager::stringFromDeviceToken(const std::string& deviceToken) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(deviceToken.size() * 2);
  for (unsigned char byte : deviceToken) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 0x0f];
  }
  return hex;
}

std::int64_t QVLPushManager::endpointId() {
  auto stored = qvl::UserDefaults::standard().data(kEndpointIdKey);
  return stored ? std::strtoll(stored->c_str(), nullptr, 10) : 0;
}

void QVLPushManager::setEndpointId(std::int64_t endpointId) {
  auto& defaults = qvl::UserDefaults::standard();
  defaults.setData(kEndpointIdKey, std::to_string(endpointId));
  defaults.synchronize();
}

qvl::HttpRequest QVLPushManager::requestWithURL(std::string url, std::string method,
                                                const qvl::Json& body) {
  qvl::HttpRequest request;
  request.url = std::move(url);
  request.method = std::move(method);
  try {
    request.body = qvl::detail::nlohmannOf(body).dump();
  } catch (const nlohmann::json::exception&) {
    // Text that is not UTF-8 cannot be JSON: the body stays empty and the service's refusal
    // reaches the completion.
  }
  return request;
}

qvl::HttpRequest QVLPushManager::createRequestWithDeviceToken(const std::string& deviceToken) {
  return requestWithURL(QVLApiClient::sharedClient().baseURLV8() + "/endpoints", "POST",
                        {{"guest_id", guestId()},
                         {"platform", platform()},
                         {"token", stringFromDeviceToken(deviceToken)}});
}

qvl::HttpRequest QVLPushManager::updateRequest() {
  return requestWithURL(
      QVLApiClient::sharedClient().baseURLV8() + "/endpoints/" + std::to_string(endpointId()),
      "PUT", {{"guest_id", guestId()}});
}

void QVLPushManager::createEndpointWithDeviceToken(const std::string& deviceToken,
                                                   Completion completion) {
  send(
      createRequestWithDeviceToken(deviceToken),
      [completion = std::move(completion)](std::optional<QVLError> error, const std::string& body) {
        if (error) return completion(std::move(error));
        auto answer = nlohmann::json::parse(body, nullptr, false);
        if (answer.is_discarded()) {
          return completion(
              QVLError{kQVLJSONErrorDomain, 3840, qvl::Json::object({{"message", "not JSON"}})});
        }
        const std::int64_t id =
            answer.is_object() && answer.contains("id") ? integerOf(answer["id"]) : 0;
        if (id == 0) {
          return completion(QVLError{kQVLPushManagerErrorDomain, 500,
                                     qvl::detail::fromNlohmann(std::move(answer))});
        }
        setEndpointId(id);
        completion(std::nullopt);
      });
}

void QVLPushManager::updateGuestIdForEndpointWithCompletion(Completion completion) {
  if (endpointId() == 0) {
    return completion(QVLError{kQVLPushManagerErrorDomain, 1,
                               qvl::Json::object({{"info", "No existing endpoint id"}})});
  }
  send(updateRequest(),
       [completion = std::move(completion)](std::optional<QVLError> error, const std::string&) {
         completion(std::move(error));
       });
}
