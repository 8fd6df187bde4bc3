#pragma once
/// @file
/// Opens the library's own store file.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/store/Store.h"

/// The library's store: "QuorvelSDK.realm" in the store directory, schema version 19.
class QVL_EXPORT QVLRealm {
 public:
  /// Raised whenever the record classes change shape, so that older files are upgraded.
  static constexpr std::uint64_t kSchemaVersion = 19;
  /// The file name inside the store directory.
  static constexpr const char* kFileName = "QuorvelSDK.realm";

  /// The calling thread's handle on the library's store, or nullptr when it cannot be
  /// opened (then "Couldn't create the QuorvelSDK Realm instance: <error>" is logged).
  /// Builds the configuration afresh on every call; the handle itself is cached per
  /// thread by the store. Never throws.
  static std::shared_ptr<qvl::Store> realm();

  /// The configuration realm() opens: file, version 19, every record class, and the
  /// migration rule (files of version 17 and below: QVLMedia's "urlString" becomes
  /// "urlOriginal", when the file has it).
  static qvl::StoreConfiguration configuration();

  /// Where the store file lives: the environment's storeDirectory, by default
  /// $XDG_DATA_HOME/quorvel, else $HOME/.local/share/quorvel (created owner-only on first
  /// open; realm() refuses one owned by another user or writable by group or others).
  static std::string storeDirectory();

  /// Every persisted record class of the library.
  static const std::vector<qvl::ObjectClassRef>& objectClasses();
};
