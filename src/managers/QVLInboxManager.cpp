#include "quorvel/managers/QVLInboxManager.h"

#include <cctype>
#include <string>
#include <vector>

#include "managers/ManagerSupport.h"
#include "platform/JsonImpl.h"
#include "quorvel/platform/Application.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/platform/NotificationCenter.h"
#include "quorvel/records/QVLRealm.h"

namespace {

// A setting read as a yes-or-no value: a boolean, a non-zero number, or text starting
// (after blanks, a sign and zeros) with Y, y, T, t or a digit 1-9. Anything else is no.
bool settingIsOn(const nlohmann::json& value) {
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return value.get<double>() != 0;
  if (!value.is_string()) return false;
  const std::string& text = value.get_ref<const std::string&>();
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  while (i < text.size() && text[i] == '0') ++i;
  return i < text.size() && std::string_view("YyTt123456789").find(text[i]) != std::string::npos;
}

bool badgeUpdatesEnabled() {
  const auto env = qvl::Env::current();
  const nlohmann::json& info = qvl::detail::nlohmannOf(env->bundleInfo);
  const auto settings = info.find("QuorvelSDK");
  if (settings == info.end() || !settings->is_object()) return false;
  const auto value = settings->find("AutoUpdateAppIconBadge");
  return value != settings->end() && settingIsOn(*value);
}

// Runs one change in a write transaction on the handle the record belongs to (the calling
// thread's handle for unmanaged records).
template <class F>
void writeOn(const std::shared_ptr<qvl::Store>& realm, F&& change) {
  if (realm) {
    realm->write(change);
  } else {
    change();
  }
}

std::shared_ptr<qvl::Store> storeOf(const QVLPost& post) {
  return post.isManaged() ? post.store() : QVLRealm::realm();
}

}  // namespace

struct QVLInboxManager::Impl {
  std::atomic<bool> changesMadeSinceLastSync{false};
  std::unique_ptr<qvl::CenterObservation> observation;
};

QVLInboxManager::QVLInboxManager() : impl_(std::make_unique<Impl>()) {
  impl_->observation = std::make_unique<qvl::CenterObservation>(qvl::CenterObservation::Handlers{
      {qvl::Application::kDidBecomeActiveNotification,
       [this] { updateApplicationIconBadgeNumber(); }},
      {qvl::Application::kDidEnterBackgroundNotification, [this] { syncInbox(); }}});
}

QVLInboxManager::~QVLInboxManager() = default;

bool QVLInboxManager::changesMadeSinceLastSync() const {
  return impl_->changesMadeSinceLastSync.load();
}

QVLInboxManager& QVLInboxManager::sharedManager() {
  static const char key = 0;
  return qvl::detail::currentContext()->service<QVLInboxManager>(
      &key, [] { return std::shared_ptr<QVLInboxManager>(new QVLInboxManager()); });
}

std::shared_ptr<QVLGuest> QVLInboxManager::currentGuest() const {
  return qvl::withoutThrowing("QVLInboxManager::currentGuest", std::shared_ptr<QVLGuest>(),
                              qvl::firstGuest);
}

// ---- queries ------------------------------------------------------------------------------

qvl::Results<QVLPost> QVLInboxManager::allPosts() const {
  return qvl::withoutThrowing(
      "QVLInboxManager::allPosts", qvl::Results<QVLPost>(), [&]() -> qvl::Results<QVLPost> {
        if (auto guest = currentGuest()) {
          return guest->posts().results().filter(qvl::Predicate::notNull("postId"));
        }
        auto realm = QVLRealm::realm();
        if (!realm) return {};
        return realm->objects<QVLPost>(
            qvl::Predicate::in("postId", {}));  // empty, of the same type
      });
}

qvl::Results<QVLPost> QVLInboxManager::activePosts() const {
  return qvl::withoutThrowing("QVLInboxManager::activePosts", qvl::Results<QVLPost>(), [&] {
    auto all = allPosts();
    std::vector<qvl::Value> activeIds;
    for (const auto& post : all) {
      if (post->active()) activeIds.emplace_back(*post->postId());
    }
    return all.filter(qvl::Predicate::in("postId", std::move(activeIds)));
  });
}

qvl::Results<QVLPost> QVLInboxManager::savedPosts() const {
  return allPosts().filter(qvl::Predicate::equal("saved", true));
}

qvl::Results<QVLPost> QVLInboxManager::activeSavedPosts() const {
  return activePosts().filter(qvl::Predicate::equal("saved", true));
}

std::size_t QVLInboxManager::numberOfUnreadPosts() const {
  return qvl::withoutThrowing("QVLInboxManager::numberOfUnreadPosts", std::size_t{0}, [&] {
    return activePosts().filter(qvl::Predicate::equal("read", false)).size();
  });
}

bool QVLInboxManager::isPostAdded(const QVLPost& post) const {
  return qvl::withoutThrowing("QVLInboxManager::isPostAdded", false, [&] {
    if (!post.postId()) return false;
    return !allPosts().filter(qvl::Predicate::equal("postId", *post.postId())).empty();
  });
}

bool QVLInboxManager::isPostSaved(const QVLPost& post) const {
  return qvl::withoutThrowing("QVLInboxManager::isPostSaved", false, [&] {
    if (!post.postId()) return false;
    return !savedPosts().filter(qvl::Predicate::equal("postId", *post.postId())).empty();
  });
}

// ---- changes ------------------------------------------------------------------------------

void QVLInboxManager::addPost(const std::shared_ptr<QVLPost>& post) {
  qvl::withoutThrowing("QVLInboxManager::addPost", [&] {
    auto guest = currentGuest();
    if (!post || !guest || isPostAdded(*post)) return;
    auto realm = guest->store();
    realm->write([&] {
      auto posts = guest->posts();
      posts.append(post);
      // An unmanaged post was stored by the append: mark the stored one.
      auto stored = post->isManaged() ? post : posts.at(posts.size() - 1);
      stored->setRead(false);
    });
    changesMade();
  });
}

void QVLInboxManager::removePost(const std::shared_ptr<QVLPost>& post) {
  qvl::withoutThrowing("QVLInboxManager::removePost", [&] {
    auto guest = currentGuest();
    if (!post || !guest) return;
    auto posts = guest->posts();
    auto index = posts.indexOf(*post);
    if (!index) return;
    guest->store()->write([&] { posts.remove(*index); });
    changesMade();
  });
}

void QVLInboxManager::removeAllPosts() {
  qvl::withoutThrowing("QVLInboxManager::removeAllPosts", [&] {
    auto guest = currentGuest();
    if (!guest) return;
    guest->store()->write([&] { guest->posts().removeAll(); });
    changesMade();
  });
}

void QVLInboxManager::removeAllInactivePosts() {
  qvl::withoutThrowing("QVLInboxManager::removeAllInactivePosts", [&] {
    auto guest = currentGuest();
    if (!guest) return;
    auto posts = guest->posts();
    for (const auto& post : posts.elements()) {  // a copy: the removals do not disturb the walk
      if (post->active()) continue;
      if (auto index = posts.indexOf(*post)) guest->store()->write([&] { posts.remove(*index); });
    }
    changesMade();
  });
}

void QVLInboxManager::markPostAsRead(const std::shared_ptr<QVLPost>& post, bool read) {
  qvl::withoutThrowing("QVLInboxManager::markPostAsRead", [&] {
    if (!post || post->read() == read) return;
    writeOn(storeOf(*post), [&] { post->setRead(read); });
    changesMade();
  });
}

void QVLInboxManager::markPostAsSaved(const std::shared_ptr<QVLPost>& post, bool saved) {
  qvl::withoutThrowing("QVLInboxManager::markPostAsSaved", [&] {
    if (!post || post->saved() == saved) return;
    writeOn(storeOf(*post), [&] { post->setSaved(saved); });
    changesMade();
  });
}

void QVLInboxManager::changesMade() {
  updateApplicationIconBadgeNumber();
  qvl::NotificationCenter::defaultCenter().post(kDidUpdateInboxNotification);
  impl_->changesMadeSinceLastSync = true;
}

// ---- badge and sync -----------------------------------------------------------------------

void QVLInboxManager::updateApplicationIconBadgeNumber() {
  if (!badgeUpdatesEnabled()) return;
  const auto env = qvl::Env::current();
  // Counted on the main queue, with the main queue's store handle.
  env->mainQueue->async([this, application = env->application] {
    application->setApplicationIconBadgeNumber(static_cast<int>(numberOfUnreadPosts()));
  });
}

void QVLInboxManager::syncInbox() {
  qvl::withoutThrowing("QVLInboxManager::syncInbox", [&] {
    auto guest = currentGuest();
    if (!guest || !impl_->changesMadeSinceLastSync) return;
    qvl::syncInBackgroundTask(
        kSyncTaskName, "Syncing inbox task expired",
        "Something went wrong when syncing posts (inbox): ", guest->posts().any(), guest,
        std::nullopt, impl_->changesMadeSinceLastSync);
  });
}
