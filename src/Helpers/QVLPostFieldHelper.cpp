#include "quorvel/Helpers/QVLPostFieldHelper.h"

#include <string>

#include "quorvel/Models/QVLApiModel.h"
#include "quorvel/Platform/Log.h"

std::optional<nlohmann::json> QVLPostFieldHelper::parseStringToJSON(std::string_view text) {
  std::string error;
  try {
    nlohmann::json value = QVLApiModel::parseJSONData(text, /*allowExceptions=*/true);
    if (value.is_object()) return value;
    error = std::string("the JSON text holds ") + value.type_name() + ", not an object";
  } catch (const nlohmann::json::exception& e) {
    error = e.what();
  } catch (const QVLMappingError& e) {
    error = e.what();
  }
  qvl::log(qvl::LogLevel::error, "Couldn't parse QVLPostField to JSON: " + error);
  return std::nullopt;
}
