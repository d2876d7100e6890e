// How a writer comes to its table: the lock, what an earlier writer left, and starting empty.

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>

#include "Memtab/Writer.h"

namespace Memtab {
namespace {

constexpr std::uint64_t kLeastCapacity = 16;
constexpr int kLockTries = 8;

bool isStillNamed(int fd, const std::string& file) {
  struct stat open {};
  struct stat named {};
  return fstat(fd, &open) == 0 && stat(file.c_str(), &named) == 0 && open.st_ino == named.st_ino &&
         open.st_dev == named.st_dev;
}

}  // namespace

Writer::Writer(const Directory& directory, std::string_view table, const Shape& shape,
               const WriterOptions& options)
    : table_(table),
      directory_(directory),
      shape_(shape),
      options_(options),
      file_(directory.segmentFile(table)) {
  options_.capacity = std::clamp(options.capacity + options.capacity / 4, kLeastCapacity, kMaxCapacity);
  if (options.ringEntries != 0) {
    options_.ringEntries =
        std::bit_ceil(std::clamp(options.ringEntries, 2U, static_cast<std::uint32_t>(kMaxRingEntries)));
  }
}

Mox::Result<std::unique_ptr<Writer>> Writer::open(const Directory& directory, std::string_view table,
                                                  const Shape& shape, const WriterOptions& options) {
  std::unique_ptr<Writer> writer(new Writer(directory, table, shape, options));
  if (shape.keyBytes == 0 || shape.keyBytes > kMaxKeyBytes || shape.valueBytes > kMaxValueBytes) {
    return Mox::Failure{writer->file_ + ": keys have 1 to " + std::to_string(kMaxKeyBytes) +
                        " bytes and values up to " + std::to_string(kMaxValueBytes) + ", not " +
                        std::to_string(shape.keyBytes) + " and " + std::to_string(shape.valueBytes)};
  }
  if (const auto locked = writer->lock(); !locked) return locked.failure();
  if (const auto started = writer->start(); !started) return started.failure();
  writer->flush();
  return writer;
}

// Good if it is a regular file of this process's user or of root: only those can lock it.
Mox::Result<> Writer::openBell(const std::string& bell) {
  constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  // Not O_CREAT at once: with it the kernel may refuse what another user has made in a shared folder.
  bell_ = ::open(bell.c_str(), kFlags);
  if (bell_ < 0 && errno == ENOENT) bell_ = ::open(bell.c_str(), kFlags | O_CREAT | O_EXCL, 0640);
  if (bell_ < 0) {
    const int error = errno;
    return Mox::Failure{bell + ": cannot open: " + std::strerror(error), error};
  }
  struct stat status {};
  if (fstat(bell_, &status) == 0 && S_ISREG(status.st_mode) &&
      (status.st_uid == 0 || status.st_uid == geteuid())) {
    return {};
  }
  close(std::exchange(bell_, -1));
  return Mox::Failure{bell + ": is not a regular file of user " + std::to_string(geteuid())};
}

void Writer::replaced(const std::string& what) {
  report_.replaced += (report_.replaced.empty() ? "" : "; ") + what;
}

Mox::Result<> Writer::lock() {
  const std::string bell = Directory::bellFile(file_);
  for (int tries = 0; tries < kLockTries; ++tries) {
    if (const auto opened = openBell(bell); !opened) {
      if (opened.number() == EEXIST) continue;  // another writer made it just now
      constexpr std::array kForeign = {0, EACCES, EISDIR, ELOOP, ENXIO};
      if (std::find(kForeign.begin(), kForeign.end(), opened.number()) == kForeign.end()) return opened;
      const auto aside = setAside(bell);
      const std::string what = opened.error() + "; " + (aside ? "set aside as " + *aside : aside.error());
      if (!aside && aside.number() != ENOENT) return Mox::Failure{what, aside.number()};
      replaced(what);
      continue;
    }
    if (flock(bell_, LOCK_EX | LOCK_NB) != 0) {
      const int error = errno;
      if (error != EWOULDBLOCK) return Mox::Failure{bell + ": cannot lock: " + std::strerror(error), error};
      const auto other = Segment::open(file_, shape_, Segment::Access::kRead).segment;
      return Mox::Failure{file_ + ": has a live writer already" +
                              (other ? ", process " + std::to_string(other->writerPid()) : std::string()),
                          EBUSY};
    }
    // Gives the byte its memory, and wakes readers of a table whose earlier writer died before it did.
    if (pwrite(bell_, "!", 1, 0) != 1) {
      const int error = errno;
      return Mox::Failure{bell + ": cannot write: " + std::strerror(error), error};
    }
    // The file may have been removed, with its table, between opening and locking it.
    if (isStillNamed(bell_, bell)) return {};
    close(std::exchange(bell_, -1));
  }
  return Mox::Failure{bell + ": keeps being replaced by another process"};
}

Mox::Result<> Writer::start() {
  Segment::Opened opened = Segment::open(file_, shape_, Segment::Access::kWrite);
  Mox::Result<> sound;
  switch (opened.outcome) {
    case Segment::Outcome::kAbsent:
      report_.start = OpenReport::Start::kCreated;
      return startEmpty();
    case Segment::Outcome::kFailed:
      return Mox::Failure{std::move(opened.message)};
    case Segment::Outcome::kOpened:
      sound = takeOver(std::move(opened.segment));
      break;
    case Segment::Outcome::kDamaged:
      sound = Mox::Failure{std::move(opened.message)};
      break;
  }
  if (sound) {
    unlink(Directory::nextFile(file_).c_str());
    report_.start = OpenReport::Start::kTakenOver;
    return {};
  }
  retireSegmentFile(file_);
  replaced(sound.error());
  const auto aside = setAside(file_);
  if (!aside) return Mox::Failure{report_.replaced + "; " + aside.error(), aside.number()};
  report_.setAside = *aside;
  report_.start = OpenReport::Start::kReplacedDamaged;
  return startEmpty();
}

Mox::Result<> Writer::startEmpty() {
  SegmentPlan plan;
  plan.shape = shape_;
  plan.capacity = options_.capacity;
  plan.ringEntries = options_.ringEntries != 0 ? options_.ringEntries : ringEntriesFor(plan.capacity);
  plan.hashSeed = options_.hashSeed != 0 ? options_.hashSeed : Mox::randomWord();
  plan.epoch = Mox::randomWord();
  Segment::Opened opened = Segment::create(Directory::nextFile(file_), plan);
  const bool room = opened.segment && opened.segment->allocate(opened.segment->slots());
  if (room && rename(opened.segment->file().c_str(), file_.c_str()) == 0) {
    active_ = std::move(opened.segment);
    active_->fileIs(file_);
    return {};
  }
  const int error = errno;
  unlink(Directory::nextFile(file_).c_str());
  return opened.segment ? Mox::Failure{file_ + ": cannot create: " + std::strerror(error), error}
                        : Mox::Failure{opened.message};
}

Mox::Result<> Writer::takeOver(std::shared_ptr<Segment> segment) {
  const std::uint64_t head = segment->head();
  std::uint64_t live = 0, deleted = 0;
  std::vector<std::uint64_t> halfWritten, unreported;
  for (std::uint64_t index = 0; index < segment->slots(); ++index) {
    const std::uint32_t* const slot = segment->slot(index);
    const auto problem = [&](const char* what) {
      return Mox::Failure{file_ + ": slot " + std::to_string(index) + ' ' + what};
    };
    if (*slot == 0) {
      if (segment->tag(index) != 0) return problem("is free but has a tag");
      continue;
    }
    if ((*slot & kUsed) == 0 || (*slot & (kBusy | kDeleted)) == (kBusy | kDeleted)) {
      return problem("has a state that no writer writes");
    }
    // Finds an entry that lies where no look-up would find it, and a second entry with the same key. An entry
    // without a tag may only be one whose writer died just before it would have set the tag.
    const std::uint64_t hash = hashOf(shape_, slot + 1, segment->seed());
    const Probe at = probe(*segment, shape_, slot + 1, hash);
    if (at.slot == slot && !at.found && isLive(*slot) && *slot >> kStampShift == stampOf(head)) {
      segment->tagIs(index, tagOf(hash));
    } else if (at.slot != slot || !at.found) {
      return problem("holds a key that does not belong there");
    }
    ++(isLive(*slot) ? live : deleted);
    if ((*slot & kBusy) != 0) {
      halfWritten.push_back(index);
    } else if (*slot >> kStampShift == stampOf(head)) {
      unreported.push_back(index);
    }
  }
  if (live + deleted >= segment->slots()) return Mox::Failure{file_ + ": has no free slot"};

  active_ = std::move(segment);
  rungAt_ = head;
  Header& header = *active_->header();
  storeWord(&header.live, live, std::memory_order_relaxed);
  storeWord(&header.deleted, deleted, std::memory_order_relaxed);
  storeWord(&header.writerPid, static_cast<std::uint32_t>(getpid()), std::memory_order_relaxed);
  storeWord(&header.retired, 0U, std::memory_order_release);
  for (const std::uint64_t index : unreported) append(active_->slot(index) + 1);
  for (const std::uint64_t index : halfWritten) {
    std::uint32_t* const slot = active_->writableSlot(index);
    storeWord(slot, deletedState(active_->head()), std::memory_order_release);
    storeWord(&header.live, header.live - 1, std::memory_order_relaxed);
    storeWord(&header.deleted, header.deleted + 1, std::memory_order_relaxed);
    append(slot + 1);
  }
  report_.repaired = halfWritten.size();
  report_.reported = unreported.size();
  return {};
}

}  // namespace Memtab
