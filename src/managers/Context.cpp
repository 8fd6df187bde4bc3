#include "quorvel/managers/Context.h"

#include "platform/ContextCore.h"
#include "quorvel/managers/QVLAnalyticsManager.h"
#include "quorvel/managers/QVLBeaconManager.h"
#include "quorvel/managers/QVLInboxManager.h"
#include "quorvel/managers/QVLSubscriptionManager.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/UserDefaults.h"
#include "quorvel/records/QVLRealm.h"

namespace qvl {

Context::Context(Env env) : core_(detail::makeContext(std::move(env))) {}

Context::Context(const std::function<void(Env&)>& change) {
  Env env = *Env::current();
  change(env);
  core_ = detail::makeContext(std::move(env));
}

Context::~Context() = default;

std::shared_ptr<const Env> Context::env() const { return core_->env(); }

QVLApiClient& Context::apiClient() {
  return run([]() -> QVLApiClient& { return QVLApiClient::sharedClient(); });
}
QVLAnalyticsManager& Context::analyticsManager() {
  return run([]() -> QVLAnalyticsManager& { return QVLAnalyticsManager::sharedManager(); });
}
QVLBeaconManager& Context::beaconManager() {
  return run([]() -> QVLBeaconManager& { return QVLBeaconManager::sharedManager(); });
}
QVLInboxManager& Context::inboxManager() {
  return run([]() -> QVLInboxManager& { return QVLInboxManager::sharedManager(); });
}
QVLSubscriptionManager& Context::subscriptionManager() {
  return run([]() -> QVLSubscriptionManager& { return QVLSubscriptionManager::sharedManager(); });
}
UserDefaults& Context::userDefaults() {
  return run([]() -> UserDefaults& { return UserDefaults::standard(); });
}
std::shared_ptr<Store> Context::realm() {
  return run([] { return QVLRealm::realm(); });
}

Context::Scope::Scope(const Context& context)
    : previous_(detail::exchangeBoundContext(context.core_)) {}

Context::Scope::~Scope() { detail::exchangeBoundContext(std::move(previous_)); }

}  // namespace qvl
