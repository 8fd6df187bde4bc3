#include "platform/Base64.h"

#include <array>
#include <cstdint>

namespace qvl {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> makeDecodeTable() {
  std::array<int8_t, 256> table{};
  for (auto& entry : table) entry = -1;
  for (size_t i = 0; i < kAlphabet.size(); ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
  }
  return table;
}

constexpr std::array<int8_t, 256> kDecodeTable = makeDecodeTable();

}  // namespace

std::string base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t n = (static_cast<uint8_t>(bytes[i]) << 16) |
                       (static_cast<uint8_t>(bytes[i + 1]) << 8) |
                       static_cast<uint8_t>(bytes[i + 2]);
    out.push_back(kAlphabet[(n >> 18) & 63]);
    out.push_back(kAlphabet[(n >> 12) & 63]);
    out.push_back(kAlphabet[(n >> 6) & 63]);
    out.push_back(kAlphabet[n & 63]);
  }
  const size_t rest = bytes.size() - i;
  if (rest > 0) {
    uint32_t n = static_cast<uint8_t>(bytes[i]) << 16;
    if (rest == 2) n |= static_cast<uint8_t>(bytes[i + 1]) << 8;
    out.push_back(kAlphabet[(n >> 18) & 63]);
    out.push_back(kAlphabet[(n >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(n >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  size_t padding = 0;
  if (!text.empty() && text.back() == '=')
    padding = text.size() >= 2 && text[text.size() - 2] == '=' ? 2 : 1;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    uint32_t n = 0;
    for (size_t j = 0; j < 4; ++j) {
      const char c = text[i + j];
      int value;
      if (c == '=' && last && j >= 4 - padding) {
        value = 0;
      } else {
        value = kDecodeTable[static_cast<unsigned char>(c)];
        if (value < 0) return std::nullopt;
      }
      n = (n << 6) | static_cast<uint32_t>(value);
    }
    out.push_back(static_cast<char>((n >> 16) & 0xff));
    if (!last || padding < 2) out.push_back(static_cast<char>((n >> 8) & 0xff));
    if (!last || padding < 1) out.push_back(static_cast<char>(n & 0xff));
  }
  return out;
}

}  // namespace qvl
