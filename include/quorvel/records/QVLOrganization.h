#pragma once
/// @file
/// The organization that owns shops, regions, audiences and posts.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "quorvel/Export.h"
#include "quorvel/platform/Color.h"
#include "quorvel/platform/Region.h"
#include "quorvel/platform/Url.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLAudience.h"
#include "quorvel/records/QVLMedia.h"
#include "quorvel/records/QVLPosition.h"
#include "quorvel/records/QVLRegion.h"
#include "quorvel/records/QVLShopCategory.h"

/// Primary key `organizationId`; resources "organizations" / "organization". Relations:
/// "shopcategories", "regions", "audiences" (lists), "image" and "logo" (media, written
/// back as "image_id" and "logo_id").
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLOrganization : public QVLModel<QVLOrganization> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kOrganizationId,
    kName,
    kText,
    kUrlString,
    kColorString,
    kShopCategories,
    kRegions,
    kAudiences,
    kImage,
    kLogo,
    kLatitude,
    kLongitude,
    kCheckinsPerWeek,
    kExclusiveMax,
    kPrizeWarning,
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
  std::optional<std::int64_t> organizationId() const { return optionalInt(kOrganizationId); }
  void setOrganizationId(std::optional<std::int64_t> v) { setOptionalInt(kOrganizationId, v); }
  std::optional<std::string> name() const { return stringValue(kName); }
  void setName(std::optional<std::string> v) { setString(kName, std::move(v)); }
  /// The service's "description".
  std::optional<std::string> text() const { return stringValue(kText); }
  void setText(std::optional<std::string> v) { setString(kText, std::move(v)); }
  std::optional<std::string> urlString() const { return stringValue(kUrlString); }
  void setUrlString(std::optional<std::string> v) { setString(kUrlString, std::move(v)); }
  /// "r,g,b" with components 0..255.
  std::optional<std::string> colorString() const { return stringValue(kColorString); }
  void setColorString(std::optional<std::string> v) { setString(kColorString, std::move(v)); }

  qvl::List<QVLShopCategory> shopCategories() const {
    return listOf<QVLShopCategory>(kShopCategories);
  }
  qvl::List<QVLRegion> regions() const { return listOf<QVLRegion>(kRegions); }
  qvl::List<QVLAudience> audiences() const { return listOf<QVLAudience>(kAudiences); }
  std::shared_ptr<QVLMedia> image() const { return linkAs<QVLMedia>(kImage); }
  void setImage(std::shared_ptr<QVLMedia> v) { setLink(kImage, std::move(v)); }
  std::shared_ptr<QVLMedia> logo() const { return linkAs<QVLMedia>(kLogo); }
  void setLogo(std::shared_ptr<QVLMedia> v) { setLink(kLogo, std::move(v)); }

  std::optional<double> latitude() const { return optionalDouble(kLatitude); }
  void setLatitude(std::optional<double> v) { setOptionalDouble(kLatitude, v); }
  std::optional<double> longitude() const { return optionalDouble(kLongitude); }
  void setLongitude(std::optional<double> v) { setOptionalDouble(kLongitude, v); }
  /// The service's "max_checkins_per_week".
  std::int32_t checkinsPerWeek() const {
    return static_cast<std::int32_t>(intValue(kCheckinsPerWeek));
  }
  void setCheckinsPerWeek(std::int32_t v) { setValue(kCheckinsPerWeek, std::int64_t{v}); }
  std::int32_t exclusiveMax() const { return static_cast<std::int32_t>(intValue(kExclusiveMax)); }
  void setExclusiveMax(std::int32_t v) { setValue(kExclusiveMax, std::int64_t{v}); }
  std::optional<std::string> prizeWarning() const { return stringValue(kPrizeWarning); }
  void setPrizeWarning(std::optional<std::string> v) { setString(kPrizeWarning, std::move(v)); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  ///@}

  /// urlString as a URL; nullopt when absent or not a URL.
  std::optional<qvl::Url> url() const;
  /// colorFromString() of colorString; the standard blue when absent.
  qvl::Color color() const;
  /// (latitude, longitude) when both are present, else qvl::kDefaultCoordinate.
  qvl::Coordinate coordinate() const;

  /// Splits text at ','. Exactly three pieces give red, green and blue (each piece's
  /// leading number / 255, 0 when it has none; not range-checked) with alpha 1; any other
  /// count gives the standard blue.
  static qvl::Color colorFromString(std::string_view text);
};
