// Bringing an older store file up to date.

#include "store/StoreImpl.h"

namespace qvl {

namespace {

std::int64_t singleInt(sqlite3* db, const char* sql) {
  Statement stmt = prepare(db, sql);
  int rc = sqlite3_step(stmt.get());
  if (rc == SQLITE_ROW) return sqlite3_column_int64(stmt.get(), 0);
  if (rc == SQLITE_DONE) return 0;
  throwStoreError(db, std::string("cannot run ") + sql);
}

}  // namespace

void upgradeFile(sqlite3* db, const StoreConfiguration& configuration,
                 const std::vector<const ClassInfo*>& infos) {
  execute(db, "BEGIN IMMEDIATE");
  try {
    auto found = static_cast<std::uint64_t>(singleInt(db, "PRAGMA user_version"));
    bool fresh = singleInt(db, "SELECT COUNT(*) FROM sqlite_master WHERE type='table'") == 0;
    if (!fresh && found > configuration.schemaVersion) {
      throw detail::UnreadableStoreFile(storeErrorText(
          configuration.path, "written at schema version " + std::to_string(found) +
                                  ", newer than the version this program knows (" +
                                  std::to_string(configuration.schemaVersion) + ")"));
    }
    if (!fresh && found < configuration.schemaVersion && configuration.migration) {
      Migration migration = StoreAccess::migration(db, found);
      try {
        configuration.migration(migration, found);
      } catch (const StoreError&) {
        throw;
      } catch (const std::exception& e) {
        throw StoreError(
            storeErrorText(configuration.path, std::string("migration failed: ") + e.what()));
      }
    }
    ensureSchema(db, infos);
    if (found != configuration.schemaVersion || fresh) {
      execute(db, "PRAGMA user_version=" + std::to_string(configuration.schemaVersion));
    }
    if (singleInt(db, "PRAGMA application_id") != kStoreApplicationId) {
      execute(db, "PRAGMA application_id=" + std::to_string(kStoreApplicationId));
    }
    execute(db, "COMMIT");
  } catch (...) {
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

Migration::Migration(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Migration::~Migration() = default;

std::uint64_t Migration::oldSchemaVersion() const { return impl_->oldVersion; }

bool Migration::hasProperty(const std::string& className, const std::string& name) const {
  sqlite3* db = impl_->db;
  if (!tableExists(db, className)) return false;
  return columnsOf(db, className).count(name) > 0 || tableExists(db, className + "." + name);
}

void Migration::renameProperty(const std::string& className, const std::string& oldName,
                               const std::string& newName) {
  sqlite3* db = impl_->db;
  if (!tableExists(db, className)) {
    throw StoreError(storeErrorText(
        filePath(db), "cannot rename " + className + "." + oldName + ": no such class"));
  }
  auto columns = columnsOf(db, className);
  if (columns.count(oldName)) {
    if (columns.count(newName)) {
      throw StoreError(storeErrorText(
          filePath(db), "cannot rename " + className + "." + oldName + ": " + newName + " exists"));
    }
    execute(db, "ALTER TABLE " + quoteIdentifier(className) + " RENAME COLUMN " +
                    quoteIdentifier(oldName) + " TO " + quoteIdentifier(newName));
    return;
  }
  if (tableExists(db, className + "." + oldName)) {
    execute(db, "ALTER TABLE " + quoteIdentifier(className + "." + oldName) + " RENAME TO " +
                    quoteIdentifier(className + "." + newName));
    return;
  }
  throw StoreError(storeErrorText(
      filePath(db), "cannot rename " + className + "." + oldName + ": no such property"));
}

}  // namespace qvl
