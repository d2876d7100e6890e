#include "Memtab/Writer.h"

#include <unistd.h>

#include <algorithm>
#include <array>

namespace Memtab {
namespace {

// Slots that a write moves while the table grows: enough that a table which starts at four fifths full has
// moved long before it is full, few enough that a write stays in the microseconds.
constexpr std::size_t kSlotsAWrite = 64;
constexpr std::uint64_t kSlotsASweep = 4096;

}  // namespace

Writer::~Writer() {
  if (growth_) growthAbort();
  if (active_ && !removed_) {
    flush();
    storeWord(&active_->header()->writerPid, 0U, std::memory_order_relaxed);
  }
  if (bell_ >= 0) close(bell_);
}

Written Writer::put(const std::uint32_t* key, const std::uint32_t* value) {
  const std::uint64_t hash = hashOf(shape_, key, active_->seed());
  Probe at = probe(*active_, shape_, key, hash);
  if (!at.found) {
    if (!hasRoom() && !growing()) growthBegin(0);
    // Full as far as look-ups stay fast, or no slot before the end: what is left of growing has to happen
    // now.
    if (active_->live() + active_->deleted() + 1 > active_->capacity() - active_->capacity() / 16 ||
        !at.slot) {
      if (!growNow()) return Written::kFull;
      return put(key, value);
    }
  }
  auto* const slot = const_cast<std::uint32_t*>(at.slot);
  std::uint32_t* const held = slot + 1 + shape_.keyWords();
  Header& header = *active_->header();
  const bool live = at.found && isLive(at.state);
  if (live && std::equal(held, held + shape_.valueWords(), value)) {
    mark(at.index);
    return Written::kUnchanged;
  }

  if (live) {
    storeWord(slot, at.state | kBusy, std::memory_order_relaxed);
  } else if (!at.found) {
    for (std::uint32_t i = 0; i < shape_.keyWords(); ++i) {
      storeWord(slot + 1 + i, key[i], std::memory_order_relaxed);
    }
  }
  for (std::uint32_t i = 0; i < shape_.valueWords(); ++i) {
    storeWord(held + i, value[i], std::memory_order_release);
  }
  storeWord(slot, liveState(active_->head()), std::memory_order_release);
  if (!at.found) active_->tagIs(at.index, tagOf(hash));
  if (!live) storeWord(&header.live, header.live + 1, std::memory_order_relaxed);
  if (at.found && !live) storeWord(&header.deleted, header.deleted - 1, std::memory_order_relaxed);
  mark(at.index);
  changed(at.index, key, hash);
  return Written::kChanged;
}

bool Writer::del(const std::uint32_t* key) {
  const std::uint64_t hash = hashOf(shape_, key, active_->seed());
  const Probe at = probe(*active_, shape_, key, hash);
  if (!at.found || !isLive(at.state)) return false;
  deleteSlot(at.index);
  return true;
}

void Writer::deleteSlot(std::uint64_t index) {
  std::uint32_t* const slot = active_->writableSlot(index);
  std::array<std::uint32_t, kMaxKeyWords> key;
  std::copy_n(slot + 1, shape_.keyWords(), key.begin());
  Header& header = *active_->header();
  storeWord(slot, deletedState(active_->head()), std::memory_order_release);
  storeWord(&header.live, header.live - 1, std::memory_order_relaxed);
  storeWord(&header.deleted, header.deleted + 1, std::memory_order_relaxed);
  const bool sparse = header.deleted > active_->capacity() / 4 && header.live < active_->capacity() / 8 &&
                      active_->capacity() > options_.capacity;
  if (sparse && !growing()) growthBegin(0);
  changed(index, key.data(), hashOf(shape_, key.data(), active_->seed()));
}

bool Writer::get(const std::uint32_t* key, std::uint32_t* value) const {
  const Probe at = probe(*active_, shape_, key, hashOf(shape_, key, active_->seed()));
  if (!at.found || !isLive(at.state)) return false;
  std::copy_n(at.slot + 1 + shape_.keyWords(), shape_.valueWords(), value);
  return true;
}

void Writer::changed(std::uint64_t index, const std::uint32_t* key, std::uint64_t hash) {
  if (growth_ && index < growth_->slot) {
    if (const Copied copied = growthCopy(index, key, hash); copied != Copied::kYes) growthStuck(copied);
  }
  append(key);
  growStep(kSlotsAWrite);
}

void Writer::append(const std::uint32_t* key) {
  Header& header = *active_->header();
  const std::uint64_t position = header.head;
  const auto write = [&](std::uint32_t* entry) {
    for (std::uint32_t i = 0; i < shape_.keyWords(); ++i)
      storeWord(entry + i, key[i], std::memory_order_release);
  };
  if (growth_ && growth_->ready) write(growth_->next->writableRing(position));
  write(active_->writableRing(position));
  storeWord(&header.head, position + 1, std::memory_order_release);
}

// The byte has had its memory since the writer opened the file, so this cannot fail for lack of it. Whatever else
// it is, it is tried once more, and with the next change.
void Writer::flush() {
  const std::uint64_t head = active_->head();
  for (int tries = 0; rungAt_ != head && tries < 2; ++tries) {
    if (pwrite(bell_, "!", 1, 0) == 1) rungAt_ = head;
  }
}

bool Writer::hasRoom() const {
  return (active_->live() + active_->deleted() + 1) * 5 <= active_->capacity() * 4;
}

void Writer::mark(std::uint64_t index) {
  if (!reconciling_) return;
  marks_[index / 64] |= 1ULL << (index % 64);
}

void Writer::reconcileBegin() {
  reconciling_ = true;
  sweepSlot_ = 0;
  marks_.assign(active_->slots() / 64 + 1, 0);
  if (growth_) growth_->marks.assign(growth_->next->slots() / 64 + 1, 0);
}

bool Writer::sweep(std::size_t maxEntries) {
  if (!reconciling_) return false;
  const std::uint64_t generation = active_->fixed().generation;
  std::size_t deleted = 0;
  for (std::uint64_t budget = kSlotsASweep; budget != 0 && deleted < maxEntries; --budget) {
    if (sweepSlot_ >= active_->slots()) {
      reconciling_ = false;
      marks_ = {};
      if (growth_) growth_->marks = {};
      return false;
    }
    const std::uint64_t index = sweepSlot_++;
    if (!isLive(*active_->slot(index)) || (marks_[index / 64] >> (index % 64) & 1) != 0) continue;
    deleteSlot(index);
    ++deleted;
    // The table has moved to another segment: the marks have moved along, the place has not.
    if (active_->fixed().generation != generation) {
      sweepSlot_ = 0;
      return true;
    }
  }
  return true;
}

void Writer::remove() {
  if (growth_) growthAbort();
  directory_.remove(table_);
  removed_ = true;
}

std::size_t Writer::bytes() const { return active_->bytes() + (growth_ ? growth_->next->bytes() : 0); }

}  // namespace Memtab
