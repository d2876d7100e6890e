#include "Statedb/LmdbStore.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "Statedb/LmdbCheck.h"

namespace Statedb {

namespace {

constexpr std::size_t kFirstMapSize = std::size_t{16} << 20;
constexpr std::size_t kLastMapSize = std::size_t{1} << 40;
constexpr std::size_t kMaxKeySize = 511;
// So that the dirty pages of one transaction stay few, however much waits.
constexpr std::size_t kMaxBatch = 50000;

std::string databaseKey(const std::string& path, const std::string& key) {
  std::string whole;
  whole.reserve(path.size() + 1 + key.size());
  whole += path;
  whole += '\0';
  whole += key;
  return whole;
}

MDB_val valueOf(const std::string& text) { return {text.size(), const_cast<char*>(text.data())}; }
std::string_view textOf(const MDB_val& value) {
  return {static_cast<const char*>(value.mv_data), value.mv_size};
}

}  // namespace

Mox::Result<std::unique_ptr<LmdbStore>> LmdbStore::open(const std::string& directory, Report report) {
  std::unique_ptr<LmdbStore> store(new LmdbStore(directory + "/state.mdb", std::move(report)));
  if (auto opened = store->openFile(); !opened) return opened.failure();
  return store;
}

LmdbStore::~LmdbStore() {
  if (environment_) flush(kEverything);
  closeDatabase();
}

Mox::Result<> LmdbStore::openFile() {
  if (auto locked = lockFile(); !locked) return locked;
  struct stat status {};
  const bool fresh = fstat(lock_, &status) == 0 && status.st_size == 0;
  if (!fresh) {
    if (const auto sound = checkLmdbFile(lock_); !sound) {
      setAside(sound.error());
      if (auto locked = lockFile(); !locked) return locked;
    }
  }
  const auto opened = openDatabase();
  return opened ? opened : Mox::Failure{file_ + ": " + opened.error(), opened.number()};
}

// The lock goes with the process. It is on the database file itself, not on a file beside it that could be
// removed on its own.
Mox::Result<> LmdbStore::lockFile() {
  lock_ = ::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
  if (lock_ < 0) {
    const int error = errno;
    return Mox::Failure{file_ + ": " + std::strerror(error), error};
  }
  if (flock(lock_, LOCK_EX | LOCK_NB) == 0) return {};
  return Mox::Failure{file_ + ": another process has this state store open", EWOULDBLOCK};
}

void LmdbStore::setAside(const std::string& problem) {
  const std::string base = file_ + ".damaged-" + std::to_string(std::time(nullptr));
  std::string name = base;
  for (int i = 1; access(name.c_str(), F_OK) == 0; ++i) name = base + "-" + std::to_string(i);
  if (rename(file_.c_str(), name.c_str()) == 0) {
    report_(file_ + ": the state store is damaged (" + problem + "); it was renamed " + name +
            " and an empty one is started");
  } else {
    report_(file_ + ": the state store is damaged (" + problem +
            ") and cannot be renamed: " + std::strerror(errno));
    unlink(file_.c_str());
  }
  close(lock_);
  lock_ = -1;
}

Mox::Result<> LmdbStore::openDatabase() {
  if (int error = mdb_env_create(&environment_)) return Mox::Failure{mdb_strerror(error), error};
  struct stat status {};
  mapSize_ = kFirstMapSize;
  if (fstat(lock_, &status) == 0) {
    // A file that was written is all in use up to its last page; it is extended below to the map's size.
    while (mapSize_ < static_cast<std::size_t>(status.st_size) && mapSize_ < kLastMapSize) mapSize_ *= 2;
  }
  if (int error = mdb_env_set_mapsize(environment_, mapSize_))
    return Mox::Failure{mdb_strerror(error), error};
  // One thread and one process, whose transactions never overlap: LMDB's own lock file would only be one more
  // file to be damaged.
  if (int error = mdb_env_open(environment_, file_.c_str(), MDB_NOSUBDIR | MDB_NOSYNC | MDB_NOLOCK, 0640)) {
    return Mox::Failure{mdb_strerror(error), error};
  }
  MDB_txn* transaction = nullptr;
  int error = mdb_txn_begin(environment_, nullptr, 0, &transaction);
  if (error == 0) {
    error = mdb_dbi_open(transaction, nullptr, 0, &database_);
    if (error == 0) {
      error = mdb_txn_commit(transaction);
    } else {
      mdb_txn_abort(transaction);
    }
  }
  if (error != 0) return Mox::Failure{mdb_strerror(error), error};
  // Whatever the map covers is then a page of the file, so that no read of it can fault.
  if (ftruncate(lock_, static_cast<off_t>(mapSize_)) == 0) return {};
  error = errno;
  return Mox::Failure{std::strerror(error), error};
}

void LmdbStore::closeDatabase() {
  if (environment_) mdb_env_close(environment_);
  environment_ = nullptr;
  if (lock_ >= 0) close(lock_);
  lock_ = -1;
}

// A transaction a call: LMDB uses again what a write has freed, whoever might still read it.
void LmdbStore::load(const std::string& path, const std::optional<std::string>& after, const Visitor& visit) {
  const std::string prefix = databaseKey(path, "");
  const std::string from = after ? databaseKey(path, *after) : prefix;
  bool more = true;
  // What waits comes in between.
  Writes::const_iterator next = after ? writes_.upper_bound(from) : writes_.lower_bound(from);
  const auto visitWaiting = [&](const std::string_view* before) {
    for (; more && next != writes_.end() && next->first.starts_with(prefix); ++next) {
      if (before && next->first >= *before) return;
      if (next->second) more = visit(std::string_view(next->first).substr(prefix.size()), *next->second);
    }
  };
  const auto overridden = [&](std::string_view key) {
    return writes_.contains(key) ||
           std::ranges::any_of(erasures_, [&](const auto& erased) { return key.starts_with(erased); });
  };
  MDB_txn* transaction = nullptr;
  MDB_cursor* cursor = nullptr;
  int error = mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &transaction);
  if (error == 0) error = mdb_cursor_open(transaction, database_, &cursor);
  MDB_val key = valueOf(from);
  MDB_val value{};
  if (error == 0) error = mdb_cursor_get(cursor, &key, &value, MDB_SET_RANGE);
  while (more && error == 0 && textOf(key).starts_with(prefix)) {
    const std::string_view stored = textOf(key);
    if (!after || stored != from) {
      visitWaiting(&stored);
      if (more && !overridden(stored)) more = visit(stored.substr(prefix.size()), textOf(value));
    }
    if (more) error = mdb_cursor_get(cursor, &key, &value, MDB_NEXT);
  }
  visitWaiting(nullptr);
  if (error != 0 && error != MDB_NOTFOUND) report_(failure("reading", error).text);
  if (cursor) mdb_cursor_close(cursor);
  if (transaction) mdb_txn_abort(transaction);
}

bool LmdbStore::accept(const std::string& key) {
  if (key.size() <= kMaxKeySize) return true;
  report_(file_ + ": " + key.substr(0, key.find('\0')) + ": a member whose name has " +
          std::to_string(key.size()) + " bytes is not kept; at most " + std::to_string(kMaxKeySize) +
          " are allowed");
  return false;
}

void LmdbStore::write(const std::string& path, const std::string& key, std::string value) {
  std::string whole = databaseKey(path, key);
  if (accept(whole)) writes_.insert_or_assign(std::move(whole), std::move(value));
}

void LmdbStore::erase(const std::string& path, const std::string& key) {
  std::string whole = databaseKey(path, key);
  if (whole.size() <= kMaxKeySize) writes_.insert_or_assign(std::move(whole), std::nullopt);
}

void LmdbStore::erasePath(const std::string& path, const std::string& keyPrefix) {
  std::string prefix = databaseKey(path, keyPrefix);
  if (prefix.size() > kMaxKeySize) return;
  auto last = writes_.lower_bound(prefix);
  while (last != writes_.end() && last->first.starts_with(prefix)) ++last;
  writes_.erase(writes_.lower_bound(prefix), last);
  erasures_.insert(std::move(prefix));
}

bool LmdbStore::flush(std::size_t maxOperations) {
  const bool everything = maxOperations == kEverything;
  while (waiting() != 0) {
    const std::size_t budget = everything ? kMaxBatch : std::min(maxOperations, kMaxBatch);
    Batch batch{};
    int error = MDB_MAP_FULL;
    while (error == MDB_MAP_FULL) {
      batch = Batch{budget, erasures_.begin(), writes_.begin()};
      error = runBatch(batch);
      if (error == MDB_MAP_FULL) {
        if (const int refused = grow()) error = refused;
      }
    }
    if (error != 0) {
      written_ = failure("writing", error);
      return false;
    }
    written_ = {};
    erasures_.erase(erasures_.begin(), batch.erased);
    writes_.erase(writes_.begin(), batch.written);
    if (everything) continue;
    maxOperations -= std::min(maxOperations, budget - batch.budget);
    if (maxOperations == 0 || batch.budget == 0) break;
  }
  return waiting() != 0;
}

int LmdbStore::runBatch(Batch& batch) {
  MDB_txn* transaction = nullptr;
  if (int error = mdb_txn_begin(environment_, nullptr, 0, &transaction)) return error;
  int error = 0;
  while (error == 0 && batch.budget > 0 && batch.erased != erasures_.end()) {
    bool done = false;
    error = erasePrefix(transaction, *batch.erased, batch, done);
    if (done) ++batch.erased;
  }
  while (error == 0 && batch.budget > 0 && batch.written != writes_.end()) {
    MDB_val key = valueOf(batch.written->first);
    if (batch.written->second) {
      MDB_val value = valueOf(*batch.written->second);
      error = mdb_put(transaction, database_, &key, &value, 0);
    } else {
      error = mdb_del(transaction, database_, &key, nullptr);
      if (error == MDB_NOTFOUND) error = 0;
    }
    if (error == 0) {
      ++batch.written;
      --batch.budget;
    }
  }
  if (error == 0) return mdb_txn_commit(transaction);
  mdb_txn_abort(transaction);
  return error;
}

int LmdbStore::erasePrefix(MDB_txn* transaction, const std::string& prefix, Batch& batch, bool& done) {
  MDB_cursor* cursor = nullptr;
  if (int error = mdb_cursor_open(transaction, database_, &cursor)) return error;
  int error = 0;
  while (error == 0 && batch.budget > 0) {
    MDB_val key = valueOf(prefix);
    MDB_val value{};
    error = mdb_cursor_get(cursor, &key, &value, MDB_SET_RANGE);
    if (error == MDB_NOTFOUND || (error == 0 && !textOf(key).starts_with(prefix))) {
      done = true;
      --batch.budget;
      error = 0;
      break;
    }
    if (error == 0) error = mdb_cursor_del(cursor, 0);
    --batch.budget;
  }
  mdb_cursor_close(cursor);
  return error;
}

int LmdbStore::grow() {
  if (mapSize_ >= kLastMapSize) return ENOSPC;
  if (ftruncate(lock_, static_cast<off_t>(mapSize_ * 2)) != 0) return errno;
  if (int error = mdb_env_set_mapsize(environment_, mapSize_ * 2)) return error;
  mapSize_ *= 2;
  return 0;
}

Mox::Failure LmdbStore::failure(const char* doing, int error) const {
  return {file_ + ": " + doing + " the state store failed: " + mdb_strerror(error) +
              (error == EIO || error == ENOSPC ? " (is the file system full?)" : "") + "; what waits is kept",
          error > 0 ? error : 0};
}

}  // namespace Statedb
