#pragma once
// A record class's mapping resolved to property indexes, as the parser and serialiser
// walk it.

#include <cstdint>
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

}  // namespace qvl::detail
