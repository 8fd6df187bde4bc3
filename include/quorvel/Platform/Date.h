#pragma once
// The library's point in time.

#include <chrono>

namespace qvl {

/// A point in time. Stored with nanosecond precision; the service's own format has seconds.
using Date = std::chrono::system_clock::time_point;

}  // namespace qvl
