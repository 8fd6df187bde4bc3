#include "quorvel/managers/QVLSubscriptionManager.h"

#include "managers/ManagerSupport.h"
#include "quorvel/platform/Application.h"

struct QVLSubscriptionManager::Impl {
  std::atomic<bool> changesMadeSinceLastSync{false};
  std::unique_ptr<qvl::CenterObservation> observation;
};

QVLSubscriptionManager::QVLSubscriptionManager() : impl_(std::make_unique<Impl>()) {
  impl_->observation = std::make_unique<qvl::CenterObservation>(qvl::CenterObservation::Handlers{
      {qvl::Application::kDidEnterBackgroundNotification, [this] { checkIfSyncShouldBeDone(); }}});
}

QVLSubscriptionManager::~QVLSubscriptionManager() = default;

bool QVLSubscriptionManager::changesMadeSinceLastSync() const {
  return impl_->changesMadeSinceLastSync.load();
}

QVLSubscriptionManager& QVLSubscriptionManager::sharedManager() {
  static const char key = 0;
  return qvl::detail::currentContext()->service<QVLSubscriptionManager>(
      &key, [] { return std::shared_ptr<QVLSubscriptionManager>(new QVLSubscriptionManager()); });
}

std::shared_ptr<QVLGuest> QVLSubscriptionManager::currentGuest() const {
  return qvl::withoutThrowing("QVLSubscriptionManager::currentGuest", std::shared_ptr<QVLGuest>(),
                              qvl::firstGuest);
}

bool QVLSubscriptionManager::isShopSubscribedTo(const std::shared_ptr<QVLShop>& shop) const {
  return qvl::withoutThrowing("QVLSubscriptionManager::isShopSubscribedTo", false, [&] {
    if (!shop) return false;
    auto guest = currentGuest();
    // Without a guest there is no list, and the search answers "at 0" rather than "absent".
    return !guest || guest->shops().indexOf(*shop).has_value();
  });
}

void QVLSubscriptionManager::subscribeToShop(const std::shared_ptr<QVLShop>& shop) {
  qvl::withoutThrowing("QVLSubscriptionManager::subscribeToShop", [&] {
    auto guest = currentGuest();
    if (!shop || !guest || isShopSubscribedTo(shop)) return;
    guest->store()->write([&] { guest->shops().append(shop); });
    impl_->changesMadeSinceLastSync = true;
  });
}

void QVLSubscriptionManager::unsubscribeFromShop(const std::shared_ptr<QVLShop>& shop) {
  qvl::withoutThrowing("QVLSubscriptionManager::unsubscribeFromShop", [&] {
    auto guest = currentGuest();
    if (!shop || !guest) return;
    auto shops = guest->shops();
    auto index = shops.indexOf(*shop);
    if (!index) return;
    guest->store()->write([&] { shops.remove(*index); });
    impl_->changesMadeSinceLastSync = true;
  });
}

void QVLSubscriptionManager::toggleSubscriptionForShop(const std::shared_ptr<QVLShop>& shop) {
  if (isShopSubscribedTo(shop)) {
    unsubscribeFromShop(shop);
  } else {
    subscribeToShop(shop);
  }
}

void QVLSubscriptionManager::checkIfSyncShouldBeDone() {
  if (impl_->changesMadeSinceLastSync) syncSubscriptions();
}

void QVLSubscriptionManager::syncSubscriptions() {
  qvl::withoutThrowing("QVLSubscriptionManager::syncSubscriptions", [&] {
    auto guest = currentGuest();
    if (!guest) return;
    qvl::syncInBackgroundTask(kSyncTaskName, "Syncing subscriptions task expired",
                              "Something went wrong when syncing relations: ", guest->shops().any(),
                              guest, "subscriptions", impl_->changesMadeSinceLastSync);
  });
}
