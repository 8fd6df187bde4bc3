#pragma once
/// @file
/// The library's point in time.

#include <chrono>

namespace qvl {

/// A point in time, in microseconds since 1970 UTC. Microseconds keep every year from
/// -290000 to 290000 representable (nanoseconds would overflow outside 1677-2262); the
/// service's own format has whole seconds.
using Date = std::chrono::sys_time<std::chrono::microseconds>;

}  // namespace qvl
