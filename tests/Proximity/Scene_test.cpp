#include "quorvel/proximity/Scene.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

namespace qvl {
namespace {

const std::string kScenes =
    (std::filesystem::path(__FILE__).parent_path() / "../../data/scenes").lexically_normal();

TEST(SceneTest, ReadsTheShippedScenes) {
  Scene scene = Scene::load(kScenes + "/two-shops.json");
  EXPECT_EQ(scene.name, "two-shops");
  EXPECT_EQ(scene.settings.pathLossExponent, 3);
  ASSERT_EQ(scene.timeline.size(), 12u);
  const SceneStep& a1 = scene.timeline[3];
  EXPECT_EQ(a1.at, 0);
  const auto& beacon = std::get<SceneBeacon>(a1.action);
  EXPECT_EQ(beacon.id, "A1");
  EXPECT_EQ(beacon.major, 1);
  EXPECT_EQ(beacon.measuredPower, -59);
  ASSERT_TRUE(beacon.position);
  EXPECT_NEAR(beacon.position->longitude, 13.405 + 10 / 67833.0, 1e-6);  // 10 m east
  EXPECT_EQ(std::get<BluetoothState>(scene.timeline.back().action), BluetoothState::PoweredOn);

  Scene mall = Scene::load(kScenes + "/mall-walk.json");
  EXPECT_EQ(std::get<SceneMarker>(mall.timeline[11].action).text, "offline-start");
}

TEST(SceneTest, NamesTheLineOrFieldOfABadScene) {
  const std::string placed =
      R"({"at": 0, "beacon": {"id": "a", "uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0",
          "major": 1, "minor": 2}})";
  auto timeline = [&](const std::string& steps) {
    return R"({"timeline": [)" + placed + (steps.empty() ? "" : ", " + steps) + "]}";
  };
  const std::pair<std::string, std::string> cases[] = {
      {"{\n  \"timeline\": [\n    {\"at\": 0,,}\n  ]\n}", "s.json: parse error at line 3"},
      {R"({"timeline": {}})", "s.json: timeline: must be an array"},
      {R"({"timline": []})", "s.json: timline: unknown field"},
      {R"({"settings": {"exitPeriod": -1}, "timeline": []})",
       "s.json: settings.exitPeriod: must be a number from 1 to 3600"},
      {timeline(R"({"at": 1, "beacon": {"id": "a", "major": 70000}})"),
       "s.json: timeline[1].beacon.major: must be an integer from 0 to 65535"},
      {timeline(R"({"at": 1, "beacon": {"id": "b", "major": 1, "minor": 1}})"),
       "s.json: timeline[1].beacon.uuid: missing for a new beacon"},
      {timeline(R"({"at": 1, "beacon": {"id": "a", "uuid": "nope"}})"),
       "s.json: timeline[1].beacon.uuid: not a UUID"},
      {timeline(R"({"at": 1, "beacon": {"id": "a", "x": 3}})"),
       "s.json: timeline[1].beacon.y: missing"},
      {timeline(R"({"at": 1, "bluetooth": "on"})"),
       "s.json: timeline[1].bluetooth: must be one of unknown"},
      {timeline(R"({"at": 1, "marker": "m", "bluetooth": "poweredOn"})"),
       "s.json: timeline[1]: needs exactly one of"},
      {timeline(R"({"at": 2, "marker": "m"}, {"at": 1, "marker": "m"})"),
       "s.json: timeline[2].at: goes back in time"},
      {timeline(R"({"at": 1, "removeBeacon": "zz"})"),
       "s.json: timeline[1].removeBeacon: no beacon \"zz\""},
      {timeline(R"({"at": 1, "walk": {"x": 1, "y": 1}})"),
       "s.json: timeline[1].walk.seconds: missing"},
      {timeline(R"({"at": 1, "device": {"x": 1, "y": 1, "speed": 3}})"),
       "s.json: timeline[1].device.speed: unknown field"},
  };
  for (const auto& [text, message] : cases) {
    try {
      Scene::parse(text, "s.json");
      ADD_FAILURE() << "accepted: " << text;
    } catch (const SceneError& error) {
      EXPECT_EQ(std::string(error.what()).rfind(message, 0), 0u)
          << error.what() << "\nexpected: " << message;
    }
  }
  EXPECT_THROW(Scene::load(kScenes + "/no-such-scene.json"), SceneError);
  EXPECT_NO_THROW(Scene::parse(timeline(R"({"at": 1, "removeBeacon": "a"})")));
}

}  // namespace
}  // namespace qvl
