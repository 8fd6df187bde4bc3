#include "quorvel/store/Store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <thread>

#include "platform/CountersImpl.h"
#include "platform/PrivateFiles.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"
#include "store/ResultsImpl.h"
#include "store/StoreImpl.h"

namespace qvl {

// ---- Store ---------------------------------------------------------------------------

namespace {
thread_local std::unordered_map<std::string, std::shared_ptr<Store>> threadHandles;

// Serialises the opening of the store files of one folder across processes and threads:
// switching a new file to WAL needs it to itself, and SQLite answers a second switcher with
// "database is locked" at once, without waiting. The lock is the folder's (flock), not the
// file's, because closing a descriptor of the file would drop SQLite's own locks on it. A
// holder only opens, switches and creates the schema, or moves an unreadable file aside; one
// that dies lets go with its process.
class FolderOpenLock {
 public:
  FolderOpenLock(const std::string& file, const std::filesystem::path& folder,
                 std::chrono::milliseconds patience)
      : file_(file), fd_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {
    if (fd_ < 0) fail("cannot open the folder " + folder.string() + ": " + std::strerror(errno));
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK && errno != EINTR) {
        fail("cannot lock the folder " + folder.string() + ": " + std::strerror(errno));
      }
      if (std::chrono::steady_clock::now() > deadline) {
        fail("the folder " + folder.string() + " stayed locked by another opener for " +
             std::to_string(patience.count() / 1000) + " s");
      }
      count(Counter::storeOpenRetries);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  ~FolderOpenLock() {
    if (fd_ >= 0) ::close(fd_);  // releases the lock
  }
  FolderOpenLock(const FolderOpenLock&) = delete;
  FolderOpenLock& operator=(const FolderOpenLock&) = delete;

 private:
  [[noreturn]] void fail(const std::string& reason) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    throw StoreError(storeErrorText(file_, reason));
  }
  const std::string& file_;
  int fd_;
};

// Renames without replacing anything at `to` (an earlier aside file, a planted link). Returns
// 0 or the errno.
int renameNoReplace(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL) return errno;
  // File systems without RENAME_NOREPLACE: link() does not replace either.
  if (::link(from.c_str(), to.c_str()) != 0) return errno;
  return ::unlink(from.c_str()) == 0 ? 0 : errno;
}

bool nameIsFree(const std::string& name) {
  struct stat info {};
  return ::lstat(name.c_str(), &info) != 0 && errno == ENOENT;
}

// Moves an unreadable store file aside as "<file>.corrupt-<UTC time>" (then "-2", "-3", ...
// when taken), its -wal and -shm along with it so that the next file is not given the old
// one's log. Returns the new name.
std::string moveAside(const std::string& file) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(
      std::chrono::time_point_cast<std::chrono::system_clock::duration>(now()));
  std::tm utc{};
  char stamp[32] = "";
  if (::gmtime_r(&seconds, &utc)) std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
  const std::string base = file + ".corrupt-" + stamp;
  constexpr int kNames = 100;
  for (int n = 1; n <= kNames; ++n) {
    const std::string aside = n == 1 ? base : base + "-" + std::to_string(n);
    if (!nameIsFree(aside) || !nameIsFree(aside + "-wal") || !nameIsFree(aside + "-shm")) continue;
    if (int error = renameNoReplace(file, aside); error == EEXIST) {
      continue;
    } else if (error != 0) {
      throw StoreError(
          storeErrorText(file, "cannot move it aside to " + aside + ": " + std::strerror(error)));
    }
    for (const char* companion : {"-wal", "-shm"}) {
      if (int error = renameNoReplace(file + companion, aside + companion);
          error != 0 && error != ENOENT) {
        throw StoreError(storeErrorText(file, "cannot move its " + std::string(companion + 1) +
                                                  " file aside to " + aside + companion + ": " +
                                                  std::strerror(error)));
      }
      // Best effort: the files stay inside the store's private folder either way.
      (void)detail::restrictToOwner(aside + companion);
    }
    (void)detail::restrictToOwner(aside);
    return aside;
  }
  throw StoreError(
      storeErrorText(file, "cannot move it aside: " + base + " and its next names are taken"));
}

constexpr std::chrono::milliseconds kBusyTimeout{60000};
}  // namespace

Store::Store(std::string path, std::uint64_t schemaVersion)
    : impl_(std::make_unique<detail::StoreImpl>(std::move(path), schemaVersion)) {}

Store::~Store() = default;

const std::string& Store::path() const { return impl_->path; }
std::uint64_t Store::schemaVersion() const { return impl_->schemaVersion; }
bool Store::isInWriteTransaction() const { return impl_->inWrite; }

void Store::closeThreadHandles() { threadHandles.clear(); }

std::shared_ptr<Store> Store::open(const StoreConfiguration& configuration) {
  std::vector<const ObjectClass*> classList;
  for (auto ref : configuration.classes) classList.push_back(&ref());
  auto cached = threadHandles.find(configuration.path);
  if (cached != threadHandles.end()) {
    const Store& s = *cached->second;
    if (s.impl_->schemaVersion == configuration.schemaVersion && s.impl_->classList == classList) {
      return cached->second;
    }
    threadHandles.erase(cached);
  }

  // Someone who can change the folder could swap the file under us: refuse before touching
  // anything. SQLite gives the -wal and -shm files the mode of the file.
  const std::filesystem::path file(configuration.path);
  const std::filesystem::path folder = file.has_parent_path() ? file.parent_path() : ".";
  detail::Status usable = detail::checkPrivateDirectory(folder);
  if (!usable) throw StoreError(storeErrorText(configuration.path, usable.error));
  // Held while a file is moved aside too, so that no other opener sees it half moved.
  const FolderOpenLock openLock(configuration.path, folder, kBusyTimeout);
  auto openFile = [&] {
    std::shared_ptr<Store> store(new Store(configuration.path, configuration.schemaVersion));
    detail::StoreImpl& impl = *store->impl_;
    impl.classList = classList;
    if (auto made = detail::makePrivateFile(file); !made) {
      throw StoreError(storeErrorText(configuration.path, made.error));
    }
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(configuration.path.c_str(), &db,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW,
                             nullptr);
    impl.db.reset(db);  // owned even when the open failed
    if (!db) throw StoreError(storeErrorText(configuration.path, "cannot open: out of memory"));
    if (rc != SQLITE_OK) throwStoreError(db, "cannot open", configuration.path);
    count(Counter::storeOpens);
    sqlite3_busy_timeout(db, static_cast<int>(kBusyTimeout.count()));
    refuseForeignSchema(db, configuration.path);
    for (const char* suffix : {"", "-wal", "-shm"}) {
      if (auto restricted = detail::restrictToOwner(configuration.path + suffix); !restricted)
        throw StoreError(storeErrorText(configuration.path, restricted.error));
    }
    impl.exec("PRAGMA journal_mode=WAL");
    impl.exec("PRAGMA synchronous=NORMAL");

    std::vector<const ClassInfo*> infos;
    for (const ObjectClass* cls : classList) {
      const ClassInfo& info = ClassInfo::of(*cls);
      if (!impl.classesByName.emplace(cls->name(), &info).second) {
        throw StoreError(
            storeErrorText(configuration.path, "class " + cls->name() + " configured twice"));
      }
      impl.classes.emplace(cls, &info);
      infos.push_back(&info);
    }
    for (const ClassInfo* info : infos) {
      const ObjectClass& cls = *info->objectClass;
      for (const auto& list : info->lists)
        impl.incoming[list.target->name()].lists.push_back(&list);
      for (int index : info->columns) {
        const Property& p = cls.property(index);
        if (p.kind == PropertyKind::Link)
          impl.incoming[p.target().name()].links.push_back({info, index});
      }
    }
    upgradeFile(db, configuration, infos);
    return store;
  };
  std::shared_ptr<Store> store;
  try {
    store = openFile();
  } catch (const detail::UnreadableStoreFile& unreadable) {
    // The failed handle is gone by now: SQLite has let go of the file.
    if (!Env::current()->moveUnreadableStoreAside) throw;
    const std::string aside = moveAside(configuration.path);
    log(LogLevel::warning, "moved the unreadable store file " + configuration.path + " aside to " +
                               aside + " and started a new one: " + unreadable.what());
    store = openFile();
  }
  threadHandles[configuration.path] = store;
  return store;
}

void Store::checkThread() const {
  if (std::this_thread::get_id() != impl_->thread) {
    throw std::logic_error("store handle used on a thread that did not open it");
  }
}

void Store::checkWrite() const {
  checkThread();
  if (!impl_->inWrite) throw std::logic_error("store changes need a write transaction");
}

void Store::beginWrite() {
  checkThread();
  if (impl_->inWrite) throw std::logic_error("a write transaction is already open on this handle");
  impl_->exec("BEGIN IMMEDIATE");
  impl_->inWrite = true;
}

void Store::commitWrite() {
  checkThread();
  if (!impl_->inWrite) throw std::logic_error("no write transaction to commit");
  impl_->exec("COMMIT");
  impl_->inWrite = false;
}

void Store::cancelWrite() {
  if (!impl_->inWrite || std::this_thread::get_id() != impl_->thread) return;
  sqlite3_exec(impl_->db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
  impl_->inWrite = false;
  ++impl_->changeCounter;
}

void Store::remove(const std::shared_ptr<Object>& object) {
  checkWrite();
  if (!object || object->store().get() != this) {
    throw std::logic_error("only records of this store handle can be deleted");
  }
  impl_->deleteRows(impl_->info(object->objectClass()),
                    "[" + std::to_string(StoreAccess::row(*object)) + "]");
}

void Store::removeWithPrimaryKeys(const ObjectClass& objectClass,
                                  const std::vector<std::int64_t>& keys) {
  if (keys.empty()) {
    checkWrite();
    return;
  }
  checkWrite();
  const ClassInfo& info = impl_->info(objectClass);
  impl_->deleteRows(info, impl_->rowsSelectedBy(info.rowsForKeysIn, keys));
}

void Store::removeAllExceptPrimaryKeys(const ObjectClass& objectClass,
                                       const std::vector<std::int64_t>& keys) {
  checkWrite();
  const ClassInfo& info = impl_->info(objectClass);
  impl_->deleteRows(info, impl_->rowsSelectedBy(info.rowsNotForKeysIn, keys));
}

bool Store::hasClass(const ObjectClass& objectClass) const {
  return impl_->classes.count(&objectClass) > 0;
}

AnyResults Store::objects(const ObjectClass& objectClass, const Predicate& predicate) {
  checkThread();
  impl_->info(objectClass);
  if (!predicate.matchesAll()) {
    for (const auto& clause : predicate.impl_->clauses) {
      int index = objectClass.propertyIndex(clause.key);
      if (index < 0 || !objectClass.property(index).isScalar()) {
        throw std::invalid_argument("cannot filter " + objectClass.name() + " by '" + clause.key +
                                    "'");
      }
    }
  }
  AnyResults results;
  results.impl_ = std::make_unique<AnyResults::Impl>();
  results.impl_->store = shared_from_this();
  results.impl_->cls = &objectClass;
  results.impl_->predicate = predicate;
  return results;
}

std::shared_ptr<Object> Store::object(const ObjectClass& objectClass,
                                      std::optional<std::int64_t> key) {
  checkThread();
  const ClassInfo& info = impl_->info(objectClass);
  if (objectClass.primaryKeyIndex() < 0) {
    throw std::logic_error(objectClass.name() + " has no primary key");
  }
  std::int64_t row = impl_->rowForKey(info, key);
  return row ? impl_->load(*this, info, row) : nullptr;
}

std::uint64_t Store::version() {
  checkThread();
  static const std::string kDataVersion = "PRAGMA data_version";
  int dataVersion = 0;
  {
    StatementUse use(impl_->statement(kDataVersion));
    if (use.step()) dataVersion = static_cast<int>(use.columnInt(0));
  }
  if (dataVersion != impl_->lastDataVersion) {
    impl_->lastDataVersion = dataVersion;
    ++impl_->changeCounter;
  }
  return impl_->changeCounter;
}

struct WriteTransaction::Impl {
  Store& store;
  bool done = false;
};

WriteTransaction::WriteTransaction(Store& store) : impl_(new Impl{store}) { store.beginWrite(); }

WriteTransaction::~WriteTransaction() {
  if (!impl_->done) impl_->store.cancelWrite();
}

void WriteTransaction::commit() {
  impl_->store.commitWrite();
  impl_->done = true;
}

}  // namespace qvl
