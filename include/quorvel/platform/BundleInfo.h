#pragma once
/// @file
/// The host application's information dictionary: its identity, version and the library's
/// settings, supplied by the host instead of a bundled property list.

#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/platform/Json.h"

namespace qvl {

/// The dictionary lives in the environment (Env::bundleInfo), set by the host when it
/// configures a context. Every operation is thread-safe.
class QVL_EXPORT BundleInfo {
 public:
  BundleInfo() = delete;

  /// Reads a dictionary from a JSON file the host names, for its Env::bundleInfo. On
  /// failure (unreadable file, invalid JSON, not an object) returns nullopt and, when
  /// `error` is not null, stores the reason there. Blocks on file I/O on the calling thread.
  static std::optional<Json> fromFile(const std::string& path, std::string* error);

  /// A copy of the dictionary of the context in force.
  static Json infoDictionary();
};

}  // namespace qvl
