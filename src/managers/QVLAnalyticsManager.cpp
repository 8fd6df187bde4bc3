#include "quorvel/managers/QVLAnalyticsManager.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <set>
#include <type_traits>
#include <utility>

#include "managers/ManagerSupport.h"
#include "platform/CountersImpl.h"
#include "platform/Immortal.h"
#include "quorvel/managers/QVLBeaconSupport.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/Application.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Log.h"
#include "quorvel/records/QVLRealm.h"
#include "store/StoreRows.h"

namespace {

bool sameId(std::optional<std::int64_t> a, std::optional<std::int64_t> b) {
  return a && b && *a == *b;
}

// The service answered, accepting or refusing: either way the view is settled.
bool answered(const std::optional<QVLError>& error) {
  return !error || error->domain == kQVLApiClientErrorDomain;
}

// A view not opened for lack of a guest: counted, and a warning logged once per process
// (a host that never stores a guest would otherwise fill its log).
void withoutGuest() {
  qvl::count(qvl::Counter::viewsWithoutGuest);
  static std::atomic<bool> warned{false};
  if (!warned.exchange(true, std::memory_order_relaxed)) {
    qvl::log(qvl::LogLevel::warning,
             "Views are not recorded while the store holds no guest (logged once)");
  }
}

// At exit the store's class statics are destroyed while answers may still come: store work
// stops first. The guard is made after the first store opened, so after those statics, and
// is destroyed before them; it waits (bounded) for the store work under way.
struct ExitState {
  std::mutex mutex;
  std::condition_variable idle;
  bool exiting = false;
  int users = 0;
};
ExitState& exitState() { return qvl::detail::immortal<ExitState>(); }
struct ExitGuard {
  ~ExitGuard() {
    ExitState& state = exitState();
    std::unique_lock lock(state.mutex);
    state.exiting = true;
    state.idle.wait_for(lock, std::chrono::seconds(1), [&] { return state.users == 0; });
  }
};

// The calling thread's handle on the file `configuration` names (the one a send began
// with, wherever its answer comes), or null.
std::shared_ptr<qvl::Store> openStore(const qvl::StoreConfiguration& configuration) {
  try {
    auto store = qvl::Store::open(configuration);
    static ExitGuard guard;
    return store;
  } catch (const std::exception& e) {
    qvl::log(qvl::LogLevel::error, std::string("Couldn't open the store for views: ") + e.what());
    return nullptr;
  }
}

// Runs `work` with that store, unless the process is exiting; failures are logged.
template <class Work>
void withStore(const qvl::StoreConfiguration& configuration, const char* what, const Work& work) {
  ExitState& state = exitState();
  {
    std::lock_guard lock(state.mutex);
    if (state.exiting) return;
    ++state.users;
  }
  try {
    if (auto store = openStore(configuration)) work(*store);
  } catch (const std::exception& e) {
    qvl::log(qvl::LogLevel::error, std::string("Couldn't ") + what + ": " + e.what());
  }
  {
    std::lock_guard lock(state.mutex);
    --state.users;
  }
  state.idle.notify_all();
}

// withStore() in one write transaction.
template <class Change>
void writeStore(const qvl::StoreConfiguration& configuration, const char* what,
                const Change& change) {
  withStore(configuration, what, [&](qvl::Store& store) { store.write([&] { change(store); }); });
}

}  // namespace

// What is on its way, per view type. A closed view is written to the store and marked as
// sent by itself in one step under the lock, and a batch picks its rows under the same
// lock, so a view never goes out both ways nor in two batches.
struct QVLAnalyticsManager::Outbox {
  using StoredView = std::pair<std::string, std::int64_t>;  // store file, row
  struct Kind {
    std::set<StoredView> single;  // sent by itself, not answered yet
    bool batch = false;           // a batch is on its way
    // A batch asked for while single sends were on its way: it starts when they are done.
    std::optional<qvl::StoreConfiguration> wanted;
    bool idle() const { return single.empty() && !batch && !wanted; }
  };

  std::mutex mutex;
  std::condition_variable settled;
  Kind posts, beacons;
  template <class View>
  Kind& kind() {
    if constexpr (std::is_same_v<View, QVLPostView>) {
      return posts;
    } else {
      return beacons;
    }
  }

  template <class View>
  void sendOne(const std::shared_ptr<View>& view) {
    qvl::StoreConfiguration configuration = QVLRealm::configuration();
    std::int64_t row = 0;
    {
      std::lock_guard lock(mutex);
      writeStore(configuration, "keep a closed view", [&](qvl::Store& store) {
        row = qvl::storedRow(*store.addOrUpdate(std::shared_ptr<qvl::Object>(view)));
      });
      if (row != 0) kind<View>().single.emplace(configuration.path, row);
    }
    QVLApiClient::sharedClient().postObject(
        view, [this, view, row, configuration](std::optional<QVLError> error) {
          settleOne<View>(view, row, configuration, error);
        });
  }

  template <class View>
  void settleOne(const std::shared_ptr<View>& view, std::int64_t row,
                 const qvl::StoreConfiguration& configuration,
                 const std::optional<QVLError>& error) {
    qvl::count(answered(error) ? qvl::Counter::viewsSent : qvl::Counter::viewsKept);
    if (row == 0) {  // the store did not take it before: keep it now if it is unsent
      if (!answered(error)) {
        writeStore(configuration, "keep an unsent view", [&](qvl::Store& store) {
          store.addOrUpdate(std::shared_ptr<qvl::Object>(view));
        });
      }
      return;
    }
    // Removed before it is unmarked, so that no batch takes it up meanwhile.
    if (answered(error)) {
      writeStore(configuration, "remove a sent view",
                 [&](qvl::Store& store) { qvl::removeRows(store, View::modelClass(), {row}); });
    }
    std::optional<qvl::StoreConfiguration> batch;
    {
      std::lock_guard lock(mutex);
      Kind& k = kind<View>();
      k.single.erase({configuration.path, row});
      if (k.single.empty() && k.wanted && !k.batch) {
        batch = std::move(k.wanted);
        k.wanted.reset();
        k.batch = true;
      }
    }
    settled.notify_all();
    if (batch) startBatch<View>(*batch);
  }

  template <class View>
  void sendStored() {
    qvl::StoreConfiguration configuration = QVLRealm::configuration();
    {
      std::lock_guard lock(mutex);
      Kind& k = kind<View>();
      if (k.batch) return;  // one is on its way
      if (!k.single.empty()) {
        k.wanted = std::move(configuration);
        return;
      }
      k.batch = true;
    }
    startBatch<View>(configuration);
  }

  // Sends the stored views of the type not on their way by themselves; the batch flag is
  // already set.
  template <class View>
  void startBatch(const qvl::StoreConfiguration& configuration) {
    std::vector<std::shared_ptr<QVLApiModel>> views;
    std::vector<std::int64_t> rows;
    {
      std::lock_guard lock(mutex);
      const Kind& k = kind<View>();
      withStore(configuration, "read the kept views", [&](qvl::Store& store) {
        for (auto& view : store.objects<View>().snapshot()) {
          const std::int64_t row = qvl::storedRow(*view);
          if (k.single.count({configuration.path, row}) != 0) continue;
          rows.push_back(row);
          views.push_back(std::move(view));
        }
      });
    }
    if (views.empty()) return endBatch<View>();
    QVLApiClient::sharedClient().postObjects(
        views, [this, rows = std::move(rows), configuration](std::optional<QVLError> error) {
          // Answered, accepted or refused: exactly the views of the batch go. Without an
          // answer they stay for the next attempt.
          if (answered(error)) {
            qvl::count(qvl::Counter::viewsSent, rows.size());
            writeStore(configuration, "remove sent views", [&](qvl::Store& store) {
              qvl::removeRows(store, View::modelClass(), rows);
            });
          }
          endBatch<View>();
        });
  }

  template <class View>
  void endBatch() {
    {
      std::lock_guard lock(mutex);
      kind<View>().batch = false;
    }
    settled.notify_all();
  }

  bool flush(std::chrono::milliseconds deadline) {
    std::unique_lock lock(mutex);
    return settled.wait_for(lock, deadline, [this] { return posts.idle() && beacons.idle(); });
  }
};

struct QVLAnalyticsManager::Impl {
  std::mutex mutex;  // guards the two lists
  std::vector<std::shared_ptr<QVLPostView>> unfinishedPostViews;
  std::vector<std::shared_ptr<QVLBeaconView>> unfinishedBeaconViews;
  Outbox outbox;  // what is on its way
  std::unique_ptr<qvl::CenterObservation> observation;
};

QVLAnalyticsManager::QVLAnalyticsManager() : impl_(std::make_unique<Impl>()) {
  impl_->observation = std::make_unique<qvl::CenterObservation>(qvl::CenterObservation::Handlers{
      {qvl::Application::kDidBecomeActiveNotification, [this] { sendAllFinishedViews(); }},
      {qvl::Application::kWillTerminateNotification,
       [this] { flush(kTerminationFlushDeadline); }}});
}

QVLAnalyticsManager::~QVLAnalyticsManager() = default;

QVLAnalyticsManager& QVLAnalyticsManager::sharedManager() {
  static const char key = 0;
  return qvl::detail::currentContext()->service<QVLAnalyticsManager>(&key, [] {
    std::shared_ptr<QVLAnalyticsManager> manager(new QVLAnalyticsManager());
    manager->sendAllFinishedViews();  // what an earlier run left in the store
    return manager;
  });
}

std::shared_ptr<QVLGuest> QVLAnalyticsManager::currentGuest() const { return qvl::firstGuest(); }

void QVLAnalyticsManager::startPostViewOfPost(const std::shared_ptr<QVLPost>& post,
                                              const std::shared_ptr<QVLAudience>& audience) {
  auto guest = currentGuest();
  if (!post || !post->postId()) return;
  if (!guest) return withoutGuest();
  auto view = std::make_shared<QVLPostView>();
  view->setPostId(post->postId());
  view->setAudienceId(audience ? audience->audienceId() : std::nullopt);
  view->setTimeIn(qvl::now());
  view->setGuestId(guest->guestId());
  std::lock_guard lock(impl_->mutex);
  impl_->unfinishedPostViews.push_back(std::move(view));
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
    std::lock_guard lock(impl_->mutex);
    auto found = std::find_if(
        impl_->unfinishedPostViews.begin(), impl_->unfinishedPostViews.end(),
        [&](const auto& open) {
          return sameId(open->postId(), postId) &&
                 (!open->audienceId() || !audienceId || *open->audienceId() == *audienceId);
        });
    if (found == impl_->unfinishedPostViews.end()) return;
    view = *found;
    impl_->unfinishedPostViews.erase(found);
  }
  view->setTimeOut(qvl::now());
  sendOrSaveFinishedView(view);
}

bool QVLAnalyticsManager::beaconViewIsStartedLocked(std::optional<std::int64_t> beaconId) const {
  return std::any_of(impl_->unfinishedBeaconViews.begin(), impl_->unfinishedBeaconViews.end(),
                     [&](const auto& open) { return sameId(open->beaconId(), beaconId); });
}

bool QVLAnalyticsManager::beaconViewIsStarted(std::optional<std::int64_t> beaconId) const {
  std::lock_guard lock(impl_->mutex);
  return beaconViewIsStartedLocked(beaconId);
}

void QVLAnalyticsManager::startBeaconViewOfBeacon(const std::shared_ptr<QVLBeacon>& beacon) {
  if (!beacon || !beacon->beaconId()) return;
  const auto beaconId = beacon->beaconId();
  // An open view is the common case (every ranging report restarts every sighted beacon):
  // it is settled before the store is asked for the guest. It wins over the Bluetooth test.
  if (beaconViewIsStarted(beaconId)) return;
  auto guest = currentGuest();
  if (!guest) return withoutGuest();
  if (!QVLBeaconSupport::bluetoothEnabled()) return;
  auto view = std::make_shared<QVLBeaconView>();
  view->setBeaconId(beaconId);
  view->setEnterDate(qvl::now());
  view->setGuestId(guest->guestId());
  std::lock_guard lock(impl_->mutex);
  if (!beaconViewIsStartedLocked(beaconId)) impl_->unfinishedBeaconViews.push_back(std::move(view));
}

void QVLAnalyticsManager::finishBeaconViewOfBeacon(const std::shared_ptr<QVLBeacon>& beacon) {
  if (!beacon) return;
  const auto beaconId = beacon->beaconId();
  std::shared_ptr<QVLBeaconView> view;
  {
    std::lock_guard lock(impl_->mutex);
    auto found =
        std::find_if(impl_->unfinishedBeaconViews.begin(), impl_->unfinishedBeaconViews.end(),
                     [&](const auto& open) { return sameId(open->beaconId(), beaconId); });
    if (found == impl_->unfinishedBeaconViews.end()) return;
    view = *found;
    impl_->unfinishedBeaconViews.erase(found);
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
  qvl::count(qvl::Counter::viewsQueued);
  if (auto post = std::dynamic_pointer_cast<QVLPostView>(view)) {
    impl_->outbox.sendOne(post);
  } else {
    impl_->outbox.sendOne(std::static_pointer_cast<QVLBeaconView>(view));
  }
}

void QVLAnalyticsManager::sendFinishedPostViews() { impl_->outbox.sendStored<QVLPostView>(); }

void QVLAnalyticsManager::sendFinishedBeaconViews() { impl_->outbox.sendStored<QVLBeaconView>(); }

void QVLAnalyticsManager::sendAllFinishedViews() {
  sendFinishedPostViews();
  sendFinishedBeaconViews();
}

bool QVLAnalyticsManager::flush(std::chrono::milliseconds deadline) {
  return impl_->outbox.flush(deadline);
}

bool QVLAnalyticsManager::sendingPostViews() const {
  std::lock_guard lock(impl_->outbox.mutex);
  return impl_->outbox.posts.batch;
}

bool QVLAnalyticsManager::sendingBeaconViews() const {
  std::lock_guard lock(impl_->outbox.mutex);
  return impl_->outbox.beacons.batch;
}

std::vector<std::shared_ptr<QVLPostView>> QVLAnalyticsManager::unfinishedPostViews() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->unfinishedPostViews;
}

std::vector<std::shared_ptr<QVLBeaconView>> QVLAnalyticsManager::unfinishedBeaconViews() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->unfinishedBeaconViews;
}
