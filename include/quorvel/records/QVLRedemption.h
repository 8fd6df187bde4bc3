#pragma once
/// @file
/// A prize the guest redeemed.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/records/QVLApiModel.h"

/// Primary key `redemptionId`; resources "redemptions" / "redemption"; no relations.
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLRedemption : public QVLModel<QVLRedemption> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kRedemptionId,
    kCreatedAt,
    kCost,
    kTitle,
  };
  /// The class descriptor: store shape, service resources and JSON mapping.
  static const QVLModelClass& modelClass();

  /// @name Mapped properties
  ///@{

  /// Typed accessor of one stored property. Each property has a getter and a setter; to-one
  /// relations give the related record or null, list properties a live qvl::List handle
  /// (change the list through it) and inverse relations live qvl::Results (read-only). A
  /// getter reads nullopt for an absent value, and 0 or false for a plain number or flag
  /// never set. Setting a property of a managed record needs an open write transaction on
  /// its handle and writes through (see qvl::Object). Which JSON key fills each property
  /// is the class's mapping (modelClass()).
  std::optional<std::int64_t> redemptionId() const { return optionalInt(kRedemptionId); }
  void setRedemptionId(std::optional<std::int64_t> v) { setOptionalInt(kRedemptionId, v); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  /// Balance points paid.
  std::int64_t cost() const { return intValue(kCost); }
  void setCost(std::int64_t v) { setValue(kCost, v); }
  std::optional<std::string> title() const { return stringValue(kTitle); }
  void setTitle(std::optional<std::string> v) { setString(kTitle, std::move(v)); }
  ///@}
};
