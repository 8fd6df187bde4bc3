#pragma once
/// @file
/// The host application's information dictionary: its identity, version and the library's
/// settings, supplied by the host instead of a bundled property list.

#include <string>

#include "quorvel/Export.h"
#include "quorvel/platform/Json.h"

namespace qvl {

/// The dictionary lives in the environment (Env::bundleInfo); these are shortcuts for a
/// host configuring it at start-up. Every operation is thread-safe. Readers take a fresh
/// copy on every use, so a dictionary set later applies to the next request.
class QVL_EXPORT BundleInfo {
 public:
  BundleInfo() = delete;

  /// Installs the environment in force with `dictionary` as its bundle information. A value
  /// that is not a JSON object is stored as an empty object.
  static void setInfoDictionary(Json dictionary);

  /// Reads the dictionary from a JSON file the host names and installs it as
  /// setInfoDictionary does. On failure (unreadable file, invalid JSON, not an object) it
  /// keeps the previous dictionary, returns false and, when `error` is not null, stores the
  /// reason there. Blocks on file I/O on the calling thread.
  static bool loadFromFile(const std::string& path, std::string* error);

  /// A copy of the current dictionary.
  static Json infoDictionary();
};

}  // namespace qvl
