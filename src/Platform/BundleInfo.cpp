#include "quorvel/Platform/BundleInfo.h"

#include <fstream>
#include <mutex>
#include <sstream>

namespace qvl {
namespace {

struct State {
  std::mutex mutex;
  nlohmann::json dictionary = nlohmann::json::object();
};

// Never destroyed: worker threads may still read the dictionary while the process exits.
State& state() {
  static State* instance = new State;
  return *instance;
}

}  // namespace

void BundleInfo::setInfoDictionary(nlohmann::json dictionary) {
  if (!dictionary.is_object()) dictionary = nlohmann::json::object();
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.dictionary = std::move(dictionary);
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
  nlohmann::json parsed = nlohmann::json::parse(text.str(), nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return fail(path + " is not valid JSON");
  if (!parsed.is_object()) return fail(path + " does not hold a JSON object");
  setInfoDictionary(std::move(parsed));
  return true;
}

nlohmann::json BundleInfo::infoDictionary() {
  State& s = state();
  std::lock_guard lock(s.mutex);
  return s.dictionary;
}

}  // namespace qvl
