// How a writer moves its table into another segment, a few slots a write.
//
// Slot order is hash order in both segments, so that moving slots in order fills the new segment in order as
// well. What lies below the moving position is kept equal in both; deleted entries below it appear in the new
// segment only if they were deleted since. Until the new segment gets the name nobody reads it.

#include <fcntl.h>
#include <stdio.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "Memtab/Writer.h"

namespace Memtab {
namespace {

constexpr std::size_t kAllocationUnits = 64;  // what giving memory to a piece of a file counts as, in slots

// What the file system of this file still has; everything when it does not say.
std::uint64_t freeBytes(int fd) {
  struct statvfs status {};
  if (fstatvfs(fd, &status) != 0) return UINT64_MAX;
  return std::uint64_t{status.f_bavail} * status.f_frsize;
}

}  // namespace

std::uint32_t Writer::ringEntriesFor(std::uint64_t capacity) {
  return static_cast<std::uint32_t>(std::clamp<std::uint64_t>(std::bit_floor(capacity / 32), 1024, 65536));
}

void Writer::growthBegin(std::uint64_t capacity) {
  if (growthBytes_ != 0 && freeBytes(bell_) < growthBytes_) return;
  const Header& old = active_->fixed();
  SegmentPlan plan;
  plan.shape = shape_;
  // The entries will fill eight fifteenths of it. So a table that is four fifths full of entries becomes half
  // as large again; one that is mostly full of deleted ones keeps its size, or shrinks.
  plan.capacity = std::max({capacity, options_.capacity, active_->live() * 15 / 8 + 1});
  if (plan.capacity > kMaxCapacity) {
    grown_ = Mox::Failure{file_ + ": has reached the largest capacity, " + std::to_string(kMaxCapacity)};
    return;
  }
  // Never smaller than before: what the old ring still tells, the new one has to.
  plan.ringEntries =
      options_.ringEntries != 0 ? old.ringEntries : std::max(old.ringEntries, ringEntriesFor(plan.capacity));
  plan.hashSeed = old.hashSeed;
  plan.epoch = old.epoch;
  plan.generation = old.generation + 1;

  Segment::Opened opened = Segment::create(Directory::nextFile(file_), plan);
  growth_ = std::make_unique<Growth>();
  growth_->next = std::move(opened.segment);
  if (!growth_->next) return growthRefused(opened.message);
  if (reconciling_) growth_->marks.assign(growth_->next->slots() / 64 + 1, 0);
}

void Writer::growthAbort() {
  unlink(Directory::nextFile(file_).c_str());
  growth_.reset();
}

void Writer::growthRefused(const std::string& why) {
  grown_ = Mox::Failure{why};
  growthBytes_ = growth_->next ? growth_->next->bytes() : 0;
  growthAbort();
}

// From here on changes go to both rings.
void Writer::growthReady() {
  const std::uint64_t head = active_->head();
  const Header& old = active_->fixed();
  growth_->ready = true;
  growth_->ring = std::max(old.ringFirst, head >= old.ringEntries ? head - old.ringEntries + 1 : 0);
  growth_->ringEnd = head;
  growth_->next->ringFirstIs(growth_->ring);
}

// Gives up a next segment that cannot take an entry: a larger one may, or there is no memory at all.
void Writer::growthStuck(Copied why) {
  const std::uint64_t larger = growth_->next->capacity() + growth_->next->capacity() / 2;
  if (why == Copied::kNoMemory) return growthRefused(file_ + ": cannot grow: " + std::strerror(errno));
  growthAbort();
  growthBegin(larger);
}

// Brings a slot of the active segment that has moved, or is moving, up to date in the next one.
Writer::Copied Writer::growthCopy(std::uint64_t from, const std::uint32_t* key, std::uint64_t hash) {
  Segment& next = *growth_->next;
  const std::uint32_t* const slot = active_->slot(from);
  if (!next.allocate(next.home(hash))) return Copied::kNoMemory;
  const Probe at = probe(next, shape_, key, hash);
  if (!at.slot) return Copied::kNoPlace;
  growth_->live += isLive(*slot) ? 1 : 0;
  growth_->live -= at.found && isLive(at.state) ? 1 : 0;
  growth_->deleted += isLive(*slot) ? 0 : 1;
  growth_->deleted -= at.found && !isLive(at.state) ? 1 : 0;
  std::copy(slot, slot + shape_.slotWords(), next.writableSlot(at.index));
  next.tagIs(at.index, tagOf(hash));
  if (reconciling_) {
    const std::uint64_t bit = 1ULL << (at.index % 64);
    const bool marked = (marks_[from / 64] >> (from % 64) & 1) != 0;
    growth_->marks[at.index / 64] = (growth_->marks[at.index / 64] & ~bit) | (marked ? bit : 0);
  }
  return Copied::kYes;
}

void Writer::growthMove(std::size_t units) {
  Growth& growth = *growth_;
  for (; units != 0; --units) {
    bool more = false;
    if (!growth.ready) {
      if (!growth.next->allocateStep(more))
        return growthRefused(file_ + ": cannot grow: " + std::strerror(errno));
      if (growth.next->allocatedBeforeSlots()) growthReady();
      units -= std::min(units - 1, kAllocationUnits);
    } else if (growth.ring < growth.ringEnd) {
      const std::uint64_t position = growth.ring++;
      if (active_->ringHolds(position, active_->head())) {
        std::copy_n(active_->ring(position), shape_.keyWords(), growth.next->writableRing(position));
      } else {
        growth.next->ringFirstIs(position + 1);
      }
    } else if (growth.slot < active_->slots()) {
      if (const std::uint32_t* const slot = active_->slot(growth.slot); isLive(*slot)) {
        const std::uint64_t hash = hashOf(shape_, slot + 1, active_->seed());
        if (const Copied copied = growthCopy(growth.slot, slot + 1, hash); copied != Copied::kYes)
          return growthStuck(copied);
      }
      ++growth.slot;
    } else {
      if (!growth.next->allocateStep(more))
        return growthRefused(file_ + ": cannot grow: " + std::strerror(errno));
      if (!more) return growthFinish();
      units -= std::min(units - 1, kAllocationUnits);
    }
  }
}

void Writer::growthFinish() {
  std::unique_ptr<Growth> growth = std::move(growth_);
  Segment& next = *growth->next;
  next.bornAtIs(active_->head());
  Header& header = *next.header();
  header.head = active_->head();
  header.live = growth->live;
  header.deleted = growth->deleted;
  // Retired before the name changes hands: a reader that looks in between finds this segment still under the
  // name and keeps it, and none keeps it longer, even if the writer dies here.
  storeWord(&active_->header()->retired, 1U, std::memory_order_release);
  if (rename(next.file().c_str(), file_.c_str()) != 0) {
    const int error = errno;
    storeWord(&active_->header()->retired, 0U, std::memory_order_release);
    growth_ = std::move(growth);
    return growthRefused(file_ + ": cannot be replaced: " + std::strerror(error));
  }
  next.fileIs(file_);
  grown_ = {};
  growthBytes_ = 0;
  releasing_.push_back(std::exchange(active_, growth->next));
  marks_ = std::move(growth->marks);
  if (reconciling_) sweepSlot_ = 0;
}

bool Writer::growStep(std::size_t maxSlots) {
  if (growth_) {
    growthMove(std::max<std::size_t>(maxSlots, 1));
  } else if (!releasing_.empty() && !releasing_.back()->releaseStep()) {
    releasing_.pop_back();
  }
  return growth_ || !releasing_.empty();
}

// Ends the growth of a table that has no time left for it.
bool Writer::growNow() {
  const std::uint64_t generation = active_->fixed().generation;
  if (!growth_) growthBegin(active_->capacity() + active_->capacity() / 2);
  while (growth_) growthMove(kAllocationUnits * 64);
  return active_->fixed().generation != generation;
}

}  // namespace Memtab
