#include "sandbox/Sandbox.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "devserver/Certificates.h"
#include "devserver/HttpsServer.h"
#include "platform/PrivateFiles.h"
#include "quorvel/records/QVLDateFormatter.h"
#include "sandbox/State.h"

namespace qvl::sandbox {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr size_t kLogLimit = 10000;
// cpp-httplib compresses answers typed plain "application/json"; with a charset it leaves
// them alone, which is much cheaper for the small answers served here.
constexpr const char* kJsonType = "application/json; charset=utf-8";

const char* reasonPhrase(int status) {
  switch (status) {
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 422:
      return "Unprocessable Entity";
    case 503:
      return "Service Unavailable";
    default:
      return "Error";
  }
}

void answer(httplib::Response& response, int status, const json& body) {
  response.status = status;
  response.set_content(body.dump(), kJsonType);
}

void refuse(httplib::Response& response, int status, const std::string& message) {
  answer(response, status,
         {{"status", status}, {"error", reasonPhrase(status)}, {"message", message}});
}

std::string percentDecoded(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() &&
        std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
        std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
      out.push_back(static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16)));
      i += 2;
    } else {
      out.push_back(text[i] == '+' ? ' ' : text[i]);
    }
  }
  return out;
}

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t end = std::min(text.find(separator, start), text.size());
    parts.emplace_back(text.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

std::optional<std::int64_t> parseId(const std::string& text) {
  if (text.empty() || text.size() > 18) return std::nullopt;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
  }
  return std::stoll(text);
}

std::string base64url(std::string_view bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  out.resize(static_cast<size_t>(length));
  while (!out.empty() && out.back() == '=') out.pop_back();
  for (char& c : out) c = c == '+' ? '-' : c == '/' ? '_' : c;
  return out;
}

std::string now() {
  return QVLDateFormatter::formattedStringFromDate(
      std::chrono::floor<qvl::Date::duration>(std::chrono::system_clock::now()));
}

void writePrivateFile(const std::string& path, const std::string& content) {
  if (auto written = qvl::detail::writeFileAtomically(path, content); !written) {
    throw std::runtime_error(written.error);
  }
}

// 32 bytes from OpenSSL's CSPRNG, as hex.
std::string randomHex() {
  unsigned char bytes[32];
  if (RAND_bytes(bytes, sizeof bytes) != 1) throw std::runtime_error("no random bytes");
  static const char* kHex = "0123456789abcdef";
  std::string out;
  for (unsigned char b : bytes) {
    out.push_back(kHex[b >> 4]);
    out.push_back(kHex[b & 15]);
  }
  return out;
}

// Made on first start and kept, so tokens stay valid across restarts and resets.
std::string loadOrMakeSecret(const std::string& path) {
  std::ifstream in(path);
  std::string secret;
  if (in >> secret && secret.size() == 64) return secret;
  secret = randomHex();
  writePrivateFile(path, secret + "\n");
  return secret;
}

bool sameSecret(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

json readSeed(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read the seed file " + path);
  try {
    return json::parse(in);
  } catch (const json::exception& error) {
    throw std::runtime_error("seed file " + path + ": " + error.what());
  }
}

struct Query {
  Includes includes;
  FieldLimits fields;
  std::map<std::string, std::string> items;
};

// The query arrives with literal brackets and commas; percent-escapes are decoded.
Query parseQuery(const std::string& text) {
  Query query;
  if (text.empty()) return query;
  for (const std::string& item : split(text, '&')) {
    const size_t equals = item.find('=');
    const std::string name = percentDecoded(item.substr(0, equals));
    const std::string value =
        equals == std::string::npos ? std::string() : percentDecoded(item.substr(equals + 1));
    if (name == "include") {
      query.includes = Includes::parse(value);
    } else if (name.size() > 8 && name.rfind("fields[", 0) == 0 && name.back() == ']') {
      auto& keys = query.fields[name.substr(7, name.size() - 8)];
      for (const std::string& key : split(value, ',')) {
        if (!key.empty()) keys.insert(key);
      }
    }
    query.items[name] = value;
  }
  return query;
}

// What a view record must name, and the record it names.
struct ViewShape {
  const char* reference;   // "post_id"
  const char* referenced;  // "posts"
  const char* start;       // "time_in"
};

const ViewShape* viewShape(const std::string& resource) {
  static const ViewShape post{"post_id", "posts", "time_in"};
  static const ViewShape beacon{"beacon_id", "beacons", "enter"};
  if (resource == "postviews") return &post;
  if (resource == "beaconviews") return &beacon;
  return nullptr;
}

}  // namespace

struct Sandbox::Impl {
  explicit Impl(Options opts);
  ~Impl();

  void startServer(bool retry);
  void supervise();
  void handle(const devserver::RecordedRequest& request, httplib::Response& response);
  void control(const devserver::RecordedRequest& request, httplib::Response& response);
  void service(const devserver::RecordedRequest& request, httplib::Response& response);
  void post(const Resource& resource, std::int64_t guestId, const json& body,
            httplib::Response& response);
  void redeem(std::int64_t guestId, const json& body, httplib::Response& response);
  void putEndpoint(std::int64_t id, const json& body, httplib::Response& response);
  void putRelationship(std::int64_t guestId, const std::string& name, const json& body,
                       httplib::Response& response);
  void record(const devserver::RecordedRequest& request, int status);
  std::optional<std::int64_t> guestForToken(std::string_view token) const;
  std::string tokenFor(std::int64_t guestId) const;
  void setFaults(double failureRate, std::chrono::milliseconds offlineFor);
  json faults() const;
  json requests(std::int64_t since) const;
  json info() const;
  json stateJson() const;

  Options options;
  std::unique_ptr<devserver::Certificates> certificates;
  devserver::Certificate serverCertificate;
  std::unique_ptr<State> state;
  std::string secret;
  const std::string controlToken = randomHex();
  std::atomic<int> port{0};  // fixed once the first listener bound it

  // The listener; replaced by the supervisor thread around an offline window.
  mutable std::mutex serverMutex;
  std::unique_ptr<devserver::HttpsServer> server;

  mutable std::mutex faultMutex;
  std::condition_variable faultChanged;
  double failureRate = 0;
  Clock::time_point offlineUntil{};
  bool stopping = false;
  std::mt19937_64 random{std::random_device{}()};
  std::thread supervisor;

  // Serialises the read-check-write steps of the operations that change the state.
  std::mutex writeMutex;

  mutable std::mutex logMutex;
  std::deque<std::pair<json, size_t>> log;  // each entry with its serialised size
  size_t logBytes = 0;
  std::int64_t logDropped = 0;
  std::int64_t nextSequence = 1;
};

Sandbox::Impl::Impl(Options opts) : options(std::move(opts)) {
  if (options.stateDirectory.empty()) throw std::runtime_error("no state directory given");
  // Before anything is made or reset: a busy port means another program serves there.
  devserver::checkPortIsFree(options.port);
  const std::string& dir = options.stateDirectory;
  if (auto made = qvl::detail::makePrivateDirectories(dir); !made) {
    throw std::runtime_error(made.error);
  }
  // SQLite creates its file (and the journal files after it) with the umask's mode.
  qvl::detail::Status made = qvl::detail::makePrivateFile(dir + "/state.sqlite");
  if (made) made = qvl::detail::restrictToOwner(dir + "/state.sqlite");  // an older sandbox's
  if (!made) throw std::runtime_error(made.error);
  certificates = std::make_unique<devserver::Certificates>(dir);
  serverCertificate = certificates->server("server");
  secret = loadOrMakeSecret(dir + "/secret");
  state = std::make_unique<State>(
      dir + "/state.sqlite", [this] { return readSeed(options.seedFile); }, options.reset);
  failureRate = options.failureRate;
  port = options.port;
  startServer(false);
  writePrivateFile(dir + "/pin.txt", serverCertificate.pin + "\n");
  writePrivateFile(dir + "/sandbox.json", info().dump(2) + "\n");
  supervisor = std::thread([this] { supervise(); });
  if (options.offlineFor.count() > 0) setFaults(failureRate, options.offlineFor);
}

Sandbox::Impl::~Impl() {
  {
    std::lock_guard lock(faultMutex);
    stopping = true;
  }
  faultChanged.notify_all();
  supervisor.join();
  std::unique_ptr<devserver::HttpsServer> last;
  {
    std::lock_guard lock(serverMutex);
    last = std::move(server);
  }
}

void Sandbox::Impl::startServer(bool retry) {
  // The port of an offline window may still be held briefly; retry for a few seconds.
  // At start a taken port is another program's: fail at once.
  for (int attempt = 0;; ++attempt) {
    try {
      auto fresh = std::make_unique<devserver::HttpsServer>(
          serverCertificate, devserver::HttpsServerOptions{port.load(), false, options.maxBody});
      fresh->setHandler([this](const devserver::RecordedRequest& request,
                               httplib::Response& response) { handle(request, response); });
      std::lock_guard lock(serverMutex);
      port = fresh->port();
      server = std::move(fresh);
      return;
    } catch (const std::runtime_error&) {
      if (!retry || port == 0 || attempt >= 50) throw;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
}

void Sandbox::Impl::supervise() {
  std::unique_lock lock(faultMutex);
  while (!stopping) {
    if (Clock::now() >= offlineUntil) {
      faultChanged.wait(lock, [&] { return stopping || Clock::now() < offlineUntil; });
      continue;
    }
    // Offline: close the listener (the request that asked for it is answered first),
    // wait out the window, which may be extended meanwhile, and listen again.
    lock.unlock();
    std::unique_ptr<devserver::HttpsServer> closing;
    {
      std::lock_guard serverLock(serverMutex);
      closing = std::move(server);
    }
    closing.reset();
    lock.lock();
    while (!stopping && Clock::now() < offlineUntil) faultChanged.wait_until(lock, offlineUntil);
    if (stopping) return;
    lock.unlock();
    try {
      startServer(true);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "qvl-sandbox: cannot listen again on port %d: %s\n", port.load(),
                   error.what());
    }
    lock.lock();
  }
}

void Sandbox::Impl::setFaults(double rate, std::chrono::milliseconds offlineFor) {
  {
    std::lock_guard lock(faultMutex);
    failureRate = std::clamp(rate, 0.0, 1.0);
    if (offlineFor.count() > 0) offlineUntil = Clock::now() + offlineFor;
  }
  faultChanged.notify_all();
}

json Sandbox::Impl::faults() const {
  std::lock_guard lock(faultMutex);
  const auto remaining =
      std::chrono::duration_cast<std::chrono::milliseconds>(offlineUntil - Clock::now());
  return {{"failure_rate", failureRate},
          {"offline_remaining_ms", std::max<std::int64_t>(0, remaining.count())}};
}

std::string Sandbox::Impl::tokenFor(std::int64_t guestId) const {
  const std::string header = base64url(R"({"alg":"HS256","typ":"JWT"})");
  const std::string payload = base64url(
      json{{"iss", "qvl-sandbox"}, {"sub", std::to_string(guestId)}, {"guest_id", guestId}}.dump());
  const std::string signedPart = header + "." + payload;
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int macLength = 0;
  HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
       reinterpret_cast<const unsigned char*>(signedPart.data()), signedPart.size(), mac,
       &macLength);
  return signedPart + "." + base64url(std::string_view(reinterpret_cast<char*>(mac), macLength));
}

std::optional<std::int64_t> Sandbox::Impl::guestForToken(std::string_view token) const {
  for (const json& guest : state->storedAll("guests")) {
    const std::int64_t id = guest["id"].get<std::int64_t>();
    const std::string expected = tokenFor(id);
    if (sameSecret(expected, token)) return id;
  }
  return std::nullopt;
}

json Sandbox::Impl::info() const {
  std::int64_t guestId = 0;
  if (auto guests = state->storedAll("guests"); !guests.empty()) guestId = guests[0]["id"];
  const std::string portText = std::to_string(port);
  return {{"port", port.load()},
          {"url", "https://dev.localhost:" + portText + "/v8"},
          {"api_domain", "localhost:" + portText},
          {"pin", serverCertificate.pin},
          {"ca_file", certificates->ca().certificatePath},
          {"api_key", options.apiKey},
          {"guest_id", guestId},
          {"token", guestId ? tokenFor(guestId) : std::string()},
          {"control_token", controlToken},
          {"state_directory", options.stateDirectory}};
}

json Sandbox::Impl::stateJson() const {
  json out = {{"counts", state->counts()}, {"faults", faults()}};
  {
    std::lock_guard lock(logMutex);
    out["requests_dropped"] = logDropped;
  }
  for (const char* name : {"guests", "postviews", "beaconviews", "redemptions", "endpoints"}) {
    out[name] = state->storedAll(name);
  }
  return out;
}

void Sandbox::Impl::record(const devserver::RecordedRequest& request, int status) {
  json headers = json::object();
  for (const auto& [name, value] : request.headers) headers[name] = value;
  json body = request.body;
  if (!request.body.empty()) {
    body = json::parse(request.body, nullptr, false);
    if (body.is_discarded()) body = request.body;
  }
  json entry = {
      {"time", now()},           {"method", request.method}, {"target", request.target},
      {"path", request.path},    {"query", request.query},   {"headers", std::move(headers)},
      {"body", std::move(body)}, {"status", status}};
  const size_t size = entry.dump().size();
  std::lock_guard lock(logMutex);
  entry["seq"] = nextSequence++;
  log.emplace_back(std::move(entry), size);
  logBytes += size;
  while (!log.empty() && (log.size() > kLogLimit || logBytes > options.logBytes)) {
    logBytes -= log.front().second;
    log.pop_front();
    ++logDropped;
  }
}

void Sandbox::Impl::handle(const devserver::RecordedRequest& request, httplib::Response& response) {
  try {
    if (request.path.rfind("/_sandbox/", 0) == 0) {
      control(request, response);
      return;  // the developer's own inspection is not part of the log
    }
    if (request.path == "/ssl-reporting") {
      if (request.method == "POST") {
        response.status = 204;
      } else {
        refuse(response, 405, request.method + " is not supported on /ssl-reporting");
      }
    } else if (request.path.rfind("/v8/", 0) == 0) {
      service(request, response);
    } else {
      refuse(response, 404, "Nothing at " + request.path + "; the service is under /v8");
    }
  } catch (const ServiceError& error) {
    refuse(response, error.status(), error.what());
  } catch (const std::exception& error) {
    refuse(response, 500, error.what());
  }
  record(request, response.status);
}

void Sandbox::Impl::control(const devserver::RecordedRequest& request,
                            httplib::Response& response) {
  const std::string authorization = request.header("Authorization").value_or("");
  if (!sameSecret(authorization, "Bearer " + controlToken)) {
    throw ServiceError(401, "/_sandbox/* needs the control_token of sandbox.json as bearer token");
  }
  const std::string& path = request.path;
  if (path == "/_sandbox/requests" && request.method == "GET") {
    const auto since = parseId(parseQuery(request.query).items["since"]);
    answer(response, 200, requests(since.value_or(0)));
  } else if (path == "/_sandbox/requests" && request.method == "DELETE") {
    std::lock_guard lock(logMutex);
    log.clear();
    logBytes = 0;
    response.status = 204;
  } else if (path == "/_sandbox/state" && request.method == "GET") {
    answer(response, 200, stateJson());
  } else if (path == "/_sandbox/info" && request.method == "GET") {
    answer(response, 200, info());
  } else if (path == "/_sandbox/faults" && request.method == "GET") {
    answer(response, 200, faults());
  } else if (path == "/_sandbox/faults" && request.method == "POST") {
    const json body = json::parse(request.body, nullptr, false);
    if (!body.is_object())
      throw ServiceError(422, "Expected {\"failure_rate\": 0..1, \"offline_for\": seconds}");
    double rate = 0;
    {
      std::lock_guard lock(faultMutex);
      rate = failureRate;
    }
    if (body.contains("failure_rate")) {
      if (!body["failure_rate"].is_number())
        throw ServiceError(422, "failure_rate: expected a number");
      rate = body["failure_rate"].get<double>();
    }
    double offlineSeconds = 0;
    if (body.contains("offline_for")) {
      if (!body["offline_for"].is_number())
        throw ServiceError(422, "offline_for: expected seconds");
      offlineSeconds = body["offline_for"].get<double>();
    }
    setFaults(rate, std::chrono::milliseconds(static_cast<std::int64_t>(offlineSeconds * 1000)));
    answer(response, 200, faults());
  } else {
    throw ServiceError(404, "No sandbox control at " + request.method + " " + path);
  }
}

void Sandbox::Impl::service(const devserver::RecordedRequest& request,
                            httplib::Response& response) {
  {
    std::lock_guard lock(faultMutex);
    if (failureRate > 0 && std::uniform_real_distribution<double>(0, 1)(random) < failureRate) {
      throw ServiceError(503, "Injected failure (failure rate " + json(failureRate).dump() + ")");
    }
  }
  if (request.header("X-Api-Key") != options.apiKey) {
    throw ServiceError(401, "Missing or unknown X-Api-Key");
  }
  const std::string authorization = request.header("Authorization").value_or("");
  const std::string_view bearer = "Bearer ";
  const auto guestId = authorization.rfind(bearer, 0) == 0
                           ? guestForToken(std::string_view(authorization).substr(bearer.size()))
                           : std::nullopt;
  if (!guestId) throw ServiceError(401, "Missing or unknown bearer token");

  std::vector<std::string> segments = split(request.path.substr(4), '/');
  for (auto& segment : segments) segment = percentDecoded(segment);
  if (!segments.empty() && segments.back().empty()) segments.pop_back();
  const Resource* resource = segments.empty() ? nullptr : State::resource(segments[0]);
  if (!resource) throw ServiceError(404, "Unknown resource " + request.path);
  std::optional<std::int64_t> id;
  if (segments.size() >= 2) {
    id = parseId(segments[1]);
    if (!id) throw ServiceError(404, "Not an id: " + segments[1]);
  }
  const bool isGuest = resource->plural == "guests";
  if (isGuest && id && *id != *guestId) {
    throw ServiceError(404, "No guest with id " + std::to_string(*id));
  }
  const std::string& method = request.method;
  const Query query = parseQuery(request.query);
  const bool relationshipPath = segments.size() == 4 && segments[2] == "relationships";
  if (segments.size() > 4 || segments.size() == 3 || (segments.size() == 4 && !relationshipPath)) {
    throw ServiceError(404, "Unknown path " + request.path);
  }

  if (method == "GET") {
    if (segments.size() == 1) {
      answer(response, 200,
             isGuest
                 ? json::array({state->single(*resource, *guestId, query.includes, query.fields)})
                 : state->list(*resource, query.includes, query.fields));
    } else if (segments.size() == 2) {
      answer(response, 200, state->single(*resource, *id, query.includes, query.fields));
    } else {
      answer(response, 200,
             state->related(*resource, *id, segments[3], query.includes, query.fields));
    }
    return;
  }
  json body = json::parse(request.body, nullptr, false);
  if (body.is_discarded()) throw ServiceError(400, "The body is not JSON");
  if (method == "POST" && segments.size() == 1) {
    post(*resource, *guestId, body, response);
  } else if (method == "PUT" && segments.size() == 2 && resource->plural == "endpoints") {
    putEndpoint(*id, body, response);
  } else if (method == "PUT" && relationshipPath && isGuest) {
    putRelationship(*guestId, segments[3], body, response);
  } else {
    throw ServiceError(405, method + " is not supported on " + request.path);
  }
}

void Sandbox::Impl::post(const Resource& resource, std::int64_t guestId, const json& body,
                         httplib::Response& response) {
  if (resource.plural == "redemptions") {
    redeem(guestId, body, response);
    return;
  }
  if (resource.plural == "endpoints") {
    if (!body.is_object() || !body.value("guest_id", json()).is_number_integer() ||
        !body.value("platform", json()).is_string() || !body.value("token", json()).is_string()) {
      throw ServiceError(422, "An endpoint needs guest_id (integer), platform and token (text)");
    }
    json endpoint = body;
    endpoint["created_at"] = endpoint["updated_at"] = now();
    answer(response, 201, state->create("endpoints", {endpoint})[0]);
    return;
  }
  const ViewShape* shape = viewShape(resource.plural);
  if (!shape) throw ServiceError(405, "POST is not supported on /v8/" + resource.plural);
  const bool many = body.is_array();
  std::vector<json> views = many ? body.get<std::vector<json>>() : std::vector<json>{body};
  if (views.empty()) throw ServiceError(422, "No " + resource.plural + " in the body");
  for (json& view : views) {
    if (!view.is_object()) throw ServiceError(422, "Each " + resource.singular + " is an object");
    const json reference = view.value(shape->reference, json());
    if (!reference.is_number_integer() ||
        !state->exists(shape->referenced, reference.get<std::int64_t>())) {
      throw ServiceError(
          422, std::string(shape->reference) + " must name one of the " + shape->referenced);
    }
    const json start = view.value(shape->start, json());
    if (!start.is_string() || !QVLDateFormatter::dateFromString(start.get<std::string>())) {
      throw ServiceError(422, std::string(shape->start) + " must be a date");
    }
    view["received_at"] = now();
  }
  auto stored = state->create(resource.plural, std::move(views));
  answer(response, 201, many ? json(stored) : stored[0]);
}

void Sandbox::Impl::redeem(std::int64_t guestId, const json& body, httplib::Response& response) {
  if (!body.is_object() || !body.value("prize_id", json()).is_number_integer()) {
    throw ServiceError(422, "A redemption needs prize_id (integer)");
  }
  const std::int64_t prizeId = body["prize_id"].get<std::int64_t>();
  std::lock_guard lock(writeMutex);
  const auto prize = state->stored("prizes", prizeId);
  if (!prize) throw ServiceError(422, "No prize with id " + std::to_string(prizeId));
  if (!prize->value("active", false)) {
    throw ServiceError(422, "Prize " + std::to_string(prizeId) + " is not active");
  }
  json guest = *state->stored("guests", guestId);
  const std::int64_t balance = guest.value("balance", json(0)).is_number_integer()
                                   ? guest["balance"].get<std::int64_t>()
                                   : 0;
  const std::int64_t cost = prize->value("cost", std::int64_t{0});
  if (balance < cost) {
    throw ServiceError(422, "Balance " + std::to_string(balance) + " does not cover the cost " +
                                std::to_string(cost) + " of prize " + std::to_string(prizeId));
  }
  json redemption = state->create("redemptions", {{{"created_at", now()},
                                                   {"cost", cost},
                                                   {"title", prize->value("title", "")},
                                                   {"prize_id", prizeId},
                                                   {"guest_id", guestId}}})[0];
  guest["balance"] = balance - cost;
  if (!guest["redemptions"].is_array()) guest["redemptions"] = json::array();
  guest["redemptions"].push_back(redemption["id"]);
  guest["updated_at"] = now();
  state->update({{"guests", guest}});
  answer(response, 201, redemption);
}

void Sandbox::Impl::putEndpoint(std::int64_t id, const json& body, httplib::Response& response) {
  if (!body.is_object() || !body.value("guest_id", json()).is_number_integer()) {
    throw ServiceError(422, "An endpoint update needs guest_id (integer)");
  }
  std::lock_guard lock(writeMutex);
  auto endpoint = state->stored("endpoints", id);
  if (!endpoint) throw ServiceError(404, "No endpoint with id " + std::to_string(id));
  (*endpoint)["guest_id"] = body["guest_id"];
  (*endpoint)["updated_at"] = now();
  state->update({{"endpoints", *endpoint}});
  answer(response, 200, *endpoint);
}

void Sandbox::Impl::putRelationship(std::int64_t guestId, const std::string& name, const json& body,
                                    httplib::Response& response) {
  static const std::map<std::string, std::string> kElementType = {{"posts", "posts"},
                                                                  {"subscriptions", "shops"}};
  auto type = kElementType.find(name);
  if (type == kElementType.end()) {
    throw ServiceError(404, "Guests have no relationship \"" + name + "\" to replace");
  }
  if (!body.is_array()) throw ServiceError(422, "Expected an array of {\"type\", \"id\"}");
  for (const json& element : body) {
    if (!element.is_object() || element.value("type", json()) != type->second ||
        !element.value("id", json()).is_number_integer() ||
        !state->exists(type->second, element["id"].get<std::int64_t>())) {
      throw ServiceError(422, "Each element must be {\"type\": \"" + type->second +
                                  "\", \"id\": <id of one of the " + type->second + ">}");
    }
  }
  std::lock_guard lock(writeMutex);
  json guest = *state->stored("guests", guestId);
  guest["relationships"][name] = body;
  state->update({{"guests", guest}});
  answer(response, 200, body);
}

Sandbox::Sandbox(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Sandbox::~Sandbox() = default;

int Sandbox::port() const { return impl_->port.load(); }

std::string Sandbox::url(const std::string& host) const {
  return "https://" + host + ":" + std::to_string(port());
}

const std::string& Sandbox::pin() const { return impl_->serverCertificate.pin; }
const std::string& Sandbox::caFile() const { return impl_->certificates->ca().certificatePath; }
const std::string& Sandbox::apiKey() const { return impl_->options.apiKey; }
const std::string& Sandbox::controlToken() const { return impl_->controlToken; }
std::string Sandbox::token() const { return impl_->info()["token"]; }
nlohmann::json Sandbox::info() const { return impl_->info(); }

void Sandbox::setFaults(double failureRate, std::chrono::milliseconds offlineFor) {
  impl_->setFaults(failureRate, offlineFor);
}

nlohmann::json Sandbox::requests(std::int64_t since) const { return impl_->requests(since); }

json Sandbox::Impl::requests(std::int64_t since) const {
  std::lock_guard lock(logMutex);
  json out = json::array();
  for (const auto& [entry, size] : log) {
    if (entry["seq"].get<std::int64_t>() > since) out.push_back(entry);
  }
  return out;
}

nlohmann::json Sandbox::state() const { return impl_->stateJson(); }

}  // namespace qvl::sandbox
