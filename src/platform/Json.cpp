#include "quorvel/platform/Json.h"

#include <ostream>

#include "platform/JsonImpl.h"

namespace qvl {

namespace {

using nlohmann::json;

// Builds the document as nlohmann's own parser does, refusing to open a level beyond the
// limit; nlohmann's parser keeps its nesting on the heap, so the input cannot recurse.
class BoundedDomParser : public nlohmann::detail::json_sax_dom_parser<json> {
 public:
  BoundedDomParser(json& result, bool allowExceptions)
      : json_sax_dom_parser(result, allowExceptions) {}
  bool start_object(std::size_t size) { return enter() && json_sax_dom_parser::start_object(size); }
  bool end_object() { return leave() && json_sax_dom_parser::end_object(); }
  bool start_array(std::size_t size) { return enter() && json_sax_dom_parser::start_array(size); }
  bool end_array() { return leave() && json_sax_dom_parser::end_array(); }
  bool tooDeep() const { return tooDeep_; }

 private:
  bool enter() {
    tooDeep_ = ++depth_ > kQVLMaxJSONDepth;
    return !tooDeep_;
  }
  bool leave() {
    --depth_;
    return true;
  }
  int depth_ = 0;
  bool tooDeep_ = false;
};

}  // namespace

namespace detail {

JsonParse parseBoundedJSON(std::string_view text, json& result, bool allowExceptions) {
  BoundedDomParser parser(result, allowExceptions);
  if (json::sax_parse(text, &parser, json::input_format_t::json, true)) return JsonParse::ok;
  result = json(json::value_t::discarded);
  return parser.tooDeep() ? JsonParse::tooDeep : JsonParse::notJSON;
}

}  // namespace detail

Json::Json() noexcept = default;
Json::Json(std::nullptr_t) noexcept {}
Json::Json(std::unique_ptr<Impl> impl) noexcept : impl_(std::move(impl)) {}
Json::Json(bool value) : impl_(std::make_unique<Impl>(Impl{value})) {}
Json::Json(double value) : impl_(std::make_unique<Impl>(Impl{value})) {}
Json::Json(const char* text) {
  if (text) impl_ = std::make_unique<Impl>(Impl{text});
}
Json::Json(std::string text) : impl_(std::make_unique<Impl>(Impl{std::move(text)})) {}
Json::Json(std::string_view text) : impl_(std::make_unique<Impl>(Impl{std::string(text)})) {}
Json Json::fromSigned(std::int64_t value) { return Json(std::make_unique<Impl>(Impl{value})); }
Json Json::fromUnsigned(std::uint64_t value) { return Json(std::make_unique<Impl>(Impl{value})); }

Json::Json(std::initializer_list<Json> elements) {
  bool isObject = true;
  for (const Json& e : elements) {
    const json& v = detail::nlohmannOf(e);
    if (!v.is_array() || v.size() != 2 || !v[0].is_string()) {
      isObject = false;
      break;
    }
  }
  json out = isObject ? json::object() : json::array();
  for (const Json& e : elements) {
    const json& v = detail::nlohmannOf(e);
    if (isObject)
      out[v[0].get_ref<const std::string&>()] = v[1];
    else
      out.push_back(v);
  }
  impl_ = std::make_unique<Impl>(Impl{std::move(out)});
}

Json Json::object(std::initializer_list<std::pair<std::string, Json>> members) {
  json out = json::object();
  for (const auto& [key, value] : members) out[key] = detail::nlohmannOf(value);
  return detail::fromNlohmann(std::move(out));
}

Json Json::array(std::initializer_list<Json> elements) {
  json out = json::array();
  for (const Json& e : elements) out.push_back(detail::nlohmannOf(e));
  return detail::fromNlohmann(std::move(out));
}

Json::Json(const Json& other)
    : impl_(other.impl_ ? std::make_unique<Impl>(*other.impl_) : nullptr) {}
Json::Json(Json&& other) noexcept = default;
Json& Json::operator=(const Json& other) {
  if (this != &other) impl_ = other.impl_ ? std::make_unique<Impl>(*other.impl_) : nullptr;
  return *this;
}
Json& Json::operator=(Json&& other) noexcept = default;
Json::~Json() = default;

std::optional<Json> Json::parse(std::string_view text, std::string* error) {
  json result;
  switch (detail::parseBoundedJSON(text, result)) {
    case detail::JsonParse::ok:
      return detail::fromNlohmann(std::move(result));
    case detail::JsonParse::tooDeep:
      if (error) {
        *error = "JSON nests arrays and objects deeper than " + std::to_string(kQVLMaxJSONDepth) +
                 " levels";
      }
      return std::nullopt;
    case detail::JsonParse::notJSON:
      break;
  }
  if (error) *error = "not JSON";
  return std::nullopt;
}

std::string Json::dump() const {
  return detail::nlohmannOf(*this).dump(-1, ' ', false, json::error_handler_t::replace);
}

Json::Kind Json::kind() const noexcept {
  switch (detail::nlohmannOf(*this).type()) {
    case json::value_t::boolean:
      return Kind::boolean;
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
      return Kind::integer;
    case json::value_t::number_float:
      return Kind::floating;
    case json::value_t::string:
      return Kind::string;
    case json::value_t::array:
      return Kind::array;
    case json::value_t::object:
      return Kind::object;
    default:
      return Kind::null;
  }
}

std::optional<bool> Json::asBool() const {
  const json& v = detail::nlohmannOf(*this);
  if (!v.is_boolean()) return std::nullopt;
  return v.get<bool>();
}

std::optional<std::int64_t> Json::asInt() const {
  const json& v = detail::nlohmannOf(*this);
  if (v.is_number_unsigned()) {
    auto u = v.get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(INT64_MAX)) return std::nullopt;
    return static_cast<std::int64_t>(u);
  }
  if (!v.is_number_integer()) return std::nullopt;
  return v.get<std::int64_t>();
}

std::optional<double> Json::asDouble() const {
  const json& v = detail::nlohmannOf(*this);
  if (!v.is_number()) return std::nullopt;
  return v.get<double>();
}

std::optional<std::string> Json::asString() const {
  const json& v = detail::nlohmannOf(*this);
  if (!v.is_string()) return std::nullopt;
  return v.get<std::string>();
}

std::size_t Json::size() const noexcept {
  const json& v = detail::nlohmannOf(*this);
  return v.is_structured() ? v.size() : 0;
}

std::optional<Json> Json::at(std::size_t index) const {
  const json& v = detail::nlohmannOf(*this);
  if (!v.is_array() || index >= v.size()) return std::nullopt;
  return detail::fromNlohmann(v[index]);
}

std::optional<Json> Json::at(std::string_view key) const {
  const json& v = detail::nlohmannOf(*this);
  if (!v.is_object()) return std::nullopt;
  auto it = v.find(key);
  if (it == v.end()) return std::nullopt;
  return detail::fromNlohmann(*it);
}

bool Json::contains(std::string_view key) const {
  const json& v = detail::nlohmannOf(*this);
  return v.is_object() && v.find(key) != v.end();
}

std::vector<std::string> Json::keys() const {
  std::vector<std::string> out;
  const json& v = detail::nlohmannOf(*this);
  if (!v.is_object()) return out;
  out.reserve(v.size());
  for (const auto& item : v.items()) out.push_back(item.key());
  return out;
}

bool Json::set(std::string key, Json value) {
  if (!isNull() && !isObject()) return false;
  json& v = JsonAccess::mutableOf(*this);
  if (v.is_null()) v = json::object();
  v[std::move(key)] = detail::nlohmannOf(std::move(value));
  return true;
}

bool Json::append(Json value) {
  if (!isNull() && !isArray()) return false;
  json& v = JsonAccess::mutableOf(*this);
  if (v.is_null()) v = json::array();
  v.push_back(detail::nlohmannOf(std::move(value)));
  return true;
}

bool Json::operator==(const Json& other) const {
  return detail::nlohmannOf(*this) == detail::nlohmannOf(other);
}

std::ostream& operator<<(std::ostream& out, const Json& value) { return out << value.dump(); }

}  // namespace qvl
