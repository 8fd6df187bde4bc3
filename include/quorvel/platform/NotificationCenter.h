#pragma once
/// @file
/// Broadcast notifications by name.

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "quorvel/Export.h"

namespace qvl {

/// One broadcast. The object and user information are type-erased so the system's objects
/// travel as they stand (a number, a pointer to the posting manager, a dictionary).
struct QVL_EXPORT Notification {
  std::string name;   ///< What happened; observers register for names.
  std::any object;    ///< The posting object or a value describing the event; may be empty.
  std::any userInfo;  ///< Extra details, as the notification's poster documents them.
  /// Identity of the object, matched by sender filters: the pointer when the object is a
  /// raw or shared pointer, null otherwise.
  const void* sender = nullptr;
};

class NotificationCenter;

/// Keeps one observer registered; destroying or resetting it removes the observer.
/// Move-only. A token may outlive its centre (removal then does nothing).
class QVL_EXPORT ObserverToken {
 public:
  ObserverToken();
  /// Takes over `other`'s observer; `other` becomes inactive.
  ObserverToken(ObserverToken&& other) noexcept;
  /// Removes this token's observer (as reset()) and takes over `other`'s.
  ObserverToken& operator=(ObserverToken&& other) noexcept;
  ObserverToken(const ObserverToken&) = delete;
  ObserverToken& operator=(const ObserverToken&) = delete;
  ~ObserverToken();

  /// Removes the observer now. After it returns the observer is not called again by any
  /// delivery that reaches it later, including a delivery already in progress on this
  /// thread; a call running on another thread may still finish.
  void reset();
  /// True while the token owns a registration (not reset, released or moved from).
  bool active() const;
  /// Gives up the token's ownership: the observer stays registered for the centre's life.
  void release();

 private:
  friend class NotificationCenter;
  ObserverToken(std::weak_ptr<NotificationCenter> center, std::uint64_t id);
  struct Impl;
  std::unique_ptr<Impl> impl_;  // null when inactive
};

/// Observers by name, each with an optional sender filter.
///
/// post() runs the matching observers synchronously on the posting thread, in registration
/// order, over a snapshot taken when the post begins: an observer may add or remove
/// observers (itself included) while it runs; observers added during a delivery are not
/// called by it, observers removed during it are not called after their removal. Every
/// operation is thread-safe. An observer that throws is logged and the delivery goes on.
class QVL_EXPORT NotificationCenter : public std::enable_shared_from_this<NotificationCenter> {
 public:
  /// Called on the posting thread with the notification posted.
  using Observer = std::function<void(const Notification&)>;

  /// The centre of the environment in force (Env::current().notificationCenter).
  static NotificationCenter& defaultCenter();

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  /// Registers `observer` for notifications named `name` (every name when empty) whose
  /// sender is `sender` (any sender when null). The centre must be owned by a shared_ptr.
  [[nodiscard]] ObserverToken addObserver(std::string name, const void* sender, Observer observer);

  /// Delivers `notification` to the observers of its name and sender (its `sender` field
  /// as given), as described above, before returning.
  void post(Notification notification);

  /// Posts `name` with `object` (its identity as sender when it is a pointer).
  template <class Object = std::nullptr_t>
  void post(std::string name, Object object = nullptr, std::any userInfo = {}) {
    Notification notification{std::move(name), {}, std::move(userInfo), identityOf(object)};
    if constexpr (!std::is_same_v<Object, std::nullptr_t>) notification.object = std::move(object);
    post(std::move(notification));
  }

 private:
  friend class ObserverToken;

  template <class T>
  static const void* identityOf(const T& object) {
    if constexpr (std::is_pointer_v<T>) {
      return static_cast<const void*>(object);
    } else if constexpr (requires {
                           object.get();
                           typename T::element_type;
                         }) {
      return static_cast<const void*>(object.get());
    } else {
      return nullptr;
    }
  }

  void remove(std::uint64_t id);
  bool isRegistered(std::uint64_t id) const;

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qvl
