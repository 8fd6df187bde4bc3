#pragma once
// A record class's mapping resolved to property indexes, as the parser and serialiser
// walk it.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/Result.h"
#include "quorvel/records/QVLApiModel.h"

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
/// rejects them; anything but an array gives no records. When `listedKeys` is given, it
/// receives the integer "id" of every object element, rejected or not. Each element of the
/// document is released once it is mapped, so the document and the records do not peak
/// together.
std::vector<std::shared_ptr<QVLApiModel>> recordsToMerge(
    const QVLModelClass& cls, nlohmann::json&& array,
    std::vector<std::int64_t>* listedKeys = nullptr);
/// The same from the service's answer text, streamed element by element (no document of the
/// whole answer is built), and released once the records are mapped. The records, listed keys
/// and rejections are those of the text's document: nesting deeper than kQVLMaxJSONDepth
/// gives a Failure (nothing is mapped), and text that is not JSON gives no records.
Result<std::vector<std::shared_ptr<QVLApiModel>>> recordsToMerge(
    const QVLModelClass& cls, std::string&& text, std::vector<std::int64_t>* listedKeys = nullptr);
/// The same from text the caller keeps.
Result<std::vector<std::shared_ptr<QVLApiModel>>> recordsToMerge(
    const QVLModelClass& cls, const std::string& text,
    std::vector<std::int64_t>* listedKeys = nullptr);
/// One record mapped as recordsToMerge maps each; anything but an object maps as an empty one.
/// A value of the wrong kind gives the Failure that names it.
Result<std::shared_ptr<QVLApiModel>> recordToMerge(const QVLModelClass& cls,
                                                   const nlohmann::json& dictionary);
/// The same from an answer's text (see recordsToMerge for text that is not JSON).
Result<std::shared_ptr<QVLApiModel>> recordToMerge(const QVLModelClass& cls, std::string_view text);

/// @name The QVLApiModel operations of the same names on the library's own JSON values
///@{
std::shared_ptr<QVLApiModel> newObjectWithJSONDictionary(const QVLModelClass& cls,
                                                         const nlohmann::json& dictionary,
                                                         qvl::Store* realm);
std::shared_ptr<QVLApiModel> newObjectWithJSONDictionary(const QVLModelClass& cls,
                                                         const nlohmann::json& dictionary);
std::vector<std::shared_ptr<QVLApiModel>> newObjectsWithJSONArray(const QVLModelClass& cls,
                                                                  const nlohmann::json& array,
                                                                  qvl::Store* realm,
                                                                  std::vector<QVLError>* rejected);
///@}

/// Service bytes as JSON, without recursion. Text that is not JSON gives a discarded value
/// (is_discarded()); arrays and objects nested deeper than kQVLMaxJSONDepth give a Failure.
Result<nlohmann::json> readServiceJSON(std::string_view data);
/// The same, throwing: nlohmann::json::parse_error for text that is not JSON when
/// allowExceptions (else a discarded value), QVLMappingError for nesting too deep.
nlohmann::json parseJSONData(std::string_view data, bool allowExceptions = false);

}  // namespace qvl::detail
