#include "quorvel/records/QVLURLTrimmer.h"

std::optional<qvl::Url> QVLURLTrimmer::trimmedURLFromString(
    const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  const std::string& s = *text;
  size_t first = s.find_first_not_of(" \t");
  if (first == std::string::npos) return std::nullopt;
  size_t last = s.find_last_not_of(" \t");
  std::string trimmed = s.substr(first, last - first + 1);
  auto url = qvl::Url::parse(trimmed);
  if (url && !url->scheme().empty()) return url;
  return qvl::Url::parse("http://" + trimmed);
}
