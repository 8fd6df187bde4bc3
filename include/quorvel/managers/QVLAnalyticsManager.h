#pragma once
/// @file
/// Times how long the guest looks at posts and stays near beacons, and reports those views.

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLAudience.h"
#include "quorvel/records/QVLBeacon.h"
#include "quorvel/records/QVLBeaconView.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/records/QVLPostView.h"

namespace qvl {
class CenterObservation;
}

/// The process's view analytics.
///
/// A view is open in memory (lost if the process ends first), then closed, validated,
/// written to the store and sent at once with QVLApiClient::postObject(). Once the service
/// answered, accepted or refused ("QVLApiClientErrorDomain"), exactly that stored view is
/// removed; a view for which no answer came stays in the store and goes out, with every
/// other kept view of its type, in one batch (postObjects()) when the manager is created
/// and whenever the application becomes active. So a closed view survives the process
/// ending at any moment, and is sent again only if the process ended while it was on its
/// way. A batch leaves out the views on their way one by one (when such sends are on their
/// way it waits for them, so that those that fail go with it) and leaves the store once
/// answered, refused or not; without an answer it stays for the next attempt. Nothing is
/// reported to the caller; store failures are logged as errors, and a view not opened for
/// lack of a guest gives one warning per process (each such view is counted in
/// Counters::viewsWithoutGuest).
///
/// Threads: every operation may be called from any thread and returns at once; times come
/// from the environment's clock. The open views and the batch flags are guarded, so calls
/// from several threads, and the client's completions, never race. Records passed in are
/// only read on the calling thread.
///
/// Creation and environment: one per context (qvl::Context), made on first use, when it
/// sends the views an earlier run kept, and destroyed with the context. It observes
/// "UIApplicationDidBecomeActiveNotification" (sends the kept views) and
/// "UIApplicationWillTerminateNotification" (flush(kTerminationFlushDeadline)) on its
/// context's notification centre while it lives.
class QVL_EXPORT QVLAnalyticsManager {
 public:
  /// How long the application's termination waits for views on their way.
  static constexpr std::chrono::milliseconds kTerminationFlushDeadline{2000};

  /// The manager of the context in force on the calling thread (the standard context's
  /// outside any), made on first use (sending the kept views); see above.
  static QVLAnalyticsManager& sharedManager();

  /// For a process about to exit: blocks the calling thread until no view is on its way
  /// (single sends and batches, including a batch waiting for single sends) or `deadline`
  /// (real time) has passed. True when everything on its way was settled. Either way every
  /// closed view the service has not confirmed is in the store and goes out at the next
  /// start. Sends nothing itself. Must not be called from a client completion.
  bool flush(std::chrono::milliseconds deadline);

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

  /// Writes one closed view to the store and sends it; it stays stored when no answer
  /// comes. An invalid view is dropped.
  void sendOrSaveFinishedView(const std::shared_ptr<QVLApiModel>& view);
  ///@{
  /// Sends every kept view of the type in one batch, unless a batch of that type is on its
  /// way or none is kept. While single views of the type are on their way, the batch
  /// starts once they are all answered. sendAllFinishedViews() does both types.
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
  bool sendingPostViews() const;
  bool sendingBeaconViews() const;
  ///@}

  /// Made and destroyed by its context (qvl::Context).
  ~QVLAnalyticsManager();

 private:
  struct Outbox;
  QVLAnalyticsManager();
  bool beaconViewIsStartedLocked(std::optional<std::int64_t> beaconId) const;

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};
