#pragma once
/// @file
/// One typed piece of a post's body.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/records/QVLApiModel.h"

class QVLPost;

/// The values of QVLPostField::postFieldTypeId that have a typed view (QVLPostFields.h).
/// Other values (4, 5, ...) have none.
enum QVLPostFieldType : std::int64_t {
  QVLPostFieldTypeText = 1,
  QVLPostFieldTypeImages = 2,
  QVLPostFieldTypeVideo = 3,
  QVLPostFieldTypeCoupon = 6,
  QVLPostFieldTypeCallToAction = 7,
};

/// Primary key `postFieldId`; resources "postfields" / "postfield"; no relations.
/// Inverse: posts (the posts whose postFields list holds the field).
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLPostField : public QVLModel<QVLPostField> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kPostFieldId,
    kPostFieldTypeId,
    kOrder,
    kContent,
    kCreatedAt,
    kUpdatedAt,
    kPosts,
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
  std::optional<std::int64_t> postFieldId() const { return optionalInt(kPostFieldId); }
  void setPostFieldId(std::optional<std::int64_t> v) { setOptionalInt(kPostFieldId, v); }
  /// A QVLPostFieldType value (the service's "postFieldType_id").
  std::int64_t postFieldTypeId() const { return intValue(kPostFieldTypeId); }
  void setPostFieldTypeId(std::int64_t v) { setValue(kPostFieldTypeId, v); }
  std::int32_t order() const { return static_cast<std::int32_t>(intValue(kOrder)); }
  void setOrder(std::int32_t v) { setValue(kOrder, std::int64_t{v}); }
  /// Plain text, URL text or JSON object text, by type.
  std::optional<std::string> content() const { return stringValue(kContent); }
  void setContent(std::optional<std::string> v) { setString(kContent, std::move(v)); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  qvl::Results<QVLPost> posts() const { return qvl::Results<QVLPost>(linkingObjects(kPosts)); }
  ///@}
};
