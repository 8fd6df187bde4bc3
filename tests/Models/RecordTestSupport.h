#pragma once
// Shared by the record tests: a fresh store directory per test, a fixed clock, captured
// log lines.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string_view>
#include <vector>

#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/records/QVLDateFormatter.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/store/Store.h"
#include "quorvel/testing/ManualClock.h"
#include "support/LogCapture.h"
#include "support/ScopedContext.h"
#include "support/TempDir.h"

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

using Keys = std::vector<std::int64_t>;

/// The primary keys of records (a list, live results), in their order.
template <class Records>
Keys keysOf(const Records& records) {
  Keys keys;
  for (const auto& record : records) keys.push_back(record->primaryKeyValue().value_or(-1));
  return keys;
}

/// The same keys in ascending order, for sets that have no order of their own.
template <class Records>
Keys sortedKeysOf(const Records& records) {
  Keys keys = keysOf(records);
  std::sort(keys.begin(), keys.end());
  return keys;
}

/// An unmanaged post with only its key.
inline std::shared_ptr<QVLPost> postWithId(std::int64_t id) {
  return QVLPost::newObjectWithJSONDictionary({{"id", id}}, nullptr);
}

/// Writes records (with everything they reach) to this thread's library store; returns the
/// stored twin of the first.
template <class T, class... More>
std::shared_ptr<T> save(const std::shared_ptr<T>& first, const More&... more) {
  auto realm = QVLRealm::realm();
  EXPECT_NE(realm, nullptr);
  std::shared_ptr<T> stored;
  if (realm) {
    realm->write([&] {
      stored = realm->addOrUpdate(first);
      (realm->addOrUpdate(more), ...);
    });
  }
  return stored;
}

/// Fixes the clock at kNow for the test's lifetime.
class FixedClockTest : public ::testing::Test {
 protected:
  std::shared_ptr<qvl::ManualClock> clock_ = std::make_shared<qvl::ManualClock>(kNow);
  qvl::test::ScopedContext clockScope_{[this](qvl::Env& env) { env.clock = clock_; }};
};

/// A library store in a directory of its own, plus the fixed clock.
class RecordStoreTest : public FixedClockTest {
 protected:
  void SetUp() override {
    store_ = QVLRealm::realm();
    ASSERT_NE(store_, nullptr);
  }
  void TearDown() override {
    store_.reset();
    qvl::Store::closeThreadHandles();
  }

  /// Writes records (with everything they reach) and returns the stored twins.
  template <class T>
  std::shared_ptr<T> store(const std::shared_ptr<T>& record) {
    std::shared_ptr<T> stored;
    store_->write([&] { stored = store_->addOrUpdate(record); });
    return stored;
  }

  qvl::test::TempDir directory_;
  qvl::test::ScopedContext storeScope_{
      [this](qvl::Env& env) { env.storeDirectory = directory_.path(); }};
  std::shared_ptr<qvl::Store> store_;
};

using qvl::test::LogCapture;

}  // namespace records_test
