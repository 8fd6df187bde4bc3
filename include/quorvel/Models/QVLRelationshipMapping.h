#pragma once
/// @file
/// Describes one relation of a record type's JSON.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"

class QVLModelClass;
/// A record-class reference, resolved lazily so that record types can refer to each other.
using QVLModelClassRef = const QVLModelClass& (*)();

/// The shape of a relation in service JSON.
enum QVLRelationType : std::int64_t {
  QVLRelationTypeToMany = 0,  ///< An array of record objects, stored as a list property.
  QVLRelationTypeToOne = 1,   ///< One record object, stored as a link property.
};

/// A plain value; the constructors return a new mapping the caller owns. Any relation
/// type other than to-many and to-one is skipped by the parser.
class QVL_EXPORT QVLRelationshipMapping {
 public:
  /// @name Constructors
  ///@{

  /// A relation whose records (of objectClass) come under the top-level JSON key `jsonKey`
  /// and are stored in the relation property `classProperty` (a list for to-many, a link
  /// for to-one). The ...WithKey forms use `key` for both. `relationKey` (to-one): see
  /// toOneRelationKey(). A property that is not a relation of the matching kind is
  /// reported (std::logic_error) when the class's mapping is first used.
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
  ///@}

  /// @name Fields
  /// As set by the constructors; each setter replaces the value its getter returns.
  ///@{

  /// The QVLRelationType value (other values make the parser skip the relation).
  std::int64_t relationType() const { return relationType_; }
  void setRelationType(std::int64_t type) { relationType_ = type; }
  /// To-one: the JSON key under which the related record's primary key is written back.
  const std::optional<std::string>& toOneRelationKey() const { return toOneRelationKey_; }
  void setToOneRelationKey(std::optional<std::string> key) { toOneRelationKey_ = std::move(key); }
  /// The top-level JSON key that holds the related records.
  const std::string& jsonKey() const { return jsonKey_; }
  void setJsonKey(std::string key) { jsonKey_ = std::move(key); }
  /// The name of the relation property the records are stored in.
  const std::string& classProperty() const { return classProperty_; }
  void setClassProperty(std::string name) { classProperty_ = std::move(name); }
  /// The class of the related records; objectClass() calls the reference (never null once
  /// made by a constructor).
  QVLModelClassRef objectClassRef() const { return objectClass_; }
  const QVLModelClass& objectClass() const { return objectClass_(); }
  void setObjectClass(QVLModelClassRef objectClass) { objectClass_ = objectClass; }
  ///@}

 private:
  std::int64_t relationType_ = QVLRelationTypeToMany;
  std::optional<std::string> toOneRelationKey_;
  std::string jsonKey_;
  std::string classProperty_;
  QVLModelClassRef objectClass_ = nullptr;
};
