#include "quorvel/platform/Counters.h"

#include "platform/CountersImpl.h"

namespace qvl {

Counters countersSnapshot() {
  Counters snapshot;
#define QVL_COUNTER_READ(name)                                                        \
  snapshot.name = detail::counterCells[static_cast<std::size_t>(Counter::name)].load( \
      std::memory_order_relaxed);
  QVL_COUNTERS(QVL_COUNTER_READ)
#undef QVL_COUNTER_READ
  return snapshot;
}

}  // namespace qvl
