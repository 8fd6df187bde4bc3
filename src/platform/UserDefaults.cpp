#include "quorvel/platform/UserDefaults.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/Base64.h"
#include "platform/ContextCore.h"
#include "platform/JsonImpl.h"
#include "platform/PrivateFiles.h"
#include "quorvel/platform/BundleInfo.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"

namespace qvl {
namespace {

std::string errnoText(int error) { return std::strerror(error); }

// Replaces the file at `path` with `text` so that readers never see a partial file.
bool replaceFile(const std::string& path, const std::string& text, std::string* error) {
  const std::filesystem::path target(path);
  const std::filesystem::path dir = target.has_parent_path() ? target.parent_path() : ".";
  detail::Status result = detail::makePrivateDirectories(dir);
  if (result) result = detail::writeFileAtomically(target, text);
  *error = result.error;
  return result.ok();
}

// Keys are JSON object keys on disk, so they must be valid UTF-8.
bool isValidKey(const std::string& key) {
  try {
    (void)nlohmann::json(key).dump();
    return true;
  } catch (const nlohmann::json::exception&) {
    return false;
  }
}

}  // namespace

struct UserDefaults::Impl {
  explicit Impl(std::string file) : path(std::move(file)) {}
  std::mutex mutex;
  std::string path;
  bool loaded = false;
  bool dirty = false;
  std::map<std::string, std::string> values;
};

UserDefaults::UserDefaults(std::string path) : impl_(std::make_unique<Impl>(std::move(path))) {}
UserDefaults::~UserDefaults() {
  std::lock_guard lock(impl_->mutex);
  if (impl_->dirty) writeLocked();  // a last try for changes a failed write left pending
}

UserDefaults& UserDefaults::standard() {
  // One per context, over that context's file.
  static const char key = 0;
  return detail::currentContext()->service<UserDefaults>(&key, [] {
    std::string path = Env::current()->userDefaultsPath;
    return std::make_shared<UserDefaults>(path.empty() ? defaultStandardPath() : std::move(path));
  });
}

std::string UserDefaults::defaultStandardPath() {
  const std::string base = Env::standardConfigDirectory();
  std::string id = "default";
  const nlohmann::json info = detail::nlohmannOf(BundleInfo::infoDictionary());
  if (auto it = info.find("CFBundleIdentifier"); it != info.end() && it->is_string()) {
    id = it->get<std::string>();
  }
  for (char& c : id) {
    if (c == '/' || c == '\0') c = '_';
  }
  if (id.empty() || id == "." || id == "..") id = "default";
  return base + "/quorvel/" + id + ".defaults";
}

std::string UserDefaults::path() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->path.empty() ? defaultStandardPath() : impl_->path;
}

std::optional<std::string> UserDefaults::data(const std::string& key) {
  std::lock_guard lock(impl_->mutex);
  loadLocked();
  auto it = impl_->values.find(key);
  if (it == impl_->values.end()) return std::nullopt;
  return it->second;
}

void UserDefaults::setData(const std::string& key, std::string bytes) {
  if (!isValidKey(key)) {
    log(LogLevel::error, "user defaults keys must be UTF-8 text; a value was not stored");
    return;
  }
  std::lock_guard lock(impl_->mutex);
  loadLocked();
  impl_->values[key] = std::move(bytes);
  impl_->dirty = true;
  writeLocked();
}

void UserDefaults::removeObject(const std::string& key) {
  std::lock_guard lock(impl_->mutex);
  loadLocked();
  if (impl_->values.erase(key) == 0 && !impl_->dirty) return;
  impl_->dirty = true;
  writeLocked();
}

bool UserDefaults::synchronize() {
  std::lock_guard lock(impl_->mutex);
  loadLocked();
  return !impl_->dirty || writeLocked();
}

void UserDefaults::loadLocked() {
  if (impl_->loaded) return;
  impl_->loaded = true;
  if (impl_->path.empty()) impl_->path = defaultStandardPath();
  detail::removeStaleTemporaryFiles(impl_->path);

  const int fd = ::open(impl_->path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT)
      log(LogLevel::error, "cannot read user defaults " + impl_->path + ": " + errnoText(errno));
    return;
  }
  std::string text;
  char buffer[8192];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      log(LogLevel::error, "cannot read user defaults " + impl_->path + ": " + errnoText(errno));
      ::close(fd);
      return;
    }
    if (n == 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);

  const nlohmann::json parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) {
    // Start empty; the next change replaces the damaged file.
    log(LogLevel::error, "user defaults " + impl_->path + " are damaged and were ignored");
    return;
  }
  for (const auto& [key, value] : parsed.items()) {
    std::optional<std::string> bytes;
    if (value.is_string()) bytes = base64Decode(value.get_ref<const std::string&>());
    if (!bytes) {
      log(LogLevel::error,
          "user defaults " + impl_->path + ": ignored the damaged value of " + key);
      continue;
    }
    impl_->values.emplace(key, std::move(*bytes));
  }
}

bool UserDefaults::writeLocked() {
  nlohmann::json object = nlohmann::json::object();
  for (const auto& [key, bytes] : impl_->values) object[key] = base64Encode(bytes);
  std::string error;
  if (!replaceFile(impl_->path, object.dump(), &error)) {
    log(LogLevel::error, "cannot write user defaults: " + error);
    return false;
  }
  impl_->dirty = false;
  return true;
}

}  // namespace qvl
