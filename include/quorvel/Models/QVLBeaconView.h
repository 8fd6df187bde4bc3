#pragma once
// When the guest entered and left a beacon's range: analytics sent to the service.

#include <cstdint>
#include <optional>

#include "quorvel/Export.h"
#include "quorvel/Models/QVLApiModel.h"

/// No primary key (never parsed from JSON; built locally and sent with toDictionary());
/// resources "beaconviews" / "beaconview". JSON: "guest_id", "beacon_id", "enter",
/// "exit", absent values left out. beaconViewId is local and never sent.
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLBeaconView : public QVLModel<QVLBeaconView> {
 public:
  enum Property : int {
    kBeaconViewId,
    kGuestId,
    kBeaconId,
    kEnterDate,
    kExitDate,
  };
  static const QVLModelClass& modelClass();

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
};
