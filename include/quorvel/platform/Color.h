#pragma once
/// @file
/// An RGBA colour.

#include "quorvel/Export.h"

namespace qvl {

/// Components in 0..1 (not clamped: values outside pass through as given).
struct QVL_EXPORT Color {
  double red = 0.0;    ///< Red component.
  double green = 0.0;  ///< Green component.
  double blue = 0.0;   ///< Blue component.
  double alpha = 1.0;  ///< Opacity: 0 transparent, 1 (the default) opaque.

  /// The platform's standard blue: (0, 0, 1, 1).
  static Color standardBlue() { return {0.0, 0.0, 1.0, 1.0}; }

  /// Exact component-wise equality (no tolerance).
  bool operator==(const Color&) const = default;
};

}  // namespace qvl
