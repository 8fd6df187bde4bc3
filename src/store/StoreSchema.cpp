// The SQL of the store: statements derived from each class once, and the tables a file
// needs.

#include <cstring>
#include <mutex>

#include "store/StoreImpl.h"

namespace qvl {

std::string storeErrorText(const std::string& path, const std::string& what) {
  return "store " + path + ": " + what;
}

std::string filePath(sqlite3* db) {
  const char* file = sqlite3_db_filename(db, "main");
  return file && *file ? file : "(no file)";
}

void throwStoreError(sqlite3* db, const std::string& what, const std::string& path) {
  const int code = sqlite3_extended_errcode(db);
  std::string text = storeErrorText(path.empty() ? filePath(db) : path, what) + ": " +
                     sqlite3_errstr(code) + " (SQLite " + std::to_string(code);
  if (std::strcmp(sqlite3_errmsg(db), sqlite3_errstr(code)) != 0) {
    text += std::string(": ") + sqlite3_errmsg(db);
  }
  text += ")";
  if ((code & 0xff) == SQLITE_CORRUPT || (code & 0xff) == SQLITE_NOTADB) {
    throw detail::UnreadableStoreFile(text);
  }
  throw StoreError(text);
}

Statement prepare(sqlite3* db, const std::string& sql, unsigned flags) {
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v3(db, sql.c_str(), -1, flags, &stmt, nullptr);
  Statement owned(stmt);
  if (rc != SQLITE_OK || !owned) throwStoreError(db, "cannot prepare " + sql);
  return owned;
}

void execute(sqlite3* db, const std::string& sql) {
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    throwStoreError(db, "cannot run " + sql);
  }
}

void refuseForeignSchema(sqlite3* db, const std::string& path) {
  if (sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr) != SQLITE_OK ||
      sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr) != SQLITE_OK) {
    throwStoreError(db, "cannot harden the connection", path);
  }
  execute(db, "PRAGMA trusted_schema=OFF");
  // The store creates tables and indexes only; anything else came from elsewhere and might
  // run code on our statements. Its tables start with "_rowid" (records) or "owner" (lists),
  // as their primary key; a table of another shape belongs to another program.
  static const std::string kForeign =
      "SELECT 'a '||type||' ('||name||') the store did not create' FROM sqlite_master WHERE "
      "type NOT IN ('table','index') UNION ALL "
      "SELECT 'a table ('||m.name||') of a shape the store does not make' FROM sqlite_master m "
      "WHERE m.type='table' AND m.name NOT LIKE 'sqlite\\_%' ESCAPE '\\' AND NOT EXISTS ("
      "SELECT 1 FROM pragma_table_info(m.name) p WHERE p.cid=0 AND p.pk=1 AND "
      "p.name IN ('_rowid','owner')) UNION ALL "
      "SELECT 'the application id '||application_id||' of another program' FROM "
      "pragma_application_id WHERE application_id NOT IN (0," +
      std::to_string(kStoreApplicationId) + ") LIMIT 1";
  sqlite3_stmt* raw = nullptr;
  int rc = sqlite3_prepare_v2(db, kForeign.c_str(), -1, &raw, nullptr);
  Statement stmt(raw);
  if (rc == SQLITE_OK) rc = sqlite3_step(stmt.get());
  if (rc == SQLITE_ROW) {
    throw detail::UnreadableStoreFile(storeErrorText(
        path, std::string("refused: not a store file: it holds ") +
                  reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0))));
  }
  if (rc != SQLITE_DONE) throwStoreError(db, "cannot read the schema", path);
}

std::string join(const std::vector<std::string>& parts, const char* separator) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i) out += separator;
    out += parts[i];
  }
  return out;
}

std::string quoteIdentifier(const std::string& name) {
  std::string out = "\"";
  for (char c : name) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

namespace {

// The stored column names of a class, quoted, in the order of ClassInfo::columns.
std::vector<std::string> columnNames(const ObjectClass& cls, const std::string& prefix = "") {
  std::vector<std::string> names;
  for (const Property& p : cls.properties()) {
    if (p.kind == PropertyKind::LinkingObjects || p.kind == PropertyKind::List) continue;
    names.push_back(prefix + quoteIdentifier(p.name));
  }
  return names;
}

const char* columnType(PropertyKind kind) {
  switch (kind) {
    case PropertyKind::Double:
      return "REAL";
    case PropertyKind::String:
      return "TEXT";
    default:
      return "INTEGER";
  }
}

std::unique_ptr<ClassInfo> buildClassInfo(const ObjectClass& cls) {
  auto info = std::make_unique<ClassInfo>();
  info->objectClass = &cls;
  info->table = quoteIdentifier(cls.name());
  const auto& props = cls.properties();
  info->columnOfProperty.assign(props.size(), -1);
  info->listOfProperty.assign(props.size(), -1);
  info->updateColumn.resize(props.size());
  info->clearLinksIn.resize(props.size());
  const std::string& T = info->table;
  const std::string inRows = " IN (SELECT value FROM json_each(?))";
  std::vector<std::string> names;
  for (size_t i = 0; i < props.size(); ++i) {
    const Property& p = props[i];
    if (p.kind == PropertyKind::LinkingObjects) continue;
    if (p.kind == PropertyKind::List) {
      ClassInfo::ListInfo l;
      l.property = static_cast<int>(i);
      l.table = quoteIdentifier(cls.name() + "." + p.name);
      l.selectTargets = "SELECT target FROM " + l.table + " WHERE owner=? ORDER BY position";
      // The elements' rows with their columns in one read, as selectRow gives them.
      std::vector<std::string> targetColumns = columnNames(p.target(), "t.");
      targetColumns.insert(targetColumns.begin(), "t._rowid");
      l.selectElements = "SELECT " + join(targetColumns, ",") + " FROM " + l.table + " l JOIN " +
                         quoteIdentifier(p.target().name()) +
                         " t ON t._rowid=l.target WHERE l.owner=? ORDER BY l.position";
      l.deleteOwner = "DELETE FROM " + l.table + " WHERE owner=?";
      l.insertLink = "INSERT INTO " + l.table + "(owner,position,target) VALUES(?,?,?)";
      l.nextPosition = "SELECT IFNULL(MAX(position)+1,0) FROM " + l.table + " WHERE owner=?";
      l.count = "SELECT COUNT(*) FROM " + l.table + " WHERE owner=?";
      l.deleteOwnersIn = "DELETE FROM " + l.table + " WHERE owner" + inRows;
      l.deleteTargetsIn = "DELETE FROM " + l.table + " WHERE target" + inRows;
      l.target = &p.target();
      info->listOfProperty[i] = static_cast<int>(info->lists.size());
      info->lists.push_back(std::move(l));
      continue;
    }
    std::string q = quoteIdentifier(p.name);
    info->columnOfProperty[i] = static_cast<int>(info->columns.size());
    info->columns.push_back(static_cast<int>(i));
    names.push_back(q);
    info->updateColumn[i] = "UPDATE " + T + " SET " + q + "=? WHERE _rowid=?";
    if (p.kind == PropertyKind::Link) {
      info->clearLinksIn[i] = "UPDATE " + T + " SET " + q + "=NULL WHERE " + q + inRows;
    }
  }
  std::string cols = join(names, ",");
  std::vector<std::string> marks(names.size(), "?");
  info->selectRow =
      "SELECT _rowid" + (cols.empty() ? "" : "," + cols) + " FROM " + T + " WHERE _rowid=?";
  info->exists = "SELECT 1 FROM " + T + " WHERE _rowid=?";
  info->deleteRowsIn = "DELETE FROM " + T + " WHERE _rowid" + inRows;
  if (names.empty()) {
    info->insert = "INSERT INTO " + T + " DEFAULT VALUES";
  } else {
    info->insert = "INSERT INTO " + T + "(" + cols + ") VALUES(" + join(marks, ",") + ")";
    std::vector<std::string> sets;
    for (size_t c = 0; c < names.size(); ++c) sets.push_back(names[c] + "=?");
    info->updateRow = "UPDATE " + T + " SET " + join(sets, ",") + " WHERE _rowid=?";
  }
  if (cls.primaryKeyIndex() >= 0) {
    std::string pk = quoteIdentifier(cls.primaryKey());
    info->rowForKey = "SELECT _rowid FROM " + T + " WHERE " + pk + "=?";
    info->rowForNullKey = "SELECT _rowid FROM " + T + " WHERE " + pk + " IS NULL LIMIT 1";
    info->rowsForKeysIn = "SELECT _rowid FROM " + T + " WHERE " + pk + inRows;
    info->rowsNotForKeysIn =
        "SELECT _rowid FROM " + T + " WHERE " + pk + " IS NULL OR " + pk + " NOT" + inRows;
    info->upsert = upsertSql(*info, std::string(info->columns.size(), '0'));
  }
  return info;
}

}  // namespace

std::string upsertSql(const ClassInfo& info, const std::string& keptColumns) {
  const std::string pk = quoteIdentifier(info.objectClass->primaryKey());
  std::vector<std::string> names, updates;
  for (size_t c = 0; c < info.columns.size(); ++c) {
    std::string name = quoteIdentifier(info.objectClass->property(info.columns[c]).name);
    if (keptColumns[c] == '0' && name != pk) updates.push_back(name + "=excluded." + name);
    names.push_back(std::move(name));
  }
  std::string sql = "INSERT INTO " + info.table + "(" + join(names, ",") + ") VALUES(";
  for (size_t c = 0; c < names.size(); ++c) sql += c ? ",?" : "?";
  sql += ") ON CONFLICT(";
  sql += pk;
  if (updates.empty()) {
    sql += ") DO NOTHING";
  } else {
    sql += ") DO UPDATE SET ";
    sql += join(updates, ",");
  }
  return sql;
}

const ClassInfo& ClassInfo::of(const ObjectClass& objectClass) {
  static std::mutex mutex;
  static std::unordered_map<const ObjectClass*, std::unique_ptr<ClassInfo>> infos;
  std::lock_guard lock(mutex);
  auto& slot = infos[&objectClass];
  if (!slot) slot = buildClassInfo(objectClass);
  return *slot;
}

bool tableExists(sqlite3* db, const std::string& name) {
  Statement stmt = prepare(db, "SELECT 1 FROM sqlite_master WHERE type='table' AND name=?");
  sqlite3_bind_text(stmt.get(), 1, name.c_str(), -1, SQLITE_TRANSIENT);
  return sqlite3_step(stmt.get()) == SQLITE_ROW;
}

std::unordered_set<std::string> columnsOf(sqlite3* db, const std::string& table) {
  std::unordered_set<std::string> out;
  Statement stmt = prepare(db, "PRAGMA table_info(" + quoteIdentifier(table) + ")");
  while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
    out.insert(reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 1)));
  }
  return out;
}

void ensureSchema(sqlite3* db, const std::vector<const ClassInfo*>& infos) {
  for (const ClassInfo* info : infos) {
    const ObjectClass& cls = *info->objectClass;
    if (!tableExists(db, cls.name())) {
      std::string sql = "CREATE TABLE " + info->table + "(_rowid INTEGER PRIMARY KEY";
      for (int index : info->columns) {
        const Property& p = cls.property(index);
        sql += "," + quoteIdentifier(p.name) + " " + columnType(p.kind);
      }
      execute(db, sql + ")");
    } else {
      auto existing = columnsOf(db, cls.name());
      for (int index : info->columns) {
        const Property& p = cls.property(index);
        if (existing.count(p.name)) continue;
        execute(db, "ALTER TABLE " + info->table + " ADD COLUMN " + quoteIdentifier(p.name) + " " +
                        columnType(p.kind));
      }
    }
    if (cls.primaryKeyIndex() >= 0) {
      execute(db, "CREATE UNIQUE INDEX IF NOT EXISTS " + quoteIdentifier(cls.name() + ".key") +
                      " ON " + info->table + "(" + quoteIdentifier(cls.primaryKey()) + ")");
    }
    for (const auto& list : info->lists) {
      const std::string name = cls.name() + "." + cls.property(list.property).name;
      execute(db, "CREATE TABLE IF NOT EXISTS " + list.table +
                      "(owner INTEGER NOT NULL, position INTEGER NOT NULL, target INTEGER NOT NULL,"
                      " PRIMARY KEY(owner, position)) WITHOUT ROWID");
      execute(db, "CREATE INDEX IF NOT EXISTS " + quoteIdentifier(name + ".target") + " ON " +
                      list.table + "(target)");
    }
  }
}

}  // namespace qvl
