// Posts, their periods and typed fields, prizes, and which posts of a beacon or geofence
// are active.

#include <gtest/gtest.h>

#include <thread>

#include "Models/RecordTestSupport.h"
#include "quorvel/records/QVLBeacon.h"
#include "quorvel/records/QVLGeofence.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/records/QVLPostFieldHelper.h"
#include "quorvel/records/QVLPostFields.h"
#include "quorvel/records/QVLPrize.h"

namespace {

using json = qvl::Json;
using records_test::Keys;
using records_test::keysOf;
using records_test::kNow;
using records_test::kTomorrow;
using records_test::kYesterday;
using records_test::LogCapture;

constexpr const char* kParsePrefix = "QuorvelSDK: Couldn't parse QVLPostField to JSON: ";

std::string serviceDate(qvl::Date date) { return QVLDateFormatter::formattedStringFromDate(date); }

json period(std::int64_t id, qvl::Date start, qvl::Date stop) {
  return {{"id", id}, {"start", serviceDate(start)}, {"stop", serviceDate(stop)}};
}

std::shared_ptr<QVLPost> post(std::int64_t id, const std::vector<json>& periods = {}) {
  json list = json::array();
  for (const json& p : periods) list.append(p);
  return QVLPost::newObjectWithJSONDictionary({{"id", id}, {"postperiods", list}}, nullptr);
}

class ContentPostTest : public records_test::FixedClockTest {};

TEST_F(ContentPostTest, ActiveWithoutPeriodsOrWithAnyRunningPeriod) {
  const qvl::Date longAgo = kYesterday - std::chrono::hours(48);
  const std::vector<std::pair<std::vector<json>, bool>> rows = {
      {{}, true},
      {{period(1, longAgo, kYesterday), period(2, kYesterday, kTomorrow)}, true},
      {{period(1, longAgo, kYesterday), period(2, kYesterday, kNow)}, false},  // ends now
      {{period(1, kNow, kTomorrow)}, false},                                   // starts now
  };
  for (size_t i = 0; i < rows.size(); ++i)
    EXPECT_EQ(post(1, rows[i].first)->active(), rows[i].second) << i;
}

std::shared_ptr<QVLPostField> fieldOf(std::int64_t type, std::optional<std::string> content) {
  auto f =
      QVLPostField::newObjectWithJSONDictionary({{"id", 1}, {"postFieldType_id", type}}, nullptr);
  f->setContent(std::move(content));
  return f;
}

template <class View>
bool accepts(const QVLPostField& field) {
  return View::initWithPostField(field).has_value();
}

TEST(ContentPostFieldTest, EachViewAcceptsOnlyItsOwnType) {
  LogCapture log;
  const std::vector<std::pair<std::int64_t, bool (*)(const QVLPostField&)>> views = {
      {QVLPostFieldTypeText, &accepts<QVLPostFieldText>},
      {QVLPostFieldTypeImages, &accepts<QVLPostFieldImages>},
      {QVLPostFieldTypeVideo, &accepts<QVLPostFieldVideo>},
      {QVLPostFieldTypeCoupon, &accepts<QVLPostFieldCoupon>},
      {QVLPostFieldTypeCallToAction, &accepts<QVLPostFieldCallToAction>},
  };
  for (std::int64_t type : std::initializer_list<std::int64_t>{
           QVLPostFieldTypeText, QVLPostFieldTypeImages, QVLPostFieldTypeVideo,
           QVLPostFieldTypeCoupon, QVLPostFieldTypeCallToAction, 4}) {
    auto field = fieldOf(type, std::string("{}"));
    for (const auto& [viewType, accepts] : views) {
      EXPECT_EQ(accepts(*field), viewType == type) << "field " << type << ", view " << viewType;
    }
  }
  EXPECT_TRUE(log.lines().empty()) << "a field of the wrong type is refused silently";

  auto text = QVLPostFieldText::initWithPostField(*fieldOf(QVLPostFieldTypeText, "  Hello\n"));
  EXPECT_EQ(text->text(), "  Hello\n");
  auto empty = QVLPostFieldText::initWithPostField(*fieldOf(QVLPostFieldTypeText, std::nullopt));
  ASSERT_TRUE(empty) << "text views copy even an absent content";
  EXPECT_FALSE(empty->text());
}

TEST(ContentPostFieldTest, MalformedJsonGivesNoViewAndOneLogLine) {
  for (const char* content : {R"({"text": "Half off")", "[1, 2]", "\"text\"", ""}) {
    LogCapture log;
    EXPECT_FALSE(QVLPostFieldCoupon::initWithPostField(*fieldOf(QVLPostFieldTypeCoupon, content)))
        << content;
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << content;
    EXPECT_EQ(lines[0].rfind(kParsePrefix, 0), 0u) << lines[0];
  }
  LogCapture log;
  auto parsed = QVLPostFieldHelper::parseStringToJSON(R"({"a": [1, {"b": null}]})");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->at("a")->at(1)->at("b"), json());
  EXPECT_FALSE(QVLPostFieldHelper::parseStringToJSON("{\"a\": 1} // comment"));
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(ContentPostFieldTest, CouponTextsAreTrimmedTextsOrNothingAndRedeemableIsAPresenceTest) {
  using Texts = std::tuple<std::optional<std::string>, std::optional<std::string>,
                           std::optional<std::string>, std::optional<std::string>, bool>;
  // Unicode blanks count too (no-break space, ideographic space, line separator); numbers
  // are not used.
  for (
      const auto& [content, expected] : std::vector<std::pair<const char*, Texts>>{
          {R"({"text":" \n Half off \r\n","price_before":"\t100 kr","price":"   ","discount":"50%"})",
           {"Half off", "100 kr", std::nullopt, "50%", false}},
          {R"({"text":"\u3000Half off\u00a0","price":"\u00a0\u2028 ","redeemable":false})",
           {"Half off", {}, {}, {}, true}},
          {R"({"price":50,"price_before":100.5,"discount":true,"redeemable":null})",
           {{}, {}, {}, {}, true}},
      }) {
    auto coupon = QVLPostFieldCoupon::initWithPostField(*fieldOf(QVLPostFieldTypeCoupon, content));
    EXPECT_EQ(Texts(coupon->text(), coupon->priceBefore(), coupon->price(), coupon->discount(),
                    coupon->redeemable()),
              expected)
        << content;
  }
}

TEST(ContentPostFieldTest, CallToActionImagesAndVideoReadTheirContent) {
  auto action = QVLPostFieldCallToAction::initWithPostField(
      *fieldOf(QVLPostFieldTypeCallToAction,
               json{{"text", "  Book now  "}, {"url", "https://shop.example/book"}}.dump()));
  EXPECT_EQ(action->text(), "  Book now  ") << "kept as sent";
  ASSERT_TRUE(action->url());
  EXPECT_EQ(action->url()->absoluteString(), "https://shop.example/book");
  auto withoutUrl = QVLPostFieldCallToAction::initWithPostField(
      *fieldOf(QVLPostFieldTypeCallToAction, json{{"url", "two words"}}.dump()));
  EXPECT_FALSE(withoutUrl->url());
  EXPECT_FALSE(withoutUrl->text());

  auto images = QVLPostFieldImages::initWithPostField(*fieldOf(
      QVLPostFieldTypeImages, json{{"imageText", " Our team "}, {"images", {1, 2}}}.dump()));
  EXPECT_EQ(images->text(), " Our team ");

  auto video = QVLPostFieldVideo::initWithPostField(
      *fieldOf(QVLPostFieldTypeVideo, std::string("https://youtu.be/abc")));
  ASSERT_TRUE(video->youtubeURL());
  EXPECT_EQ(video->youtubeURL()->host(), "youtu.be");
  EXPECT_FALSE(QVLPostFieldVideo::initWithPostField(*fieldOf(QVLPostFieldTypeVideo, "watch this"))
                   ->youtubeURL());
}

TEST(ContentPrizeTest, ExclusiveOnlyWithTheQuotedKey) {
  const std::vector<std::pair<json, bool>> rows = {
      {{{"limits", R"({"USER_GROUP_MAX": 2, "PER_DAY": 1})"}}, true},
      {{{"limits", {{"USER_GROUP_MAX", 2}}}}, true},  // an object is kept as JSON text
      {{{"limits", "USER_GROUP_MAX"}}, false},
      {json::object(), false},
  };
  for (auto [answer, exclusive] : rows) {
    answer.set("id", 1);
    EXPECT_EQ(QVLPrize::newObjectWithJSONDictionary(answer, nullptr)->isExclusive(), exclusive)
        << answer.dump();
  }
}

class ContentStoreTest : public records_test::RecordStoreTest {};

TEST_F(ContentStoreTest, RefreshKeepsInboxMarksAndFollowsThePeriodsSent) {
  const json answer = {{"id", 9},
                       {"content", {{"html", "<p>Hi</p>"}}},
                       {"postperiods", {period(1, kYesterday, kNow)}},
                       {"read", false}};
  auto stored = store(QVLPost::newObjectWithJSONDictionary(answer, store_.get()));
  EXPECT_FALSE(stored->active());
  store_->write([&] {
    stored->setRead(true);
    stored->setSaved(true);
  });
  for (const json& refresh :
       {answer, json{{"id", 9}}, json{{"id", 9}, {"postperiods", json::array()}}}) {
    store(QVLPost::newObjectWithJSONDictionary(refresh, store_.get()));
    auto post = store_->object<QVLPost>(9);
    EXPECT_TRUE(post->read()) << refresh.dump();
    EXPECT_TRUE(post->saved());
    EXPECT_EQ(post->content(), "<p>Hi</p>") << "a missing key keeps the value";
    EXPECT_EQ(post->periods().size(),
              refresh.contains("postperiods") ? refresh.at("postperiods")->size() : 1u);
  }
  EXPECT_TRUE(stored->active()) << "without periods a post is always active";
}

TEST_F(ContentStoreTest, PostDictionaryNamesItsThumbnailByKey) {
  auto post = QVLPost::newObjectWithJSONDictionary(
      {{"id", 5},
       {"content", {{"html", "<b>x</b>"}}},
       {"thumbnail", {{"id", 77}, {"width", 10}, {"height", 10}}},
       {"postfields", {{{"id", 1}, {"postFieldType_id", 1}, {"content", "x"}}}}},
      store_.get());
  auto stored = store(post);
  json d = stored->toDictionary();
  EXPECT_EQ(d.at("thumbnail_id"), 77);
  EXPECT_FALSE(d.contains("postfields"));
  EXPECT_FALSE(d.contains("thumbnail"));
}

TEST_F(ContentStoreTest, ActivePostsKeepListOrderAndMakeABeaconOrGeofenceActive) {
  auto beacon = std::make_shared<QVLBeacon>();
  beacon->setBeaconId(7);
  // List order differs from key order and from the order the posts reach the store.
  beacon->posts().assign({post(30), post(10, {period(1, kYesterday, kNow)}), post(20),
                          post(5, {period(2, kYesterday, kTomorrow)})});
  auto stored = store(beacon);
  EXPECT_EQ(keysOf(stored->activePosts()), (Keys{30, 20, 5}));
  EXPECT_TRUE(stored->active());
  EXPECT_EQ(keysOf(beacon->activePosts()), (Keys{30, 20, 5}))
      << "the same rule on the unmanaged record";

  auto geofence = std::make_shared<QVLGeofence>();
  geofence->setGeofenceId(1);
  EXPECT_FALSE(geofence->active()) << "no posts at all";
  geofence->posts().append(post(1, {period(11, kYesterday - std::chrono::hours(1), kYesterday)}));
  EXPECT_FALSE(geofence->active()) << "only ended posts";
  EXPECT_FALSE(store(geofence)->active());
  geofence->posts().append(post(2));  // no periods: always active
  EXPECT_TRUE(geofence->active());
}

TEST_F(ContentStoreTest, ResultsFollowLaterCommits) {
  auto geofence = std::make_shared<QVLGeofence>();
  geofence->setGeofenceId(3);
  geofence->posts().assign({post(1), post(2, {period(21, kYesterday, kTomorrow)}), post(3)});
  auto stored = store(geofence);

  qvl::Results<QVLPost> active = stored->activePosts();
  ASSERT_EQ(keysOf(active), (Keys{1, 2, 3}));

  // Committed from another thread, through that thread's own handle.
  std::thread writer(qvl::test::inThisContext([] {
    auto realm = QVLRealm::realm();
    auto mine = realm->object<QVLGeofence>(3);
    realm->write([&] {
      mine->posts().remove(2);                    // post 3 leaves the geofence
      mine->posts().insert(0, mine->posts()[1]);  // post 2 moves to the front
      mine->posts().remove(2);
      realm->object<QVLPostPeriod>(21)->setStop(records_test::kNow);  // post 2 ends now
    });
    qvl::Store::closeThreadHandles();
  }));
  writer.join();

  EXPECT_EQ(keysOf(active), (Keys{2, 1})) << "list changes show in the results already handed out";
  EXPECT_FALSE(active[0]->active()) << "the period change shows through the results";
  EXPECT_EQ(keysOf(stored->activePosts()), (Keys{1})) << "asking again applies the new periods";
  EXPECT_TRUE(stored->active());
}

}  // namespace
