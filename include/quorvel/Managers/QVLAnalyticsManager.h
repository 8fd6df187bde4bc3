#pragma once
/// @file
/// Times how long the guest looks at posts and stays near beacons, and reports those views.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/Models/QVLApiModel.h"
#include "quorvel/Models/QVLAudience.h"
#include "quorvel/Models/QVLBeacon.h"
#include "quorvel/Models/QVLBeaconView.h"
#include "quorvel/Models/QVLGuest.h"
#include "quorvel/Models/QVLPost.h"
#include "quorvel/Models/QVLPostView.h"

namespace qvl {
class CenterObservation;
}

/// The process's view analytics.
///
/// A view is open in memory (lost if the process ends first), then closed, validated and
/// sent at once with QVLApiClient::postObject(). A view the service refused
/// ("QVLApiClientErrorDomain") is discarded; a view for which no answer came is kept in the
/// store and goes out, with every other kept view of its type, in one batch
/// (postObjects()) when the manager is created and whenever the application becomes
/// active. A batch leaves the store once answered, refused or not; without an answer it
/// stays for the next attempt. Nothing is reported to the caller and nothing is logged
/// (but a kept view the store could not take).
///
/// Threads: every operation may be called from any thread and returns at once; times come
/// from the environment's clock. The open views and the batch flags are guarded, so calls
/// from several threads, and the client's completions, never race. Records passed in are
/// only read on the calling thread.
///
/// Creation and environment: created on first use, never destroyed. It observes
/// "UIApplicationDidBecomeActiveNotification" on the environment's notification centre; a
/// use that finds another centre in force observes that one too and sends the kept views,
/// as a creation does.
class QVL_EXPORT QVLAnalyticsManager {
 public:
  /// The one manager, created on first use (sending the kept views); see above.
  static QVLAnalyticsManager& sharedManager();

  /// Opens a post view (the audience may be null). Needs a guest in the store and a post
  /// with a postId. Several open views of one post are allowed.
  void startPostViewOfPost(const std::shared_ptr<QVLPost>& post,
                           const std::shared_ptr<QVLAudience>& audience = nullptr);
  /// Closes and sends the earliest open view of the post; audience ids are compared only
  /// when both the view and the call have one.
  void finishPostViewOfPost(const std::shared_ptr<QVLPost>& post,
                            const std::shared_ptr<QVLAudience>& audience = nullptr);
  /// Opens a beacon view, unless one is open for the beacon or Bluetooth is off. Needs a
  /// guest and a beaconId.
  void startBeaconViewOfBeacon(const std::shared_ptr<QVLBeacon>& beacon);
  /// Closes and sends the open view of the beacon (by beaconId), if any.
  void finishBeaconViewOfBeacon(const std::shared_ptr<QVLBeacon>& beacon);
  /// Whether a beacon view is open for the beacon id (nullopt matches a view without one).
  bool beaconViewIsStarted(std::optional<std::int64_t> beaconId) const;
  /// Closes and sends every open beacon view.
  void finishAllUnfinishedBeaconViews();

  /// Sends one closed view; keeps it in the store when no answer comes. An invalid view is
  /// dropped.
  void sendOrSaveFinishedView(const std::shared_ptr<QVLApiModel>& view);
  ///@{
  /// Sends every kept view of the type in one batch, unless a batch of that type is on its
  /// way or none is kept. sendAllFinishedViews() does both types.
  void sendFinishedPostViews();
  void sendFinishedBeaconViews();
  void sendAllFinishedViews();
  ///@}
  /// A post view with postId, timeIn and timeOut, or a beacon view with beaconId,
  /// enterDate and exitDate (no check of durations); anything else is invalid.
  static bool validateView(const std::shared_ptr<QVLApiModel>& view);

  /// The first guest in the calling thread's store, or null.
  std::shared_ptr<QVLGuest> currentGuest() const;

  ///@{
  /// Copies of the open views, in opening order.
  std::vector<std::shared_ptr<QVLPostView>> unfinishedPostViews() const;
  std::vector<std::shared_ptr<QVLBeaconView>> unfinishedBeaconViews() const;
  ///@}
  ///@{
  /// True while a batch of the type is on its way.
  bool sendingPostViews() const { return sendingPostViews_.load(); }
  bool sendingBeaconViews() const { return sendingBeaconViews_.load(); }
  ///@}

 private:
  QVLAnalyticsManager();
  ~QVLAnalyticsManager();
  bool beaconViewIsStartedLocked(std::optional<std::int64_t> beaconId) const;

  mutable std::mutex mutex_;  // guards the two lists
  std::vector<std::shared_ptr<QVLPostView>> unfinishedPostViews_;
  std::vector<std::shared_ptr<QVLBeaconView>> unfinishedBeaconViews_;
  std::atomic<bool> sendingPostViews_{false};
  std::atomic<bool> sendingBeaconViews_{false};
  std::unique_ptr<qvl::CenterObservation> observation_;
};
