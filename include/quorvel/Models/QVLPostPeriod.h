#pragma once
// A time window in which a post is valid.

#include <cstdint>
#include <optional>

#include "quorvel/Export.h"
#include "quorvel/Models/QVLApiModel.h"

/// Primary key `postPeriodId`; resources "postperiods" / "postPeriod" (capital P, as the
/// service names it); no relations.
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLPostPeriod : public QVLModel<QVLPostPeriod> {
 public:
  enum Property : int {
    kPostPeriodId,
    kStart,
    kStop,
    kCreatedAt,
    kUpdatedAt,
  };
  static const QVLModelClass& modelClass();

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

  /// start < now < stop, both strict (qvl::Clock); false when either date is absent.
  bool active() const;
};
