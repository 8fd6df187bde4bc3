#pragma once
// A record class's mapping resolved to property indexes, as the parser and serialiser
// walk it.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "quorvel/Models/QVLApiModel.h"

namespace qvl::detail {

struct MappingPlan {
  struct Field {
    std::vector<std::string> path;  // the key split at its dots
    std::string key;
    int property;
    bool holdsJson;  // a text property that also takes a JSON object or array
  };
  struct Relation {
    std::int64_t type;
    std::string jsonKey;
    std::optional<std::string> toOneRelationKey;
    int property;
    const QVLModelClass* target;
  };
  std::vector<Field> fields;
  std::vector<Relation> relations;
  std::vector<int> protectedIndexes;
};

/// Records mapped from a JSON array for a write that merges them with their stored twins
/// itself: the properties the JSON leaves out, and the protected ones, are marked to keep their
/// stored values, and nothing is read from the store. Elements that are not objects or hold
/// values of the wrong kind are rejected one by one, as QVLApiModel::newObjectsWithJSONArray
/// rejects them; anything but an array gives no records. Each element of the document is
/// released once it is mapped, so the document and the records do not peak together.
std::vector<std::shared_ptr<QVLApiModel>> recordsToMerge(const QVLModelClass& cls,
                                                         nlohmann::json&& array);
/// One record mapped as recordsToMerge maps each; anything but an object maps as an empty one.
/// Throws QVLMappingError for values of the wrong kind.
std::shared_ptr<QVLApiModel> recordToMerge(const QVLModelClass& cls,
                                           const nlohmann::json& dictionary);

}  // namespace qvl::detail
