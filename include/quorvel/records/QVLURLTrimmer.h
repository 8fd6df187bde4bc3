#pragma once
/// @file
/// Turns loosely typed web addresses from the service into URLs.

#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/platform/Url.h"

/// Stateless; safe on any thread.
class QVL_EXPORT QVLURLTrimmer {
 public:
  /// Trims spaces and tabs (not line breaks) from both ends; empty gives nullopt. Text
  /// that parses as a URL with a scheme is returned unchanged; otherwise "http://" is put
  /// in front and that is parsed instead (nullopt when it still does not parse).
  static std::optional<qvl::Url> trimmedURLFromString(const std::optional<std::string>& text);
};
