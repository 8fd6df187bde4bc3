#include "quorvel/records/QVLToken.h"

#include <nlohmann/json.hpp>

#include "quorvel/platform/Log.h"
#include "quorvel/platform/UserDefaults.h"

struct QVLToken::Impl {
  std::mutex mutex;
  std::optional<std::string> content;
};

QVLToken::QVLToken() : impl_(std::make_unique<Impl>()) {}
QVLToken::~QVLToken() = default;

std::shared_ptr<QVLToken> QVLToken::initWithContent(std::optional<std::string> content) {
  auto token = std::make_shared<QVLToken>();
  token->setContent(std::move(content));
  return token;
}

std::optional<std::string> QVLToken::content() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->content;
}

void QVLToken::setContent(std::optional<std::string> content) {
  std::lock_guard lock(impl_->mutex);
  impl_->content = std::move(content);
}

std::string QVLToken::encodeWithCoder() const {
  auto text = content();
  nlohmann::json archive = {{"$class", "QVLToken"}, {"content", nullptr}};
  if (text) archive["content"] = *text;
  return archive.dump();
}

std::shared_ptr<QVLToken> QVLToken::initWithCoder(const std::string& bytes) {
  auto archive = nlohmann::json::parse(bytes, nullptr, false);
  if (!archive.is_object() || archive.value("$class", "") != "QVLToken") return nullptr;
  auto content = archive.find("content");
  if (content == archive.end() || !(content->is_string() || content->is_null())) return nullptr;
  return initWithContent(content->is_string() ? std::optional(content->get<std::string>())
                                              : std::nullopt);
}

bool QVLToken::saveToken() const {
  auto& defaults = qvl::UserDefaults::standard();
  defaults.setData(kDefaultsKey, encodeWithCoder());
  return defaults.synchronize();
}

std::shared_ptr<QVLToken> QVLToken::currentToken() {
  auto bytes = qvl::UserDefaults::standard().data(kDefaultsKey);
  if (!bytes) return nullptr;
  auto token = initWithCoder(*bytes);
  if (!token) qvl::log(qvl::LogLevel::error, "Unreadable token archive");
  return token;
}
