#pragma once
// Internal: opening the library's store with the failure kept for the caller.

#include <memory>

#include "quorvel/store/Store.h"

namespace qvl::detail {

/// QVLRealm::realm() that throws the StoreError (naming the file and the cause) instead of
/// logging it and returning nullptr.
std::shared_ptr<Store> openLibraryStore();

}  // namespace qvl::detail
