#pragma once
/// @file
/// An image that organizations, shops, posts and prizes point to.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/platform/Url.h"
#include "quorvel/records/QVLApiModel.h"

/// The renditions a media record holds, by the service's size numbers.
enum QVLMediaSize : int {
  QVLMediaSizeOriginal = 1,
  QVLMediaSizeLarge = 2,
  QVLMediaSizeMobile = 3,
  QVLMediaSizeThumbnail = 4,
};

/// Primary key `mediaId`; resources "media" / "media". The URLs arrive nested under
/// "urls" and are written back as flat keys such as "urls.original".
class QVL_EXPORT QVLMedia : public QVLModel<QVLMedia> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kMediaId,
    kWidth,
    kHeight,
    kUrlOriginal,
    kUrlLarge,
    kUrlMobile,
    kUrlThumbnail,
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
  std::optional<std::int64_t> mediaId() const { return optionalInt(kMediaId); }
  void setMediaId(std::optional<std::int64_t> v) { setOptionalInt(kMediaId, v); }
  std::int32_t width() const { return static_cast<std::int32_t>(intValue(kWidth)); }
  void setWidth(std::int32_t v) { setValue(kWidth, std::int64_t{v}); }
  std::int32_t height() const { return static_cast<std::int32_t>(intValue(kHeight)); }
  void setHeight(std::int32_t v) { setValue(kHeight, std::int64_t{v}); }
  std::optional<std::string> urlOriginal() const { return stringValue(kUrlOriginal); }
  void setUrlOriginal(std::optional<std::string> v) { setString(kUrlOriginal, std::move(v)); }
  std::optional<std::string> urlLarge() const { return stringValue(kUrlLarge); }
  void setUrlLarge(std::optional<std::string> v) { setString(kUrlLarge, std::move(v)); }
  std::optional<std::string> urlMobile() const { return stringValue(kUrlMobile); }
  void setUrlMobile(std::optional<std::string> v) { setString(kUrlMobile, std::move(v)); }
  std::optional<std::string> urlThumbnail() const { return stringValue(kUrlThumbnail); }
  void setUrlThumbnail(std::optional<std::string> v) { setString(kUrlThumbnail, std::move(v)); }
  ///@}

  /// The URL of a size (1 original, 2 large, 3 mobile, 4 thumbnail); the original when
  /// that size has none or the size is unknown. nullopt when the text is not a URL.
  std::optional<qvl::Url> urlInSize(int size) const;
  /// width / height; 1.875 when either is below 1.
  double aspectRatio() const;
};
