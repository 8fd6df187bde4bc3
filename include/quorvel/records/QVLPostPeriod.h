#pragma once
/// @file
/// A time window in which a post is valid.

#include <cstdint>
#include <optional>

#include "quorvel/Export.h"
#include "quorvel/records/QVLApiModel.h"

/// Primary key `postPeriodId`; resources "postperiods" / "postPeriod" (capital P, as the
/// service names it); no relations.
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLPostPeriod : public QVLModel<QVLPostPeriod> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kPostPeriodId,
    kStart,
    kStop,
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
  std::optional<std::int64_t> postPeriodId() const { return optionalInt(kPostPeriodId); }
  void setPostPeriodId(std::optional<std::int64_t> v) { setOptionalInt(kPostPeriodId, v); }
  std::optional<qvl::Date> start() const { return dateValue(kStart); }
  void setStart(std::optional<qvl::Date> v) { setDate(kStart, v); }
  std::optional<qvl::Date> stop() const { return dateValue(kStop); }
  void setStop(std::optional<qvl::Date> v) { setDate(kStop, v); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  ///@}

  /// start < now < stop, both strict (qvl::Clock); false when either date is absent.
  bool active() const;
};
