#pragma once
// Standard base64 (RFC 4648, with padding) for the library's own files and pins.

#include <optional>
#include <string>
#include <string_view>

namespace qvl {

std::string base64Encode(std::string_view bytes);

/// Strict decoding: absent on any character outside the alphabet or a bad length/padding.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace qvl
