#pragma once
/// @file
/// A 128-bit universally unique identifier, as beacons advertise it.

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "quorvel/Export.h"

namespace qvl {

/// A UUID value. The default value is the nil UUID (all zero). Ordered and hashable so
/// that it can key maps. A plain value: safe to copy between threads.
class QVL_EXPORT Uuid {
 public:
  /// The 16 octets in network (big-endian) order, as they appear in the text form.
  using Bytes = std::array<std::uint8_t, 16>;

  Uuid() = default;
  /// The UUID with exactly these octets; no version or variant bits are checked.
  explicit Uuid(const Bytes& bytes) : bytes_(bytes) {}

  /// Parses the standard 36-character form "8-4-4-4-12" of hexadecimal digits, in either
  /// case ("e2c56db5-dffb-48d2-b060-d0f5a71096e0"). Anything else (braces, missing or
  /// extra hyphens, surrounding blanks, other lengths) gives nullopt.
  static std::optional<Uuid> parse(std::string_view text);

  /// The standard form in upper case, as the platform prints UUIDs.
  std::string toString() const;
  /// The raw octets, valid as long as this value.
  const Bytes& bytes() const { return bytes_; }

  /// Octet-wise (lexicographic) order; equal exactly when every octet is.
  auto operator<=>(const Uuid&) const = default;

 private:
  Bytes bytes_{};
};

}  // namespace qvl

/// @cond
template <>
struct std::hash<qvl::Uuid> {
  std::size_t operator()(const qvl::Uuid& uuid) const noexcept;
};
/// @endcond
