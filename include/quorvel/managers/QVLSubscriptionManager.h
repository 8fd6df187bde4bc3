#pragma once
/// @file
/// The shops the guest follows.

#include <atomic>
#include <memory>

#include "quorvel/Export.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLShop.h"

namespace qvl {
class CenterObservation;
}

/// The process's subscription manager. The subscriptions are the current guest's `shops`
/// list (the first guest in the store). A subscribe or unsubscribe that changes the list
/// writes it in one transaction and sets changesMadeSinceLastSync(); no notification is
/// posted. When the application enters the background and the flag is set, the whole list
/// goes to the service ("subscriptions") in a background task "SyncSubscriptions"; a
/// successful answer clears the flag, a failure logs "Something went wrong when syncing
/// relations: <error>" and leaves it set. The flag is not kept across runs.
///
/// Threads: calls run on the calling thread against its store handle; shops passed in must
/// be records of that handle.
///
/// Errors: no operation throws. A store that fails, or a record of another thread's handle,
/// logs "<operation> failed: <reason>" as an error; the call then changes nothing and a
/// query answers false (no guest: null). The sync's answer touches only the flag (atomic) and the
/// background task.
///
/// Creation and environment: as QVLInboxManager.
class QVL_EXPORT QVLSubscriptionManager {
 public:
  /// The name of the sync's background task.
  static constexpr const char* kSyncTaskName = "SyncSubscriptions";

  /// The manager of the context in force on the calling thread (the standard context's
  /// outside any), made on first use; see above.
  static QVLSubscriptionManager& sharedManager();

  /// Whether this stored shop record is in the guest's list. False for no shop; true for
  /// every shop while there is no guest (the changes check for a guest themselves).
  bool isShopSubscribedTo(const std::shared_ptr<QVLShop>& shop) const;
  /// Appends the shop to the guest's list unless it is there; nothing happens without a
  /// shop or a guest.
  void subscribeToShop(const std::shared_ptr<QVLShop>& shop);
  /// Removes the link; the shop record stays.
  void unsubscribeFromShop(const std::shared_ptr<QVLShop>& shop);
  /// Unsubscribes when isShopSubscribedTo(), else subscribes.
  void toggleSubscriptionForShop(const std::shared_ptr<QVLShop>& shop);
  /// syncSubscriptions() when the list changed since the last successful sync.
  void checkIfSyncShouldBeDone();
  /// Sends the list whether it changed or not (needs a guest).
  void syncSubscriptions();

  /// The first guest in the calling thread's store, or null.
  std::shared_ptr<QVLGuest> currentGuest() const;
  /// True when the list changed since the last successful sync (see above).
  bool changesMadeSinceLastSync() const;

  /// Made and destroyed by its context (qvl::Context).
  ~QVLSubscriptionManager();

 private:
  QVLSubscriptionManager();

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};
