#include "proximity/ProximityCore.h"

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace qvl::proximity {
namespace {

using namespace std::chrono_literals;

const Uuid kUuid = *Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const Date kStart{std::chrono::seconds(1767225600)};

Date at(double seconds) {
  return kStart + std::chrono::duration_cast<Date::duration>(Seconds(seconds));
}

TEST(BeaconFrameTest, ReadsOnlyWellFormedIBeaconFrames) {
  const BeaconFrame frame{{kUuid, 0x0102, 0xFFFE}, -59};
  const std::vector<std::uint8_t> good = encodeBeaconFrame(frame);
  ASSERT_EQ(good.size(), 23u);
  EXPECT_EQ(good[18], 0x01);  // major, big-endian
  EXPECT_EQ(good[22], 0xC5);  // -59 as a signed byte

  auto changed = [&](auto change) {
    std::vector<std::uint8_t> data = good;
    change(data);
    return data;
  };
  struct Case {
    const char* name;
    std::uint16_t company;
    std::vector<std::uint8_t> data;
    bool parsed;
  };
  const Case cases[] = {
      {"well formed", kIBeaconCompanyId, good, true},
      {"trailing bytes", kIBeaconCompanyId, changed([](auto& d) { d.push_back(0); }), true},
      {"another company", 0x0059, good, false},
      {"short payload", kIBeaconCompanyId, changed([](auto& d) { d.pop_back(); }), false},
      {"empty payload", kIBeaconCompanyId, {}, false},
      {"other type", kIBeaconCompanyId, changed([](auto& d) { d[0] = 0x03; }), false},
      {"other length", kIBeaconCompanyId, changed([](auto& d) { d[1] = 0x14; }), false},
  };
  for (const Case& c : cases) {
    std::optional<BeaconFrame> parsed = parseBeaconFrame(c.company, c.data);
    EXPECT_EQ(parsed.has_value(), c.parsed) << c.name;
    if (parsed) {
      EXPECT_EQ(*parsed, frame) << c.name;
    }
  }
}

TEST(RssiFilterTest, FollowsAStepFasterThanARunningAverageAndDampsJitter) {
  RssiFilter filter;
  double value = 0;
  for (int s = 0; s < 10; ++s) value = filter.add(at(s), -80);
  EXPECT_DOUBLE_EQ(value, -80);
  // Walking up to the beacon: -60 from now on. A 20 s running average would still read -74
  // after 6 s.
  for (int s = 10; s < 16; ++s) value = filter.add(at(s), -60);
  EXPECT_NEAR(value, -60, 1.0);

  // +-6 dB of alternating jitter around -70, once settled, stays within +-2 dB.
  for (int s = 16; s < 60; ++s) {
    value = filter.add(at(s), s % 2 ? -64 : -76);
    if (s > 30) {
      EXPECT_NEAR(value, -70, 2.0) << s;
    }
  }
  // A burst of samples at one instant still moves the value.
  double first = filter.add(at(60), -40);
  EXPECT_GT(filter.add(at(60), -40), first);
  // After a long silence the first sample is taken as it comes.
  EXPECT_DOUBLE_EQ(filter.add(at(200), -90), -90);
}

TEST(PathLossModelTest, DistanceInvertsTheModelAndClassifiesProximity) {
  for (double exponent : {2.0, 3.0}) {
    PathLossModel model{exponent};
    for (double metres : {0.3, 1.0, 2.5, 12.0}) {
      EXPECT_NEAR(model.distance(model.rssiAt(metres, -59), -59), metres, 1e-9);
    }
  }
  EXPECT_EQ(PathLossModel{}.distance(0, -59), -1);
  EXPECT_EQ(PathLossModel{}.distance(-70, 0), -1);
  const std::pair<double, Proximity> classes[] = {{-1, Proximity::Unknown},
                                                  {0.2, Proximity::Immediate},
                                                  {0.5, Proximity::Near},
                                                  {3.0, Proximity::Near},
                                                  {3.1, Proximity::Far}};
  for (auto [metres, proximity] : classes) {
    EXPECT_EQ(proximityForDistance(metres), proximity) << metres;
  }
}

}  // namespace
}  // namespace qvl::proximity
