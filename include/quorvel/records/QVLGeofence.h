#pragma once
/// @file
/// A circular area on the ground that the organization watches.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/platform/Region.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLPost.h"

/// Primary key `geofenceId`; resources "geofences" / "geofence". Relation: "posts" (list).
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLGeofence : public QVLModel<QVLGeofence> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kGeofenceId,
    kName,
    kMessage,
    kLatitude,
    kLongitude,
    kRadius,
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
  std::optional<std::int64_t> geofenceId() const { return optionalInt(kGeofenceId); }
  void setGeofenceId(std::optional<std::int64_t> v) { setOptionalInt(kGeofenceId, v); }
  std::optional<std::string> name() const { return stringValue(kName); }
  void setName(std::optional<std::string> v) { setString(kName, std::move(v)); }
  std::optional<std::string> message() const { return stringValue(kMessage); }
  void setMessage(std::optional<std::string> v) { setString(kMessage, std::move(v)); }
  double latitude() const { return doubleValue(kLatitude); }
  void setLatitude(double v) { setValue(kLatitude, v); }
  double longitude() const { return doubleValue(kLongitude); }
  void setLongitude(double v) { setValue(kLongitude, v); }
  /// Metres.
  double radius() const { return doubleValue(kRadius); }
  void setRadius(double v) { setValue(kRadius, v); }
  qvl::List<QVLPost> posts() const { return listOf<QVLPost>(kPosts); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  ///@}

  /// (latitude, longitude) as stored.
  qvl::Coordinate coordinate() const { return {latitude(), longitude()}; }
  /// A circle around coordinate() with radius(), identified by the decimal geofenceId
  /// ("" without one).
  qvl::CircularRegion region() const;
  /// As QVLBeacon::activePosts().
  qvl::Results<QVLPost> activePosts() const;
  /// activePosts() is not empty.
  bool active() const;
  /// message, unless it is absent or only spaces and tabs: then name ("" without one).
  std::string notificationMessage() const;
};
