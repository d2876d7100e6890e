#include "Memtab/ChangeFeed.h"

#include <algorithm>
#include <array>

namespace Memtab {
namespace {

constexpr std::uint64_t kSlotsASlice = 4096;

}  // namespace

ChangeFeed::ChangeFeed(TableView& view) : view_(view), segment_(view.segment()) {
  if (segment_) position_ = segment_->head();
}

// Goes along with the view to another segment.
void ChangeFeed::follow() {
  const std::shared_ptr<Segment>& current = view_.segment();
  if (current == segment_) return;
  const bool sameTable = current && segment_ && current->fixed().epoch == segment_->fixed().epoch &&
                         current->fixed().generation >= segment_->fixed().generation;
  // The oldest segment that is still needed knows all the entries that have been reported; later ones may
  // not.
  std::shared_ptr<Segment> old = before_ ? std::move(before_) : segment_;
  before_.reset();
  segment_ = current;
  if (!sameTable) {
    reread(std::move(old), true);
  } else if (position_ < segment_->fixed().bornAt) {
    before_ = std::move(old);
  }
}

// Begins a re-read of what is not reported yet; the ring is followed from the present head on.
void ChangeFeed::reread(std::shared_ptr<Segment> old, bool everything) {
  reread_ = std::make_unique<Reread>();
  reread_->old = std::move(old);
  reread_->now = segment_;
  reread_->everything = everything;
  reread_->from = position_;
  position_ = reread_->to = segment_ ? segment_->head() : 0;
}

bool ChangeFeed::isNews(const std::uint32_t* slot, std::uint32_t state) const {
  const Reread& reread = *reread_;
  if (!reread.old) {
    return reread.everything ? isLive(state) : changedWithin(state, reread.from, reread.to);
  }
  if (!isLive(state)) return changedWithin(state, reread.from, reread.old->head());
  if (reread.everything) return true;
  const Probe at =
      probe(*reread.now, view_.shape(), slot + 1, hashOf(view_.shape(), slot + 1, reread.now->seed()));
  return !at.found || !isLive(at.state);
}

// True once the re-read is over.
bool ChangeFeed::rereadStep(std::size_t& room, const KeyCallback& callback) {
  Reread& reread = *reread_;
  for (std::uint64_t budget = kSlotsASlice; budget != 0 && room != 0; --budget) {
    const Segment* const source = reread.old ? reread.old.get() : reread.now.get();
    if (!source || reread.slot >= source->slots()) {
      if (!reread.old) return true;
      reread.old.reset();
      reread.slot = 0;
      continue;
    }
    const std::uint32_t* const slot = source->slot(reread.slot++);
    const std::uint32_t state = loadWord(slot, std::memory_order_acquire);
    if (state == 0 || !isNews(slot, state)) continue;
    std::array<std::uint32_t, kMaxKeyWords> key;
    for (std::uint32_t i = 0; i < view_.shape().keyWords(); ++i) {
      key[i] = loadWord(slot + 1 + i, std::memory_order_relaxed);
    }
    --room;
    callback(key.data());
  }
  return false;
}

bool ChangeFeed::drain(std::size_t maxKeys, const KeyCallback& callback) {
  std::size_t room = std::max<std::size_t>(maxKeys, 1);
  for (;;) {
    if (reread_) {
      if (!rereadStep(room, callback)) return true;
      reread_.reset();
    }
    follow();
    if (reread_) return true;
    if (!segment_) return false;

    const std::uint64_t head = segment_->head();
    if (position_ == head) {
      before_.reset();
      return false;
    }
    if (room == 0) return true;
    std::array<std::uint32_t, kMaxKeyWords> key;
    const std::uint32_t* const entry = segment_->ring(position_);
    for (std::uint32_t i = 0; i < view_.shape().keyWords(); ++i) {
      key[i] = loadWord(entry + i, std::memory_order_acquire);
    }
    // Checked after copying: the entry may have been overwritten meanwhile.
    if (!segment_->ringHolds(position_, segment_->head())) {
      ++overruns_;
      reread(std::move(before_), false);
      return true;
    }
    ++position_;
    if (before_ && position_ >= segment_->fixed().bornAt) before_.reset();
    --room;
    callback(key.data());
  }
}

}  // namespace Memtab
