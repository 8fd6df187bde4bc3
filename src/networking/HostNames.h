#pragma once
// Host names compared as DNS compares them: case-insensitively, a final dot ignored.

#include <algorithm>
#include <cctype>
#include <string>

namespace qvl::detail {

inline std::string normalizedHost(std::string host) {
  std::transform(host.begin(), host.end(), host.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (!host.empty() && host.back() == '.') host.pop_back();
  return host;
}

// Whether `name` is `domain` or, with `includeSubdomains`, a name under it; both normalised.
inline bool hostIsInDomain(const std::string& name, const std::string& domain,
                           bool includeSubdomains) {
  return name == domain || (includeSubdomains && name.size() > domain.size() &&
                            name.ends_with(domain) && name[name.size() - domain.size() - 1] == '.');
}

}  // namespace qvl::detail
