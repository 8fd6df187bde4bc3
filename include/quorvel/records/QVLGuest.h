#pragma once
/// @file
/// The app user as the service knows them.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/records/QVLAction.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/records/QVLRedemption.h"
#include "quorvel/records/QVLShop.h"

/// Primary key `guestId`; resources "guests" / "guest". Relations: "actions",
/// "redemptions" (lists). Protected (kept only on the device, never overwritten by a
/// refresh): shops (the guest's subscriptions) and posts (the guest's inbox).
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLGuest : public QVLModel<QVLGuest> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kGuestId,
    kBalance,
    kFirstName,
    kMiddleName,
    kLastName,
    kEmail,
    kActions,
    kRedemptions,
    kShops,
    kPosts,
    kCreatedAt,
    kUpdatedAt,
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
  std::optional<std::int64_t> guestId() const { return optionalInt(kGuestId); }
  void setGuestId(std::optional<std::int64_t> v) { setOptionalInt(kGuestId, v); }
  /// Balance points.
  std::optional<std::int64_t> balance() const { return optionalInt(kBalance); }
  void setBalance(std::optional<std::int64_t> v) { setOptionalInt(kBalance, v); }
  std::optional<std::string> firstName() const { return stringValue(kFirstName); }
  void setFirstName(std::optional<std::string> v) { setString(kFirstName, std::move(v)); }
  std::optional<std::string> middleName() const { return stringValue(kMiddleName); }
  void setMiddleName(std::optional<std::string> v) { setString(kMiddleName, std::move(v)); }
  std::optional<std::string> lastName() const { return stringValue(kLastName); }
  void setLastName(std::optional<std::string> v) { setString(kLastName, std::move(v)); }
  std::optional<std::string> email() const { return stringValue(kEmail); }
  void setEmail(std::optional<std::string> v) { setString(kEmail, std::move(v)); }
  qvl::List<QVLAction> actions() const { return listOf<QVLAction>(kActions); }
  qvl::List<QVLRedemption> redemptions() const { return listOf<QVLRedemption>(kRedemptions); }
  qvl::List<QVLShop> shops() const { return listOf<QVLShop>(kShops); }
  qvl::List<QVLPost> posts() const { return listOf<QVLPost>(kPosts); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  ///@}
};
