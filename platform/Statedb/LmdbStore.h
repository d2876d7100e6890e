#pragma once

#include <map>
#include <memory>
#include <set>

#include "Mox/Result.h"
#include "Statedb/Store.h"

struct MDB_env;
struct MDB_txn;

namespace Statedb {

// The embedded store: one LMDB database, "state.mdb" in a directory, of one process at a time.
//
// What was flushed survives the process, however it ends; it is not synced to the disk, so a power cut may
// lose or damage it. Each batch is one transaction: a process that is killed in the middle of a flush leaves
// the state before or after it. Nothing blocks on a disk beyond the page cache.
//
// Database layout: key = path, a zero byte, member key; value = the value. A key of more than 511 bytes (the
// limit of LMDB) is refused and reported. The map begins at 16 MiB and doubles when it is full; the file is
// as long as the map but sparse.
//
// A database that is not sound (see Statedb/LmdbCheck.h) is renamed "state.mdb.damaged-<seconds since 1970>",
// reported, and an empty one is started.
class LmdbStore final : public Store {
 public:
  using Report = std::function<void(const std::string& message)>;

  // Refused when the directory cannot be used or another process has the store open.
  static Mox::Result<std::unique_ptr<LmdbStore>> open(const std::string& directory, Report report);
  ~LmdbStore() override;  // flushes

  void load(const std::string& path, const std::optional<std::string>& after, const Visitor& visit) override;
  void write(const std::string& path, const std::string& key, std::string value) override;
  void erase(const std::string& path, const std::string& key) override;
  void erasePath(const std::string& path, const std::string& keyPrefix) override;
  bool flush(std::size_t maxOperations) override;
  std::size_t waiting() const override { return erasures_.size() + writes_.size(); }
  const Mox::Result<>& written() const override { return written_; }

 private:
  using Writes = std::map<std::string, std::optional<std::string>, std::less<>>;
  struct Batch {
    std::size_t budget;
    std::set<std::string>::iterator erased;  // first that is not done
    Writes::iterator written;
  };

  LmdbStore(std::string file, Report report)
      : file_(std::move(file)), report_(report ? std::move(report) : [](const std::string&) {}) {}
  Mox::Result<> openFile();
  Mox::Result<> openDatabase();
  Mox::Result<> lockFile();
  void setAside(const std::string& problem);
  void closeDatabase();
  bool accept(const std::string& key);
  int grow();
  int runBatch(Batch& batch);
  int erasePrefix(MDB_txn* transaction, const std::string& prefix, Batch& batch, bool& done);
  Mox::Failure failure(const char* doing, int error) const;

  const std::string file_;
  const Report report_;
  int lock_ = -1;
  MDB_env* environment_ = nullptr;
  unsigned database_ = 0;
  std::size_t mapSize_ = 0;
  Mox::Result<> written_;
  // What waits: all prefix erasures come before all writes, so an erasure drops the writes that it covers.
  std::set<std::string> erasures_;
  Writes writes_;
};

}  // namespace Statedb
