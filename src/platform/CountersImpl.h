#pragma once
// The library's tally behind countersSnapshot(): one relaxed atomic per counter, so that
// counting on a hot path costs one uncontended add and never a lock.

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "quorvel/platform/Counters.h"

namespace qvl {

enum class Counter : std::size_t {
#define QVL_COUNTER_ENUM(name) name,
  QVL_COUNTERS(QVL_COUNTER_ENUM)
#undef QVL_COUNTER_ENUM
};

namespace detail {
#define QVL_COUNTER_ONE(name) +1
inline constexpr std::size_t kCounterCount = 0 QVL_COUNTERS(QVL_COUNTER_ONE);
#undef QVL_COUNTER_ONE
extern std::atomic<std::uint64_t> counterCells[kCounterCount];
}  // namespace detail

// Adds `n` to the counter. Any thread; never blocks or throws.
inline void count(Counter counter, std::uint64_t n = 1) noexcept {
  detail::counterCells[static_cast<std::size_t>(counter)].fetch_add(n, std::memory_order_relaxed);
}

}  // namespace qvl
