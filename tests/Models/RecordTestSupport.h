#pragma once
// Shared by the record tests: a fresh store directory per test, a fixed clock, captured
// log lines.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "quorvel/Helpers/QVLDateFormatter.h"
#include "quorvel/Helpers/QVLRealm.h"
#include "quorvel/Platform/Clock.h"
#include "quorvel/Platform/Log.h"
#include "quorvel/Store/Store.h"

namespace records_test {

/// A service date; fails the test (and gives the epoch) when the text does not parse.
inline qvl::Date at(std::string_view text) {
  auto date = QVLDateFormatter::dateFromString(text);
  EXPECT_TRUE(date.has_value()) << text;
  return date.value_or(qvl::Date{});
}

inline const qvl::Date kNow = at("2024-03-05T12:00:00+0000");
inline const qvl::Date kYesterday = kNow - std::chrono::hours(24);
inline const qvl::Date kTomorrow = kNow + std::chrono::hours(24);

/// Fixes the clock at kNow for the test's lifetime.
class FixedClockTest : public ::testing::Test {
 protected:
  void SetUp() override { qvl::Clock::setNowForTesting(kNow); }
  void TearDown() override { qvl::Clock::setNowForTesting(std::nullopt); }
};

/// A library store in a directory of its own, plus the fixed clock.
class RecordStoreTest : public FixedClockTest {
 protected:
  void SetUp() override {
    FixedClockTest::SetUp();
    std::string pattern =
        (std::filesystem::temp_directory_path() / "quorvel-records-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    QVLRealm::setStoreDirectory(directory_);
    store_ = QVLRealm::realm();
    ASSERT_NE(store_, nullptr);
  }
  void TearDown() override {
    store_.reset();
    qvl::Store::closeThreadHandles();
    QVLRealm::setStoreDirectory("");
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
    FixedClockTest::TearDown();
  }

  /// Writes records (with everything they reach) and returns the stored twins.
  template <class T>
  std::shared_ptr<T> store(const std::shared_ptr<T>& record) {
    std::shared_ptr<T> stored;
    store_->write([&] { stored = store_->addOrUpdate(record); });
    return stored;
  }

  std::shared_ptr<qvl::Store> store_;
  std::string directory_;
};

/// Collects log lines while alive.
class LogCapture {
 public:
  LogCapture() {
    qvl::setLogSink([this](std::string_view line) {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(line);
    });
  }
  ~LogCapture() { qvl::setLogSink({}); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace records_test
