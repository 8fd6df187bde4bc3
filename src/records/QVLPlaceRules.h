#pragma once
// Internal: the rules beacons and geofences share.

#include <optional>
#include <string>

#include "quorvel/records/QVLPost.h"

namespace qvl {

/// The posts list filtered to the postIds of the posts active now (list order, live).
Results<QVLPost> activePostsOf(const List<QVLPost>& posts);

/// message unless absent or blank (spaces and tabs only); then name, or "".
std::string notificationMessageOf(const std::optional<std::string>& message,
                                  const std::optional<std::string>& name);

}  // namespace qvl
