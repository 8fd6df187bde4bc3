#pragma once
// The library's source of "now".

#include <optional>

#include "quorvel/Store/Value.h"

namespace qvl {

/// Every time-dependent rule of the library (validity windows, view times) asks this
/// clock. Thread-safe.
struct Clock {
  /// The system time, or the fixed time set for testing.
  static Date now();
  /// Fixes now() at a time (nullopt returns to the system clock). For tests.
  static void setNowForTesting(std::optional<Date> now);
};

}  // namespace qvl
