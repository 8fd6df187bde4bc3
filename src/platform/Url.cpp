#include "quorvel/platform/Url.h"

#include <curl/curl.h>

#include <cctype>
#include <memory>

namespace qvl {

namespace {

bool isHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

bool charactersAllowed(std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c <= 0x20 || c >= 0x7f) return false;
    switch (c) {
      case '"':
      case '<':
      case '>':
      case '\\':
      case '^':
      case '`':
      case '{':
      case '|':
      case '}':
        return false;
      case '%':
        if (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2])) return false;
        break;
      default:
        break;
    }
  }
  return true;
}

// Length of a leading "scheme:" (RFC 3986: ALPHA *( ALPHA / DIGIT / "+" / "-" / "." )),
// or 0 when the text does not start with one.
size_t schemeLength(std::string_view text) {
  if (text.empty() || !std::isalpha(static_cast<unsigned char>(text[0]))) return 0;
  for (size_t i = 1; i < text.size(); ++i) {
    char c = text[i];
    if (c == ':') return i;
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') return 0;
  }
  return 0;
}

struct CurlUrlDeleter {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};

std::string part(CURLU* url, CURLUPart which) {
  char* value = nullptr;
  std::string out;
  if (curl_url_get(url, which, &value, 0) == CURLUE_OK && value) out = value;
  curl_free(value);
  return out;
}

}  // namespace

struct Url::Impl {
  std::string text, scheme, host, path;
  std::optional<int> port;
};

Url::Url() = default;
Url::~Url() = default;
Url::Url(const Url& other) : impl_(other.impl_ ? std::make_unique<Impl>(*other.impl_) : nullptr) {}
Url& Url::operator=(const Url& other) {
  if (this != &other) impl_ = other.impl_ ? std::make_unique<Impl>(*other.impl_) : nullptr;
  return *this;
}
Url::Url(Url&& other) noexcept = default;
Url& Url::operator=(Url&& other) noexcept = default;

const Url::Impl& Url::fields() const {
  static const Impl kEmpty;
  return impl_ ? *impl_ : kEmpty;
}

const std::string& Url::absoluteString() const { return fields().text; }
const std::string& Url::scheme() const { return fields().scheme; }
const std::string& Url::host() const { return fields().host; }
const std::string& Url::path() const { return fields().path; }
std::optional<int> Url::port() const { return fields().port; }
bool Url::operator==(const Url& other) const { return fields().text == other.fields().text; }

std::optional<Url> Url::parse(std::string_view text) {
  if (text.empty() || !charactersAllowed(text)) return std::nullopt;
  Url url;
  url.impl_ = std::make_unique<Impl>();
  Impl& parts = *url.impl_;
  parts.text = std::string(text);
  size_t schemeEnd = schemeLength(text);
  if (schemeEnd == 0) {
    // A reference without a scheme: its path is everything before a query or fragment.
    parts.path = parts.text.substr(0, parts.text.find_first_of("?#"));
    return url;
  }
  for (size_t i = 0; i < schemeEnd; ++i) {
    parts.scheme.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(text[i]))));
  }
  std::string_view rest = text.substr(schemeEnd + 1);
  if (rest.substr(0, 2) != "//") {
    parts.path = std::string(rest.substr(0, rest.find_first_of("?#")));
    return url;
  }
  std::unique_ptr<CURLU, CurlUrlDeleter> parsed(curl_url());
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, parts.text.c_str(),
                              CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
    return std::nullopt;
  }
  parts.host = part(parsed.get(), CURLUPART_HOST);
  parts.path = part(parsed.get(), CURLUPART_PATH);
  std::string port = part(parsed.get(), CURLUPART_PORT);
  if (!port.empty()) parts.port = std::stoi(port);
  return url;
}

}  // namespace qvl
