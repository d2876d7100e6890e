#pragma once

#include <deque>

#include "Statedb/LogFile.h"
#include "Statedb/Store.h"

namespace Statedb {

// The embedded store: a log a path (Statedb/LogFormat.h) in a directory, of one process at a time. It fits an
// entity that is read once, when the process starts, and then changes: a change is appended, and nothing but
// what waits for the end of the turn is held in memory. The entity itself is the index.
//
// What was flushed survives the process, however it ends; it is not synced to the disk, so a power cut may
// lose or damage it. What a turn wrote is one batch unless it is more than 256 KiB: a process that is killed
// in the middle leaves the state before or after it.
//
// A log grows by what happens. When over half of it, and over 4 MiB, are estimated to be of no use any more,
// counting operations and what the entity holds, it is rewritten from the entity: a part a turn, into a file
// that takes the other's place when it is whole.
//
// Files: PATH.log, bytes of the path other than letters, digits, '.', '_' and '-' as %XX; PATH.log.new while
// that is rewritten. One that is not sound is renamed PATH.log.damaged-<seconds since 1970>, reported, and the
// path starts empty.
class LogStore final : public Store {
 public:
  using Report = std::function<void(const std::string& message)>;

  // Refused when the directory cannot be used or another process has the store open.
  static Mox::Result<std::unique_ptr<LogStore>> open(const std::string& directory, Report report);
  ~LogStore() override;
  LogStore(const LogStore&) = delete;
  LogStore& operator=(const LogStore&) = delete;

  std::unique_ptr<Journal> journal(const std::string& path) override;
  void remove(const std::string& path) override;

 private:
  friend class LogJournal;
  LogStore(std::string directory, int descriptor, Report report);
  static std::string fileOf(const std::string& path);

  const std::string directory_;
  const int descriptor_;
  const Report report_;
};

// A key of more than 4096 bytes, and a value of more than 16 MiB, are refused and reported.
class LogJournal final : public Journal {
 public:
  LogJournal(const LogStore& store, std::string path);
  ~LogJournal() override;  // writes what waits
  LogJournal(const LogJournal&) = delete;
  LogJournal& operator=(const LogJournal&) = delete;

  Step next(Operation& operation) override;
  void write(std::string_view key, std::string_view value) override;
  void erase(std::string_view key) override;
  void rewrite() override { wanted_ = true; }
  bool flush(Content& content, Extent extent) override;
  const Mox::Result<>& written() const override { return written_; }

 private:
  struct Batch {
    std::string operations;
    std::size_t count = 0;
    void append(std::string_view key, std::optional<std::string_view> value);
  };
  struct Log {
    LogFile file;
    std::size_t operations = 0;
    Mox::Result<> append(const Batch& batch);
  };

  std::string name(const std::string& file) const { return store_.directory_ + "/" + file; }
  Mox::Failure failure(const std::string& file, const Mox::Failure& why) const;
  bool accept(std::string_view key, std::size_t valueSize);
  void setAside(const std::string& problem);
  Mox::Result<Log> create() const;
  Mox::Result<> publish() const;
  bool flushSome(Content& content, Extent extent);
  // False when what waits cannot be written.
  bool writeWaiting(Extent extent);
  Mox::Result<> writeBatch(const Batch& batch);
  void handleUnwritten(const Mox::Result<>& why);
  bool rewriteIsDue(const Content& content);
  void rewriteSome(Content& content);
  void abandon(const Mox::Result<>& why);
  std::string fresh() const { return file_ + ".new"; }

  const LogStore& store_;
  const std::string path_;
  const std::string file_;
  std::optional<Log> log_;    // what is kept
  std::optional<Log> fresh_;  // what takes its place when it is whole
  std::optional<Log> replaced_;
  bool loading_ = false;
  bool loaded_ = false;
  std::deque<Batch> waiting_;
  bool wanted_ = false;    // a rewrite
  bool outdated_ = false;  // what is kept lacks changes: nothing is added before it is rewritten
  std::uint64_t lookAt_;   // how long the log is when it is next asked whether to rewrite it
  unsigned pause_ = 0;     // of so many turns, before a rewrite is tried again
  unsigned nextPause_ = 1;
  Mox::Result<> written_;
};

}  // namespace Statedb
