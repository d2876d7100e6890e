// How a writer comes to its table: the lock, what an earlier writer left, and starting empty.

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/random.h>
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

std::uint64_t randomWord() {
  std::uint64_t word = 0;
  if (getrandom(&word, sizeof(word), GRND_NONBLOCK) != ssize_t{sizeof(word)}) {
    // Before the kernel has gathered entropy, at boot: different from run to run is all that an epoch needs.
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    word =
        foldMultiply(static_cast<std::uint64_t>(now.tv_nsec) << 20 ^ static_cast<std::uint64_t>(now.tv_sec),
                     0x9e3779b97f4a7c15ULL ^ static_cast<std::uint64_t>(getpid()));
  }
  return word == 0 ? 1 : word;
}

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

std::unique_ptr<Writer> Writer::open(const Directory& directory, std::string_view table, const Shape& shape,
                                     const WriterOptions& options, OpenReport& report) {
  report = {};
  std::unique_ptr<Writer> writer(new Writer(directory, table, shape, options));
  if (shape.keyBytes == 0 || shape.keyBytes > kMaxKeyBytes || shape.valueBytes > kMaxValueBytes) {
    report.message = writer->file_ + ": keys have 1 to " + std::to_string(kMaxKeyBytes) +
                     " bytes and values up to " + std::to_string(kMaxValueBytes) + ", not " +
                     std::to_string(shape.keyBytes) + " and " + std::to_string(shape.valueBytes);
    return nullptr;
  }
  if (!writer->lock(report) || !writer->start(report)) return nullptr;
  writer->flush();
  return writer;
}

bool Writer::lock(OpenReport& report) {
  const std::string bell = Directory::bellFile(file_);
  for (int tries = 0; tries < kLockTries; ++tries) {
    bell_ = ::open(bell.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0640);
    if (bell_ < 0) {
      report.message = bell + ": cannot open: " + std::strerror(errno);
      return false;
    }
    if (flock(bell_, LOCK_EX | LOCK_NB) != 0) {
      report.message = bell + ": cannot lock: ";
      if (errno != EWOULDBLOCK) {
        report.message += std::strerror(errno);
      } else {
        const auto other = Segment::open(file_, shape_, Segment::Access::kRead).segment;
        report.message = file_ + ": has a live writer already" +
                         (other ? ", process " + std::to_string(other->writerPid()) : std::string());
      }
      return false;
    }
    // Gives the byte its memory, and wakes readers of a table whose earlier writer died before it did.
    if (pwrite(bell_, "!", 1, 0) != 1) {
      report.message = bell + ": cannot write: " + std::strerror(errno);
      return false;
    }
    // The file may have been removed, with its table, between opening and locking it.
    if (isStillNamed(bell_, bell)) return true;
    close(std::exchange(bell_, -1));
  }
  report.message = bell + ": keeps being removed by another process";
  return false;
}

bool Writer::start(OpenReport& report) {
  unlink(Directory::nextFile(file_).c_str());
  Segment::Opened opened = Segment::open(file_, shape_, Segment::Access::kWrite);
  std::string problem = std::move(opened.message);
  switch (opened.outcome) {
    case Segment::Outcome::kAbsent:
      report.start = OpenReport::Start::kCreated;
      return startEmpty(report);
    case Segment::Outcome::kFailed:
      report.message = std::move(problem);
      return false;
    case Segment::Outcome::kOpened:
      problem = takeOver(std::move(opened.segment), report);
      break;
    case Segment::Outcome::kDamaged:
      break;
  }
  if (problem.empty()) {
    report.start = OpenReport::Start::kTakenOver;
    return true;
  }
  report.message = std::move(problem);
  if (!setAside(report) || !startEmpty(report)) return false;
  report.start = OpenReport::Start::kReplacedDamaged;
  return true;
}

bool Writer::setAside(OpenReport& report) {
  retireSegmentFile(file_);
  report.setAside = file_ + ".damaged-" + std::to_string(getpid()) + '-' +
                    std::to_string(static_cast<std::uint64_t>(time(nullptr)));
  if (rename(file_.c_str(), report.setAside.c_str()) == 0) return true;
  report.message += "; and it cannot be set aside as " + report.setAside + ": " + std::strerror(errno);
  return false;
}

bool Writer::startEmpty(OpenReport& report) {
  SegmentPlan plan;
  plan.shape = shape_;
  plan.capacity = options_.capacity;
  plan.ringEntries = options_.ringEntries != 0 ? options_.ringEntries : ringEntriesFor(plan.capacity);
  plan.hashSeed = options_.hashSeed != 0 ? options_.hashSeed : randomWord();
  plan.epoch = randomWord();
  Segment::Opened opened = Segment::create(Directory::nextFile(file_), plan);
  const bool room = opened.segment && opened.segment->allocate(opened.segment->slots());
  if (room && rename(opened.segment->file().c_str(), file_.c_str()) == 0) {
    active_ = std::move(opened.segment);
    active_->fileIs(file_);
    return true;
  }
  report.start = OpenReport::Start::kRefused;
  report.message = opened.segment ? file_ + ": cannot create: " + std::strerror(errno) : opened.message;
  unlink(Directory::nextFile(file_).c_str());
  return false;
}

std::string Writer::takeOver(std::shared_ptr<Segment> segment, OpenReport& report) {
  const std::uint64_t head = segment->head();
  std::uint64_t live = 0, deleted = 0;
  std::vector<std::uint64_t> halfWritten, unreported;
  for (std::uint64_t index = 0; index < segment->slots(); ++index) {
    const std::uint32_t* const slot = segment->slot(index);
    const auto problem = [&](const char* what) {
      return file_ + ": slot " + std::to_string(index) + ' ' + what;
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
  if (live + deleted >= segment->slots()) return file_ + ": has no free slot";

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
  report.repaired = halfWritten.size();
  report.reported = unreported.size();
  return {};
}

}  // namespace Memtab
