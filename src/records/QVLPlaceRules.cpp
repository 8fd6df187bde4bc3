#include "records/QVLPlaceRules.h"

#include <vector>

namespace qvl {

Results<QVLPost> activePostsOf(const List<QVLPost>& posts) {
  std::vector<Value> ids;
  for (const auto& post : posts.elements()) {
    if (!post->active()) continue;
    if (auto id = post->postId()) ids.emplace_back(*id);
  }
  return posts.results().filter(Predicate::in(QVLPost::primaryKey(), std::move(ids)));
}

std::string notificationMessageOf(const std::optional<std::string>& message,
                                  const std::optional<std::string>& name) {
  if (message && message->find_first_not_of(" \t") != std::string::npos) return *message;
  return name.value_or(std::string());
}

}  // namespace qvl
