#pragma once
/// @file
/// A Bluetooth beacon placed by the organization.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/platform/Region.h"
#include "quorvel/platform/Uuid.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLPost.h"

class QVLShop;
class QVLBeaconCategory;

/// Primary key `beaconId`; resources "beacons" / "beacon". Relation: "posts" (list).
/// Inverse: shops and beaconCategories whose beacons list holds the beacon.
/// Ignored by the store: `_uuid`, the parsed-UUID cache of uuid().
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLBeacon : public QVLModel<QVLBeacon> {
 public:
  QVLBeacon();
  ~QVLBeacon() override;

  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kBeaconId,
    kName,
    kUuidString,
    kMajor,
    kMinor,
    kMessage,
    kLatitude,
    kLongitude,
    kPosts,
    kShops,
    kBeaconCategories,
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
  std::optional<std::int64_t> beaconId() const { return optionalInt(kBeaconId); }
  void setBeaconId(std::optional<std::int64_t> v) { setOptionalInt(kBeaconId, v); }
  /// The service's "description".
  std::optional<std::string> name() const { return stringValue(kName); }
  void setName(std::optional<std::string> v) { setString(kName, std::move(v)); }
  std::optional<std::string> uuidString() const { return stringValue(kUuidString); }
  void setUuidString(std::optional<std::string> v) { setString(kUuidString, std::move(v)); }
  std::optional<std::int64_t> major() const { return optionalInt(kMajor); }
  void setMajor(std::optional<std::int64_t> v) { setOptionalInt(kMajor, v); }
  std::optional<std::int64_t> minor() const { return optionalInt(kMinor); }
  void setMinor(std::optional<std::int64_t> v) { setOptionalInt(kMinor, v); }
  std::optional<std::string> message() const { return stringValue(kMessage); }
  void setMessage(std::optional<std::string> v) { setString(kMessage, std::move(v)); }
  std::optional<double> latitude() const { return optionalDouble(kLatitude); }
  void setLatitude(std::optional<double> v) { setOptionalDouble(kLatitude, v); }
  std::optional<double> longitude() const { return optionalDouble(kLongitude); }
  void setLongitude(std::optional<double> v) { setOptionalDouble(kLongitude, v); }
  qvl::List<QVLPost> posts() const { return listOf<QVLPost>(kPosts); }
  qvl::Results<QVLShop> shops() const { return qvl::Results<QVLShop>(linkingObjects(kShops)); }
  qvl::Results<QVLBeaconCategory> beaconCategories() const {
    return qvl::Results<QVLBeaconCategory>(linkingObjects(kBeaconCategories));
  }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  ///@}

  /// uuidString parsed, then kept for the life of this object: a later change of
  /// uuidString through the same object is not seen. nullopt (and nothing kept) while
  /// uuidString is absent or not a UUID.
  std::optional<qvl::Uuid> uuid() const;
  /// (uuid, major, minor) identified by the decimal beaconId ("" without one); major and
  /// minor are always both set, a missing one as 0, truncated to 16 bits. nullopt when
  /// uuid() is.
  std::optional<qvl::BeaconRegion> beaconRegion() const;
  /// (latitude, longitude) when both are present, else qvl::kDefaultCoordinate.
  qvl::Coordinate coordinate() const;
  /// The posts list narrowed to the posts active now, in list order. The set of posts
  /// is chosen when called; the results stay live for changes of the list and of those
  /// posts (a removed post drops out).
  qvl::Results<QVLPost> activePosts() const;
  /// activePosts() is not empty.
  bool active() const;
  /// message, unless it is absent or only spaces and tabs: then name ("" without one).
  std::string notificationMessage() const;

 private:
  struct Impl;
  mutable std::unique_ptr<Impl> impl_;  // made by the first uuid() that finds one
};
