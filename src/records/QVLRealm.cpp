#include "quorvel/records/QVLRealm.h"

#include <filesystem>

#include "platform/PrivateFiles.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"
#include "quorvel/records/QVLMedia.h"
#include "records/QVLRealmOpen.h"
#include "store/StoreImpl.h"

std::string QVLRealm::storeDirectory() { return qvl::Env::current()->resolvedStoreDirectory(); }

qvl::StoreConfiguration QVLRealm::configuration() {
  qvl::StoreConfiguration configuration;
  configuration.path = (std::filesystem::path(storeDirectory()) / kFileName).string();
  configuration.schemaVersion = kSchemaVersion;
  configuration.classes = objectClasses();
  configuration.migration = [](qvl::Migration& migration, std::uint64_t oldSchemaVersion) {
    if (oldSchemaVersion <= 17 &&
        migration.hasProperty(QVLMedia::modelClass().name(), "urlString")) {
      migration.renameProperty(QVLMedia::modelClass().name(), "urlString", "urlOriginal");
    }
  };
  return configuration;
}

std::shared_ptr<qvl::Store> qvl::detail::openLibraryStore() {
  qvl::StoreConfiguration configuration = QVLRealm::configuration();
  const std::filesystem::path file(configuration.path);
  if (auto made = makePrivateDirectories(file.has_parent_path() ? file.parent_path() : ".");
      !made) {
    throw qvl::StoreError(qvl::storeErrorText(configuration.path, made.error));
  }
  return qvl::Store::open(configuration);
}

std::shared_ptr<qvl::Store> QVLRealm::realm() {
  try {
    return qvl::detail::openLibraryStore();
  } catch (const std::exception& e) {
    qvl::log(qvl::LogLevel::error,
             std::string("Couldn't create the QuorvelSDK Realm instance: ") + e.what());
    return nullptr;
  }
}
