#pragma once
/// @file
/// Something that changed the guest's balance.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/records/QVLApiModel.h"

/// Primary key `actionId`; resources "actions" / "action"; no relations.
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLAction : public QVLModel<QVLAction> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kActionId,
    kActionType,
    kName,
    kSubjectName,
    kValue,
    kCreatedAt,
    kUpdatedAt,
    kRegionId,
  };
  /// The class descriptor: store shape, service resources and JSON mapping.
  static const QVLModelClass& modelClass();
  // The keyed access of qvl::Object stays available beside the `value` property.
  using qvl::Object::setValue;
  using qvl::Object::value;

  /// @name Mapped properties
  ///@{

  /// Typed accessor of one stored property. Each property has a getter and a setter; to-one
  /// relations give the related record or null, list properties a live qvl::List handle
  /// (change the list through it) and inverse relations live qvl::Results (read-only). A
  /// getter reads nullopt for an absent value, and 0 or false for a plain number or flag
  /// never set. Setting a property of a managed record needs an open write transaction on
  /// its handle and writes through (see qvl::Object). Which JSON key fills each property
  /// is the class's mapping (modelClass()).
  std::optional<std::int64_t> actionId() const { return optionalInt(kActionId); }
  void setActionId(std::optional<std::int64_t> v) { setOptionalInt(kActionId, v); }
  /// The service's action type, stored uninterpreted.
  std::int64_t actionType() const { return intValue(kActionType); }
  void setActionType(std::int64_t v) { setValue(kActionType, v); }
  /// The service's "pretty_name".
  std::optional<std::string> name() const { return stringValue(kName); }
  void setName(std::optional<std::string> v) { setString(kName, std::move(v)); }
  std::optional<std::string> subjectName() const { return stringValue(kSubjectName); }
  void setSubjectName(std::optional<std::string> v) { setString(kSubjectName, std::move(v)); }
  /// Balance points gained (or lost, when negative).
  std::int64_t value() const { return intValue(kValue); }
  void setValue(std::int64_t v) { setValue(kValue, qvl::Value{v}); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  std::int64_t regionId() const { return intValue(kRegionId); }
  void setRegionId(std::int64_t v) { setValue(kRegionId, qvl::Value{v}); }
  ///@}
};
