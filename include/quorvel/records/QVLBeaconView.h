#pragma once
/// @file
/// When the guest entered and left a beacon's range: analytics sent to the service.

#include <cstdint>
#include <optional>

#include "quorvel/Export.h"
#include "quorvel/records/QVLApiModel.h"

/// No primary key (never parsed from JSON; built locally and sent with toDictionary());
/// resources "beaconviews" / "beaconview". JSON: "guest_id", "beacon_id", "enter",
/// "exit", absent values left out. beaconViewId is local and never sent.
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLBeaconView : public QVLModel<QVLBeaconView> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kBeaconViewId,
    kGuestId,
    kBeaconId,
    kEnterDate,
    kExitDate,
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
  std::optional<std::int64_t> beaconViewId() const { return optionalInt(kBeaconViewId); }
  void setBeaconViewId(std::optional<std::int64_t> v) { setOptionalInt(kBeaconViewId, v); }
  std::optional<std::int64_t> guestId() const { return optionalInt(kGuestId); }
  void setGuestId(std::optional<std::int64_t> v) { setOptionalInt(kGuestId, v); }
  std::optional<std::int64_t> beaconId() const { return optionalInt(kBeaconId); }
  void setBeaconId(std::optional<std::int64_t> v) { setOptionalInt(kBeaconId, v); }
  std::optional<qvl::Date> enterDate() const { return dateValue(kEnterDate); }
  void setEnterDate(std::optional<qvl::Date> v) { setDate(kEnterDate, v); }
  std::optional<qvl::Date> exitDate() const { return dateValue(kExitDate); }
  void setExitDate(std::optional<qvl::Date> v) { setDate(kExitDate, v); }
  ///@}
};
