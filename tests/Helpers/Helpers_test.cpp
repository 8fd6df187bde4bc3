#include <gtest/gtest.h>

#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/UserDefaults.h"
#include "quorvel/records/QVLDateFormatter.h"
#include "quorvel/records/QVLMedia.h"
#include "quorvel/records/QVLPostPeriod.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/records/QVLURLTrimmer.h"
#include "quorvel/testing/ManualClock.h"
#include "quorvel/testing/SimulatedWorld.h"
#include "support/LogCapture.h"
#include "support/ScopedContext.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono;

qvl::Date utc(int y, unsigned mo, unsigned d, int h, int mi, int s) {
  return qvl::Date(sys_days(year{y} / month{mo} / day{d}) + hours(h) + minutes(mi) + seconds(s));
}

TEST(DateFormatterTest, ParsesZonesIntoUtcAndPrintsUtc) {
  auto date = QVLDateFormatter::dateFromString("2016-01-31T23:59:59+0100");
  ASSERT_TRUE(date);
  EXPECT_EQ(*date, utc(2016, 1, 31, 22, 59, 59));
  EXPECT_EQ(QVLDateFormatter::formattedStringFromDate(*date), "2016-01-31T22:59:59+0000");
  // Offsets that cross a day, month and year boundary.
  EXPECT_EQ(QVLDateFormatter::dateFromString("2016-12-31T23:30:00-0130"), utc(2017, 1, 1, 1, 0, 0));
  EXPECT_EQ(QVLDateFormatter::dateFromString("2016-03-01T00:30:00+02:00"),
            utc(2016, 2, 29, 22, 30, 0));
  EXPECT_EQ(QVLDateFormatter::dateFromString("2016-01-31T23:59:59Z"), utc(2016, 1, 31, 23, 59, 59));
  EXPECT_EQ(QVLDateFormatter::dateFromString("2016-01-31T23:59:59+05"),
            utc(2016, 1, 31, 18, 59, 59));
  // Printing drops fractions toward the past, also before 1970.
  EXPECT_EQ(
      QVLDateFormatter::formattedStringFromDate(utc(1969, 12, 31, 23, 59, 59) + milliseconds(500)),
      "1969-12-31T23:59:59+0000");
  EXPECT_EQ(QVLDateFormatter::dateFormatter().stringFrom(utc(2017, 3, 5, 14, 7, 9)),
            "2017-03-05T14:07:09+0000");
}

TEST(DateFormatterTest, RejectsTextOutsideThePattern) {
  for (const char* text :
       {"2016-01-31T23:59:59", "2016-01-31 23:59:59+0000", "2016-02-30T10:00:00+0000",
        "2016-13-01T10:00:00+0000", "2016-01-31T24:00:00+0000", "2016-01-31T23:59:59.250+0000",
        "2016-01-31T23:59:59+0000x", "2016-01-31T23:59:59+00:0", "2016-1-31T23:59:59+0000", "",
        "yesterday"}) {
    EXPECT_EQ(QVLDateFormatter::dateFromString(text), std::nullopt) << text;
  }
}

TEST(URLTrimmerTest, TrimsAndAddsAMissingSchemeOrGivesNone) {
  const std::pair<std::optional<std::string>, std::optional<std::string>> rows[] = {
      {"quorvel.example ", "http://quorvel.example"},
      {"\thttps://shop.example/a?b=1 ", "https://shop.example/a?b=1"},
      {"www.facebook.com/shop", "http://www.facebook.com/shop"},
      {"mailto:shop@example.com", "mailto:shop@example.com"},  // any scheme is kept
      {"   ", std::nullopt},
      {std::nullopt, std::nullopt},
      {"two words.example", std::nullopt},
      {"shop.example\n", std::nullopt},  // line breaks are not trimmed, and a URL cannot hold them
  };
  for (const auto& [text, absolute] : rows) {
    auto url = QVLURLTrimmer::trimmedURLFromString(text);
    EXPECT_EQ(url ? std::optional(url->absoluteString()) : std::nullopt, absolute)
        << text.value_or("(none)");
  }
  auto url = QVLURLTrimmer::trimmedURLFromString(std::string("https://www.shop.example/a?b=1"));
  EXPECT_EQ(url->scheme(), "https");
  EXPECT_EQ(url->host(), "www.shop.example");
  EXPECT_EQ(url->path(), "/a");
  EXPECT_EQ(qvl::Url::parse("http://bad host/"), std::nullopt);
  EXPECT_EQ(qvl::Url::parse("http://x.example/%zz"), std::nullopt);
}

class RealmTest : public ::testing::Test {
 protected:
  void TearDown() override { qvl::Store::closeThreadHandles(); }

  // Makes a store file of an older version whose media table still has "urlString".
  void makeOldFile(std::uint64_t version) {
    static const qvl::ObjectClass oldMedia(
        "QVLMedia",
        {{"mediaId", qvl::PropertyKind::Int, true}, {"urlString", qvl::PropertyKind::String, true}},
        "mediaId", [] { return std::shared_ptr<qvl::Object>(); });
    ::mkdir(store().c_str(), 0700);
    qvl::StoreConfiguration c;
    c.path = QVLRealm::configuration().path;
    c.schemaVersion = version;
    c.classes = {[]() -> const qvl::ObjectClass& { return oldMedia; }};
    qvl::Store::open(c);
    qvl::Store::closeThreadHandles();
    // The row goes in through SQLite itself: the old shape has no C++ record type.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(c.path.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db,
                           "INSERT INTO QVLMedia(mediaId, urlString) VALUES(1, "
                           "'https://cdn.example/1.png')",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
  }

  std::string store(const std::string& name = "") const { return dir.path() + "/store" + name; }

  qvl::test::TempDir dir;
  qvl::test::ScopedContext env{[this](qvl::Env& env) { env.storeDirectory = store(); }};
};

TEST_F(RealmTest, OpensTheLibraryFileAtVersion19) {
  auto realm = QVLRealm::realm();
  ASSERT_TRUE(realm);
  EXPECT_EQ(realm->path(), dir.path() + "/store/QuorvelSDK.realm");
  EXPECT_EQ(realm->schemaVersion(), 19u);
  // The same thread gets the same handle back.
  EXPECT_EQ(QVLRealm::realm(), realm);
}

// Every four-digit year, including those a nanosecond clock cannot hold (before 1677-09-21
// and after 2262-04-11), survives the text, the store and the validity rules unchanged.
TEST_F(RealmTest, FourDigitYearsRoundTripThroughTextAndStore) {
  const struct {
    const char* text;
    qvl::Date date;
  } cases[] = {
      {"0000-01-01T00:00:00+0000", utc(0, 1, 1, 0, 0, 0)},
      {"0001-01-01T00:00:00+0000", utc(1, 1, 1, 0, 0, 0)},
      {"1677-09-21T00:12:43+0000", utc(1677, 9, 21, 0, 12, 43)},
      {"2262-04-11T23:47:17+0000", utc(2262, 4, 11, 23, 47, 17)},
      {"9999-12-31T23:59:59+0000", utc(9999, 12, 31, 23, 59, 59)},
  };
  const qvl::Date now = utc(2024, 3, 5, 12, 0, 0);
  qvl::test::ScopedContext clock(
      [&](qvl::Env& env) { env.clock = std::make_shared<qvl::ManualClock>(now); });
  std::int64_t id = 0;
  for (const auto& c : cases) {
    EXPECT_EQ(QVLDateFormatter::dateFromString(c.text), c.date) << c.text;
    EXPECT_EQ(QVLDateFormatter::formattedStringFromDate(c.date), c.text);
    auto period = QVLPostPeriod::newObjectWithJSONDictionary(
        {{"id", ++id}, {"start", "2000-01-01T00:00:00+0000"}, {"stop", c.text}}, nullptr);
    auto realm = QVLRealm::realm();
    realm->write([&] { realm->addOrUpdate(period); });
    qvl::Store::closeThreadHandles();
    auto stored = QVLRealm::realm()->object<QVLPostPeriod>(id);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->stop(), c.date) << c.text;
    EXPECT_EQ(stored->toDictionary().at("stop"), c.text);
    EXPECT_EQ(stored->active(), c.date > now) << c.text;
  }
  // Outside four digits the year is signed.
  EXPECT_EQ(QVLDateFormatter::formattedStringFromDate(utc(0, 1, 1, 0, 0, 0) - seconds(1)),
            "-0001-12-31T23:59:59+0000");
}

// Opening a file of version 17 or older renames the media's "urlString" to "urlOriginal"; a
// version 18 file is taken to have had it done.
TEST_F(RealmTest, OnlyFilesBeforeVersion18MoveUrlStringToUrlOriginal) {
  for (std::uint64_t version : {17, 18}) {
    SCOPED_TRACE(version);
    std::filesystem::remove_all(dir.path() + "/store");
    makeOldFile(version);
    auto realm = QVLRealm::realm();
    ASSERT_TRUE(realm);
    auto media = realm->object<QVLMedia>(1);
    ASSERT_TRUE(media);
    EXPECT_EQ(media->urlOriginal(), version == 17
                                        ? std::optional<std::string>("https://cdn.example/1.png")
                                        : std::nullopt);
    qvl::Store::closeThreadHandles();
  }
}

TEST_F(RealmTest, UnopenableStoreIsLoggedAndAbsent) {
  qvl::test::LogCapture log;
  std::ofstream(dir.path() + "/blocker") << "a file where the directory should be";
  qvl::test::ScopedContext blocked(
      [&](qvl::Env& env) { env.storeDirectory = dir.path() + "/blocker"; });
  EXPECT_EQ(QVLRealm::realm(), nullptr);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("QuorvelSDK: Couldn't create the QuorvelSDK Realm instance: ", 0), 0u)
      << lines[0];
}

// The files of the library: owner-only, never written through a planted link, refused when
// someone else could have changed them.
class RealmSecurity : public RealmTest {
 protected:
  static void monitorARegion() {
    qvl::SimulatedWorld::create()->startMonitoring(qvl::BeaconRegion::withUuid(
        *qvl::Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"), "r"));
  }
};

TEST_F(RealmSecurity, EveryFileIsOwnerOnlyWhateverTheUmask) {
  const mode_t umask = ::umask(022);
  auto realm = QVLRealm::realm();  // open: -wal and -shm exist
  qvl::UserDefaults(store("/app.defaults")).setData("k", "v");
  monitorARegion();
  ::umask(umask);
  ASSERT_TRUE(realm);
  for (const char* name : {"", "/QuorvelSDK.realm", "/QuorvelSDK.realm-wal",
                           "/QuorvelSDK.realm-shm", "/app.defaults", "/monitored-regions.json"}) {
    struct stat info {};
    ASSERT_EQ(::stat(store(name).c_str(), &info), 0) << name;
    EXPECT_EQ(info.st_mode & 0777, *name ? 0600u : 0700u) << name;
  }
}

TEST_F(RealmSecurity, ALinkAtTheRegionsFilesOldTemporaryNameIsNotFollowed) {
  ASSERT_EQ(::mkdir(store().c_str(), 0700), 0);
  std::ofstream(dir.file("target")) << "kept";
  ASSERT_EQ(::symlink(dir.file("target").c_str(), store("/monitored-regions.json.tmp").c_str()), 0);
  monitorARegion();
  EXPECT_EQ(qvl::test::readFile(dir.file("target")), "kept");
  EXPECT_EQ(qvl::SimulatedWorld::create()->monitoredRegions().size(), 1u);
}

TEST_F(RealmSecurity, AFolderOthersCanChangeIsRefusedAndLeftAlone) {
  struct Case {
    mode_t mode;
    uid_t owner;
    const char* reason;
  };
  std::vector<Case> cases = {{0777, ::geteuid(), "writable by group or others (mode 0777)"},
                             {0770, ::geteuid(), "writable by group or others (mode 0770)"}};
  if (::geteuid() == 0) cases.push_back({0700, 1, "owned by another user (uid 1)"});
  for (const Case& c : cases) {
    std::filesystem::remove_all(store());
    ASSERT_EQ(::mkdir(store().c_str(), 0700), 0);
    std::ofstream(store("/kept")) << "kept";
    ASSERT_EQ(::chmod(store().c_str(), c.mode), 0);
    ASSERT_EQ(::chown(store().c_str(), c.owner, static_cast<gid_t>(-1)), 0);
    qvl::test::LogCapture log;
    EXPECT_EQ(QVLRealm::realm(), nullptr) << c.reason;
    monitorARegion();
    EXPECT_THAT(log.lines(), testing::Contains(testing::HasSubstr(store() + ": " + c.reason)));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(store()), {}), 1) << c.reason;
    EXPECT_EQ(qvl::test::readFile(store("/kept")), "kept");
  }
}

TEST_F(RealmSecurity, AFileHoldingTriggersOrViewsItDidNotCreateIsRefusedUnchanged) {
  ASSERT_TRUE(QVLRealm::realm());
  qvl::Store::closeThreadHandles();
  const std::string file = store("/QuorvelSDK.realm");
  for (const char* planted :
       {"CREATE TRIGGER planted AFTER INSERT ON QVLMedia BEGIN DELETE FROM QVLMedia; END",
        "CREATE VIEW planted AS SELECT * FROM QVLMedia"}) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, planted, nullptr, nullptr, nullptr), SQLITE_OK) << planted;
    sqlite3_close(db);
    const std::string before = qvl::test::readFile(file);
    qvl::test::LogCapture log;
    EXPECT_EQ(QVLRealm::realm(), nullptr) << planted;
    EXPECT_THAT(log.lines(), testing::Contains(testing::HasSubstr(file + ": refused")));
    EXPECT_EQ(qvl::test::readFile(file), before) << planted;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    sqlite3_exec(db, "DROP TRIGGER IF EXISTS planted; DROP VIEW IF EXISTS planted", nullptr,
                 nullptr, nullptr);
    sqlite3_close(db);
  }
}

}  // namespace
