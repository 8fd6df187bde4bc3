#include "quorvel/platform/BundleInfo.h"

#include <fstream>
#include <sstream>

#include "quorvel/platform/Env.h"

namespace qvl {

void BundleInfo::setInfoDictionary(Json dictionary) {
  if (!dictionary.isObject()) dictionary = Json::object();
  Env::update([&dictionary](Env& env) { env.bundleInfo = std::move(dictionary); });
}

bool BundleInfo::loadFromFile(const std::string& path, std::string* error) {
  auto fail = [error](std::string reason) {
    if (error) *error = std::move(reason);
    return false;
  };
  std::ifstream file(path, std::ios::binary);
  if (!file) return fail("cannot open " + path);
  std::ostringstream text;
  text << file.rdbuf();
  if (file.bad()) return fail("cannot read " + path);
  std::optional<Json> parsed = Json::parse(text.str());
  if (!parsed) return fail(path + " is not valid JSON");
  if (!parsed->isObject()) return fail(path + " does not hold a JSON object");
  setInfoDictionary(std::move(*parsed));
  return true;
}

Json BundleInfo::infoDictionary() { return Env::current()->bundleInfo; }

}  // namespace qvl
