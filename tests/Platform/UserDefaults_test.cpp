#include "quorvel/platform/UserDefaults.h"
#include "support/ScopedContext.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "quorvel/platform/BundleInfo.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace qvl {
namespace {

using ::testing::HasSubstr;

using test::LogCapture;
using test::readFile;
using test::writeFile;
using ::testing::Contains;

TEST(BundleInfoTest, ReadsAnObjectFromAFileAndNamesTheFileItCannotUse) {
  test::TempDir dir;
  writeFile(dir.file("info.json"),
            R"({"CFBundleIdentifier":"com.example.host","QuorvelSDK":{"ApiKey":"k"}})");
  std::string error;
  const std::optional<Json> info = BundleInfo::fromFile(dir.file("info.json"), &error);
  ASSERT_TRUE(info) << error;
  qvl::test::ScopedContext context([&](Env& env) { env.bundleInfo = *info; });
  EXPECT_EQ(BundleInfo::infoDictionary().at("QuorvelSDK")->at("ApiKey"), "k");

  writeFile(dir.file("broken.json"), R"({"CFBundleIdentifier":)");
  writeFile(dir.file("array.json"), "[1, 2]");
  for (const char* name : {"missing.json", "broken.json", "array.json"}) {
    error.clear();
    EXPECT_FALSE(BundleInfo::fromFile(dir.file(name), &error)) << name;
    EXPECT_THAT(error, HasSubstr(name));
  }

  qvl::test::ScopedContext notAnObject([](Env& env) { env.bundleInfo = "not an object"; });
  EXPECT_TRUE(BundleInfo::infoDictionary().isObject());
  EXPECT_EQ(BundleInfo::infoDictionary().size(), 0u);
}

class UserDefaultsTest : public ::testing::Test {
 protected:
  test::TempDir dir_;
  std::string path_ = dir_.file("nested/config/app.defaults");
};

TEST_F(UserDefaultsTest, ValuesSurviveIntoAFreshInstanceOnTheSameFile) {
  const std::string binary("\0\x01\xff token \xfe", 11);
  {
    UserDefaults first(path_);
    EXPECT_FALSE(first.data("QVLAuthJWTToken").has_value());
    first.setData("QVLAuthJWTToken", binary);
    first.setData("empty", "");
    first.setData("gone", "x");
    first.removeObject("gone");
    first.setData("replaced", "old");
    first.setData("replaced", "new");
    EXPECT_TRUE(first.synchronize());
  }
  UserDefaults next(path_);  // what the next process would see
  EXPECT_EQ(next.data("QVLAuthJWTToken"), binary);
  EXPECT_EQ(next.data("empty"), "");
  EXPECT_FALSE(next.data("gone").has_value());
  EXPECT_EQ(next.data("replaced"), "new");

  // The documented format: a JSON object of base64 values.
  const nlohmann::json onDisk = nlohmann::json::parse(readFile(path_));
  EXPECT_EQ(onDisk,
            (nlohmann::json{
                {"QVLAuthJWTToken", "AAH/IHRva2VuIP4="}, {"empty", ""}, {"replaced", "bmV3"}}));
}

TEST_F(UserDefaultsTest, FileIsReplacedAtomicallyLeavingNoTemporaryFiles) {
  UserDefaults defaults(path_);
  defaults.setData("a", "first");
  // A hard link keeps the old inode: an in-place rewrite would change what it shows.
  const std::string link = dir_.file("snapshot");
  ASSERT_EQ(::link(path_.c_str(), link.c_str()), 0);
  const std::string before = readFile(link);
  defaults.setData("a", "second");
  EXPECT_EQ(readFile(link), before);
  EXPECT_NE(readFile(path_), before);

  // No temporary files are left beside it.
  EXPECT_EQ(
      std::distance(std::filesystem::directory_iterator(std::filesystem::path(path_).parent_path()),
                    std::filesystem::directory_iterator()),
      1);
}

// A crash between creating the temporary file and renaming it leaves the temporary file
// (holding part of the old values); the next opening removes ours and nothing else.
TEST_F(UserDefaultsTest, TemporaryFilesOfACrashedSaveAreRemovedOnNextOpen) {
  UserDefaults(path_).setData("QVLAuthJWTToken", "secret");
  const std::string stale = path_ + ".tmp-Ab3dE9";
  const std::string saving = path_ + ".tmp-Zz0000";
  const std::vector<std::string> kept = {path_ + ".tmp-short", path_ + ".tmp-Ab3dE9x",
                                         dir_.file("nested/config/other.defaults.tmp-Ab3dE9")};
  for (const auto& file : kept) writeFile(file, "{}");
  writeFile(stale, R"({"QVLAuthJWTToken":"c2Vj)");
  writeFile(saving, "{}");
  const int savingFd = ::open(saving.c_str(), O_RDONLY);  // a save still in progress
  ASSERT_GE(savingFd, 0);
  ASSERT_EQ(::flock(savingFd, LOCK_EX), 0);

  UserDefaults next(path_);
  EXPECT_EQ(next.data("QVLAuthJWTToken"), "secret");
  EXPECT_FALSE(std::filesystem::exists(stale));
  EXPECT_TRUE(std::filesystem::exists(saving));
  for (const auto& file : kept) EXPECT_TRUE(std::filesystem::exists(file)) << file;
  ::close(savingFd);
}

TEST_F(UserDefaultsTest, WriteFailuresAreReportedAndRetriedBySynchronize) {
  LogCapture logs;
  writeFile(dir_.file("blocker"), "a file where a directory should be");
  UserDefaults defaults(dir_.file("blocker/app.defaults"));
  defaults.setData("k", "v");
  EXPECT_EQ(defaults.data("k"), "v");  // kept in memory
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_THAT(logs.lines(), Contains(HasSubstr("cannot write user defaults")));

  // Once the obstacle is gone, synchronize writes the pending change.
  std::filesystem::remove(dir_.file("blocker"));
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(UserDefaults(dir_.file("blocker/app.defaults")).data("k"), "v");
}

TEST_F(UserDefaultsTest, DamagedFileReadsAsEmptyAndIsReplacedByTheNextChange) {
  LogCapture logs;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
  writeFile(path_, "{not json");
  UserDefaults defaults(path_);
  EXPECT_FALSE(defaults.data("k").has_value());
  EXPECT_THAT(logs.lines(), Contains(HasSubstr("damaged")));
  defaults.setData("k", "v");
  EXPECT_EQ(UserDefaults(path_).data("k"), "v");

  // A value that is not base64 is skipped; the others are kept.
  writeFile(path_, R"({"good":"b2s=","bad":"***"})");
  UserDefaults partial(path_);
  EXPECT_EQ(partial.data("good"), "ok");
  EXPECT_FALSE(partial.data("bad").has_value());
}

TEST_F(UserDefaultsTest, ConcurrentWritersLoseNoValue) {
  UserDefaults defaults(path_);
  const auto key = [](int t, int i) { return "k" + std::to_string(t) + "-" + std::to_string(i); };
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < 10; ++i) {
        defaults.setData(key(t, i), key(t, i));
        EXPECT_EQ(defaults.data(key(t, i)), key(t, i));
      }
    });
  }
  for (auto& writer : writers) writer.join();
  UserDefaults reread(path_);
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 10; ++i) EXPECT_EQ(reread.data(key(t, i)), key(t, i));
  }
}

TEST_F(UserDefaultsTest, StandardDefaultsFollowTheEnvironmentsPath) {
  {
    qvl::test::ScopedContext env([&](Env& env) { env.userDefaultsPath = path_; });
    EXPECT_EQ(UserDefaults::standard().path(), path_);
    UserDefaults::standard().setData("QVLPushManagerEndpointIdKey", "42");
    EXPECT_TRUE(UserDefaults::standard().synchronize());
    EXPECT_EQ(UserDefaults(path_).data("QVLPushManagerEndpointIdKey"), "42");
  }
  // Another file's values, not the ones held in memory; then back to the first file.
  qvl::test::ScopedContext other(
      [&](Env& env) { env.userDefaultsPath = dir_.file("other.defaults"); });
  EXPECT_FALSE(UserDefaults::standard().data("QVLPushManagerEndpointIdKey").has_value());
  qvl::test::ScopedContext back([&](Env& env) { env.userDefaultsPath = path_; });
  EXPECT_EQ(UserDefaults::standard().data("QVLPushManagerEndpointIdKey"), "42");
}

TEST(UserDefaultsPathTest, DefaultPathUsesXdgConfigHomeAndTheApplicationId) {
  const char* xdg = std::getenv("XDG_CONFIG_HOME");
  const std::optional<std::string> savedXdg = xdg ? std::optional<std::string>(xdg) : std::nullopt;

  ::setenv("XDG_CONFIG_HOME", "/xdg/config", 1);
  {
    qvl::test::ScopedContext app([](Env& env) {
      env.bundleInfo = {{"CFBundleIdentifier", "com.example/app"}};
    });
    EXPECT_EQ(UserDefaults::defaultStandardPath(), "/xdg/config/quorvel/com.example_app.defaults");
  }
  qvl::test::ScopedContext noId([](Env& env) { env.bundleInfo = qvl::Json::object(); });
  EXPECT_EQ(UserDefaults::defaultStandardPath(), "/xdg/config/quorvel/default.defaults");

  // A relative XDG_CONFIG_HOME is ignored, as the XDG rules require.
  ::setenv("XDG_CONFIG_HOME", "relative", 1);
  const char* home = std::getenv("HOME");
  ASSERT_NE(home, nullptr);
  EXPECT_EQ(UserDefaults::defaultStandardPath(),
            std::string(home) + "/.config/quorvel/default.defaults");

  savedXdg ? ::setenv("XDG_CONFIG_HOME", savedXdg->c_str(), 1) : ::unsetenv("XDG_CONFIG_HOME");
}

}  // namespace
}  // namespace qvl
