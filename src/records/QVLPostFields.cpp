#include "quorvel/records/QVLPostFields.h"

#include <memory>
#include <string_view>

#include "platform/JsonImpl.h"
#include "quorvel/records/QVLPostFieldHelper.h"

namespace {

// The field's content as a JSON object when it is of the given type.
std::optional<qvl::Json> jsonOf(const QVLPostField& field, QVLPostFieldType type) {
  if (field.postFieldTypeId() != type) return std::nullopt;
  return QVLPostFieldHelper::parseStringToJSON(field.content().value_or(std::string()));
}

// A member as text without checks: text as it stands, any other value as its JSON text.
std::optional<std::string> untypedText(const qvl::Json& value, const char* key) {
  const nlohmann::json& object = qvl::detail::nlohmannOf(value);
  auto it = object.find(key);
  if (it == object.end() || it->is_null()) return std::nullopt;
  if (it->is_string()) return it->get<std::string>();
  return it->dump();
}

// Length of the white space or line break (Unicode White_Space, in UTF-8) that starts
// text at `at`, 0 when there is none.
std::size_t blankAt(std::string_view text, std::size_t at) {
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  std::size_t left = text.size() - at;
  unsigned char c = byte(at);
  if (c == ' ' || (c >= 0x09 && c <= 0x0D)) return 1;
  if (c == 0xC2 && left >= 2 && (byte(at + 1) == 0x85 || byte(at + 1) == 0xA0)) return 2;
  if (left < 3) return 0;
  unsigned c1 = byte(at + 1), c2 = byte(at + 2);
  if (c == 0xE1 && c1 == 0x9A && c2 == 0x80) return 3;  // U+1680
  if (c == 0xE2 && c1 == 0x80 && (c2 <= 0x8A || c2 == 0xA8 || c2 == 0xA9 || c2 == 0xAF)) {
    return 3;  // U+2000..U+200A, U+2028, U+2029, U+202F
  }
  if (c == 0xE2 && c1 == 0x81 && c2 == 0x9F) return 3;  // U+205F
  if (c == 0xE3 && c1 == 0x80 && c2 == 0x80) return 3;  // U+3000
  return 0;
}

// Length of the white space or line break that ends text[0, end), 0 when there is none.
std::size_t blankBefore(std::string_view text, std::size_t end) {
  for (std::size_t length = 1; length <= 3 && length <= end; ++length) {
    if (blankAt(text.substr(0, end), end - length) == length) return length;
  }
  return 0;
}

// A member that is text, trimmed of white space and line breaks; nullopt when empty.
std::optional<std::string> trimmedText(const qvl::Json& value, const char* key) {
  const nlohmann::json& object = qvl::detail::nlohmannOf(value);
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  std::string_view text = it->get_ref<const std::string&>();
  std::size_t first = 0;
  while (first < text.size()) {
    std::size_t length = blankAt(text, first);
    if (!length) break;
    first += length;
  }
  std::size_t end = text.size();
  while (end > first) {
    std::size_t length = blankBefore(text, end);
    if (!length) break;
    end -= length;
  }
  if (first == end) return std::nullopt;
  return std::string(text.substr(first, end - first));
}

// A view's state copied for a copy of the view; an empty view stays empty.
template <class Impl>
std::unique_ptr<Impl> copyOf(const std::unique_ptr<Impl>& impl) {
  return impl ? std::make_unique<Impl>(*impl) : nullptr;
}

}  // namespace

struct QVLPostFieldText::Impl {
  std::optional<std::string> content;
};

QVLPostFieldText::QVLPostFieldText() = default;
QVLPostFieldText::~QVLPostFieldText() = default;
QVLPostFieldText::QVLPostFieldText(const QVLPostFieldText& other) : impl_(copyOf(other.impl_)) {}
QVLPostFieldText& QVLPostFieldText::operator=(const QVLPostFieldText& other) {
  if (this != &other) impl_ = copyOf(other.impl_);
  return *this;
}
QVLPostFieldText::QVLPostFieldText(QVLPostFieldText&& other) noexcept = default;
QVLPostFieldText& QVLPostFieldText::operator=(QVLPostFieldText&& other) noexcept = default;

const QVLPostFieldText::Impl& QVLPostFieldText::fields() const {
  static const Impl kEmpty;
  return impl_ ? *impl_ : kEmpty;
}

const std::optional<std::string>& QVLPostFieldText::content() const { return fields().content; }

const std::optional<std::string>& QVLPostFieldText::text() const { return fields().content; }

std::optional<QVLPostFieldText> QVLPostFieldText::initWithPostField(const QVLPostField& field) {
  if (field.postFieldTypeId() != QVLPostFieldTypeText) return std::nullopt;
  QVLPostFieldText view;
  view.impl_ = std::make_unique<Impl>(Impl{field.content()});
  return view;
}

struct QVLPostFieldImages::Impl {
  qvl::Json json;
};

QVLPostFieldImages::QVLPostFieldImages() = default;
QVLPostFieldImages::~QVLPostFieldImages() = default;
QVLPostFieldImages::QVLPostFieldImages(const QVLPostFieldImages& other)
    : impl_(copyOf(other.impl_)) {}
QVLPostFieldImages& QVLPostFieldImages::operator=(const QVLPostFieldImages& other) {
  if (this != &other) impl_ = copyOf(other.impl_);
  return *this;
}
QVLPostFieldImages::QVLPostFieldImages(QVLPostFieldImages&& other) noexcept = default;
QVLPostFieldImages& QVLPostFieldImages::operator=(QVLPostFieldImages&& other) noexcept = default;

const QVLPostFieldImages::Impl& QVLPostFieldImages::fields() const {
  static const Impl kEmpty;
  return impl_ ? *impl_ : kEmpty;
}

const qvl::Json& QVLPostFieldImages::json() const { return fields().json; }

std::optional<QVLPostFieldImages> QVLPostFieldImages::initWithPostField(const QVLPostField& field) {
  auto json = jsonOf(field, QVLPostFieldTypeImages);
  if (!json) return std::nullopt;
  QVLPostFieldImages view;
  view.impl_ = std::make_unique<Impl>(Impl{std::move(*json)});
  return view;
}

std::optional<std::string> QVLPostFieldImages::text() const {
  return untypedText(fields().json, "imageText");
}

struct QVLPostFieldVideo::Impl {
  std::optional<std::string> content;
};

QVLPostFieldVideo::QVLPostFieldVideo() = default;
QVLPostFieldVideo::~QVLPostFieldVideo() = default;
QVLPostFieldVideo::QVLPostFieldVideo(const QVLPostFieldVideo& other) : impl_(copyOf(other.impl_)) {}
QVLPostFieldVideo& QVLPostFieldVideo::operator=(const QVLPostFieldVideo& other) {
  if (this != &other) impl_ = copyOf(other.impl_);
  return *this;
}
QVLPostFieldVideo::QVLPostFieldVideo(QVLPostFieldVideo&& other) noexcept = default;
QVLPostFieldVideo& QVLPostFieldVideo::operator=(QVLPostFieldVideo&& other) noexcept = default;

const QVLPostFieldVideo::Impl& QVLPostFieldVideo::fields() const {
  static const Impl kEmpty;
  return impl_ ? *impl_ : kEmpty;
}

const std::optional<std::string>& QVLPostFieldVideo::content() const { return fields().content; }

std::optional<QVLPostFieldVideo> QVLPostFieldVideo::initWithPostField(const QVLPostField& field) {
  if (field.postFieldTypeId() != QVLPostFieldTypeVideo) return std::nullopt;
  QVLPostFieldVideo view;
  view.impl_ = std::make_unique<Impl>(Impl{field.content()});
  return view;
}

std::optional<qvl::Url> QVLPostFieldVideo::youtubeURL() const {
  const auto& content = fields().content;
  return content ? qvl::Url::parse(*content) : std::nullopt;
}

struct QVLPostFieldCoupon::Impl {
  qvl::Json json;
};

QVLPostFieldCoupon::QVLPostFieldCoupon() = default;
QVLPostFieldCoupon::~QVLPostFieldCoupon() = default;
QVLPostFieldCoupon::QVLPostFieldCoupon(const QVLPostFieldCoupon& other)
    : impl_(copyOf(other.impl_)) {}
QVLPostFieldCoupon& QVLPostFieldCoupon::operator=(const QVLPostFieldCoupon& other) {
  if (this != &other) impl_ = copyOf(other.impl_);
  return *this;
}
QVLPostFieldCoupon::QVLPostFieldCoupon(QVLPostFieldCoupon&& other) noexcept = default;
QVLPostFieldCoupon& QVLPostFieldCoupon::operator=(QVLPostFieldCoupon&& other) noexcept = default;

const QVLPostFieldCoupon::Impl& QVLPostFieldCoupon::fields() const {
  static const Impl kEmpty;
  return impl_ ? *impl_ : kEmpty;
}

const qvl::Json& QVLPostFieldCoupon::json() const { return fields().json; }

std::optional<QVLPostFieldCoupon> QVLPostFieldCoupon::initWithPostField(const QVLPostField& field) {
  auto json = jsonOf(field, QVLPostFieldTypeCoupon);
  if (!json) return std::nullopt;
  QVLPostFieldCoupon view;
  view.impl_ = std::make_unique<Impl>(Impl{std::move(*json)});
  return view;
}

std::optional<std::string> QVLPostFieldCoupon::text() const {
  return trimmedText(fields().json, "text");
}
std::optional<std::string> QVLPostFieldCoupon::priceBefore() const {
  return trimmedText(fields().json, "price_before");
}
std::optional<std::string> QVLPostFieldCoupon::price() const {
  return trimmedText(fields().json, "price");
}
std::optional<std::string> QVLPostFieldCoupon::discount() const {
  return trimmedText(fields().json, "discount");
}
bool QVLPostFieldCoupon::redeemable() const { return fields().json.contains("redeemable"); }

struct QVLPostFieldCallToAction::Impl {
  qvl::Json json;
};

QVLPostFieldCallToAction::QVLPostFieldCallToAction() = default;
QVLPostFieldCallToAction::~QVLPostFieldCallToAction() = default;
QVLPostFieldCallToAction::QVLPostFieldCallToAction(const QVLPostFieldCallToAction& other)
    : impl_(copyOf(other.impl_)) {}
QVLPostFieldCallToAction& QVLPostFieldCallToAction::operator=(
    const QVLPostFieldCallToAction& other) {
  if (this != &other) impl_ = copyOf(other.impl_);
  return *this;
}
QVLPostFieldCallToAction::QVLPostFieldCallToAction(QVLPostFieldCallToAction&& other) noexcept =
    default;
QVLPostFieldCallToAction& QVLPostFieldCallToAction::operator=(
    QVLPostFieldCallToAction&& other) noexcept = default;

const QVLPostFieldCallToAction::Impl& QVLPostFieldCallToAction::fields() const {
  static const Impl kEmpty;
  return impl_ ? *impl_ : kEmpty;
}

const qvl::Json& QVLPostFieldCallToAction::json() const { return fields().json; }

std::optional<QVLPostFieldCallToAction> QVLPostFieldCallToAction::initWithPostField(
    const QVLPostField& field) {
  auto json = jsonOf(field, QVLPostFieldTypeCallToAction);
  if (!json) return std::nullopt;
  QVLPostFieldCallToAction view;
  view.impl_ = std::make_unique<Impl>(Impl{std::move(*json)});
  return view;
}

std::optional<std::string> QVLPostFieldCallToAction::text() const {
  return untypedText(fields().json, "text");
}

std::optional<qvl::Url> QVLPostFieldCallToAction::url() const {
  auto text = untypedText(fields().json, "url");
  return text ? qvl::Url::parse(*text) : std::nullopt;
}
