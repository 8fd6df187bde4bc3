#include "platform/CountersImpl.h"

namespace qvl {

// Zero before any code runs (constant initialisation), so counting during static
// initialisation is safe. A file of its own: the testing library of a shared build tallies
// in a copy of its own (see CMakeLists.txt).
std::atomic<std::uint64_t> detail::counterCells[detail::kCounterCount] = {};

}  // namespace qvl
