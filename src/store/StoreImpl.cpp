// One store handle's connection: statements, rows in and out, row deletes.

#include "store/StoreImpl.h"

#include <nlohmann/json.hpp>

namespace qvl {

std::int64_t dateToStored(Date date) { return date.time_since_epoch().count(); }

Date storedToDate(std::int64_t stored) { return Date(Date::duration(stored)); }

bool StatementUse::step() {
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  throwStoreError(sqlite3_db_handle(stmt_), std::string("cannot run ") + sqlite3_sql(stmt_));
}

sqlite3_stmt* detail::StoreImpl::statement(const std::string& sql) {
  auto it = statements.find(&sql);
  if (it == statements.end()) {
    it = statements.emplace(&sql, prepare(db.get(), sql, SQLITE_PREPARE_PERSISTENT)).first;
  }
  return it->second.get();
}

sqlite3_stmt* detail::StoreImpl::queryStatement(const std::string& sql) {
  auto it = queries.find(sql);
  if (it == queries.end()) {
    it = queries.emplace(sql, prepare(db.get(), sql, SQLITE_PREPARE_PERSISTENT)).first;
  }
  return it->second.get();
}

const ClassInfo& detail::StoreImpl::info(const ObjectClass& objectClass) const {
  auto it = classes.find(&objectClass);
  if (it == classes.end()) {
    throw std::logic_error("class " + objectClass.name() + " is not part of this store's schema");
  }
  return *it->second;
}

void detail::StoreImpl::bindValue(StatementUse& use, int position, const Property& property,
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

void detail::StoreImpl::fill(Object& object, const ClassInfo& info, StatementUse& use,
                             int firstColumn) {
  for (size_t c = 0; c < info.columns.size(); ++c) {
    int col = firstColumn + static_cast<int>(c);
    int index = info.columns[c];
    const Property& p = info.objectClass->property(index);
    bool null = use.columnIsNull(col);
    sqlite3_stmt* s = use.get();
    if (p.kind == PropertyKind::Link) {
      auto& link = StoreAccess::link(object, index);
      link.target.reset();
      link.row = null ? 0 : sqlite3_column_int64(s, col);
      link.resolved = link.row == 0;
      continue;
    }
    Value& value = StoreAccess::value(object, index);
    switch (p.kind) {
      case PropertyKind::Int:
      case PropertyKind::Int32:
        if (null)
          value = p.optional ? Value{} : Value{std::int64_t{0}};
        else
          value = static_cast<std::int64_t>(sqlite3_column_int64(s, col));
        break;
      case PropertyKind::Bool:
        value = !null && sqlite3_column_int64(s, col) != 0;
        break;
      case PropertyKind::Double:
        if (null)
          value = p.optional ? Value{} : Value{0.0};
        else
          value = sqlite3_column_double(s, col);
        break;
      case PropertyKind::String:
        if (null) {
          value = Value{};
        } else {
          auto text = reinterpret_cast<const char*>(sqlite3_column_text(s, col));
          value = std::string(text, static_cast<size_t>(sqlite3_column_bytes(s, col)));
        }
        break;
      case PropertyKind::Date:
        value = null ? Value{} : Value{storedToDate(sqlite3_column_int64(s, col))};
        break;
      default:
        break;
    }
  }
}

std::shared_ptr<Object> detail::StoreImpl::load(Store& store, const ClassInfo& info,
                                                std::int64_t row) {
  StatementUse use(statement(info.selectRow));
  use.bindInt(1, row);
  if (!use.step()) return nullptr;
  auto object = info.objectClass->makeObject();
  fill(*object, info, use, 1);
  StoreAccess::manage(*object, store.shared_from_this(), row);
  return object;
}

std::vector<std::int64_t> detail::StoreImpl::listRows(const ClassInfo::ListInfo& list,
                                                      std::int64_t owner) {
  std::vector<std::int64_t> rows;
  StatementUse use(statement(list.selectTargets));
  use.bindInt(1, owner);
  while (use.step()) rows.push_back(use.columnInt(0));
  return rows;
}

void detail::StoreImpl::writeList(const ClassInfo::ListInfo& list, std::int64_t owner,
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

sqlite3_stmt* detail::StoreImpl::updateStatement(const ClassInfo& info,
                                                 const std::string& keptColumns) {
  if (keptColumns.find('0') == std::string::npos) return nullptr;
  if (keptColumns.find('1') == std::string::npos) return statement(info.updateRow);
  std::string key = "update " + info.table + ' ' + keptColumns;
  if (auto it = keepingStatements.find(key); it != keepingStatements.end()) return it->second;
  std::vector<std::string> sets;
  for (size_t c = 0; c < info.columns.size(); ++c) {
    if (keptColumns[c] == '0') {
      sets.push_back(quoteIdentifier(info.objectClass->property(info.columns[c]).name) + "=?");
    }
  }
  sqlite3_stmt* stmt =
      queryStatement("UPDATE " + info.table + " SET " + join(sets, ",") + " WHERE _rowid=?");
  keepingStatements.emplace(std::move(key), stmt);
  return stmt;
}

sqlite3_stmt* detail::StoreImpl::upsertStatement(const ClassInfo& info,
                                                 const std::string& keptColumns) {
  if (keptColumns.find('1') == std::string::npos) return statement(info.upsert);
  std::string key = "upsert " + info.table + ' ' + keptColumns;
  if (auto it = keepingStatements.find(key); it != keepingStatements.end()) return it->second;
  sqlite3_stmt* stmt = queryStatement(upsertSql(info, keptColumns));
  keepingStatements.emplace(std::move(key), stmt);
  return stmt;
}

std::int64_t detail::StoreImpl::rowForKey(const ClassInfo& info, std::optional<std::int64_t> key) {
  StatementUse use(statement(key ? info.rowForKey : info.rowForNullKey));
  if (key) use.bindInt(1, *key);
  return use.step() ? use.columnInt(0) : 0;
}

std::string detail::StoreImpl::rowsSelectedBy(const std::string& query,
                                              const std::vector<std::int64_t>& keys) {
  if (query.empty()) throw std::logic_error("the class has no primary key");
  std::string keysJson = nlohmann::json(keys).dump();
  std::string rows = "[";
  StatementUse use(statement(query));
  use.bindText(1, keysJson);
  while (use.step()) {
    if (rows.size() > 1) rows += ',';
    rows += std::to_string(use.columnInt(0));
  }
  return rows + ']';
}

void detail::StoreImpl::deleteRows(const ClassInfo& info, const std::string& rowsJson) {
  if (rowsJson == "[]") return;
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

}  // namespace qvl
