#pragma once
// Describes one relation of a record type's JSON.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"

class QVLModelClass;
/// A record-class reference, resolved lazily so that record types can refer to each other.
using QVLModelClassRef = const QVLModelClass& (*)();

enum QVLRelationType : std::int64_t {
  QVLRelationTypeToMany = 0,
  QVLRelationTypeToOne = 1,
};

/// A plain value; the constructors return a new mapping the caller owns. Any relation
/// type other than to-many and to-one is skipped by the parser.
class QVL_EXPORT QVLRelationshipMapping {
 public:
  static QVLRelationshipMapping newToManyRelationWithJsonKey(std::string jsonKey,
                                                             std::string classProperty,
                                                             QVLModelClassRef objectClass);
  static QVLRelationshipMapping newToManyRelationWithKey(std::string key,
                                                         QVLModelClassRef objectClass);
  static QVLRelationshipMapping newToOneRelationWithJsonKey(std::string jsonKey,
                                                            std::string classProperty,
                                                            std::string relationKey,
                                                            QVLModelClassRef objectClass);
  static QVLRelationshipMapping newToOneRelationWithKey(std::string key, std::string relationKey,
                                                        QVLModelClassRef objectClass);

  std::int64_t relationType() const { return relationType_; }
  void setRelationType(std::int64_t type) { relationType_ = type; }
  /// To-one: the JSON key under which the related record's primary key is written back.
  const std::optional<std::string>& toOneRelationKey() const { return toOneRelationKey_; }
  void setToOneRelationKey(std::optional<std::string> key) { toOneRelationKey_ = std::move(key); }
  const std::string& jsonKey() const { return jsonKey_; }
  void setJsonKey(std::string key) { jsonKey_ = std::move(key); }
  const std::string& classProperty() const { return classProperty_; }
  void setClassProperty(std::string name) { classProperty_ = std::move(name); }
  QVLModelClassRef objectClassRef() const { return objectClass_; }
  const QVLModelClass& objectClass() const { return objectClass_(); }
  void setObjectClass(QVLModelClassRef objectClass) { objectClass_ = objectClass; }

 private:
  std::int64_t relationType_ = QVLRelationTypeToMany;
  std::optional<std::string> toOneRelationKey_;
  std::string jsonKey_;
  std::string classProperty_;
  QVLModelClassRef objectClass_ = nullptr;
};
