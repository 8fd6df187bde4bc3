#pragma once
// Internal: the SQLite side of the object store.

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "quorvel/store/Store.h"
#include "store/ObjectImpl.h"

namespace qvl {

// ---- owned SQLite handles -----------------------------------------------------------

struct ConnectionCloser {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StatementFinalizer {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using Connection = std::unique_ptr<sqlite3, ConnectionCloser>;
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

// ---- errors --------------------------------------------------------------------------

namespace detail {
/// A file the store cannot take as its own: corrupt, not a store file, or written at a newer
/// schema version. Store::open may move it aside (Env::moveUnreadableStoreAside).
class UnreadableStoreFile : public StoreError {
 public:
  using StoreError::StoreError;
};
}  // namespace detail

/// The one form of every store error's text: "store <file>: <what>".
std::string storeErrorText(const std::string& path, const std::string& what);
/// The file a connection is open on, as SQLite resolved it (absolute).
std::string filePath(sqlite3* db);
/// Throws the connection's last failure as StoreError: storeErrorText(path, what) followed by
/// SQLite's cause and message. `path` defaults to the connection's file. Corruption and
/// "not a database" throw detail::UnreadableStoreFile.
[[noreturn]] void throwStoreError(sqlite3* db, const std::string& what,
                                  const std::string& path = {});

/// Prepares sql on db; throws StoreError with the engine's message when it does not.
Statement prepare(sqlite3* db, const std::string& sql, unsigned flags = 0);
/// Runs sql (one or more statements without results); throws StoreError.
void execute(sqlite3* db, const std::string& sql);

/// A prepared statement, reset when the use ends so that no read transaction stays open
/// between calls. Every use binds every parameter: bindings are not cleared, and bound text is
/// not copied, so it must live until the use ends.
class StatementUse {
 public:
  explicit StatementUse(sqlite3_stmt* stmt) : stmt_(stmt) {}
  ~StatementUse() { sqlite3_reset(stmt_); }
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;
  sqlite3_stmt* get() const { return stmt_; }
  /// Steps once; true when a row is ready, false when done. Throws StoreError.
  bool step();
  void bindInt(int i, std::int64_t v) { sqlite3_bind_int64(stmt_, i, v); }
  void bindText(int i, const std::string& v) {
    sqlite3_bind_text(stmt_, i, v.data(), static_cast<int>(v.size()), SQLITE_STATIC);
  }
  void bindNull(int i) { sqlite3_bind_null(stmt_, i); }
  std::int64_t columnInt(int i) const { return sqlite3_column_int64(stmt_, i); }
  bool columnIsNull(int i) const { return sqlite3_column_type(stmt_, i) == SQLITE_NULL; }

 private:
  sqlite3_stmt* stmt_;
};

/// SQL and layout of one class, derived once from its descriptor.
struct ClassInfo {
  struct ListInfo {
    int property = -1;
    std::string table;  // quoted
    std::string selectTargets, selectElements, deleteOwner, insertLink, nextPosition, count;
    std::string deleteOwnersIn, deleteTargetsIn;  // row sets bound as one JSON array
    const ObjectClass* target = nullptr;
  };

  const ObjectClass* objectClass = nullptr;
  std::string table;                  // quoted
  std::vector<int> columns;           // property indexes stored as columns, in column order
  std::vector<int> columnOfProperty;  // property index -> position in `columns`, or -1
  std::vector<int> listOfProperty;    // property index -> position in `lists`, or -1
  std::vector<ListInfo> lists;
  std::string selectRow, rowForKey, rowForNullKey, upsert, insert, updateRow, deleteRow, exists;
  std::vector<std::string> updateColumn;  // by property index (columns only)
  std::vector<std::string> clearLinksIn;  // by property index (links only)
  std::string rowsForKeysIn, rowsNotForKeysIn, deleteRowsIn;

  static const ClassInfo& of(const ObjectClass& objectClass);
};

std::string quoteIdentifier(const std::string& name);
/// INSERT of every column of a class with a primary key that, for a stored key, updates only
/// the columns not marked '1' in keptColumns (one character per column).
std::string upsertSql(const ClassInfo& info, const std::string& keptColumns);
std::string join(const std::vector<std::string>& parts, const char* separator);
std::int64_t dateToStored(Date date);
Date storedToDate(std::int64_t stored);

// ---- schema (StoreSchema.cpp) --------------------------------------------------------

/// Written into every store file's header (PRAGMA application_id): "QVLS".
constexpr int kStoreApplicationId = 0x51564C53;

bool tableExists(sqlite3* db, const std::string& name);
std::unordered_set<std::string> columnsOf(sqlite3* db, const std::string& table);
/// Hardens a new connection (defensive mode, schema not trusted) and refuses a file holding
/// anything the store never creates (triggers, views, tables of another shape, another
/// application's id), before any statement could run it. Throws
/// detail::UnreadableStoreFile naming `path` and the reason.
void refuseForeignSchema(sqlite3* db, const std::string& path);
/// Creates what the classes need and the file lacks: tables, columns, key indexes, list
/// tables.
void ensureSchema(sqlite3* db, const std::vector<const ClassInfo*>& infos);
/// In one transaction: checks the file's version, runs the configuration's migration for an
/// older file, ensures the schema and records the version and the store's application id.
/// Throws StoreError; detail::UnreadableStoreFile for a file of a newer version.
void upgradeFile(sqlite3* db, const StoreConfiguration& configuration,
                 const std::vector<const ClassInfo*>& infos);

namespace detail {

struct StoreImpl {
  StoreImpl(std::string filePath, std::uint64_t version)
      : path(std::move(filePath)), schemaVersion(version), thread(std::this_thread::get_id()) {}

  Connection db;  // first member: closed after every statement is finalised
  std::string path;
  std::uint64_t schemaVersion;
  std::thread::id thread;  // the one that opened the handle
  bool inWrite = false;
  std::unordered_map<const void*, Statement> statements;
  // Statements of results queries, keyed by their text.
  std::unordered_map<std::string, Statement> queries;
  // Statements that keep some columns, keyed by kind, table and kept columns.
  std::unordered_map<std::string, sqlite3_stmt*> keepingStatements;
  // Classes of this file by descriptor and by name.
  std::unordered_map<const ObjectClass*, const ClassInfo*> classes;
  std::unordered_map<std::string, const ClassInfo*> classesByName;
  std::vector<const ObjectClass*> classList;  // as configured, to recognise the same schema
  // For each class name: the lists and link columns of other classes that point at it.
  struct Incoming {
    std::vector<const ClassInfo::ListInfo*> lists;
    std::vector<std::pair<const ClassInfo*, int>> links;  // (class, property)
  };
  std::unordered_map<std::string, Incoming> incoming;
  std::uint64_t changeCounter = 1;
  int lastDataVersion = -1;

  /// The statement for sql, prepared once per handle. `sql` must outlive the handle
  /// (class SQL lives for the process; query SQL is interned by the caller).
  sqlite3_stmt* statement(const std::string& sql);
  /// The statement for sql, prepared once per handle and cached by its text.
  sqlite3_stmt* queryStatement(const std::string& sql);
  void exec(const char* sql) { execute(db.get(), sql); }

  const ClassInfo& info(const ObjectClass& objectClass) const;
  std::shared_ptr<Object> load(Store& store, const ClassInfo& info, std::int64_t row);
  void fill(Object& object, const ClassInfo& info, StatementUse& use, int firstColumn);
  std::vector<std::int64_t> listRows(const ClassInfo::ListInfo& list, std::int64_t owner);
  void writeList(const ClassInfo::ListInfo& list, std::int64_t owner,
                 const std::vector<std::int64_t>& rows);
  /// Binds `value` (text without a copy: it must outlive the use).
  void bindValue(StatementUse& use, int position, const Property& property, const Value& value);
  std::int64_t rowForKey(const ClassInfo& info, std::optional<std::int64_t> key);
  /// UPDATE of a row's columns except those marked '1' in keptColumns (one character per
  /// column); nullptr when no column is left to write.
  sqlite3_stmt* updateStatement(const ClassInfo& info, const std::string& keptColumns);
  /// INSERT of every column that, for a stored key, updates only the columns not marked
  /// '1' in keptColumns.
  sqlite3_stmt* upsertStatement(const ClassInfo& info, const std::string& keptColumns);
  /// The rows (a JSON array) of a class selected by one of its key queries
  /// (rowsForKeysIn, rowsNotForKeysIn) with keys bound as a JSON array.
  std::string rowsSelectedBy(const std::string& query, const std::vector<std::int64_t>& keys);
  /// Deletes rows (a JSON array of row ids) of a class and every reference to them.
  void deleteRows(const ClassInfo& info, const std::string& rowsJson);
};

}  // namespace detail

struct Migration::Impl {
  Impl(sqlite3* connection, std::uint64_t version) : db(connection), oldVersion(version) {}
  sqlite3* db;
  std::uint64_t oldVersion;
};

/// Lets records and lists reach the handle's internals.
class StoreAccess {
 public:
  static detail::StoreImpl& impl(Store& store) { return *store.impl_; }
  static std::int64_t row(const Object& object) { return object.impl_->row; }
  /// Scalar property `index` of `object`, unchecked.
  static Value& value(Object& object, int index) {
    return object.impl_->values()[object.storageIndex(index)];
  }
  static const Value& value(const Object& object, int index) {
    return object.impl_->values()[object.storageIndex(index)];
  }
  /// Link property `index` of `object`, unchecked.
  static Object::LinkSlot& link(Object& object, int index) { return object.linkSlot(index); }
  static bool keepsStoredValue(const Object& object, int index) { return object.keepsMark(index); }
  static void manage(Object& object, std::shared_ptr<Store> store, std::int64_t row) {
    object.impl_->store = std::move(store);
    object.impl_->row = row;
  }
  static std::int64_t upsertGraph(Store& store, const std::shared_ptr<Object>& object);
  static Migration migration(sqlite3* db, std::uint64_t oldVersion) {
    return Migration(std::make_unique<Migration::Impl>(db, oldVersion));
  }
};

}  // namespace qvl
