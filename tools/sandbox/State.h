#pragma once
// What the sandbox service holds: every record by resource and id, kept in memory and
// written through to one SQLite file, so that it survives a restart.
//
// Records are stored in their wire form, except that relations hold ids instead of nested
// records: a to-many relation is an array of ids, a to-one relation one id. Rendering
// replaces the ids of the relations a request includes with the records themselves.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

struct sqlite3;
struct sqlite3_stmt;

namespace qvl::sandbox {

/// A refusal the service answers with `status` and a JSON error naming `message`.
class ServiceError : public std::runtime_error {
 public:
  ServiceError(int status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

/// A resource the service offers, with the relations its records declare.
struct Resource {
  struct Relation {
    std::string key;  // JSON key, e.g. "beacons"
    bool toMany = true;
    std::string target;  // plural resource name of the related records
  };
  std::string plural;
  std::string singular;
  std::vector<Relation> relations;
  /// Top-level JSON keys an answer carries (the record's mapping and relations); empty:
  /// every stored key.
  std::set<std::string> answerKeys;

  const Relation* relation(std::string_view key) const;
};

/// Relations to embed, as a tree: "posts.postfields,image" embeds posts, their postfields
/// and the image.
struct Includes {
  std::map<std::string, Includes> children;

  static Includes parse(std::string_view text);
};

/// fields[type]=a,b: the keys an answer keeps for records of that type ("id" always).
using FieldLimits = std::map<std::string, std::set<std::string>>;

class State {
 public:
  /// Opens (creates) the SQLite file at `databasePath`. A file without records, or
  /// `reset`, is filled from what `seed` returns (an object of resource name to record
  /// array) after checking that every relation names a seeded record. Throws
  /// std::runtime_error on a bad seed or an unusable file.
  State(const std::string& databasePath, const std::function<nlohmann::json()>& seed, bool reset);
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  /// The resources every record class declares, plus "endpoints"; nullptr for others.
  static const Resource* resource(std::string_view plural);

  // ---- reads (each takes the lock; answers are copies) ---------------------------------

  /// The rendered records of a resource in id order. Throws ServiceError 400 for an
  /// include the resource does not have.
  nlohmann::json list(const Resource& resource, const Includes& includes,
                      const FieldLimits& fields) const;
  /// One rendered record; 404 when missing.
  nlohmann::json single(const Resource& resource, std::int64_t id, const Includes& includes,
                        const FieldLimits& fields) const;
  /// The records related to owner/id under `name`: a relation key of the owner, a plural
  /// resource (an array: the owner's relations to it, or the records pointing at it), a
  /// singular resource (one record), or a relationship the device PUT. 404 otherwise.
  nlohmann::json related(const Resource& owner, std::int64_t id, const std::string& name,
                         const Includes& includes, const FieldLimits& fields) const;
  bool exists(const std::string& resource, std::int64_t id) const;
  /// The stored record, unrendered.
  std::optional<nlohmann::json> stored(const std::string& resource, std::int64_t id) const;
  /// Every stored record of a resource, unrendered, in id order.
  std::vector<nlohmann::json> storedAll(const std::string& resource) const;
  /// Record counts by resource.
  nlohmann::json counts() const;

  // ---- writes (each one transaction, persisted before returning) ----------------------
  // A caller that reads, checks and then writes serialises those steps itself.

  /// Stores new records under fresh ids; returns them as stored.
  std::vector<nlohmann::json> create(const std::string& resource,
                                     std::vector<nlohmann::json> bodies);
  /// Replaces stored records (matched by resource and "id").
  void update(const std::vector<std::pair<std::string, nlohmann::json>>& records);

 private:
  using Table = std::map<std::int64_t, nlohmann::json>;

  nlohmann::json render(const Resource& resource, const nlohmann::json& body,
                        const Includes& includes, const FieldLimits& fields) const;
  void checkIncludes(const Resource& resource, const Includes& includes) const;
  void load();
  void seed(const nlohmann::json& seed);
  void write(const std::string& resource, const nlohmann::json& body);
  void execute(const char* sql);

  mutable std::mutex mutex_;
  std::map<std::string, Table, std::less<>> tables_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* upsert_ = nullptr;
};

}  // namespace qvl::sandbox
