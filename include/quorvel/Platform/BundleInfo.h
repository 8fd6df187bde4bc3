#pragma once
// The host application's information dictionary: its identity, version and the library's
// settings, supplied by the host instead of a bundled property list.

#include <string>

#include <nlohmann/json.hpp>

namespace qvl {

/// Process-wide holder of the host's information dictionary (a JSON object; empty until the
/// host sets one). Every operation is thread-safe and may be called from any thread.
/// Readers take a fresh copy on every use, so a dictionary set later applies to the next
/// request without any other action.
class BundleInfo {
 public:
  BundleInfo() = delete;

  /// Replaces the dictionary. A value that is not a JSON object is stored as an empty
  /// object, so readers can always look keys up.
  static void setInfoDictionary(nlohmann::json dictionary);

  /// Reads the dictionary from a JSON file the host names. On success it replaces the
  /// dictionary and returns true. On failure (unreadable file, invalid JSON, not an object)
  /// it keeps the previous dictionary, returns false and, when `error` is not null, stores
  /// the reason there. Blocks on file I/O on the calling thread.
  static bool loadFromFile(const std::string& path, std::string* error);

  /// A copy of the current dictionary.
  static nlohmann::json infoDictionary();
};

}  // namespace qvl
