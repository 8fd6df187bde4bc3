#pragma once
/// @file
/// The object store: one SQLite file, a handle per thread, serialised write transactions.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/store/Object.h"
#include "quorvel/store/Results.h"

namespace qvl {

namespace detail {
struct StoreImpl;
}

/// Opening failed (file unusable, schema version going backwards, a migration that
/// threw) or the engine reported an error. what() reads "store <file>: <what failed>", followed
/// for an engine failure by SQLite's cause, code and message.
class QVL_EXPORT StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Given to the migration callback while an older file is brought up to date.
class QVL_EXPORT Migration {
 public:
  /// The schema version the file had before this upgrade.
  std::uint64_t oldSchemaVersion() const;
  /// Whether the file being upgraded has the property (a column or a list).
  bool hasProperty(const std::string& className, const std::string& name) const;
  /// Renames a stored property, keeping its values. Throws StoreError when the class or
  /// the old property is not in the file, or the new name is already taken.
  void renameProperty(const std::string& className, const std::string& oldName,
                      const std::string& newName);

 private:
  friend class StoreAccess;
  struct Impl;
  explicit Migration(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;

 public:
  ~Migration();
  Migration(const Migration&) = delete;
  Migration& operator=(const Migration&) = delete;
};

/// What Store::open() needs to open or create a file; the path identifies the cached handle.
struct QVL_EXPORT StoreConfiguration {
  /// The file; its directory must exist, belong to the calling user and not be writable by
  /// group or others. A new file is created with mode 0600.
  std::string path;
  /// Kept in the file; opening a file of a higher version fails.
  std::uint64_t schemaVersion = 0;
  /// Runs once, inside the upgrade transaction, when an existing file of a lower version
  /// is opened; after it, missing tables and columns are added automatically. Columns
  /// the schema no longer declares stay in the file, unused.
  std::function<void(Migration&, std::uint64_t oldSchemaVersion)> migration;
  /// Every class the file holds. Classes are matched by name.
  std::vector<ObjectClassRef> classes;
};

/// A handle on one store file for the calling thread.
///
/// Threads: a handle and the records it returns belong to the thread that opened it;
/// using them from another thread throws std::logic_error. Write transactions of all
/// handles (threads and processes) on one file are serialised: beginWrite() waits for
/// the file's other writer (up to a minute, then StoreError).
///
/// Errors: engine failures throw StoreError; misuse (a change outside a write
/// transaction, a record of another handle or of a class the file lacks) throws
/// std::logic_error.
class QVL_EXPORT Store : public std::enable_shared_from_this<Store> {
 public:
  /// The calling thread's handle for configuration.path, opened (and the file created or
  /// upgraded) on first use and cached for the thread. Throws StoreError, naming the file or
  /// folder and the reason, leaving the file unchanged, when the folder is refused, the path is
  /// a symbolic link, or the file is unreadable: corrupt, not a store file (triggers, views or
  /// tables the store never creates, another program's application id) or of a newer schema
  /// version. With Env::moveUnreadableStoreAside, an unreadable file is moved aside instead
  /// (logged as a warning) and a new empty file opened.
  static std::shared_ptr<Store> open(const StoreConfiguration& configuration);
  /// Drops the calling thread's cached handles (records holding one keep it alive).
  static void closeThreadHandles();

  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// The file this handle is open on.
  const std::string& path() const;
  /// The schema version the file was opened (or upgraded) at.
  std::uint64_t schemaVersion() const;

  /// @name Write transactions
  ///@{

  /// Prefer write() or WriteTransaction, which roll back on exceptions. beginWrite() throws
  /// std::logic_error when this handle already has one open (they do not nest) and waits
  /// for other writers as described above; commitWrite() throws std::logic_error without
  /// one, and StoreError when the engine refuses (the transaction then stays open).
  /// cancelWrite() rolls back and never throws: without an open transaction, or on another
  /// thread, it does nothing. Records changed during a cancelled transaction keep the
  /// changed values in memory until refresh().
  void beginWrite();
  void commitWrite();
  void cancelWrite();
  bool isInWriteTransaction() const;
  ///@}
  /// Runs block inside a write transaction; commits when it returns, rolls back and
  /// rethrows when it throws.
  template <class F>
  void write(F&& block) {
    beginWrite();
    try {
      block();
    } catch (...) {
      cancelWrite();
      throw;
    }
    commitWrite();
  }

  /// Inserts the record, or updates the stored record with the same primary key
  /// (replacing every property), together with every unmanaged record reachable through
  /// its links and lists (matched by their own keys; records without a key are inserted).
  /// Returns the managed record; the argument stays unmanaged. Needs a write transaction.
  std::shared_ptr<Object> addOrUpdate(const std::shared_ptr<Object>& object);
  /// addOrUpdate() returning the record as its own type.
  template <class T>
  std::shared_ptr<T> addOrUpdate(const std::shared_ptr<T>& object) {
    return std::static_pointer_cast<T>(addOrUpdate(std::shared_ptr<Object>(object)));
  }
  /// addOrUpdate for each record (all of one class, else std::invalid_argument), in order.
  /// Returns the records written (those of the list, with or without a key, not the ones
  /// they reach) as live results in store order.
  AnyResults addOrUpdateAll(const std::vector<std::shared_ptr<Object>>& objects);
  /// Deletes a managed record of this handle: removes it from every list and clears every
  /// link to it. Needs a write transaction.
  void remove(const std::shared_ptr<Object>& object);
  /// Deletes the records of a class whose primary key is among keys, in one statement
  /// per list and link that can point at them. Needs a write transaction.
  void removeWithPrimaryKeys(const ObjectClass& objectClass, const std::vector<std::int64_t>& keys);

  /// Deletes every record of a class whose primary key is null or not among keys: what
  /// a complete answer for the class did not list. Needs a write transaction.
  void removeAllExceptPrimaryKeys(const ObjectClass& objectClass,
                                  const std::vector<std::int64_t>& keys);

  /// Whether the file's schema holds the class.
  bool hasClass(const ObjectClass& objectClass) const;
  /// The records of a class matching `predicate` (all by default), as live results in store
  /// order. Throws std::invalid_argument for a key that is not a scalar property.
  AnyResults objects(const ObjectClass& objectClass, const Predicate& predicate = {});
  /// The record whose primary key equals key (a null key finds a record stored without
  /// one), or nullptr. Throws std::logic_error for a class without a primary key.
  std::shared_ptr<Object> object(const ObjectClass& objectClass, std::optional<std::int64_t> key);

  /// objects() for the record type T (its modelClass()).
  template <class T>
  Results<T> objects(const Predicate& predicate = {}) {
    return Results<T>(objects(T::modelClass(), predicate));
  }
  /// object() for the record type T (its modelClass()).
  template <class T>
  std::shared_ptr<T> object(std::optional<std::int64_t> key) {
    return std::static_pointer_cast<T>(object(T::modelClass(), key));
  }

  /// Increases with every change seen by this handle (its own or a commit elsewhere).
  std::uint64_t version();

 private:
  friend class Object;
  friend class AnyResults;
  friend class AnyList;
  friend class StoreAccess;

  Store(std::string path, std::uint64_t schemaVersion);
  void checkThread() const;
  void checkWrite() const;

  std::unique_ptr<detail::StoreImpl> impl_;
};

/// RAII write transaction: commit() or roll back on destruction.
class QVL_EXPORT WriteTransaction {
 public:
  /// Begins a write transaction on `store` (see Store::beginWrite()), which must outlive
  /// this object.
  explicit WriteTransaction(Store& store);
  ~WriteTransaction();
  WriteTransaction(const WriteTransaction&) = delete;
  WriteTransaction& operator=(const WriteTransaction&) = delete;
  /// Commits; when that throws, the destructor still rolls back.
  void commit();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qvl
