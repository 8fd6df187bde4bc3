#pragma once

#include <string_view>

#include <nlohmann/json.hpp>

#include "quorvel/platform/Json.h"

namespace qvl {

struct Json::Impl {
  nlohmann::json value;
};

// The library works on nlohmann's values; qvl::Json is their public face. These cross the
// boundary without walking the value (a move, or a reference to the held value).
struct JsonAccess {
  static const nlohmann::json& of(const Json& value) noexcept {
    static const nlohmann::json null;
    return value.impl_ ? value.impl_->value : null;
  }
  static Json from(nlohmann::json value) {
    if (value.is_null() || value.is_discarded()) return Json();
    return Json(std::make_unique<Json::Impl>(Json::Impl{std::move(value)}));
  }
  static nlohmann::json& mutableOf(Json& value) {
    if (!value.impl_) value.impl_ = std::make_unique<Json::Impl>();
    return value.impl_->value;
  }
  static nlohmann::json take(Json&& value) noexcept {
    if (!value.impl_) return nullptr;
    auto impl = std::move(value.impl_);
    return std::move(impl->value);
  }
};

}  // namespace qvl

namespace qvl::detail {

/// The value the Json holds; a null Json reads as a JSON null. Valid while the Json lives
/// unchanged.
inline const nlohmann::json& nlohmannOf(const Json& value) noexcept {
  return JsonAccess::of(value);
}
/// The nlohmann value moved out of `value` (left null).
inline nlohmann::json nlohmannOf(Json&& value) noexcept {
  return JsonAccess::take(std::move(value));
}
/// `value` moved into a Json; a discarded value becomes null.
inline Json fromNlohmann(nlohmann::json value) { return JsonAccess::from(std::move(value)); }

/// What parseBoundedJSON found.
enum class JsonParse { ok, notJSON, tooDeep };
/// Standard JSON text into `result`, refusing nesting deeper than kQVLMaxJSONDepth without
/// recursing on it. When `allowExceptions`, text that is not JSON throws
/// nlohmann::json::parse_error instead of returning notJSON.
JsonParse parseBoundedJSON(std::string_view text, nlohmann::json& result,
                           bool allowExceptions = false);

}  // namespace qvl::detail
