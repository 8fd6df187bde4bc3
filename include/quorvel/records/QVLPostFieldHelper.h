#pragma once
/// @file
/// Reads the JSON that some post fields carry.

#include <optional>
#include <string_view>

#include "quorvel/Export.h"
#include "quorvel/platform/Json.h"

/// Stateless; safe on any thread.
class QVL_EXPORT QVLPostFieldHelper {
 public:
  /// The JSON object in text (standard JSON, no comments or other extensions). On a parse
  /// error, on nesting deeper than kQVLMaxJSONDepth, or when the text holds a value other than an
  /// object, logs "Couldn't parse QVLPostField to JSON: <error>" through qvl::log and returns
  /// nullopt.
  static std::optional<qvl::Json> parseStringToJSON(std::string_view text);
};
