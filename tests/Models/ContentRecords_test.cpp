// Posts, their periods and typed fields, and prizes.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Models/RecordTestSupport.h"
#include "quorvel/Helpers/QVLPostFieldHelper.h"
#include "quorvel/Models/QVLPost.h"
#include "quorvel/Models/QVLPostFields.h"
#include "quorvel/Models/QVLPrize.h"

namespace {

using nlohmann::json;
using records_test::kNow;
using records_test::kTomorrow;
using records_test::kYesterday;
using records_test::LogCapture;

constexpr const char* kParsePrefix = "Couldn't parse QVLPostField to JSON: ";

std::string serviceDate(qvl::Date date) { return QVLDateFormatter::formattedStringFromDate(date); }

json periodJson(std::int64_t id, qvl::Date start, qvl::Date stop) {
  return {{"id", id}, {"start", serviceDate(start)}, {"stop", serviceDate(stop)}};
}

class ContentPostTest : public records_test::FixedClockTest {};

TEST_F(ContentPostTest, ActiveWithoutPeriodsOrWithAnyRunningPeriod) {
  auto noPeriods = QVLPost::newObjectWithJSONDictionary({{"id", 1}}, nullptr);
  EXPECT_TRUE(noPeriods->active());

  auto endedAndRunning = QVLPost::newObjectWithJSONDictionary(
      {{"id", 2},
       {"postperiods",
        {periodJson(1, kYesterday - std::chrono::hours(48), kYesterday),
         periodJson(2, kYesterday, kTomorrow)}}},
      nullptr);
  EXPECT_TRUE(endedAndRunning->active());

  auto onlyEnded = QVLPost::newObjectWithJSONDictionary(
      {{"id", 3},
       {"postperiods",
        {periodJson(1, kYesterday - std::chrono::hours(48), kYesterday),
         periodJson(2, kYesterday, kNow)}}},
      nullptr);
  EXPECT_FALSE(onlyEnded->active());

  auto startsNow = QVLPost::newObjectWithJSONDictionary(
      {{"id", 4}, {"postperiods", {periodJson(1, kNow, kTomorrow)}}}, nullptr);
  EXPECT_FALSE(startsNow->active()) << "a period starting exactly now has not begun";
}

std::shared_ptr<QVLPostField> fieldOf(std::int64_t type, std::optional<std::string> content) {
  auto f =
      QVLPostField::newObjectWithJSONDictionary({{"id", 1}, {"postFieldType_id", type}}, nullptr);
  f->setContent(std::move(content));
  return f;
}

TEST(ContentPostFieldTest, EachViewAcceptsOnlyItsOwnType) {
  LogCapture log;
  auto text = fieldOf(QVLPostFieldTypeText, std::string("  Hello\n"));
  auto textView = QVLPostFieldText::initWithPostField(*text);
  ASSERT_TRUE(textView);
  EXPECT_EQ(textView->text(), "  Hello\n");
  EXPECT_FALSE(QVLPostFieldCoupon::initWithPostField(*text));
  EXPECT_FALSE(QVLPostFieldVideo::initWithPostField(*text));

  auto coupon = fieldOf(QVLPostFieldTypeCoupon, std::string(R"({"text":"Half off"})"));
  EXPECT_TRUE(QVLPostFieldCoupon::initWithPostField(*coupon));
  EXPECT_FALSE(QVLPostFieldText::initWithPostField(*coupon));
  EXPECT_FALSE(QVLPostFieldCallToAction::initWithPostField(*coupon));
  EXPECT_FALSE(QVLPostFieldImages::initWithPostField(*coupon));

  auto typeFour = fieldOf(4, std::string("{}"));
  EXPECT_FALSE(QVLPostFieldText::initWithPostField(*typeFour));
  EXPECT_FALSE(QVLPostFieldImages::initWithPostField(*typeFour));
  EXPECT_FALSE(QVLPostFieldVideo::initWithPostField(*typeFour));
  EXPECT_FALSE(QVLPostFieldCoupon::initWithPostField(*typeFour));
  EXPECT_FALSE(QVLPostFieldCallToAction::initWithPostField(*typeFour));

  auto emptyText = fieldOf(QVLPostFieldTypeText, std::nullopt);
  auto emptyView = QVLPostFieldText::initWithPostField(*emptyText);
  ASSERT_TRUE(emptyView) << "text views copy even an absent content";
  EXPECT_FALSE(emptyView->text());

  EXPECT_TRUE(log.lines().empty()) << "a field of the wrong type is refused silently";
}

TEST(ContentPostFieldTest, MalformedJsonGivesNoViewAndOneLogLine) {
  auto broken = fieldOf(QVLPostFieldTypeCoupon, std::string(R"({"text": "Half off")"));
  {
    LogCapture log;
    EXPECT_FALSE(QVLPostFieldCoupon::initWithPostField(*broken));
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind(kParsePrefix, 0), 0u) << lines[0];
    EXPECT_GT(lines[0].size(), std::string(kParsePrefix).size()) << "the error is named";
  }
  for (const char* notAnObject : {"[1, 2]", "\"text\"", ""}) {
    LogCapture log;
    auto f = fieldOf(QVLPostFieldTypeCallToAction, std::string(notAnObject));
    EXPECT_FALSE(QVLPostFieldCallToAction::initWithPostField(*f)) << notAnObject;
    EXPECT_EQ(log.lines().size(), 1u) << notAnObject;
  }
  {
    LogCapture log;
    auto parsed = QVLPostFieldHelper::parseStringToJSON(R"({"a": [1, {"b": null}]})");
    ASSERT_TRUE(parsed);
    EXPECT_EQ((*parsed)["a"][1]["b"], nullptr);
    EXPECT_FALSE(QVLPostFieldHelper::parseStringToJSON("{\"a\": 1} // comment"));
    EXPECT_EQ(log.lines().size(), 1u);
  }
}

std::optional<QVLPostFieldCoupon> couponOf(const json& content) {
  auto f = fieldOf(QVLPostFieldTypeCoupon, content.dump());
  return QVLPostFieldCoupon::initWithPostField(*f);
}

TEST(ContentPostFieldTest, CouponRedeemableIsAPresenceTest) {
  auto presentFalse = couponOf({{"redeemable", false}});
  ASSERT_TRUE(presentFalse);
  EXPECT_TRUE(presentFalse->redeemable());
  auto presentNull = couponOf({{"redeemable", nullptr}});
  ASSERT_TRUE(presentNull);
  EXPECT_TRUE(presentNull->redeemable());
  auto absent = couponOf({{"text", "x"}});
  ASSERT_TRUE(absent);
  EXPECT_FALSE(absent->redeemable());
}

TEST(ContentPostFieldTest, CouponTextsAreTrimmedTextsOrNothing) {
  auto coupon = couponOf({{"text", " \n Half off \r\n"},
                          {"price_before", "\t100 kr"},
                          {"price", "   "},
                          {"discount", "50%"}});
  ASSERT_TRUE(coupon);
  EXPECT_EQ(coupon->text(), "Half off");
  EXPECT_EQ(coupon->priceBefore(), "100 kr");
  EXPECT_EQ(coupon->price(), std::nullopt) << "only blanks";
  EXPECT_EQ(coupon->discount(), "50%");

  // Unicode blanks count too: no-break space, ideographic space, line separator.
  auto unicode = couponOf({{"text", "\u3000Half off\u00a0"}, {"price", "\u00a0\u2028 "}});
  ASSERT_TRUE(unicode);
  EXPECT_EQ(unicode->text(), "Half off");
  EXPECT_EQ(unicode->price(), std::nullopt);

  auto numeric = couponOf({{"price", 50}, {"price_before", 100.5}, {"discount", true}});
  ASSERT_TRUE(numeric);
  EXPECT_EQ(numeric->price(), std::nullopt) << "a number is not used";
  EXPECT_EQ(numeric->priceBefore(), std::nullopt);
  EXPECT_EQ(numeric->discount(), std::nullopt);
  EXPECT_EQ(numeric->text(), std::nullopt) << "missing key";
}

TEST(ContentPostFieldTest, CallToActionAndImagesKeepTheirTextsAsSent) {
  auto f = fieldOf(QVLPostFieldTypeCallToAction,
                   json{{"text", "  Book now  "}, {"url", "https://shop.example/book"}}.dump());
  auto action = QVLPostFieldCallToAction::initWithPostField(*f);
  ASSERT_TRUE(action);
  EXPECT_EQ(action->text(), "  Book now  ");
  ASSERT_TRUE(action->url());
  EXPECT_EQ(action->url()->absoluteString(), "https://shop.example/book");

  auto noUrl = fieldOf(QVLPostFieldTypeCallToAction, json{{"url", "two words"}}.dump());
  auto withoutUrl = QVLPostFieldCallToAction::initWithPostField(*noUrl);
  ASSERT_TRUE(withoutUrl);
  EXPECT_FALSE(withoutUrl->url());
  EXPECT_FALSE(withoutUrl->text());

  auto images =
      fieldOf(QVLPostFieldTypeImages, json{{"imageText", " Our team "}, {"images", {1, 2}}}.dump());
  auto imagesView = QVLPostFieldImages::initWithPostField(*images);
  ASSERT_TRUE(imagesView);
  EXPECT_EQ(imagesView->text(), " Our team ");

  auto video = fieldOf(QVLPostFieldTypeVideo, std::string("https://youtu.be/abc"));
  auto videoView = QVLPostFieldVideo::initWithPostField(*video);
  ASSERT_TRUE(videoView);
  ASSERT_TRUE(videoView->youtubeURL());
  EXPECT_EQ(videoView->youtubeURL()->host(), "youtu.be");
  auto notVideo = fieldOf(QVLPostFieldTypeVideo, std::string("watch this"));
  EXPECT_FALSE(QVLPostFieldVideo::initWithPostField(*notVideo)->youtubeURL());
}

TEST(ContentPrizeTest, ExclusiveOnlyWithTheQuotedKey) {
  auto quoted = QVLPrize::newObjectWithJSONDictionary(
      {{"id", 1}, {"limits", R"({"USER_GROUP_MAX": 2, "PER_DAY": 1})"}}, nullptr);
  EXPECT_TRUE(quoted->isExclusive());
  auto asObject = QVLPrize::newObjectWithJSONDictionary(
      {{"id", 2}, {"limits", {{"USER_GROUP_MAX", 2}}}}, nullptr);
  EXPECT_TRUE(asObject->isExclusive()) << "limits sent as an object are kept as JSON text";
  auto bare =
      QVLPrize::newObjectWithJSONDictionary({{"id", 3}, {"limits", "USER_GROUP_MAX"}}, nullptr);
  EXPECT_FALSE(bare->isExclusive());
  auto none = QVLPrize::newObjectWithJSONDictionary({{"id", 4}}, nullptr);
  EXPECT_FALSE(none->isExclusive());
}

class ContentStoreTest : public records_test::RecordStoreTest {};

TEST_F(ContentStoreTest, RefreshKeepsInboxMarksAndFollowsThePeriodsSent) {
  json answer = {{"id", 9},
                 {"name", "Spring sale"},
                 {"content", {{"html", "<p>Hi</p>"}}},
                 {"postperiods", {periodJson(1, kYesterday, kNow)}},
                 {"read", false}};
  auto first = QVLPost::newObjectWithJSONDictionary(answer, store_.get());
  auto stored = store(first);
  EXPECT_FALSE(stored->active());
  store_->write([&] {
    stored->setRead(true);
    stored->setSaved(true);
  });

  for (int refresh = 0; refresh < 2; ++refresh) {
    auto again = QVLPost::newObjectWithJSONDictionary(answer, store_.get());
    store(again);
  }
  auto post = store_->object<QVLPost>(9);
  ASSERT_TRUE(post);
  EXPECT_TRUE(post->read());
  EXPECT_TRUE(post->saved());
  EXPECT_EQ(post->content(), "<p>Hi</p>");
  EXPECT_EQ(post->periods().size(), 1u);

  json withoutPeriods = {{"id", 9}, {"name", "Spring sale"}};
  store(QVLPost::newObjectWithJSONDictionary(withoutPeriods, store_.get()));
  EXPECT_EQ(store_->object<QVLPost>(9)->periods().size(), 1u) << "a missing key keeps them";

  json emptyPeriods = {{"id", 9}, {"postperiods", json::array()}};
  store(QVLPost::newObjectWithJSONDictionary(emptyPeriods, store_.get()));
  post = store_->object<QVLPost>(9);
  EXPECT_TRUE(post->periods().empty());
  EXPECT_TRUE(post->active()) << "without periods a post is always active";
  EXPECT_TRUE(post->read());
  EXPECT_TRUE(post->saved());
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
  EXPECT_EQ(d["thumbnail_id"], 77);
  EXPECT_EQ(d["content.html"], "<b>x</b>");
  EXPECT_FALSE(d.contains("postfields"));
  EXPECT_FALSE(d.contains("thumbnail"));
  EXPECT_FALSE(d.contains("read")) << "inbox marks are not the service's";
}

}  // namespace
