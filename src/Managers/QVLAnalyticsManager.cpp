#include "quorvel/Managers/QVLAnalyticsManager.h"

#include <algorithm>

#include "Managers/ManagerSupport.h"
#include "quorvel/Categories/QVLBeaconSupport.h"
#include "quorvel/Helpers/QVLRealm.h"
#include "quorvel/Managers/QVLApiClient.h"
#include "quorvel/Platform/Application.h"
#include "quorvel/Platform/Clock.h"
#include "quorvel/Platform/Log.h"

namespace {

bool sameId(std::optional<std::int64_t> a, std::optional<std::int64_t> b) {
  return a && b && *a == *b;
}

// Keeps a view whose sending got no answer; it goes out with the next batch.
void keepForLater(const std::shared_ptr<QVLApiModel>& view) {
  try {
    auto realm = QVLRealm::realm();
    if (realm) realm->write([&] { realm->addOrUpdate(view); });
  } catch (const std::exception& e) {
    qvl::log(std::string("QuorvelSDK: Couldn't keep an unsent view: ") + e.what());
  }
}

// Sends every stored view of one type in one batch, guarded by its in-flight flag.
template <class View>
void sendStoredViews(std::atomic<bool>& sending) {
  if (sending.exchange(true)) return;  // a batch is on its way
  std::vector<std::shared_ptr<QVLApiModel>> views;
  if (auto realm = QVLRealm::realm()) {
    for (auto& view : realm->objects<View>().snapshot()) views.push_back(std::move(view));
  }
  if (views.empty()) {
    sending = false;
    return;
  }
  QVLApiClient::sharedClient().postObjects(views, [&sending](std::optional<QVLError> error) {
    if (error && error->domain != kQVLApiClientErrorDomain) {
      sending = false;  // no answer: the views stay for the next attempt
      return;
    }
    // Answered, accepted or refused: every view stored now goes, including any kept while
    // the batch was on its way.
    try {
      auto realm = QVLRealm::realm();
      if (realm) {
        realm->write([&] {
          for (const auto& view : realm->objects<View>().snapshot()) realm->remove(view);
        });
      }
    } catch (const std::exception& e) {
      qvl::log(std::string("QuorvelSDK: Couldn't remove sent views: ") + e.what());
    }
    sending = false;
  });
}

}  // namespace

QVLAnalyticsManager::QVLAnalyticsManager()
    : observation_(std::make_unique<qvl::CenterObservation>(qvl::CenterObservation::Handlers{
          {qvl::Application::kDidBecomeActiveNotification, [this] { sendAllFinishedViews(); }}})) {}

QVLAnalyticsManager::~QVLAnalyticsManager() = default;

QVLAnalyticsManager& QVLAnalyticsManager::sharedManager() {
  // Never destroyed: client completions may reach it until the process ends.
  static QVLAnalyticsManager* instance = new QVLAnalyticsManager();
  if (instance->observation_->observeCurrentCenter()) instance->sendAllFinishedViews();
  return *instance;
}

std::shared_ptr<QVLGuest> QVLAnalyticsManager::currentGuest() const { return qvl::firstGuest(); }

void QVLAnalyticsManager::startPostViewOfPost(const std::shared_ptr<QVLPost>& post,
                                              const std::shared_ptr<QVLAudience>& audience) {
  auto guest = currentGuest();
  if (!guest || !post || !post->postId()) return;
  auto view = std::make_shared<QVLPostView>();
  view->setPostId(post->postId());
  view->setAudienceId(audience ? audience->audienceId() : std::nullopt);
  view->setTimeIn(qvl::now());
  view->setGuestId(guest->guestId());
  std::lock_guard lock(mutex_);
  unfinishedPostViews_.push_back(std::move(view));
}

void QVLAnalyticsManager::finishPostViewOfPost(const std::shared_ptr<QVLPost>& post,
                                               const std::shared_ptr<QVLAudience>& audience) {
  if (!post) return;
  const auto postId = post->postId();
  const auto audienceId = audience ? audience->audienceId() : std::nullopt;
  std::shared_ptr<QVLPostView> view;
  {
    // Taken out of the list before it is sent, so that a concurrent finish cannot send it
    // twice.
    std::lock_guard lock(mutex_);
    auto found = std::find_if(
        unfinishedPostViews_.begin(), unfinishedPostViews_.end(), [&](const auto& open) {
          return sameId(open->postId(), postId) &&
                 (!open->audienceId() || !audienceId || *open->audienceId() == *audienceId);
        });
    if (found == unfinishedPostViews_.end()) return;
    view = *found;
    unfinishedPostViews_.erase(found);
  }
  view->setTimeOut(qvl::now());
  sendOrSaveFinishedView(view);
}

bool QVLAnalyticsManager::beaconViewIsStartedLocked(std::optional<std::int64_t> beaconId) const {
  return std::any_of(unfinishedBeaconViews_.begin(), unfinishedBeaconViews_.end(),
                     [&](const auto& open) { return sameId(open->beaconId(), beaconId); });
}

bool QVLAnalyticsManager::beaconViewIsStarted(std::optional<std::int64_t> beaconId) const {
  std::lock_guard lock(mutex_);
  return beaconViewIsStartedLocked(beaconId);
}

void QVLAnalyticsManager::startBeaconViewOfBeacon(const std::shared_ptr<QVLBeacon>& beacon) {
  if (!beacon || !beacon->beaconId()) return;
  const auto beaconId = beacon->beaconId();
  // An open view is the common case (every ranging report restarts every sighted beacon):
  // it is settled before the store is asked for the guest. It wins over the Bluetooth test.
  if (beaconViewIsStarted(beaconId)) return;
  auto guest = currentGuest();
  if (!guest || !QVLBeaconSupport::bluetoothEnabled()) return;
  auto view = std::make_shared<QVLBeaconView>();
  view->setBeaconId(beaconId);
  view->setEnterDate(qvl::now());
  view->setGuestId(guest->guestId());
  std::lock_guard lock(mutex_);
  if (!beaconViewIsStartedLocked(beaconId)) unfinishedBeaconViews_.push_back(std::move(view));
}

void QVLAnalyticsManager::finishBeaconViewOfBeacon(const std::shared_ptr<QVLBeacon>& beacon) {
  if (!beacon) return;
  const auto beaconId = beacon->beaconId();
  std::shared_ptr<QVLBeaconView> view;
  {
    std::lock_guard lock(mutex_);
    auto found = std::find_if(unfinishedBeaconViews_.begin(), unfinishedBeaconViews_.end(),
                              [&](const auto& open) { return sameId(open->beaconId(), beaconId); });
    if (found == unfinishedBeaconViews_.end()) return;
    view = *found;
    unfinishedBeaconViews_.erase(found);
  }
  view->setExitDate(qvl::now());
  sendOrSaveFinishedView(view);
}

void QVLAnalyticsManager::finishAllUnfinishedBeaconViews() {
  for (const auto& view : unfinishedBeaconViews()) {
    auto beacon = std::make_shared<QVLBeacon>();
    beacon->setBeaconId(view->beaconId());
    finishBeaconViewOfBeacon(beacon);
  }
}

bool QVLAnalyticsManager::validateView(const std::shared_ptr<QVLApiModel>& view) {
  if (auto post = std::dynamic_pointer_cast<QVLPostView>(view)) {
    return post->postId() && post->timeIn() && post->timeOut();
  }
  if (auto beacon = std::dynamic_pointer_cast<QVLBeaconView>(view)) {
    return beacon->beaconId() && beacon->enterDate() && beacon->exitDate();
  }
  return false;
}

void QVLAnalyticsManager::sendOrSaveFinishedView(const std::shared_ptr<QVLApiModel>& view) {
  if (!validateView(view)) return;
  QVLApiClient::sharedClient().postObject(view, [view](std::optional<QVLError> error) {
    // Delivered or refused: done. Only a view that got no answer is kept.
    if (error && error->domain != kQVLApiClientErrorDomain) keepForLater(view);
  });
}

void QVLAnalyticsManager::sendFinishedPostViews() {
  sendStoredViews<QVLPostView>(sendingPostViews_);
}

void QVLAnalyticsManager::sendFinishedBeaconViews() {
  sendStoredViews<QVLBeaconView>(sendingBeaconViews_);
}

void QVLAnalyticsManager::sendAllFinishedViews() {
  sendFinishedPostViews();
  sendFinishedBeaconViews();
}

std::vector<std::shared_ptr<QVLPostView>> QVLAnalyticsManager::unfinishedPostViews() const {
  std::lock_guard lock(mutex_);
  return unfinishedPostViews_;
}

std::vector<std::shared_ptr<QVLBeaconView>> QVLAnalyticsManager::unfinishedBeaconViews() const {
  std::lock_guard lock(mutex_);
  return unfinishedBeaconViews_;
}
