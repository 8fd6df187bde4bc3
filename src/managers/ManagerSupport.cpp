#include "managers/ManagerSupport.h"

#include <algorithm>

#include "platform/CountersImpl.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/Application.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"
#include "quorvel/platform/NotificationCenter.h"
#include "quorvel/records/QVLRealm.h"

namespace qvl {

std::shared_ptr<QVLGuest> firstGuest() {
  auto realm = QVLRealm::realm();
  if (!realm) return nullptr;
  auto guests = realm->objects<QVLGuest>();
  return guests.empty() ? nullptr : guests.at(0);
}

std::string describe(const QVLError& error) {
  return "Error Domain=" + error.domain + " Code=" + std::to_string(error.code) +
         " UserInfo=" + (error.userInfo ? error.userInfo->dump() : std::string("{}"));
}

void logOperationFailure(const char* operation, const std::string& what) noexcept {
  try {
    log(LogLevel::error, std::string(operation) + " failed: " + what);
  } catch (...) {  // no memory for the line
  }
}

void syncInBackgroundTask(const std::string& taskName, const std::string& expiredLine,
                          const std::string& failurePrefix, const AnyList& relations,
                          const std::shared_ptr<QVLGuest>& guest,
                          const std::optional<std::string>& relationship,
                          std::atomic<bool>& changesFlag) {
  // The task belongs to this environment's application, wherever the answer comes.
  std::shared_ptr<Application> application = Env::current()->application;
  const auto task = application->beginBackgroundTask(
      taskName, [expiredLine] { log(LogLevel::warning, expiredLine); });
  try {
    QVLApiClient::sharedClient().syncRelations(
        relations, guest, relationship,
        [application, task, failurePrefix, &changesFlag](std::optional<QVLError> error) {
          if (error) {
            log(LogLevel::error, failurePrefix + describe(*error));
          } else {
            changesFlag = false;
          }
          application->endBackgroundTask(task);
        });
  } catch (...) {  // nothing went out: the task must not wait for its expiry
    application->endBackgroundTask(task);
    throw;
  }
}

CenterObservation::CenterObservation(const Handlers& handlers) {
  NotificationCenter& center = *Env::current()->notificationCenter;
  for (const auto& [name, handler] : handlers) {
    tokens_.push_back(
        center.addObserver(name, nullptr, [handler = handler](const Notification&) { handler(); }));
  }
}

}  // namespace qvl
