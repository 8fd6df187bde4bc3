#include "quorvel/platform/Uuid.h"

namespace qvl {

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isHyphenPosition(std::size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

}  // namespace

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  Bytes bytes{};
  std::size_t byte = 0;
  int high = -1;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (isHyphenPosition(i)) {
      if (text[i] != '-') return std::nullopt;
      continue;
    }
    int nibble = hexValue(text[i]);
    if (nibble < 0) return std::nullopt;
    if (high < 0) {
      high = nibble;
    } else {
      bytes[byte++] = static_cast<std::uint8_t>(high << 4 | nibble);
      high = -1;
    }
  }
  return Uuid(bytes);
}

std::string Uuid::toString() const {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    out.push_back(kDigits[bytes_[i] >> 4]);
    out.push_back(kDigits[bytes_[i] & 0x0F]);
  }
  return out;
}

}  // namespace qvl

std::size_t std::hash<qvl::Uuid>::operator()(const qvl::Uuid& uuid) const noexcept {
  // FNV-1a over the 16 bytes.
  std::uint64_t h = 1469598103934665603ULL;
  for (std::uint8_t b : uuid.bytes()) {
    h ^= b;
    h *= 1099511628211ULL;
  }
  return static_cast<std::size_t>(h);
}
