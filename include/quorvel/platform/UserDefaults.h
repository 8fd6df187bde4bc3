#pragma once
/// @file
/// A small persistent key-value store per host application, the library's user defaults.

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "quorvel/Export.h"

namespace qvl {

/// Keys map to byte strings kept in one file. Every instance is thread-safe; its
/// operations run on the calling thread and block on file I/O.
///
/// On disk the file is one JSON object mapping each key (UTF-8 text) to its value encoded
/// as standard base64, e.g. {"QVLAuthJWTToken":"YWJj"}. The file is created owner-only
/// (mode 0600, it holds the bearer token) and every write replaces it atomically (a
/// temporary file in the same directory, fsync, rename, fsync of the directory), so a reader
/// sees either the old or the new content, never a torn file. Missing directories are
/// created with mode 0700. Temporary files that a crash during a save left behind
/// ("<file name>.tmp-XXXXXX", owned by this user) are removed when the file is first read.
///
/// Each change is written through at once, so a value set in one process is read by the
/// next one. Two processes writing the same file at the same time do not merge: the last
/// writer's whole content wins.
class QVL_EXPORT UserDefaults {
 public:
  /// An instance over the file at `path`. Nothing is read until first use; a missing file
  /// reads as empty.
  explicit UserDefaults(std::string path);
  ~UserDefaults();

  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;

  /// The application's defaults: one instance per context (the standard one's outside any),
  /// over that context's Env::userDefaultsPath, or defaultStandardPath() when that is empty.
  /// It lives as long as its context; changes a failed write left pending get a last try
  /// when it goes.
  static UserDefaults& standard();

  /// ${XDG_CONFIG_HOME:-$HOME/.config}/quorvel/\<application id\>.defaults, the application
  /// id being the bundle information's "CFBundleIdentifier" or "default" ('/' becomes '_').
  static std::string defaultStandardPath();

  /// The file this instance reads and writes.
  std::string path() const;

  /// The bytes stored under `key`, or absent.
  std::optional<std::string> data(const std::string& key);

  /// Stores `bytes` under `key` and writes the file. A write failure is logged and kept
  /// pending for the next change or `synchronize()`.
  void setData(const std::string& key, std::string bytes);

  /// Removes `key` (no effect when absent) and writes the file like `setData`.
  void removeObject(const std::string& key);

  /// Forces pending changes to disk. Returns true when the file holds every change; false,
  /// after logging the cause, when writing failed.
  bool synchronize();

 private:
  void loadLocked();
  bool writeLocked();

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qvl
