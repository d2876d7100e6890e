#include "Statedb/LogStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

namespace Statedb {

namespace {

// What is of no use and may stay.
constexpr std::uint64_t kSlack = std::uint64_t{4} << 20;
constexpr std::uint64_t kLookEvery = std::uint64_t{1} << 20;
// Of a rewrite, a turn. Half a millisecond.
constexpr std::size_t kSlice = std::size_t{64} << 10;
// Of what a rewrite has replaced, a turn.
constexpr std::uint64_t kGiveBack = std::uint64_t{16} << 20;
// What cannot be written waits up to here, in batches; what is more is found in the entity.
constexpr std::size_t kMaxWaiting = 16;
constexpr unsigned kLongestPause = 64;

Mox::Failure failed() { return {std::strerror(errno), errno}; }

}  // namespace

LogStore::LogStore(std::string directory, int descriptor, Report report)
    : directory_(std::move(directory)),
      descriptor_(descriptor),
      report_(report ? std::move(report) : [](const std::string&) {}) {}

LogStore::~LogStore() { close(descriptor_); }

// The lock goes with the process. It is on the directory itself, not on a file that could be removed on its own.
Mox::Result<std::unique_ptr<LogStore>> LogStore::open(const std::string& directory, Report report) {
  const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return Mox::Failure{directory + ": " + std::strerror(errno), errno};
  std::unique_ptr<LogStore> store(new LogStore(directory, descriptor, std::move(report)));
  if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) return store;
  if (errno != EWOULDBLOCK) return Mox::Failure{directory + ": " + std::strerror(errno), errno};
  return Mox::Failure{directory + ": another process has this state store open", EWOULDBLOCK};
}

std::string LogStore::fileOf(const std::string& path) {
  std::string name;
  for (const char c : path) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '_' || c == '-' || (c == '.' && !name.empty());
    if (plain) {
      name += c;
      continue;
    }
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    name += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return name + ".log";
}

std::unique_ptr<Journal> LogStore::journal(const std::string& path) {
  return std::make_unique<LogJournal>(*this, path);
}

void LogStore::remove(const std::string& path) {
  const std::string file = fileOf(path);
  if (unlinkat(descriptor_, file.c_str(), 0) < 0 && errno != ENOENT)
    report_(directory_ + "/" + file + ": it cannot be removed: " + std::strerror(errno));
}

LogJournal::LogJournal(const LogStore& store, std::string path)
    : store_(store), path_(std::move(path)), file_(LogStore::fileOf(path_)), lookAt_(kSlack) {}

LogJournal::~LogJournal() {
  if (!outdated_) writeWaiting(Extent::everything);
  if (fresh_) unlinkat(store_.descriptor_, fresh().c_str(), 0);
}

Mox::Failure LogJournal::failure(const std::string& file, const Mox::Failure& why) const {
  return {name(file) + ": writing: " + why.text + "; what waits is kept and tried again", why.number};
}

void LogJournal::Batch::append(std::string_view key, std::optional<std::string_view> value) {
  LogFormat::append(operations, key, value);
  ++count;
}

Mox::Result<> LogJournal::Log::append(const Batch& batch) {
  if (batch.count == 0) return {};
  auto appended = file.append(batch.operations);
  if (appended) operations += batch.count;
  return appended;
}

Journal::Step LogJournal::next(Operation& operation) {
  if (!std::exchange(loading_, true)) {
    unlinkat(store_.descriptor_, fresh().c_str(), 0);  // of a rewrite that did not end
    const int descriptor =
        openat(store_.descriptor_, file_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0 && errno != ENOENT) setAside(std::strerror(errno));
    if (descriptor >= 0) {
      auto file = LogFile::open(descriptor, path_);
      if (file) {
        log_.emplace(Log{std::move(*file)});
      } else {
        setAside(file.error());
      }
    }
  }
  if (loaded_ || !log_) {
    loaded_ = true;
    return Step::end;
  }
  const Step step = log_->file.next(operation);
  log_->operations += step == Step::operation ? 1 : 0;
  if (step == Step::operation) return step;
  loaded_ = true;
  if (step == Step::damaged) {
    setAside(log_->file.problem());
    log_.reset();
  } else if (log_->file.torn() != 0) {
    store_.report_(name(file_) + ": the last " + std::to_string(log_->file.torn()) +
                   " bytes, which a process did not finish writing, are left out");
  }
  return step;
}

void LogJournal::setAside(const std::string& problem) {
  const std::string base = file_ + ".damaged-" + std::to_string(std::time(nullptr));
  std::string aside = base;
  for (int i = 1; faccessat(store_.descriptor_, aside.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0; ++i)
    aside = base + "-" + std::to_string(i);
  const std::string damaged = name(file_) + ": the state store is damaged (" + problem + ")";
  if (renameat(store_.descriptor_, file_.c_str(), store_.descriptor_, aside.c_str()) == 0) {
    store_.report_(damaged + "; it was renamed " + name(aside) + " and an empty one is started");
  } else {
    store_.report_(damaged + " and cannot be renamed: " + std::strerror(errno));
  }
}

bool LogJournal::accept(std::string_view key, std::size_t valueSize) {
  const bool keyFits = key.size() <= LogFormat::kMaxKey;
  if (keyFits && valueSize <= LogFormat::kMaxValue) return true;
  store_.report_(name(file_) + ": " + path_ + ": a member whose " + (keyFits ? "value" : "name") + " has " +
                 std::to_string(keyFits ? valueSize : key.size()) + " bytes is not kept; at most " +
                 std::to_string(keyFits ? LogFormat::kMaxValue : LogFormat::kMaxKey) + " are allowed");
  return false;
}

void LogJournal::write(std::string_view key, std::string_view value) {
  if (!accept(key, value.size())) return erase(key);
  if (waiting_.empty() || waiting_.back().operations.size() >= LogFormat::kBatch) waiting_.emplace_back();
  waiting_.back().append(key, value);
}

void LogJournal::erase(std::string_view key) {
  if (key.size() > LogFormat::kMaxKey) return;
  if (waiting_.empty() || waiting_.back().operations.size() >= LogFormat::kBatch) waiting_.emplace_back();
  waiting_.back().append(key, std::nullopt);
}

Mox::Result<LogJournal::Log> LogJournal::create() const {
  const std::string file = fresh();
  unlinkat(store_.descriptor_, file.c_str(), 0);
  const int descriptor =
      openat(store_.descriptor_, file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0640);
  if (descriptor < 0) return failed();
  auto made = LogFile::create(descriptor, path_);
  if (made) return Log{std::move(*made)};
  unlinkat(store_.descriptor_, file.c_str(), 0);
  return made.failure();
}

Mox::Result<> LogJournal::publish() const {
  if (renameat(store_.descriptor_, fresh().c_str(), store_.descriptor_, file_.c_str()) == 0) return {};
  return failed();
}

// A file has its name only once its header is whole.
Mox::Result<> LogJournal::writeBatch(const Batch& batch) {
  if (!log_ && !fresh_ && !outdated_) {
    auto made = create();
    if (!made) return made.failure();
    if (auto published = publish(); !published) return published;
    log_.emplace(std::move(*made));
  }
  if (log_ && !outdated_) {
    if (auto appended = log_->append(batch); !appended) return appended;
  }
  if (!fresh_) return {};
  const auto appended = fresh_->append(batch);
  if (!appended) abandon(appended);
  return log_ ? Mox::Result<>() : appended;
}

void LogJournal::handleUnwritten(const Mox::Result<>& why) {
  written_ = failure(file_, why.failure());
  if (waiting_.size() <= kMaxWaiting) return;
  if (fresh_) abandon(why);  // it may lack what waited
  outdated_ = true;
  waiting_.clear();
}

bool LogJournal::writeWaiting(Extent extent) {
  while (!waiting_.empty()) {
    if (const auto done = writeBatch(waiting_.front()); !done) {
      handleUnwritten(done);
      return false;
    }
    if (!outdated_) written_ = {};
    waiting_.pop_front();
    if (extent == Extent::turn) break;
  }
  return true;
}

bool LogJournal::flush(Content& content, Extent extent) {
  if (!loaded_) return false;
  if (replaced_ && !replaced_->file.giveBack(kGiveBack)) replaced_.reset();
  const bool more = flushSome(content, extent);
  return more || replaced_;
}

bool LogJournal::flushSome(Content& content, Extent extent) {
  if (extent == Extent::everything) pause_ = 0;
  if (outdated_ && !fresh_) waiting_.clear();  // the content has it
  if (!writeWaiting(extent)) return false;
  if (!waiting_.empty()) return true;
  if (!fresh_ && rewriteIsDue(content)) {
    content.readAgain();
    if (auto made = create()) {
      fresh_.emplace(std::move(*made));
    } else {
      abandon(made.failure());
    }
  }
  if (!fresh_) return false;
  do {
    rewriteSome(content);
  } while (fresh_ && extent == Extent::everything);
  return fresh_.has_value();
}

bool LogJournal::rewriteIsDue(const Content& content) {
  if (pause_ != 0) {
    --pause_;
    return false;
  }
  if (wanted_ || outdated_) return true;
  if (!log_ || log_->file.size() < lookAt_) return false;
  lookAt_ = log_->file.size() + kLookEvery;
  const std::size_t all = log_->operations;
  const std::size_t used = std::min(content.size(), all);
  const std::uint64_t unused = log_->file.size() / std::max<std::size_t>(all, 1) * (all - used);
  return unused > kSlack && used < all - used;
}

void LogJournal::rewriteSome(Content& content) {
  Batch batch;
  const bool more = content.read([&](std::string_view key, std::string_view value) {
    if (accept(key, value.size())) batch.append(key, value);
    return batch.operations.size() < kSlice;
  });
  auto done = fresh_->append(batch);
  if (done && !more) done = publish();
  if (!done) return abandon(done);
  if (more) return;
  nextPause_ = 1;
  replaced_ = std::exchange(log_, std::exchange(fresh_, std::nullopt));
  lookAt_ = log_->file.size() + kSlack;
  wanted_ = outdated_ = false;
  written_ = {};
}

// What is kept stays. As long as that has all changes, only room is wasted.
void LogJournal::abandon(const Mox::Result<>& why) {
  if (fresh_) unlinkat(store_.descriptor_, fresh().c_str(), 0);
  fresh_.reset();
  pause_ = nextPause_;
  nextPause_ = std::min(nextPause_ * 2, kLongestPause);
  if (!why && outdated_) written_ = failure(fresh(), why.failure());
}

}  // namespace Statedb
