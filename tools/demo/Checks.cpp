#include "demo/Checks.h"

#include <chrono>
#include <cmath>
#include <regex>

#include "quorvel/records/QVLDateFormatter.h"

namespace qvl::demo {

namespace {

using nlohmann::json;

struct ArrivedView {
  std::int64_t id = 0;  // post_id or beacon_id
  double seconds = -1;  // -1: the dates are missing or unreadable
  bool inBatch = false;
  bool matched = false;
};

double secondsBetween(const json& view, const char* from, const char* to) {
  const auto text = [&](const char* key) {
    return view.contains(key) && view[key].is_string() ? view[key].get<std::string>() : "";
  };
  const auto start = QVLDateFormatter::dateFromString(text(from));
  const auto end = QVLDateFormatter::dateFromString(text(to));
  if (!start || !end) return -1;
  return std::chrono::duration<double>(*end - *start).count();
}

std::string seconds(double value) { return std::to_string(std::lround(value)) + " s"; }

bool isRelationshipPut(const json& request, const std::string& relationship) {
  static const std::regex guestRelationship(R"(/v8/guests/\d+/relationships/(\w+))");
  std::smatch match;
  const std::string path = request.value("path", "");
  return request.value("method", "") == "PUT" && std::regex_match(path, match, guestRelationship) &&
         match[1] == relationship;
}

// The last PUT of a guest relationship, or null.
const json* lastRelationshipPut(const json& requests, const std::string& relationship) {
  const json* last = nullptr;
  for (const json& request : requests) {
    if (isRelationshipPut(request, relationship)) last = &request;
  }
  return last;
}

CheckResult failed(std::string name, std::string reason) {
  return {std::move(name), false, "", std::move(reason)};
}

// The last PUT of the guest's `relationship` list, when the service accepted it; otherwise
// null, with `whyNot` saying what arrived instead.
const json* acceptedRelationshipPut(const json& requests, const std::string& relationship,
                                    std::string& whyNot) {
  const json* put = lastRelationshipPut(requests, relationship);
  if (!put) {
    whyNot = "no PUT of the guest's " + relationship + " arrived";
  } else if (put->value("status", 0) != 200) {
    whyNot = "the PUT of the guest's " + relationship + " answered " +
             std::to_string(put->value("status", 0));
    put = nullptr;
  }
  return put;
}

CheckResult checkRecords(const Expectations& expected, const json& requests) {
  for (const json& request : requests) {
    if (request.value("method", "") == "GET" && request.value("status", 0) != 200) {
      return failed("records", "GET " + request.value("target", std::string()) + " answered " +
                                   std::to_string(request.value("status", 0)));
    }
  }
  if (expected.records == 0) return failed("records", "the fetches stored no record");
  return {"records", true, std::to_string(expected.records), ""};
}

struct Arrivals {
  std::vector<ArrivedView> postViews;
  std::vector<ArrivedView> beaconViews;
  std::string refusal;  // a view request the sandbox refused
};

Arrivals collectViews(const json& requests) {
  Arrivals out;
  for (const json& request : requests) {
    const std::string path = request.value("path", "");
    const bool isPost = path == "/v8/postviews";
    if (request.value("method", "") != "POST" || (!isPost && path != "/v8/beaconviews")) continue;
    if (request.value("status", 0) != 201) {
      if (out.refusal.empty()) {
        out.refusal = "POST " + path + " answered " + std::to_string(request.value("status", 0)) +
                      ": " + request.value("body", json()).dump();
      }
      continue;
    }
    const json& body = request["body"];
    for (const json& view : body.is_array() ? body : json::array({body})) {
      ArrivedView arrived;
      arrived.inBatch = body.is_array();
      arrived.id = view.value(isPost ? "post_id" : "beacon_id", std::int64_t{0});
      arrived.seconds = isPost ? secondsBetween(view, "time_in", "time_out")
                               : secondsBetween(view, "enter", "exit");
      (isPost ? out.postViews : out.beaconViews).push_back(arrived);
    }
  }
  return out;
}

CheckResult checkViews(const Expectations& expected, Arrivals& arrivals) {
  if (!arrivals.refusal.empty()) return failed("views", arrivals.refusal);
  auto& postViews = arrivals.postViews;
  const auto& beaconViews = arrivals.beaconViews;
  for (const ClosedPostView& closed : expected.postViews) {
    const double shown = closed.closedAt - closed.openedAt;
    bool found = false;
    for (ArrivedView& arrived : postViews) {
      if (!arrived.matched && arrived.id == closed.postId &&
          std::abs(arrived.seconds - shown) <= 1) {
        arrived.matched = found = true;
        break;
      }
    }
    if (!found) {
      return failed("views", "the view of post " + std::to_string(closed.postId) + " shown for " +
                                 seconds(shown) + " did not arrive");
    }
  }
  for (const ArrivedView& arrived : postViews) {
    if (!arrived.matched) {
      return failed("views", "a post view the host never closed arrived (post " +
                                 std::to_string(arrived.id) + ", " + seconds(arrived.seconds) +
                                 ")");
    }
  }
  if (beaconViews.empty()) return failed("views", "no beacon view arrived");
  bool anyLasted = false;
  for (const ArrivedView& arrived : beaconViews) {
    if (!expected.watchedBeaconIds.contains(arrived.id)) {
      return failed("views", "a view of beacon " + std::to_string(arrived.id) +
                                 ", which was not watched, arrived");
    }
    if (arrived.seconds < 0 || arrived.seconds > expected.sceneSeconds) {
      return failed("views", "the view of beacon " + std::to_string(arrived.id) + " lasted " +
                                 seconds(arrived.seconds) + ", outside the walk's " +
                                 seconds(expected.sceneSeconds));
    }
    anyLasted = anyLasted || arrived.seconds > 0;
  }
  if (!anyLasted) return failed("views", "every beacon view lasted 0 s");
  return {"views", true, std::to_string(postViews.size() + beaconViews.size()), ""};
}

CheckResult checkInbox(const Expectations& expected, const json& requests) {
  if (!expected.inboxPostId) return failed("inbox", "the walk added no post to the inbox");
  std::string whyNot;
  const json* put = acceptedRelationshipPut(requests, "posts", whyNot);
  if (!put) return failed("inbox", whyNot);
  for (const json& entry : put->value("body", json::array())) {
    if (entry.value("type", "") == "posts" &&
        entry.value("id", std::int64_t{0}) == *expected.inboxPostId) {
      if (entry.value("read", false) && entry.value("saved", false))
        return {"inbox", true, "ok", ""};
      return failed("inbox", "post " + std::to_string(*expected.inboxPostId) +
                                 " arrived without read and saved: " + entry.dump());
    }
  }
  return failed("inbox", "the PUT of the guest's posts lacks post " +
                             std::to_string(*expected.inboxPostId) + ": " +
                             put->value("body", json()).dump());
}

CheckResult checkSubscriptions(const Expectations& expected, const json& requests) {
  if (!expected.subscribedShopId) return failed("subscriptions", "the walk subscribed no shop");
  std::string whyNot;
  const json* put = acceptedRelationshipPut(requests, "subscriptions", whyNot);
  if (!put) return failed("subscriptions", whyNot);
  const json shop = {{"type", "shops"}, {"id", *expected.subscribedShopId}};
  for (const json& entry : put->value("body", json::array())) {
    if (entry == shop) return {"subscriptions", true, "ok", ""};
  }
  return failed("subscriptions", "the PUT of the guest's subscriptions lacks " + shop.dump() +
                                     ": " + put->value("body", json()).dump());
}

CheckResult checkEndpoint(const Expectations& expected, const json& requests, const json& state) {
  if (expected.endpointId == 0) return failed("endpoint", "the SDK stored no endpoint id");
  const json sent = {
      {"guest_id", expected.guestId}, {"platform", "APNS"}, {"token", expected.deviceTokenHex}};
  bool posted = false;
  for (const json& request : requests) {
    if (request.value("method", "") == "POST" && request.value("path", "") == "/v8/endpoints") {
      if (request.value("status", 0) != 201 || request.value("body", json()) != sent) {
        return failed("endpoint", "POST /v8/endpoints answered " +
                                      std::to_string(request.value("status", 0)) + " to " +
                                      request.value("body", json()).dump() + ", expected " +
                                      sent.dump());
      }
      posted = true;
    }
  }
  if (!posted) return failed("endpoint", "no POST /v8/endpoints arrived");
  for (const json& endpoint : state.value("endpoints", json::array())) {
    if (endpoint.value("id", std::int64_t{0}) == expected.endpointId) {
      if (endpoint.value("guest_id", std::int64_t{0}) == expected.guestId) {
        return {"endpoint", true, "ok", ""};
      }
      return failed("endpoint", "endpoint " + std::to_string(expected.endpointId) +
                                    " belongs to another guest: " + endpoint.dump());
    }
  }
  return failed("endpoint", "the sandbox has no endpoint " + std::to_string(expected.endpointId) +
                                " (the id the SDK stored)");
}

CheckResult checkOfflineRetry(const Expectations& expected,
                              const std::vector<ArrivedView>& postViews) {
  if (expected.viewsKeptOffline == 0) {
    return failed("offline-retry", "no view was kept in the store during the offline spell");
  }
  if (expected.viewsStillKept != 0) {
    return failed("offline-retry", std::to_string(expected.viewsStillKept) +
                                       " kept view(s) were still in the store after the walk");
  }
  bool any = false;
  for (const ClosedPostView& closed : expected.postViews) {
    if (closed.closedAt < expected.offlineFrom || closed.closedAt > expected.offlineUntil) continue;
    any = true;
    const double shown = closed.closedAt - closed.openedAt;
    bool batched = false;
    for (const ArrivedView& arrived : postViews) {
      batched = batched || (arrived.inBatch && arrived.id == closed.postId &&
                            std::abs(arrived.seconds - shown) <= 1);
    }
    if (!batched) {
      return failed("offline-retry", "the view of post " + std::to_string(closed.postId) +
                                         " closed while offline did not arrive in a later batch");
    }
  }
  if (!any) return failed("offline-retry", "the host closed no post view while offline");
  return {"offline-retry", true, "ok", ""};
}

}  // namespace

std::vector<CheckResult> checkArrivals(const Expectations& expected, const json& requests,
                                       const json& state) {
  Arrivals arrivals = collectViews(requests);
  std::vector<CheckResult> results;
  results.push_back(checkRecords(expected, requests));
  results.push_back(checkViews(expected, arrivals));
  results.push_back(checkInbox(expected, requests));
  results.push_back(checkSubscriptions(expected, requests));
  results.push_back(checkEndpoint(expected, requests, state));
  results.push_back(checkOfflineRetry(expected, arrivals.postViews));
  return results;
}

std::string summaryLine(const std::vector<CheckResult>& results) {
  std::string line = "summary:";
  for (const CheckResult& result : results) {
    line += " " + result.name + "=" + (result.ok ? result.value : "FAIL");
  }
  return line;
}

}  // namespace qvl::demo
