#pragma once
// What the demo's walk should have sent, and the comparison with what the sandbox received.

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qvl::demo {

/// A post view the host opened and closed, in seconds of the scene.
struct ClosedPostView {
  std::int64_t postId = 0;
  double openedAt = 0;
  double closedAt = 0;
};

struct Expectations {
  std::size_t records = 0;  // records the fetches stored
  std::int64_t guestId = 0;
  std::vector<ClosedPostView> postViews;
  std::set<std::int64_t> watchedBeaconIds;
  double sceneSeconds = 0;                  // no view can last longer
  std::optional<std::int64_t> inboxPostId;  // added, marked read and saved
  std::optional<std::int64_t> subscribedShopId;
  std::int64_t endpointId = 0;
  std::string deviceTokenHex;
  // The offline spell, in scene seconds, and the views the store kept during it.
  double offlineFrom = 0;
  double offlineUntil = 0;
  std::size_t viewsKeptOffline = 0;
  std::size_t viewsStillKept = 0;  // in the store after the walk
};

struct CheckResult {
  std::string name;  // as in the summary line
  bool ok = false;
  std::string value;   // the summary's value when ok ("ok", or a count)
  std::string reason;  // why not, when failed
};

/// Compares the sandbox's request log (entries of GET /_sandbox/requests made after the
/// demo started) and state (GET /_sandbox/state) with the expectations. One result per
/// summary field, in summary order: records, views, inbox, subscriptions, endpoint,
/// offline-retry.
std::vector<CheckResult> checkArrivals(const Expectations& expected, const nlohmann::json& requests,
                                       const nlohmann::json& state);

/// "summary: records=N views=N inbox=ok ..." with name=FAIL for a failed check.
std::string summaryLine(const std::vector<CheckResult>& results);

}  // namespace qvl::demo
