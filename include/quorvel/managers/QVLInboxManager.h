#pragma once
/// @file
/// The guest's inbox: collected posts with read and saved flags, and the icon badge.

#include <atomic>
#include <cstddef>
#include <memory>

#include "quorvel/Export.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/store/Results.h"

namespace qvl {
class CenterObservation;
}

/// The process's inbox manager. The inbox is the current guest's `posts` list (the first
/// guest in the store; without one the queries are empty and the changes, but the two
/// mark operations, do nothing).
///
/// Every change that acts runs in its own write transaction and then: updates the badge,
/// posts "QVLInboxManagerDidUpdateInbox" (no object, no user information) and sets
/// changesMadeSinceLastSync(). When the application enters the background and that flag
/// is set, the whole list with each post's flags goes to the service in a background task
/// "SyncInbox"; a successful answer clears the flag, a failure logs "Something went wrong
/// when syncing posts (inbox): <error>" and leaves it set for the next time. The flag is not
/// kept across runs. A host that is about to exit calls Application::didEnterBackground(),
/// willTerminate() and then waitForBackgroundTasks() so that a last change still goes out.
///
/// Badge: with "QuorvelSDK" → "AutoUpdateAppIconBadge" true in the bundle information (read
/// on every change), the application's icon badge is set, on the main queue, to the
/// number of unread active posts counted there; otherwise it is left alone. It is also
/// refreshed whenever the application becomes active.
///
/// Threads: queries and changes run on the calling thread against its store handle, and
/// records passed in must belong to that thread (or be unmanaged).
///
/// Errors: no operation throws. A store that fails, or a record of another thread's handle,
/// logs "<operation> failed: <reason>" as an error; the change then does not happen and a
/// query answers empty, 0 or false. The sync's answer comes
/// on the client's queue and touches only the flag (atomic) and the background task.
///
/// Creation and environment: one per context (qvl::Context), made on first use and destroyed
/// with the context; it observes its context's notification centre while it lives.
class QVL_EXPORT QVLInboxManager {
 public:
  /// Posted after every change, as described above.
  static constexpr const char* kDidUpdateInboxNotification = "QVLInboxManagerDidUpdateInbox";
  /// The name of the sync's background task.
  static constexpr const char* kSyncTaskName = "SyncInbox";

  /// The manager of the context in force on the calling thread (the standard context's
  /// outside any), made on first use; see above.
  static QVLInboxManager& sharedManager();

  /// The guest's posts that have a postId, in inbox order (live results; empty without a
  /// guest).
  qvl::Results<QVLPost> allPosts() const;
  /// The posts of allPosts() active at the moment of the call (a post without periods is
  /// active).
  qvl::Results<QVLPost> activePosts() const;
  ///@{
  /// The saved posts among allPosts(), and among activePosts().
  qvl::Results<QVLPost> savedPosts() const;
  qvl::Results<QVLPost> activeSavedPosts() const;
  ///@}
  /// Unread posts among activePosts().
  std::size_t numberOfUnreadPosts() const;
  ///@{
  /// Membership by postId, in allPosts() and in savedPosts(); false for a post without one.
  bool isPostAdded(const QVLPost& post) const;
  bool isPostSaved(const QVLPost& post) const;
  ///@}

  /// Appends the post unless its postId is in the inbox, and marks it unread.
  void addPost(const std::shared_ptr<QVLPost>& post);
  /// Removes the post's entry (the record stays in the store).
  void removePost(const std::shared_ptr<QVLPost>& post);
  /// Empties the inbox (the records stay in the store); nothing happens without a guest.
  void removeAllPosts();
  /// Removes every post inactive now; a change even when none was.
  void removeAllInactivePosts();
  ///@{
  /// Set the flag when it differs; need neither a guest nor the post in the inbox.
  void markPostAsRead(const std::shared_ptr<QVLPost>& post, bool read);
  void markPostAsSaved(const std::shared_ptr<QVLPost>& post, bool saved);
  ///@}

  /// The tail of every change: badge, notification, flag.
  void changesMade();
  /// Sends the inbox when it changed since the last successful sync (and a guest exists).
  void syncInbox();
  /// Sets the icon badge to numberOfUnreadPosts() on the main queue, when enabled.
  void updateApplicationIconBadgeNumber();

  /// The first guest in the calling thread's store, or null.
  std::shared_ptr<QVLGuest> currentGuest() const;
  /// True when the inbox changed since the last successful sync (see above).
  bool changesMadeSinceLastSync() const;

  /// Made and destroyed by its context (qvl::Context).
  ~QVLInboxManager();

 private:
  QVLInboxManager();

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};
