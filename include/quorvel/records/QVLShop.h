#pragma once
/// @file
/// A shop of the organization.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/platform/Url.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLBeacon.h"
#include "quorvel/records/QVLMedia.h"

class QVLShopCategory;

/// Primary key `shopId`; resources "shops" / "shop". Relations: "beacons" (list), then
/// "image", "logo", "directions" (media, written back as "image_id", "logo_id",
/// "directions_id"). Inverse: shopCategories (the categories listing the shop).
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLShop : public QVLModel<QVLShop> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kShopId,
    kName,
    kImage,
    kHomepageURLString,
    kDirections,
    kHours,
    kPhone,
    kDescriptionText,
    kEmail,
    kLogo,
    kFacebookURLString,
    kCncEnabled,
    kCreatedAt,
    kUpdatedAt,
    kBeacons,
    kShopCategories,
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
  std::optional<std::int64_t> shopId() const { return optionalInt(kShopId); }
  void setShopId(std::optional<std::int64_t> v) { setOptionalInt(kShopId, v); }
  std::optional<std::string> name() const { return stringValue(kName); }
  void setName(std::optional<std::string> v) { setString(kName, std::move(v)); }
  std::shared_ptr<QVLMedia> image() const { return linkAs<QVLMedia>(kImage); }
  void setImage(std::shared_ptr<QVLMedia> v) { setLink(kImage, std::move(v)); }
  std::optional<std::string> homepageURLString() const { return stringValue(kHomepageURLString); }
  void setHomepageURLString(std::optional<std::string> v) {
    setString(kHomepageURLString, std::move(v));
  }
  std::shared_ptr<QVLMedia> directions() const { return linkAs<QVLMedia>(kDirections); }
  void setDirections(std::shared_ptr<QVLMedia> v) { setLink(kDirections, std::move(v)); }
  std::optional<std::string> hours() const { return stringValue(kHours); }
  void setHours(std::optional<std::string> v) { setString(kHours, std::move(v)); }
  std::optional<std::string> phone() const { return stringValue(kPhone); }
  void setPhone(std::optional<std::string> v) { setString(kPhone, std::move(v)); }
  /// The service's "description".
  std::optional<std::string> descriptionText() const { return stringValue(kDescriptionText); }
  void setDescriptionText(std::optional<std::string> v) {
    setString(kDescriptionText, std::move(v));
  }
  std::optional<std::string> email() const { return stringValue(kEmail); }
  void setEmail(std::optional<std::string> v) { setString(kEmail, std::move(v)); }
  std::shared_ptr<QVLMedia> logo() const { return linkAs<QVLMedia>(kLogo); }
  void setLogo(std::shared_ptr<QVLMedia> v) { setLink(kLogo, std::move(v)); }
  std::optional<std::string> facebookURLString() const { return stringValue(kFacebookURLString); }
  void setFacebookURLString(std::optional<std::string> v) {
    setString(kFacebookURLString, std::move(v));
  }
  /// The service's "cnc_enabled".
  bool cncEnabled() const { return boolValue(kCncEnabled); }
  void setCncEnabled(bool v) { setValue(kCncEnabled, v); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  ///@}

  /// The shop's beacons, as a live list handle.
  qvl::List<QVLBeacon> beacons() const { return listOf<QVLBeacon>(kBeacons); }
  /// The categories whose shops list holds this shop (empty while unmanaged).
  qvl::Results<QVLShopCategory> shopCategories() const {
    return qvl::Results<QVLShopCategory>(linkingObjects(kShopCategories));
  }

  /// homepageURLString through QVLURLTrimmer (blanks trimmed, "http://" added when the
  /// text has no scheme).
  std::optional<qvl::Url> homepageURL() const;
  /// facebookURLString through QVLURLTrimmer.
  std::optional<qvl::Url> facebookURL() const;
};
