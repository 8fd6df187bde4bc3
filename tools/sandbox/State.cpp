#include "sandbox/State.h"

#include <sqlite3.h>

#include <algorithm>

#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLRealm.h"

namespace qvl::sandbox {
namespace {

using nlohmann::json;

std::map<std::string, Resource, std::less<>> makeResources() {
  std::map<std::string, Resource, std::less<>> resources;
  for (qvl::ObjectClassRef ref : QVLRealm::objectClasses()) {
    const auto& cls = static_cast<const QVLModelClass&>(ref());
    Resource resource;
    resource.plural = cls.apiResourcePlural();
    resource.singular = cls.apiResourceSingular();
    for (const auto& [path, property] : cls.mapping()) {
      resource.answerKeys.insert(path.substr(0, path.find('.')));
    }
    for (const auto& mapping :
         cls.mappingRelationships().value_or(std::vector<QVLRelationshipMapping>{})) {
      if (mapping.relationType() != QVLRelationTypeToMany &&
          mapping.relationType() != QVLRelationTypeToOne) {
        continue;
      }
      resource.relations.push_back({mapping.jsonKey(),
                                    mapping.relationType() == QVLRelationTypeToMany,
                                    mapping.objectClass().apiResourcePlural()});
      resource.answerKeys.insert(mapping.jsonKey());
    }
    resources.emplace(resource.plural, std::move(resource));
  }
  // Push endpoints are not records of the library: they answer every stored key.
  resources.emplace("endpoints", Resource{"endpoints", "endpoint", {}, {}});
  return resources;
}

const std::map<std::string, Resource, std::less<>>& resources() {
  static const auto all = makeResources();
  return all;
}

// The ids a stored relation value names: one id, an array of ids, or nothing.
std::vector<std::int64_t> idsOf(const json& value) {
  std::vector<std::int64_t> ids;
  if (value.is_number_integer()) ids.push_back(value.get<std::int64_t>());
  if (value.is_array()) {
    for (const auto& element : value) {
      if (element.is_number_integer()) ids.push_back(element.get<std::int64_t>());
      if (element.is_object() && element.contains("id") && element["id"].is_number_integer()) {
        ids.push_back(element["id"].get<std::int64_t>());
      }
    }
  }
  return ids;
}

}  // namespace

const Resource::Relation* Resource::relation(std::string_view key) const {
  for (const auto& relation : relations) {
    if (relation.key == key) return &relation;
  }
  return nullptr;
}

Includes Includes::parse(std::string_view text) {
  Includes root;
  while (!text.empty()) {
    const size_t comma = text.find(',');
    std::string_view path = text.substr(0, comma);
    text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
    Includes* node = &root;
    while (!path.empty()) {
      const size_t dot = path.find('.');
      const std::string_view name = path.substr(0, dot);
      path = dot == std::string_view::npos ? std::string_view{} : path.substr(dot + 1);
      if (!name.empty()) node = &node->children[std::string(name)];
    }
  }
  return root;
}

const Resource* State::resource(std::string_view plural) {
  const auto& all = resources();
  auto found = all.find(plural);
  return found == all.end() ? nullptr : &found->second;
}

State::State(const std::string& databasePath, const std::function<json()>& seedData, bool reset) {
  if (sqlite3_open_v2(databasePath.c_str(), &db_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                      nullptr) != SQLITE_OK) {
    const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    throw std::runtime_error("cannot open " + databasePath + ": " + message);
  }
  try {
    execute("PRAGMA journal_mode=WAL");
    execute(
        "CREATE TABLE IF NOT EXISTS records (resource TEXT NOT NULL, id INTEGER NOT NULL, "
        "body TEXT NOT NULL, PRIMARY KEY (resource, id))");
    execute("CREATE TABLE IF NOT EXISTS meta (key TEXT PRIMARY KEY, value TEXT)");
    if (sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO records VALUES (?, ?, ?)", -1, &upsert_,
                           nullptr) != SQLITE_OK) {
      throw std::runtime_error(sqlite3_errmsg(db_));
    }
    load();
    const bool seeded = std::any_of(tables_.begin(), tables_.end(),
                                    [](const auto& table) { return !table.second.empty(); });
    if (reset || !seeded) seed(seedData());
  } catch (...) {
    sqlite3_finalize(upsert_);
    sqlite3_close(db_);
    throw;
  }
}

State::~State() {
  sqlite3_finalize(upsert_);
  sqlite3_close(db_);
}

void State::execute(const char* sql) {
  char* error = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    std::string message = error ? error : "unknown error";
    sqlite3_free(error);
    throw std::runtime_error(std::string("sandbox state: ") + message);
  }
}

void State::load() {
  sqlite3_stmt* select = nullptr;
  if (sqlite3_prepare_v2(db_, "SELECT resource, id, body FROM records", -1, &select, nullptr) !=
      SQLITE_OK) {
    throw std::runtime_error(sqlite3_errmsg(db_));
  }
  while (sqlite3_step(select) == SQLITE_ROW) {
    const std::string resourceName = reinterpret_cast<const char*>(sqlite3_column_text(select, 0));
    const std::int64_t id = sqlite3_column_int64(select, 1);
    tables_[resourceName][id] =
        json::parse(reinterpret_cast<const char*>(sqlite3_column_text(select, 2)));
  }
  sqlite3_finalize(select);
}

void State::seed(const json& seedData) {
  if (!seedData.is_object()) throw std::runtime_error("seed: expected an object of resources");
  std::map<std::string, Table, std::less<>> tables;
  for (const auto& [name, records] : seedData.items()) {
    if (!resource(name)) throw std::runtime_error("seed: unknown resource \"" + name + "\"");
    if (!records.is_array()) throw std::runtime_error("seed: \"" + name + "\" is not an array");
    Table& table = tables[name];
    for (const auto& record : records) {
      if (!record.is_object() || !record.contains("id") || !record["id"].is_number_integer()) {
        throw std::runtime_error("seed: a record of \"" + name + "\" has no integer id");
      }
      table[record["id"].get<std::int64_t>()] = record;
    }
  }
  for (const auto& [name, table] : tables) {
    for (const auto& relation : resource(name)->relations) {
      for (const auto& [id, record] : table) {
        if (!record.contains(relation.key)) continue;
        for (std::int64_t target : idsOf(record[relation.key])) {
          auto related = tables.find(relation.target);
          if (related == tables.end() || !related->second.count(target)) {
            throw std::runtime_error("seed: " + name + "/" + std::to_string(id) + " \"" +
                                     relation.key + "\" names the missing " + relation.target +
                                     "/" + std::to_string(target));
          }
        }
      }
    }
  }
  execute("BEGIN IMMEDIATE");
  try {
    execute("DELETE FROM records");
    for (const auto& [name, table] : tables) {
      for (const auto& [id, record] : table) write(name, record);
    }
    execute("COMMIT");
  } catch (...) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
  tables_ = std::move(tables);
}

void State::write(const std::string& resourceName, const json& body) {
  const std::string text = body.dump();
  sqlite3_reset(upsert_);
  sqlite3_bind_text(upsert_, 1, resourceName.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_bind_int64(upsert_, 2, body["id"].get<std::int64_t>());
  sqlite3_bind_text(upsert_, 3, text.c_str(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  if (sqlite3_step(upsert_) != SQLITE_DONE) {
    throw std::runtime_error(std::string("sandbox state: ") + sqlite3_errmsg(db_));
  }
}

void State::checkIncludes(const Resource& owner, const Includes& includes) const {
  for (const auto& [name, children] : includes.children) {
    const Resource::Relation* relation = owner.relation(name);
    if (!relation) {
      throw ServiceError(400, "Unknown include \"" + name + "\" on " + owner.plural);
    }
    checkIncludes(*resource(relation->target), children);
  }
}

json State::render(const Resource& owner, const json& body, const Includes& includes,
                   const FieldLimits& fields) const {
  const auto limit = fields.find(owner.plural);
  json out = json::object();
  for (const auto& [key, value] : body.items()) {
    if (!owner.answerKeys.empty() && !owner.answerKeys.count(key)) continue;
    if (key != "id" && limit != fields.end() && !limit->second.count(key)) continue;
    const Resource::Relation* relation = owner.relation(key);
    if (!relation) {
      out[key] = value;
      continue;
    }
    auto included = includes.children.find(key);
    if (included == includes.children.end()) continue;
    const Resource& target = *resource(relation->target);
    const auto table = tables_.find(relation->target);
    json related = json::array();
    for (std::int64_t id : idsOf(value)) {
      if (table == tables_.end()) break;
      auto record = table->second.find(id);
      if (record != table->second.end()) {
        related.push_back(render(target, record->second, included->second, fields));
      }
    }
    if (relation->toMany) {
      out[key] = std::move(related);
    } else {
      out[key] = related.empty() ? json(nullptr) : std::move(related[0]);
    }
  }
  return out;
}

json State::list(const Resource& owner, const Includes& includes, const FieldLimits& fields) const {
  std::lock_guard lock(mutex_);
  checkIncludes(owner, includes);
  json out = json::array();
  auto table = tables_.find(owner.plural);
  if (table == tables_.end()) return out;
  for (const auto& [id, body] : table->second) out.push_back(render(owner, body, includes, fields));
  return out;
}

json State::single(const Resource& owner, std::int64_t id, const Includes& includes,
                   const FieldLimits& fields) const {
  std::lock_guard lock(mutex_);
  checkIncludes(owner, includes);
  auto table = tables_.find(owner.plural);
  if (table == tables_.end() || !table->second.count(id)) {
    throw ServiceError(404, "No " + owner.singular + " with id " + std::to_string(id));
  }
  return render(owner, table->second.at(id), includes, fields);
}

json State::related(const Resource& owner, std::int64_t id, const std::string& name,
                    const Includes& includes, const FieldLimits& fields) const {
  std::lock_guard lock(mutex_);
  auto ownerTable = tables_.find(owner.plural);
  if (ownerTable == tables_.end() || !ownerTable->second.count(id)) {
    throw ServiceError(404, "No " + owner.singular + " with id " + std::to_string(id));
  }
  const json& body = ownerTable->second.at(id);

  // Which records, of which resource, and whether the answer is one record.
  const Resource* target = nullptr;
  std::vector<std::int64_t> ids;
  bool one = false;
  if (const Resource::Relation* relation = owner.relation(name)) {
    target = resource(relation->target);
    ids = idsOf(body.value(name, json()));
    one = !relation->toMany;
  } else if (body.contains("relationships") && body["relationships"].contains(name)) {
    // A relationship the device replaced with PUT: [{"type": ..., "id": ...}, ...].
    const json& elements = body["relationships"][name];
    if (!elements.empty()) target = resource(elements[0].value("type", ""));
    ids = idsOf(elements);
    if (!target) return json::array();
  } else {
    for (const auto& [plural, candidate] : resources()) {
      if (candidate.plural == name || candidate.singular == name) {
        target = &candidate;
        one = candidate.plural != name;
        break;
      }
    }
    if (!target) {
      throw ServiceError(404, "No relationship \"" + name + "\" on " + owner.plural);
    }
    for (const auto& relation : owner.relations) {
      if (relation.target != target->plural) continue;
      for (std::int64_t related : idsOf(body.value(relation.key, json()))) ids.push_back(related);
    }
    if (ids.empty()) {
      // The inverse direction: the target's records that name this one.
      auto table = tables_.find(target->plural);
      for (const auto& relation : target->relations) {
        if (relation.target != owner.plural || table == tables_.end()) continue;
        for (const auto& [candidateId, candidate] : table->second) {
          auto named = idsOf(candidate.value(relation.key, json()));
          if (std::find(named.begin(), named.end(), id) != named.end()) {
            ids.push_back(candidateId);
          }
        }
      }
    }
  }
  checkIncludes(*target, includes);
  json out = json::array();
  auto table = tables_.find(target->plural);
  for (std::int64_t related : ids) {
    if (table == tables_.end()) break;
    auto record = table->second.find(related);
    if (record != table->second.end()) {
      out.push_back(render(*target, record->second, includes, fields));
    }
  }
  if (!one) return out;
  if (out.empty()) throw ServiceError(404, "No " + name + " related to " + owner.singular);
  return out[0];
}

bool State::exists(const std::string& resourceName, std::int64_t id) const {
  std::lock_guard lock(mutex_);
  auto table = tables_.find(resourceName);
  return table != tables_.end() && table->second.count(id) > 0;
}

std::optional<json> State::stored(const std::string& resourceName, std::int64_t id) const {
  std::lock_guard lock(mutex_);
  auto table = tables_.find(resourceName);
  if (table == tables_.end()) return std::nullopt;
  auto record = table->second.find(id);
  if (record == table->second.end()) return std::nullopt;
  return record->second;
}

std::vector<json> State::storedAll(const std::string& resourceName) const {
  std::lock_guard lock(mutex_);
  std::vector<json> out;
  auto table = tables_.find(resourceName);
  if (table == tables_.end()) return out;
  for (const auto& [id, body] : table->second) out.push_back(body);
  return out;
}

json State::counts() const {
  std::lock_guard lock(mutex_);
  json out = json::object();
  for (const auto& [name, table] : tables_) out[name] = table.size();
  return out;
}

std::vector<json> State::create(const std::string& resourceName, std::vector<json> bodies) {
  std::lock_guard lock(mutex_);
  Table& table = tables_[resourceName];
  std::int64_t next = table.empty() ? 1 : table.rbegin()->first + 1;
  execute("BEGIN IMMEDIATE");
  try {
    for (auto& body : bodies) {
      body["id"] = next++;
      write(resourceName, body);
    }
    execute("COMMIT");
  } catch (...) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
  for (const auto& body : bodies) table[body["id"].get<std::int64_t>()] = body;
  return bodies;
}

void State::update(const std::vector<std::pair<std::string, json>>& records) {
  std::lock_guard lock(mutex_);
  execute("BEGIN IMMEDIATE");
  try {
    for (const auto& [name, body] : records) write(name, body);
    execute("COMMIT");
  } catch (...) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
  for (const auto& [name, body] : records) tables_[name][body["id"].get<std::int64_t>()] = body;
}

}  // namespace qvl::sandbox
