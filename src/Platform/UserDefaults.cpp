#include "quorvel/Platform/UserDefaults.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/Base64.h"
#include "Platform/Immortal.h"
#include "quorvel/Platform/BundleInfo.h"
#include "quorvel/Platform/Env.h"
#include "quorvel/Platform/Log.h"

namespace qvl {
namespace {

std::string errnoText(int error) { return std::strerror(error); }

std::string homeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* result = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result &&
      result->pw_dir) {
    return result->pw_dir;
  }
  return ".";
}

// Creates every missing directory of `dir`, owner-only. Existing ones are left as they are.
bool makeDirectories(const std::filesystem::path& dir, std::string* error) {
  std::filesystem::path prefix;
  for (const auto& part : dir) {
    prefix /= part;
    if (prefix == prefix.root_path()) continue;
    if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
      *error = "cannot create " + prefix.string() + ": " + errnoText(errno);
      return false;
    }
  }
  struct stat info {};
  if (::stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    *error = dir.string() + " is not a directory";
    return false;
  }
  return true;
}

bool writeAll(int fd, const std::string& text) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    written += static_cast<size_t>(n);
  }
  return true;
}

// Temporary files of a save are "<file name>.tmp-" plus mkostemp's six letters or digits.
constexpr std::string_view kTemporarySuffix = ".tmp-";
constexpr size_t kTemporaryRandomLength = 6;

bool isTemporaryFileOf(const std::string& name, const std::string& fileName) {
  if (name.size() != fileName.size() + kTemporarySuffix.size() + kTemporaryRandomLength ||
      name.compare(0, fileName.size(), fileName) != 0 ||
      name.compare(fileName.size(), kTemporarySuffix.size(), kTemporarySuffix) != 0) {
    return false;
  }
  return std::all_of(name.end() - kTemporaryRandomLength, name.end(),
                     [](unsigned char c) { return std::isalnum(c) != 0; });
}

// Removes what a save that crashed before its rename left beside `path`: our own temporary
// files only (regular, owned by this user, in that directory). A save in progress holds a
// lock on its temporary file, so it is left alone.
void removeStaleTemporaryFiles(const std::string& path) {
  const std::filesystem::path target(path);
  std::filesystem::path dir = target.parent_path();
  if (dir.empty()) dir = ".";
  const std::string fileName = target.filename().string();
  std::error_code error;
  for (std::filesystem::directory_iterator it(dir, error), end; !error && it != end;
       it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (!isTemporaryFileOf(name, fileName)) continue;
    const int fd = ::open(it->path().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) continue;
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == ::geteuid() &&
        ::flock(fd, LOCK_EX | LOCK_NB) == 0) {
      ::unlink(it->path().c_str());
    }
    ::close(fd);
  }
}

// Replaces the file at `path` with `text` so that readers never see a partial file.
bool replaceFile(const std::string& path, const std::string& text, std::string* error) {
  const std::filesystem::path target(path);
  std::filesystem::path dir = target.parent_path();
  if (dir.empty()) dir = ".";
  if (!makeDirectories(dir, error)) return false;

  std::string temp = path + std::string(kTemporarySuffix) + "XXXXXX";
  const int fd = ::mkostemp(temp.data(), O_CLOEXEC);  // created with mode 0600
  if (fd < 0) {
    *error = "cannot create a file in " + dir.string() + ": " + errnoText(errno);
    return false;
  }
  ::flock(fd, LOCK_EX);  // marks the file as in use until it is closed
  auto fail = [&](const std::string& what) {
    *error = what + " " + temp + ": " + errnoText(errno);
    ::close(fd);
    ::unlink(temp.c_str());
    return false;
  };
  if (::fchmod(fd, 0600) != 0) return fail("cannot set the mode of");
  if (!writeAll(fd, text)) return fail("cannot write");
  if (::fsync(fd) != 0) return fail("cannot flush");
  if (::close(fd) != 0) {
    *error = "cannot close " + temp + ": " + errnoText(errno);
    ::unlink(temp.c_str());
    return false;
  }
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    *error = "cannot rename " + temp + " to " + path + ": " + errnoText(errno);
    ::unlink(temp.c_str());
    return false;
  }
  // The rename itself is durable only once the directory entry is flushed.
  const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
  return true;
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

UserDefaults::UserDefaults(std::string path) : path_(std::move(path)) {}

UserDefaults& UserDefaults::standard() {
  // Never destroyed: completions on worker threads may still use it while the process exits.
  struct Standard {
    UserDefaults defaults{std::string()};
  };
  UserDefaults& instance = detail::immortal<Standard>().defaults;
  std::string path = Env::current()->userDefaultsPath;
  instance.resetPath(path.empty() ? defaultStandardPath() : std::move(path));
  return instance;
}

std::string UserDefaults::defaultStandardPath() {
  std::string base;
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && xdg[0] == '/') {
    base = xdg;
  } else {
    base = homeDirectory() + "/.config";
  }
  std::string id = "default";
  const nlohmann::json info = BundleInfo::infoDictionary();
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
  std::lock_guard lock(mutex_);
  return path_.empty() ? defaultStandardPath() : path_;
}

std::optional<std::string> UserDefaults::data(const std::string& key) {
  std::lock_guard lock(mutex_);
  loadLocked();
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

void UserDefaults::setData(const std::string& key, std::string bytes) {
  if (!isValidKey(key)) {
    log("QuorvelSDK: user defaults keys must be UTF-8 text; a value was not stored");
    return;
  }
  std::lock_guard lock(mutex_);
  loadLocked();
  values_[key] = std::move(bytes);
  dirty_ = true;
  writeLocked();
}

void UserDefaults::removeObject(const std::string& key) {
  std::lock_guard lock(mutex_);
  loadLocked();
  if (values_.erase(key) == 0 && !dirty_) return;
  dirty_ = true;
  writeLocked();
}

bool UserDefaults::synchronize() {
  std::lock_guard lock(mutex_);
  loadLocked();
  return !dirty_ || writeLocked();
}

void UserDefaults::resetPath(std::string path) {
  std::lock_guard lock(mutex_);
  if (path == path_) return;
  if (dirty_) writeLocked();  // last try for changes made under the old path
  path_ = std::move(path);
  loaded_ = false;
  dirty_ = false;
  values_.clear();
}

void UserDefaults::loadLocked() {
  if (loaded_) return;
  loaded_ = true;
  if (path_.empty()) path_ = defaultStandardPath();
  removeStaleTemporaryFiles(path_);

  const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT)
      log("QuorvelSDK: cannot read user defaults " + path_ + ": " + errnoText(errno));
    return;
  }
  std::string text;
  char buffer[8192];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      log("QuorvelSDK: cannot read user defaults " + path_ + ": " + errnoText(errno));
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
    log("QuorvelSDK: user defaults " + path_ + " are damaged and were ignored");
    return;
  }
  for (const auto& [key, value] : parsed.items()) {
    std::optional<std::string> bytes;
    if (value.is_string()) bytes = base64Decode(value.get_ref<const std::string&>());
    if (!bytes) {
      log("QuorvelSDK: user defaults " + path_ + ": ignored the damaged value of " + key);
      continue;
    }
    values_.emplace(key, std::move(*bytes));
  }
}

bool UserDefaults::writeLocked() {
  nlohmann::json object = nlohmann::json::object();
  for (const auto& [key, bytes] : values_) object[key] = base64Encode(bytes);
  std::string error;
  if (!replaceFile(path_, object.dump(), &error)) {
    log("QuorvelSDK: cannot write user defaults: " + error);
    return false;
  }
  dirty_ = false;
  return true;
}

}  // namespace qvl
