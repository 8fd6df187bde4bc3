#pragma once
/// @file
/// A message or offer shown to the guest.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLMedia.h"
#include "quorvel/records/QVLPostField.h"
#include "quorvel/records/QVLPostPeriod.h"

class QVLBeacon;
class QVLAudience;

/// Primary key `postId`; resources "posts" / "post". Relations: "postperiods" (periods),
/// "postfields" (postFields), "thumbnail" (media, written back as "thumbnail_id").
/// Protected (local state the service never overwrites): read, saved.
/// Inverse: beacons and audiences whose posts list holds the post.
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLPost : public QVLModel<QVLPost> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kPostId,
    kName,
    kContent,
    kPeriods,
    kPostFields,
    kThumbnail,
    kCollectible,
    kParametersJSON,
    kBeacons,
    kAudiences,
    kCreatedAt,
    kUpdatedAt,
    kRead,
    kSaved,
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
  std::optional<std::int64_t> postId() const { return optionalInt(kPostId); }
  void setPostId(std::optional<std::int64_t> v) { setOptionalInt(kPostId, v); }
  std::optional<std::string> name() const { return stringValue(kName); }
  void setName(std::optional<std::string> v) { setString(kName, std::move(v)); }
  /// HTML (the service's "content"."html").
  std::optional<std::string> content() const { return stringValue(kContent); }
  void setContent(std::optional<std::string> v) { setString(kContent, std::move(v)); }
  qvl::List<QVLPostPeriod> periods() const { return listOf<QVLPostPeriod>(kPeriods); }
  qvl::List<QVLPostField> postFields() const { return listOf<QVLPostField>(kPostFields); }
  std::shared_ptr<QVLMedia> thumbnail() const { return linkAs<QVLMedia>(kThumbnail); }
  void setThumbnail(std::shared_ptr<QVLMedia> v) { setLink(kThumbnail, std::move(v)); }
  bool collectible() const { return boolValue(kCollectible); }
  void setCollectible(bool v) { setValue(kCollectible, v); }
  /// The service's "parameters" as received, unparsed.
  std::optional<std::string> parametersJSON() const { return stringValue(kParametersJSON); }
  void setParametersJSON(std::optional<std::string> v) { setString(kParametersJSON, std::move(v)); }
  qvl::Results<QVLBeacon> beacons() const {
    return qvl::Results<QVLBeacon>(linkingObjects(kBeacons));
  }
  qvl::Results<QVLAudience> audiences() const {
    return qvl::Results<QVLAudience>(linkingObjects(kAudiences));
  }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  /// Inbox marks, changed only on the device.
  bool read() const { return boolValue(kRead); }
  void setRead(bool v) { setValue(kRead, v); }
  bool saved() const { return boolValue(kSaved); }
  void setSaved(bool v) { setValue(kSaved, v); }
  ///@}

  /// True without periods; otherwise true when any period is active.
  bool active() const;
};
