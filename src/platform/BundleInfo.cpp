#include "quorvel/platform/BundleInfo.h"

#include <fstream>
#include <sstream>

#include "quorvel/platform/Env.h"

namespace qvl {

std::optional<Json> BundleInfo::fromFile(const std::string& path, std::string* error) {
  auto fail = [error](std::string reason) -> std::optional<Json> {
    if (error) *error = std::move(reason);
    return std::nullopt;
  };
  std::ifstream file(path, std::ios::binary);
  if (!file) return fail("cannot open " + path);
  std::ostringstream text;
  text << file.rdbuf();
  if (file.bad()) return fail("cannot read " + path);
  std::optional<Json> parsed = Json::parse(text.str());
  if (!parsed) return fail(path + " is not valid JSON");
  if (!parsed->isObject()) return fail(path + " does not hold a JSON object");
  return parsed;
}

Json BundleInfo::infoDictionary() { return Env::current()->bundleInfo; }

}  // namespace qvl
