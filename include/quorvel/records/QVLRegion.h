#pragma once
/// @file
/// A beacon region of the service: one proximity UUID, optionally narrowed by major and
/// minor, valid in a time window.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/platform/Region.h"
#include "quorvel/platform/Uuid.h"
#include "quorvel/records/QVLApiModel.h"

/// Primary key `regionId`; resources "regions" / "region"; no relations.
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLRegion : public QVLModel<QVLRegion> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kRegionId,
    kStart,
    kStop,
    kUuid,
    kMajor,
    kMinor,
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
  std::optional<std::int64_t> regionId() const { return optionalInt(kRegionId); }
  void setRegionId(std::optional<std::int64_t> v) { setOptionalInt(kRegionId, v); }
  std::optional<qvl::Date> start() const { return dateValue(kStart); }
  void setStart(std::optional<qvl::Date> v) { setDate(kStart, v); }
  std::optional<qvl::Date> stop() const { return dateValue(kStop); }
  void setStop(std::optional<qvl::Date> v) { setDate(kStop, v); }
  /// The proximity UUID as text.
  std::optional<std::string> uuid() const { return stringValue(kUuid); }
  void setUuid(std::optional<std::string> v) { setString(kUuid, std::move(v)); }
  std::optional<std::int64_t> major() const { return optionalInt(kMajor); }
  void setMajor(std::optional<std::int64_t> v) { setOptionalInt(kMajor, v); }
  std::optional<std::int64_t> minor() const { return optionalInt(kMinor); }
  void setMinor(std::optional<std::int64_t> v) { setOptionalInt(kMinor, v); }
  ///@}

  /// "qvl_region;" followed by the decimal regionId (nothing after the ';' without one).
  std::string regionIdentifier() const;
  /// The region to watch, identified by regionIdentifier(): narrowed by major and minor
  /// when both are present, by major alone when only major is (a minor without a major
  /// is ignored), else UUID-wide. Major and minor are truncated to 16 bits.
  /// nullopt when uuid is absent or not a UUID.
  std::optional<qvl::BeaconRegion> beaconRegion() const;
  /// start < now < stop, both strict (qvl::Clock); false when either date is absent.
  bool active() const;
};
