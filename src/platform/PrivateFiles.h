#pragma once
// Files and folders only this user may read or change: the store, user defaults, the regions
// file and the tools' outputs. Header-only so that the tools can use it too without the shared
// library exporting it.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/Result.h"

namespace qvl::detail {

// A private-file operation's Status names the path and the reason when it failed.

namespace privatefiles {

inline std::string errnoText(int error) { return std::strerror(error); }

inline std::string modeText(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

inline bool writeAll(int fd, std::string_view bytes) {
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    written += static_cast<size_t>(n);
  }
  return true;
}

inline std::filesystem::path folderOf(const std::filesystem::path& file) {
  std::filesystem::path dir = file.parent_path();
  return dir.empty() ? std::filesystem::path(".") : dir;
}

// Temporary files of a write are "<file name>.tmp-" plus mkostemp's six letters or digits.
constexpr std::string_view kTemporarySuffix = ".tmp-";
constexpr size_t kTemporaryRandomLength = 6;

inline bool isTemporaryFileOf(const std::string& name, const std::string& fileName) {
  if (name.size() != fileName.size() + kTemporarySuffix.size() + kTemporaryRandomLength ||
      name.compare(0, fileName.size(), fileName) != 0 ||
      name.compare(fileName.size(), kTemporarySuffix.size(), kTemporarySuffix) != 0) {
    return false;
  }
  return std::all_of(name.end() - kTemporaryRandomLength, name.end(),
                     [](unsigned char c) { return std::isalnum(c) != 0; });
}

}  // namespace privatefiles

/// Refuses a folder that someone else could change files in: one owned by another user, or
/// writable by group or others. Follows a symbolic link to the folder.
inline Status checkPrivateDirectory(const std::filesystem::path& dir) {
  struct stat info {};
  if (::stat(dir.c_str(), &info) != 0)
    return {"cannot use " + dir.string() + ": " + privatefiles::errnoText(errno)};
  if (!S_ISDIR(info.st_mode)) return {dir.string() + " is not a directory"};
  if (info.st_uid != ::geteuid()) {
    return {"refused " + dir.string() + ": owned by another user (uid " +
            std::to_string(info.st_uid) + ")"};
  }
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return {"refused " + dir.string() + ": writable by group or others (mode " +
            privatefiles::modeText(info.st_mode) + ")"};
  }
  return {};
}

/// Creates every missing folder of `dir` with mode 0700 whatever the umask, then refuses `dir`
/// as checkPrivateDirectory does. Existing folders are left as they are.
inline Status makePrivateDirectories(const std::filesystem::path& dir) {
  std::filesystem::path prefix;
  for (const auto& part : dir) {
    prefix /= part;
    if (prefix == prefix.root_path()) continue;
    if (::mkdir(prefix.c_str(), 0700) == 0) {
      ::chmod(prefix.c_str(), 0700);  // the umask may have taken bits from the owner
    } else if (errno != EEXIST) {
      return {"cannot create " + prefix.string() + ": " + privatefiles::errnoText(errno)};
    }
  }
  return checkPrivateDirectory(dir);
}

/// Creates `file` empty with mode 0600 whatever the umask, or checks the existing one, which
/// it leaves unchanged. Refuses a symbolic link, a non-regular file and a file owned by another
/// user.
inline Status makePrivateFile(const std::filesystem::path& file) {
  int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd >= 0) {
    Status result;
    if (::fchmod(fd, 0600) != 0)
      result.error =
          "cannot set the mode of " + file.string() + ": " + privatefiles::errnoText(errno);
    ::close(fd);
    return result;
  }
  if (errno != EEXIST)
    return {"cannot create " + file.string() + ": " + privatefiles::errnoText(errno)};
  // O_PATH: closing a real descriptor of a file drops every POSIX lock this process holds
  // on it, SQLite's included (another thread's open store, its -shm read marks).
  fd = ::open(file.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return {"cannot open " + file.string() + ": " + privatefiles::errnoText(errno)};
  Status result;
  struct stat info {};
  if (::fstat(fd, &info) != 0) {
    result.error = "cannot inspect " + file.string() + ": " + privatefiles::errnoText(errno);
  } else if (S_ISLNK(info.st_mode)) {
    result.error = "refused " + file.string() + ": it is a symbolic link";
  } else if (!S_ISREG(info.st_mode)) {
    result.error = "refused " + file.string() + ": not a regular file";
  } else if (info.st_uid != ::geteuid()) {
    result.error = "refused " + file.string() + ": owned by another user (uid " +
                   std::to_string(info.st_uid) + ")";
  }
  ::close(fd);
  return result;
}

/// Takes group and other bits from an existing regular file of this user (files written by
/// older versions); a missing file is fine.
/// The file's folder must be private already (checkPrivateDirectory): the mode is changed by
/// name, since no descriptor of a store file may be closed while SQLite holds locks on it.
inline Status restrictToOwner(const std::filesystem::path& file) {
  struct stat info {};
  if (::lstat(file.c_str(), &info) != 0) {
    if (errno == ENOENT) return {};
    return {"cannot inspect " + file.string() + ": " + privatefiles::errnoText(errno)};
  }
  if (S_ISREG(info.st_mode) && info.st_uid == ::geteuid() && (info.st_mode & 077) != 0 &&
      ::chmod(file.c_str(), info.st_mode & 0700) != 0) {
    return {"cannot set the mode of " + file.string() + ": " + privatefiles::errnoText(errno)};
  }
  return {};
}

/// Removes what a write that crashed before its rename left beside `file`: its own temporary
/// files only (regular, owned by this user). A write in progress holds a lock on its temporary
/// file, so it is left alone.
inline void removeStaleTemporaryFiles(const std::filesystem::path& file) {
  const std::string fileName = file.filename().string();
  std::error_code error;
  for (std::filesystem::directory_iterator it(privatefiles::folderOf(file), error), end;
       !error && it != end; it.increment(error)) {
    if (!privatefiles::isTemporaryFileOf(it->path().filename().string(), fileName)) continue;
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

/// Replaces `file` with `bytes` so that readers never see a partial file: writes a new file of
/// mode 0600 (whatever the umask) under a unique name in the same folder, created exclusively
/// so that nothing planted there is followed, flushes it and renames it over `file`. The folder
/// must exist.
inline Status writeFileAtomically(const std::filesystem::path& file, std::string_view bytes) {
  const std::filesystem::path dir = privatefiles::folderOf(file);
  std::string temp = file.string() + std::string(privatefiles::kTemporarySuffix) + "XXXXXX";
  const int fd = ::mkostemp(temp.data(), O_CLOEXEC);  // O_CREAT | O_EXCL, mode 0600
  if (fd < 0) {
    return {"cannot create a file in " + dir.string() + ": " + privatefiles::errnoText(errno)};
  }
  ::flock(fd, LOCK_EX);  // marks the file as in use until it is closed
  auto fail = [&](const std::string& what) {
    Status result{what + " " + temp + ": " + privatefiles::errnoText(errno)};
    ::close(fd);
    ::unlink(temp.c_str());
    return result;
  };
  if (::fchmod(fd, 0600) != 0) return fail("cannot set the mode of");
  if (!privatefiles::writeAll(fd, bytes)) return fail("cannot write");
  if (::fsync(fd) != 0) return fail("cannot flush");
  if (::close(fd) != 0) {
    Status result{"cannot close " + temp + ": " + privatefiles::errnoText(errno)};
    ::unlink(temp.c_str());
    return result;
  }
  if (::rename(temp.c_str(), file.c_str()) != 0) {
    Status result{"cannot rename " + temp + " to " + file.string() + ": " +
                  privatefiles::errnoText(errno)};
    ::unlink(temp.c_str());
    return result;
  }
  // The rename itself is durable only once the folder entry is flushed.
  const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
  return {};
}

}  // namespace qvl::detail
