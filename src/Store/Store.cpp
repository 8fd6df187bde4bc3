#include "quorvel/Store/Store.h"

#include <mutex>
#include <nlohmann/json.hpp>
#include <unordered_set>

#include "Store/StoreImpl.h"

namespace qvl {

// ---- helpers -------------------------------------------------------------------------

std::string quoteIdentifier(const std::string& name) {
  std::string out = "\"";
  for (char c : name) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

std::int64_t dateToStored(Date date) { return date.time_since_epoch().count(); }

Date storedToDate(std::int64_t stored) { return Date(Date::duration(stored)); }

bool StatementUse::step() {
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  throw StoreError(std::string("store: ") + sqlite3_errmsg(sqlite3_db_handle(stmt_)));
}

namespace {

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

std::string join(const std::vector<std::string>& parts, const char* separator) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i) out += separator;
    out += parts[i];
  }
  return out;
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
    info->insert = "INSERT INTO " + T + " DEFAULT VALUES RETURNING _rowid";
  } else {
    info->insert =
        "INSERT INTO " + T + "(" + cols + ") VALUES(" + join(marks, ",") + ") RETURNING _rowid";
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
    std::vector<std::string> updates;
    for (const auto& n : names) {
      if (n != pk) updates.push_back(n + "=excluded." + n);
    }
    if (updates.empty()) updates.push_back(pk + "=excluded." + pk);
    info->upsert = "INSERT INTO " + T + "(" + cols + ") VALUES(" + join(marks, ",") +
                   ") ON CONFLICT(" + pk + ") DO UPDATE SET " + join(updates, ",") +
                   " RETURNING _rowid";
  }
  return info;
}

}  // namespace

const ClassInfo& ClassInfo::of(const ObjectClass& objectClass) {
  static std::mutex mutex;
  static std::unordered_map<const ObjectClass*, std::unique_ptr<ClassInfo>> infos;
  std::lock_guard lock(mutex);
  auto& slot = infos[&objectClass];
  if (!slot) slot = buildClassInfo(objectClass);
  return *slot;
}

// ---- Impl ----------------------------------------------------------------------------

Store::Impl::~Impl() {
  for (auto& [key, stmt] : statements) sqlite3_finalize(stmt);
  for (auto& [key, stmt] : queries) sqlite3_finalize(stmt);
  if (db) sqlite3_close_v2(db);
}

void Store::Impl::fail(const std::string& what) const {
  throw StoreError("store: " + what + ": " + sqlite3_errmsg(db));
}

sqlite3_stmt* Store::Impl::statement(const std::string& sql) {
  auto it = statements.find(&sql);
  if (it != statements.end()) return it->second;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v3(db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) !=
      SQLITE_OK) {
    fail("cannot prepare " + sql);
  }
  statements.emplace(&sql, stmt);
  return stmt;
}

sqlite3_stmt* Store::Impl::queryStatement(const std::string& sql) {
  auto it = queries.find(sql);
  if (it != queries.end()) return it->second;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v3(db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) !=
      SQLITE_OK) {
    fail("cannot prepare " + sql);
  }
  queries.emplace(sql, stmt);
  return stmt;
}

void Store::Impl::exec(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : sqlite3_errmsg(db);
    sqlite3_free(message);
    throw StoreError(std::string("store: ") + sql + ": " + text);
  }
}

const ClassInfo& Store::Impl::info(const ObjectClass& objectClass) const {
  auto it = classes.find(&objectClass);
  if (it == classes.end()) {
    throw std::logic_error("class " + objectClass.name() + " is not part of this store's schema");
  }
  return *it->second;
}

void Store::Impl::bindValue(StatementUse& use, int position, const Property& property,
                            const Value& value) {
  if (isNull(value)) {
    use.bindNull(position);
    return;
  }
  switch (property.kind) {
    case PropertyKind::Bool:
      use.bindInt(position, std::get<bool>(value) ? 1 : 0);
      break;
    case PropertyKind::Double:
      sqlite3_bind_double(use.get(), position, std::get<double>(value));
      break;
    case PropertyKind::String:
      use.bindText(position, std::get<std::string>(value));
      break;
    case PropertyKind::Date:
      use.bindInt(position, dateToStored(std::get<Date>(value)));
      break;
    default:
      use.bindInt(position, std::get<std::int64_t>(value));
      break;
  }
}

void Store::Impl::fill(Object& object, const ClassInfo& info, StatementUse& use, int firstColumn) {
  for (size_t c = 0; c < info.columns.size(); ++c) {
    int col = firstColumn + static_cast<int>(c);
    int index = info.columns[c];
    const Property& p = info.objectClass->property(index);
    Object::Slot& slot = StoreAccess::slot(object, index);
    bool null = use.columnIsNull(col);
    sqlite3_stmt* s = use.get();
    switch (p.kind) {
      case PropertyKind::Int:
      case PropertyKind::Int32:
        if (null)
          slot.value = p.optional ? Value{} : Value{std::int64_t{0}};
        else
          slot.value = static_cast<std::int64_t>(sqlite3_column_int64(s, col));
        break;
      case PropertyKind::Bool:
        slot.value = !null && sqlite3_column_int64(s, col) != 0;
        break;
      case PropertyKind::Double:
        if (null)
          slot.value = p.optional ? Value{} : Value{0.0};
        else
          slot.value = sqlite3_column_double(s, col);
        break;
      case PropertyKind::String:
        if (null) {
          slot.value = Value{};
        } else {
          auto text = reinterpret_cast<const char*>(sqlite3_column_text(s, col));
          slot.value = std::string(text, static_cast<size_t>(sqlite3_column_bytes(s, col)));
        }
        break;
      case PropertyKind::Date:
        slot.value = null ? Value{} : Value{storedToDate(sqlite3_column_int64(s, col))};
        break;
      case PropertyKind::Link:
        slot.link.reset();
        slot.linkRow = null ? 0 : sqlite3_column_int64(s, col);
        slot.linkResolved = slot.linkRow == 0;
        break;
      default:
        break;
    }
  }
}

std::shared_ptr<Object> Store::Impl::load(Store& store, const ClassInfo& info, std::int64_t row) {
  StatementUse use(statement(info.selectRow));
  use.bindInt(1, row);
  if (!use.step()) return nullptr;
  auto object = info.objectClass->makeObject();
  fill(*object, info, use, 1);
  StoreAccess::manage(*object, store.shared_from_this(), row);
  return object;
}

std::vector<std::int64_t> Store::Impl::listRows(const ClassInfo::ListInfo& list,
                                                std::int64_t owner) {
  std::vector<std::int64_t> rows;
  StatementUse use(statement(list.selectTargets));
  use.bindInt(1, owner);
  while (use.step()) rows.push_back(use.columnInt(0));
  return rows;
}

void Store::Impl::writeList(const ClassInfo::ListInfo& list, std::int64_t owner,
                            const std::vector<std::int64_t>& rows) {
  {
    StatementUse use(statement(list.deleteOwner));
    use.bindInt(1, owner);
    use.step();
  }
  sqlite3_stmt* insert = statement(list.insertLink);
  for (size_t i = 0; i < rows.size(); ++i) {
    if (rows[i] == 0) continue;  // filled in later (a record still being written)
    StatementUse use(insert);
    use.bindInt(1, owner);
    use.bindInt(2, static_cast<std::int64_t>(i));
    use.bindInt(3, rows[i]);
    use.step();
  }
  ++changeCounter;
}

std::int64_t Store::Impl::rowForKey(const ClassInfo& info, std::optional<std::int64_t> key) {
  StatementUse use(statement(key ? info.rowForKey : info.rowForNullKey));
  if (key) use.bindInt(1, *key);
  return use.step() ? use.columnInt(0) : 0;
}

void Store::Impl::deleteRows(const ClassInfo& info, const std::string& rowsJson) {
  auto run = [&](const std::string& sql) {
    StatementUse use(statement(sql));
    use.bindText(1, rowsJson);
    use.step();
  };
  for (const auto& list : info.lists) run(list.deleteOwnersIn);
  auto in = incoming.find(info.objectClass->name());
  if (in != incoming.end()) {
    for (const auto* list : in->second.lists) run(list->deleteTargetsIn);
    for (const auto& [cls, prop] : in->second.links) run(cls->clearLinksIn[prop]);
  }
  run(info.deleteRowsIn);
  ++changeCounter;
}

// ---- graph writes --------------------------------------------------------------------

namespace {

/// Writes a graph of records; records met twice are written once, and references to a
/// record still being written (cycles) are filled in at the end.
class GraphWriter {
 public:
  GraphWriter(Store& store, Store::Impl& impl) : store_(store), impl_(impl) {}

  std::int64_t write(const std::shared_ptr<Object>& object) {
    if (object->store()) {
      if (object->store().get() != &store_) {
        throw std::logic_error("a record managed by another store handle cannot be added");
      }
      return StoreAccess::row(*object);
    }
    auto found = rows_.find(object.get());
    if (found != rows_.end()) return found->second;
    rows_.emplace(object.get(), 0);

    const ClassInfo& info = impl_.info(object->objectClass());
    const ObjectClass& cls = *info.objectClass;
    std::vector<std::int64_t> linkRows(info.columns.size(), 0);
    std::vector<const Object*> pendingLinks(info.columns.size(), nullptr);
    for (size_t c = 0; c < info.columns.size(); ++c) {
      int index = info.columns[c];
      if (cls.property(index).kind != PropertyKind::Link) continue;
      auto target = object->link(index);
      if (!target) continue;
      checkClass(*target, cls.property(index));
      linkRows[c] = write(target);
      if (linkRows[c] == 0) pendingLinks[c] = target.get();
    }

    std::int64_t row = 0;
    auto bindColumns = [&](StatementUse& use) {
      for (size_t c = 0; c < info.columns.size(); ++c) {
        int index = info.columns[c];
        const Property& p = cls.property(index);
        int position = static_cast<int>(c) + 1;
        if (p.kind == PropertyKind::Link) {
          if (linkRows[c])
            use.bindInt(position, linkRows[c]);
          else
            use.bindNull(position);
        } else {
          impl_.bindValue(use, position, p, object->value(index));
        }
      }
    };
    if (cls.primaryKeyIndex() >= 0 && !object->primaryKeyValue()) {
      row = impl_.rowForKey(info, std::nullopt);
      if (row && !info.updateRow.empty()) {
        StatementUse use(impl_.statement(info.updateRow));
        bindColumns(use);
        use.bindInt(static_cast<int>(info.columns.size()) + 1, row);
        use.step();
      }
    }
    if (!row) {
      const std::string& sql =
          cls.primaryKeyIndex() >= 0 && object->primaryKeyValue() ? info.upsert : info.insert;
      StatementUse use(impl_.statement(sql));
      bindColumns(use);
      if (!use.step()) throw StoreError("store: no row written for " + cls.name());
      row = use.columnInt(0);
    }
    rows_[object.get()] = row;
    for (size_t c = 0; c < pendingLinks.size(); ++c) {
      if (pendingLinks[c]) linkFixes_.push_back({&info, info.columns[c], row, pendingLinks[c]});
    }

    for (const auto& list : info.lists) {
      AnyList handle(object, list.property);
      auto elements = handle.elements();
      std::vector<std::int64_t> targets(elements.size());
      for (size_t i = 0; i < elements.size(); ++i) {
        checkClass(*elements[i], cls.property(list.property));
        targets[i] = write(elements[i]);
        if (targets[i] == 0) {
          listFixes_.push_back({&list, row, static_cast<std::int64_t>(i), elements[i].get()});
        }
      }
      impl_.writeList(list, row, targets);
    }
    ++impl_.changeCounter;
    return row;
  }

  void finish() {
    for (const auto& fix : linkFixes_) {
      StatementUse use(impl_.statement(fix.info->updateColumn[fix.property]));
      use.bindInt(1, rows_.at(fix.target));
      use.bindInt(2, fix.owner);
      use.step();
    }
    for (const auto& fix : listFixes_) {
      StatementUse use(impl_.statement(fix.list->insertLink));
      use.bindInt(1, fix.owner);
      use.bindInt(2, fix.position);
      use.bindInt(3, rows_.at(fix.target));
      use.step();
    }
  }

 private:
  static void checkClass(const Object& target, const Property& property) {
    if (target.objectClass().name() != property.target().name()) {
      throw std::logic_error("property " + property.name + " holds " + property.target().name() +
                             " records, not " + target.objectClass().name());
    }
  }

  struct LinkFix {
    const ClassInfo* info;
    int property;
    std::int64_t owner;
    const Object* target;
  };
  struct ListFix {
    const ClassInfo::ListInfo* list;
    std::int64_t owner;
    std::int64_t position;
    const Object* target;
  };

  Store& store_;
  Store::Impl& impl_;
  std::unordered_map<const Object*, std::int64_t> rows_;
  std::vector<LinkFix> linkFixes_;
  std::vector<ListFix> listFixes_;
};

}  // namespace

std::int64_t StoreAccess::upsertGraph(Store& store, const std::shared_ptr<Object>& object) {
  store.checkWrite();
  GraphWriter writer(store, *store.impl_);
  std::int64_t row = writer.write(object);
  writer.finish();
  return row;
}

// ---- schema --------------------------------------------------------------------------

namespace {

bool tableExists(sqlite3* db, const std::string& name) {
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(db, "SELECT 1 FROM sqlite_master WHERE type='table' AND name=?", -1, &stmt,
                     nullptr);
  sqlite3_bind_text(stmt, 1, name.c_str(), -1, SQLITE_TRANSIENT);
  bool found = sqlite3_step(stmt) == SQLITE_ROW;
  sqlite3_finalize(stmt);
  return found;
}

std::unordered_set<std::string> columnsOf(sqlite3* db, const std::string& table) {
  std::unordered_set<std::string> out;
  sqlite3_stmt* stmt = nullptr;
  std::string sql = "PRAGMA table_info(" + quoteIdentifier(table) + ")";
  sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr);
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    out.insert(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1)));
  }
  sqlite3_finalize(stmt);
  return out;
}

std::int64_t singleInt(sqlite3* db, const char* sql) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
    throw StoreError(std::string("store: ") + sqlite3_errmsg(db));
  }
  std::int64_t value = sqlite3_step(stmt) == SQLITE_ROW ? sqlite3_column_int64(stmt, 0) : 0;
  sqlite3_finalize(stmt);
  return value;
}

void execOn(sqlite3* db, const std::string& sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : sqlite3_errmsg(db);
    sqlite3_free(message);
    throw StoreError("store: " + sql + ": " + text);
  }
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
      execOn(db, sql + ")");
    } else {
      auto existing = columnsOf(db, cls.name());
      for (int index : info->columns) {
        const Property& p = cls.property(index);
        if (existing.count(p.name)) continue;
        execOn(db, "ALTER TABLE " + info->table + " ADD COLUMN " + quoteIdentifier(p.name) + " " +
                       columnType(p.kind));
      }
    }
    if (cls.primaryKeyIndex() >= 0) {
      execOn(db, "CREATE UNIQUE INDEX IF NOT EXISTS " + quoteIdentifier(cls.name() + ".key") +
                     " ON " + info->table + "(" + quoteIdentifier(cls.primaryKey()) + ")");
    }
    for (const auto& list : info->lists) {
      const std::string name = cls.name() + "." + cls.property(list.property).name;
      execOn(db, "CREATE TABLE IF NOT EXISTS " + list.table +
                     "(owner INTEGER NOT NULL, position INTEGER NOT NULL, target INTEGER NOT NULL,"
                     " PRIMARY KEY(owner, position)) WITHOUT ROWID");
      execOn(db, "CREATE INDEX IF NOT EXISTS " + quoteIdentifier(name + ".target") + " ON " +
                     list.table + "(target)");
    }
  }
}

}  // namespace

bool Migration::hasProperty(const std::string& className, const std::string& name) const {
  auto* db = static_cast<sqlite3*>(db_);
  if (!tableExists(db, className)) return false;
  return columnsOf(db, className).count(name) > 0 || tableExists(db, className + "." + name);
}

void Migration::renameProperty(const std::string& className, const std::string& oldName,
                               const std::string& newName) {
  auto* db = static_cast<sqlite3*>(db_);
  if (!tableExists(db, className)) {
    throw StoreError("store: cannot rename " + className + "." + oldName + ": no such class");
  }
  auto columns = columnsOf(db, className);
  if (columns.count(oldName)) {
    if (columns.count(newName)) {
      throw StoreError("store: cannot rename " + className + "." + oldName + ": " + newName +
                       " exists");
    }
    execOn(db, "ALTER TABLE " + quoteIdentifier(className) + " RENAME COLUMN " +
                   quoteIdentifier(oldName) + " TO " + quoteIdentifier(newName));
    return;
  }
  if (tableExists(db, className + "." + oldName)) {
    execOn(db, "ALTER TABLE " + quoteIdentifier(className + "." + oldName) + " RENAME TO " +
                   quoteIdentifier(className + "." + newName));
    return;
  }
  throw StoreError("store: cannot rename " + className + "." + oldName + ": no such property");
}

// ---- Store ---------------------------------------------------------------------------

namespace {
thread_local std::unordered_map<std::string, std::shared_ptr<Store>> threadHandles;
}

Store::Store(std::string path, std::uint64_t schemaVersion)
    : path_(std::move(path)),
      schemaVersion_(schemaVersion),
      thread_(std::this_thread::get_id()),
      impl_(std::make_unique<Impl>()) {}

Store::~Store() = default;

void Store::closeThreadHandles() { threadHandles.clear(); }

std::shared_ptr<Store> Store::open(const StoreConfiguration& configuration) {
  std::vector<const ObjectClass*> classList;
  for (auto ref : configuration.classes) classList.push_back(&ref());
  auto cached = threadHandles.find(configuration.path);
  if (cached != threadHandles.end()) {
    const Store& s = *cached->second;
    if (s.schemaVersion_ == configuration.schemaVersion && s.impl_->classList == classList) {
      return cached->second;
    }
    threadHandles.erase(cached);
  }

  std::shared_ptr<Store> store(new Store(configuration.path, configuration.schemaVersion));
  Impl& impl = *store->impl_;
  impl.classList = classList;
  if (sqlite3_open_v2(configuration.path.c_str(), &impl.db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                      nullptr) != SQLITE_OK) {
    std::string message = impl.db ? sqlite3_errmsg(impl.db) : "out of memory";
    throw StoreError("store: cannot open " + configuration.path + ": " + message);
  }
  sqlite3_busy_timeout(impl.db, 60000);
  impl.exec("PRAGMA journal_mode=WAL");
  impl.exec("PRAGMA synchronous=NORMAL");

  std::vector<const ClassInfo*> infos;
  for (const ObjectClass* cls : classList) {
    const ClassInfo& info = ClassInfo::of(*cls);
    if (!impl.classesByName.emplace(cls->name(), &info).second) {
      throw StoreError("store: class " + cls->name() + " configured twice");
    }
    impl.classes.emplace(cls, &info);
    infos.push_back(&info);
  }
  for (const ClassInfo* info : infos) {
    const ObjectClass& cls = *info->objectClass;
    for (const auto& list : info->lists) impl.incoming[list.target->name()].lists.push_back(&list);
    for (int index : info->columns) {
      const Property& p = cls.property(index);
      if (p.kind == PropertyKind::Link)
        impl.incoming[p.target().name()].links.push_back({info, index});
    }
  }

  impl.exec("BEGIN IMMEDIATE");
  try {
    auto found = static_cast<std::uint64_t>(singleInt(impl.db, "PRAGMA user_version"));
    bool fresh = singleInt(impl.db, "SELECT COUNT(*) FROM sqlite_master WHERE type='table'") == 0;
    if (!fresh && found > configuration.schemaVersion) {
      throw StoreError("store: provided schema version " +
                       std::to_string(configuration.schemaVersion) +
                       " is less than last set version " + std::to_string(found));
    }
    if (!fresh && found < configuration.schemaVersion && configuration.migration) {
      Migration migration(impl.db, found);
      try {
        configuration.migration(migration, found);
      } catch (const StoreError&) {
        throw;
      } catch (const std::exception& e) {
        throw StoreError(std::string("store: migration failed: ") + e.what());
      }
    }
    ensureSchema(impl.db, infos);
    if (found != configuration.schemaVersion || fresh) {
      impl.exec(("PRAGMA user_version=" + std::to_string(configuration.schemaVersion)).c_str());
    }
    impl.exec("COMMIT");
  } catch (...) {
    sqlite3_exec(impl.db, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
  threadHandles[configuration.path] = store;
  return store;
}

void Store::checkThread() const {
  if (std::this_thread::get_id() != thread_) {
    throw std::logic_error("store handle used on a thread that did not open it");
  }
}

void Store::checkWrite() const {
  checkThread();
  if (!inWrite_) throw std::logic_error("store changes need a write transaction");
}

void Store::beginWrite() {
  checkThread();
  if (inWrite_) throw std::logic_error("a write transaction is already open on this handle");
  impl_->exec("BEGIN IMMEDIATE");
  inWrite_ = true;
}

void Store::commitWrite() {
  checkThread();
  if (!inWrite_) throw std::logic_error("no write transaction to commit");
  impl_->exec("COMMIT");
  inWrite_ = false;
}

void Store::cancelWrite() {
  if (!inWrite_ || std::this_thread::get_id() != thread_) return;
  sqlite3_exec(impl_->db, "ROLLBACK", nullptr, nullptr, nullptr);
  inWrite_ = false;
  ++impl_->changeCounter;
}

std::shared_ptr<Object> Store::addOrUpdate(const std::shared_ptr<Object>& object) {
  if (!object) throw std::invalid_argument("addOrUpdate: no record");
  std::int64_t row = StoreAccess::upsertGraph(*this, object);
  return impl_->load(*this, impl_->info(object->objectClass()), row);
}

void Store::addOrUpdateAll(const std::vector<std::shared_ptr<Object>>& objects) {
  checkWrite();
  GraphWriter writer(*this, *impl_);
  for (const auto& object : objects) {
    if (!object) throw std::invalid_argument("addOrUpdateAll: no record");
    writer.write(object);
  }
  writer.finish();
}

void Store::remove(const std::shared_ptr<Object>& object) {
  checkWrite();
  if (!object || object->store().get() != this) {
    throw std::logic_error("only records of this store handle can be deleted");
  }
  impl_->deleteRows(impl_->info(object->objectClass()),
                    "[" + std::to_string(StoreAccess::row(*object)) + "]");
}

void Store::removeWithPrimaryKeys(const ObjectClass& objectClass,
                                  const std::vector<std::int64_t>& keys) {
  if (keys.empty()) {
    checkWrite();
    return;
  }
  removeRowsSelectedBy(objectClass, &ClassInfo::rowsForKeysIn, keys);
}

void Store::removeAllExceptPrimaryKeys(const ObjectClass& objectClass,
                                       const std::vector<std::int64_t>& keys) {
  removeRowsSelectedBy(objectClass, &ClassInfo::rowsNotForKeysIn, keys);
}

void Store::removeRowsSelectedBy(const ObjectClass& objectClass, std::string ClassInfo::*query,
                                 const std::vector<std::int64_t>& keys) {
  checkWrite();
  const ClassInfo& info = impl_->info(objectClass);
  if (info.rowsForKeysIn.empty()) {
    throw std::logic_error(objectClass.name() + " has no primary key");
  }
  std::string keysJson = nlohmann::json(keys).dump();
  std::string rows = "[";
  {
    StatementUse use(impl_->statement(info.*query));
    use.bindText(1, keysJson);
    bool first = true;
    while (use.step()) {
      if (!first) rows += ',';
      rows += std::to_string(use.columnInt(0));
      first = false;
    }
  }
  rows += ']';
  if (rows != "[]") impl_->deleteRows(info, rows);
}

AnyResults Store::objects(const ObjectClass& objectClass, const Predicate& predicate) {
  checkThread();
  impl_->info(objectClass);
  for (const auto& clause : predicate.clauses()) {
    int index = objectClass.propertyIndex(clause.key);
    if (index < 0 || !objectClass.property(index).isScalar()) {
      throw std::invalid_argument("cannot filter " + objectClass.name() + " by '" + clause.key +
                                  "'");
    }
  }
  AnyResults results;
  results.store_ = shared_from_this();
  results.class_ = &objectClass;
  results.predicate_ = predicate;
  return results;
}

std::shared_ptr<Object> Store::object(const ObjectClass& objectClass,
                                      std::optional<std::int64_t> key) {
  checkThread();
  const ClassInfo& info = impl_->info(objectClass);
  if (objectClass.primaryKeyIndex() < 0) {
    throw std::logic_error(objectClass.name() + " has no primary key");
  }
  std::int64_t row = impl_->rowForKey(info, key);
  return row ? impl_->load(*this, info, row) : nullptr;
}

std::uint64_t Store::version() {
  checkThread();
  static const std::string kDataVersion = "PRAGMA data_version";
  int dataVersion = 0;
  {
    StatementUse use(impl_->statement(kDataVersion));
    if (use.step()) dataVersion = static_cast<int>(use.columnInt(0));
  }
  if (dataVersion != impl_->lastDataVersion) {
    impl_->lastDataVersion = dataVersion;
    ++impl_->changeCounter;
  }
  return impl_->changeCounter;
}

}  // namespace qvl
