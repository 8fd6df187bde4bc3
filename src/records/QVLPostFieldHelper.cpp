#include "quorvel/records/QVLPostFieldHelper.h"

#include <string>

#include "platform/JsonImpl.h"
#include "quorvel/platform/Log.h"
#include "records/QVLMappingPlan.h"

std::optional<qvl::Json> QVLPostFieldHelper::parseStringToJSON(std::string_view text) {
  std::string error;
  try {
    nlohmann::json value = qvl::detail::parseJSONData(text, /*allowExceptions=*/true);
    if (value.is_object()) return qvl::detail::fromNlohmann(std::move(value));
    error = std::string("the JSON text holds ") + value.type_name() + ", not an object";
  } catch (const nlohmann::json::exception& e) {
    error = e.what();
  } catch (const QVLMappingError& e) {
    error = e.what();
  }
  qvl::log(qvl::LogLevel::error, "Couldn't parse QVLPostField to JSON: " + error);
  return std::nullopt;
}
