#pragma once
// A category that groups beacons.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/Models/QVLApiModel.h"
#include "quorvel/Models/QVLBeacon.h"

/// Primary key `beaconCategoryId`; resources "beaconcategories" / "beaconcategory". Relation:
/// "beacons" (list).
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLBeaconCategory : public QVLModel<QVLBeaconCategory> {
 public:
  enum Property : int {
    kBeaconCategoryId,
    kName,
    kBeacons,
    kCreatedAt,
    kUpdatedAt,
  };
  static const QVLModelClass& modelClass();

  std::optional<std::int64_t> beaconCategoryId() const { return optionalInt(kBeaconCategoryId); }
  void setBeaconCategoryId(std::optional<std::int64_t> v) { setOptionalInt(kBeaconCategoryId, v); }
  std::optional<std::string> name() const { return stringValue(kName); }
  void setName(std::optional<std::string> v) { setString(kName, std::move(v)); }
  qvl::List<QVLBeacon> beacons() const { return listOf<QVLBeacon>(kBeacons); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
};
