#pragma once
/// @file
/// Describes one relation of a record type's JSON.

#include <cstdint>
#include <memory>
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
  /// A to-many relation with empty keys and no class.
  QVLRelationshipMapping();
  ~QVLRelationshipMapping();
  /// Copies are independent; a moved-from mapping reads as the default one.
  ///@{
  QVLRelationshipMapping(const QVLRelationshipMapping& other);
  QVLRelationshipMapping& operator=(const QVLRelationshipMapping& other);
  QVLRelationshipMapping(QVLRelationshipMapping&& other) noexcept;
  QVLRelationshipMapping& operator=(QVLRelationshipMapping&& other) noexcept;
  ///@}

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
  std::int64_t relationType() const;
  void setRelationType(std::int64_t type);
  /// To-one: the JSON key under which the related record's primary key is written back.
  const std::optional<std::string>& toOneRelationKey() const;
  void setToOneRelationKey(std::optional<std::string> key);
  /// The top-level JSON key that holds the related records.
  const std::string& jsonKey() const;
  void setJsonKey(std::string key);
  /// The name of the relation property the records are stored in.
  const std::string& classProperty() const;
  void setClassProperty(std::string name);
  /// The class of the related records; objectClass() calls the reference (never null once
  /// made by a constructor).
  QVLModelClassRef objectClassRef() const;
  const QVLModelClass& objectClass() const;
  void setObjectClass(QVLModelClassRef objectClass);
  ///@}

 private:
  struct Impl;
  const Impl& fields() const;
  Impl& changedFields();
  std::unique_ptr<Impl> impl_;  // null only when moved from: reads as a default mapping
};
