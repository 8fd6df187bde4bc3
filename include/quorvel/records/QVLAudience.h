#pragma once
/// @file
/// A group of guests that a set of posts is meant for.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLPost.h"

/// Primary key `audienceId`; resources "audiences" / "audience". Relation: "posts" (list).
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLAudience : public QVLModel<QVLAudience> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kAudienceId,
    kName,
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
  std::optional<std::int64_t> audienceId() const { return optionalInt(kAudienceId); }
  void setAudienceId(std::optional<std::int64_t> v) { setOptionalInt(kAudienceId, v); }
  std::optional<std::string> name() const { return stringValue(kName); }
  void setName(std::optional<std::string> v) { setString(kName, std::move(v)); }
  qvl::List<QVLPost> posts() const { return listOf<QVLPost>(kPosts); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  ///@}
};
