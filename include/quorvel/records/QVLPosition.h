#pragma once
/// @file
/// The position rule shared by records that may lack coordinates.

#include <optional>

#include "quorvel/platform/Region.h"

namespace qvl {

/// Where records without a complete position are placed.
inline constexpr Coordinate kDefaultCoordinate{56.172208, 10.185621};

/// (latitude, longitude) when both are present, otherwise kDefaultCoordinate.
inline Coordinate coordinateOrDefault(std::optional<double> latitude,
                                      std::optional<double> longitude) {
  if (latitude && longitude) return {*latitude, *longitude};
  return kDefaultCoordinate;
}

}  // namespace qvl
