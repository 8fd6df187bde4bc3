#include "quorvel/proximity/Scene.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <initializer_list>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "proximity/ProximityCore.h"

namespace qvl {

namespace {

using nlohmann::json;

template <typename Enum>
using Names = std::initializer_list<std::pair<const char*, Enum>>;

const Names<BluetoothState> kBluetoothNames = {
    {"unknown", BluetoothState::Unknown},         {"resetting", BluetoothState::Resetting},
    {"unsupported", BluetoothState::Unsupported}, {"unauthorized", BluetoothState::Unauthorized},
    {"poweredOff", BluetoothState::PoweredOff},   {"poweredOn", BluetoothState::PoweredOn},
};

const Names<AuthorizationStatus> kAuthorizationNames = {
    {"notDetermined", AuthorizationStatus::NotDetermined},
    {"restricted", AuthorizationStatus::Restricted},
    {"denied", AuthorizationStatus::Denied},
    {"authorizedAlways", AuthorizationStatus::AuthorizedAlways},
    {"authorizedWhenInUse", AuthorizationStatus::AuthorizedWhenInUse},
};

// Reads one JSON object, naming the field at fault in every error.
class Fields {
 public:
  Fields(const json& value, std::string path, const std::string& source,
         std::initializer_list<const char*> allowed)
      : value_(value), path_(std::move(path)), source_(source) {
    if (!value.is_object()) fail(path_, "must be an object");
    for (const auto& item : value.items()) {
      if (std::none_of(allowed.begin(), allowed.end(),
                       [&](const char* key) { return item.key() == key; })) {
        fail(child(item.key()), "unknown field");
      }
    }
  }

  bool has(const char* key) const { return value_.contains(key); }
  const json& raw(const char* key) const { return value_.at(key); }
  std::string child(std::string_view key) const {
    return path_.empty() ? std::string(key) : path_ + "." + std::string(key);
  }

  [[noreturn]] void fail(const std::string& path, std::string_view problem) const {
    throw SceneError(source_ + ": " + path + ": " + std::string(problem));
  }

  std::optional<double> number(const char* key, double min, double max) const {
    if (!has(key)) return std::nullopt;
    const json& v = raw(key);
    if (!v.is_number() || !(v.get<double>() >= min && v.get<double>() <= max)) {
      std::ostringstream problem;
      problem << "must be a number from " << min << " to " << max;
      fail(child(key), problem.str());
    }
    return v.get<double>();
  }

  template <typename Int>
  std::optional<Int> integer(const char* key, Int min, Int max) const {
    if (!has(key)) return std::nullopt;
    const json& v = raw(key);
    if (!v.is_number_integer() || v.get<std::int64_t>() < min || v.get<std::int64_t>() > max) {
      fail(child(key),
           "must be an integer from " + std::to_string(min) + " to " + std::to_string(max));
    }
    return static_cast<Int>(v.get<std::int64_t>());
  }

  std::optional<std::string> text(const char* key) const {
    if (!has(key)) return std::nullopt;
    if (!raw(key).is_string()) fail(child(key), "must be text");
    return raw(key).get<std::string>();
  }

  template <typename Enum>
  Enum name(const char* key, const Names<Enum>& names) const {
    std::string given = text(key).value_or("");
    for (const auto& [text, value] : names) {
      if (given == text) return value;
    }
    std::string problem = "must be one of";
    for (const auto& entry : names) problem += std::string(" ") + entry.first;
    fail(child(key), problem);
  }

 private:
  const json& value_;
  std::string path_;
  const std::string& source_;
};

class SceneReader {
 public:
  explicit SceneReader(std::string source) : source_(std::move(source)) {}

  Scene read(const json& root) {
    Fields fields(root, "", source_, {"name", "description", "origin", "settings", "timeline"});
    Scene scene;
    scene.name = fields.text("name").value_or("");
    scene.description = fields.text("description").value_or("");
    if (fields.has("origin")) {
      Fields origin(fields.raw("origin"), "origin", source_, {"latitude", "longitude"});
      origin_ = coordinate(origin, true).value();
    }
    if (fields.has("settings")) scene.settings = settings(fields.raw("settings"));
    if (!fields.has("timeline") || !fields.raw("timeline").is_array()) {
      fields.fail("timeline", "must be an array of steps");
    }
    const json& timeline = fields.raw("timeline");
    for (std::size_t i = 0; i < timeline.size(); ++i) {
      scene.timeline.push_back(step(timeline[i], "timeline[" + std::to_string(i) + "]"));
    }
    return scene;
  }

 private:
  SimulationSettings settings(const json& value) {
    Fields f(value, "settings", source_,
             {"exitPeriod", "entryRssi", "pathLossExponent", "sensitivity", "rssiTimeConstant",
              "dwell", "beaconsNeedAuthorization"});
    SimulationSettings s;
    s.exitPeriod = f.number("exitPeriod", 1, 3600).value_or(s.exitPeriod);
    s.entryRssi = f.number("entryRssi", -127, -1).value_or(s.entryRssi);
    s.pathLossExponent = f.number("pathLossExponent", 1, 6).value_or(s.pathLossExponent);
    s.sensitivity = f.number("sensitivity", -127, -1).value_or(s.sensitivity);
    s.rssiTimeConstant = f.number("rssiTimeConstant", 0.1, 60).value_or(s.rssiTimeConstant);
    s.dwell = f.number("dwell", 0, 3600).value_or(s.dwell);
    if (f.has("beaconsNeedAuthorization")) {
      const json& need = f.raw("beaconsNeedAuthorization");
      if (!need.is_boolean()) f.fail(f.child("beaconsNeedAuthorization"), "must be true or false");
      s.beaconsNeedAuthorization = need.get<bool>();
    }
    return s;
  }

  // A position given as "x"/"y" metres from the origin or as "latitude"/"longitude".
  std::optional<Coordinate> coordinate(const Fields& f, bool geographicOnly = false) {
    bool local = f.has("x") || f.has("y");
    bool geographic = f.has("latitude") || f.has("longitude");
    if (local && geographic) f.fail(f.child("x"), "give x and y, or latitude and longitude");
    if (geographic || geographicOnly) {
      for (const char* key : {"latitude", "longitude"}) {
        if (!f.has(key)) f.fail(f.child(key), "missing");
      }
      return Coordinate{*f.number("latitude", -90, 90), *f.number("longitude", -180, 180)};
    }
    if (!local) return std::nullopt;
    for (const char* key : {"x", "y"}) {
      if (!f.has(key)) f.fail(f.child(key), "missing");
    }
    return proximity::offsetCoordinate(origin_, *f.number("x", -1e5, 1e5),
                                       *f.number("y", -1e5, 1e5));
  }

  SceneStep step(const json& value, const std::string& path) {
    static constexpr std::array kActions = {"device",    "walk",          "beacon", "removeBeacon",
                                            "bluetooth", "authorization", "marker"};
    Fields f(
        value, path, source_,
        {"at", "device", "walk", "beacon", "removeBeacon", "bluetooth", "authorization", "marker"});
    SceneStep step;
    if (!f.has("at")) f.fail(f.child("at"), "missing");
    step.at = *f.number("at", 0, 1e7);
    if (step.at < lastAt_) f.fail(f.child("at"), "goes back in time");
    lastAt_ = step.at;
    auto count = std::count_if(kActions.begin(), kActions.end(),
                               [&](const char* key) { return f.has(key); });
    if (count != 1) {
      f.fail(path,
             "needs exactly one of device, walk, beacon, removeBeacon, bluetooth, "
             "authorization, marker");
    }
    if (f.has("device") || f.has("walk")) {
      bool walk = f.has("walk");
      const char* key = walk ? "walk" : "device";
      Fields move(
          f.raw(key), f.child(key), source_,
          walk ? std::initializer_list<const char*>{"x", "y", "latitude", "longitude", "accuracy",
                                                    "seconds"}
               : std::initializer_list<const char*>{"x", "y", "latitude", "longitude", "accuracy"});
      std::optional<Coordinate> position = coordinate(move);
      if (!position) move.fail(move.child("x"), "missing position");
      SceneDeviceMove action{*position, move.number("accuracy", 0, 1e5)};
      if (walk) {
        if (!move.has("seconds")) move.fail(move.child("seconds"), "missing");
        action.seconds = *move.number("seconds", 0.001, 1e6);
      }
      step.action = action;
    } else if (f.has("beacon")) {
      step.action = beacon(Fields(f.raw("beacon"), f.child("beacon"), source_,
                                  {"id", "uuid", "major", "minor", "measuredPower", "x", "y",
                                   "latitude", "longitude", "rssi"}));
    } else if (f.has("removeBeacon")) {
      std::string id = *f.text("removeBeacon");
      if (!placed_.erase(id)) f.fail(f.child("removeBeacon"), "no beacon \"" + id + "\"");
      step.action = SceneRemoveBeacon{id};
    } else if (f.has("bluetooth")) {
      step.action = f.name("bluetooth", kBluetoothNames);
    } else if (f.has("authorization")) {
      step.action = f.name("authorization", kAuthorizationNames);
    } else {
      step.action = SceneMarker{*f.text("marker")};
    }
    return step;
  }

  SceneBeacon beacon(const Fields& f) {
    SceneBeacon beacon;
    beacon.id = f.text("id").value_or("");
    if (beacon.id.empty()) f.fail(f.child("id"), "missing");
    if (std::optional<std::string> uuid = f.text("uuid")) {
      beacon.uuid = Uuid::parse(*uuid);
      if (!beacon.uuid) f.fail(f.child("uuid"), "not a UUID");
    }
    beacon.major = f.integer<std::uint16_t>("major", 0, 65535);
    beacon.minor = f.integer<std::uint16_t>("minor", 0, 65535);
    beacon.measuredPower = f.integer<std::int8_t>("measuredPower", -127, -1);
    beacon.position = coordinate(f);
    if (f.has("rssi")) {
      if (f.raw("rssi").is_null()) {
        beacon.silent = true;
      } else {
        beacon.rssi = f.number("rssi", -127, -1);
      }
    }
    if (placed_.insert(beacon.id).second) {
      for (const char* key : {"uuid", "major", "minor"}) {
        if (!f.has(key)) f.fail(f.child(key), "missing for a new beacon");
      }
    }
    return beacon;
  }

  std::string source_;
  Coordinate origin_;
  double lastAt_ = 0;
  std::set<std::string> placed_;
};

}  // namespace

Scene Scene::parse(std::string_view text, std::string_view source) {
  json root;
  try {
    root = json::parse(text);
  } catch (const json::parse_error& error) {
    // The library's message names the line and column: "parse error at line 3, column 5: ...".
    std::string what = error.what();
    if (auto bracket = what.find("] "); bracket != std::string::npos) what.erase(0, bracket + 2);
    throw SceneError(std::string(source) + ": " + what);
  }
  return SceneReader(std::string(source)).read(root);
}

Scene Scene::load(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw SceneError(path + ": cannot be read");
  std::ostringstream text;
  text << file.rdbuf();
  return parse(text.str(), path);
}

}  // namespace qvl
