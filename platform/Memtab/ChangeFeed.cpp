#include "Memtab/ChangeFeed.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Memtab {
namespace {

constexpr std::uint64_t kSlotsASlice = 4096;

}  // namespace

ChangeFeed::ChangeFeed(TableView& view) : view_(view), segment_(view.segment()) {
  view_.keepsLeft_ = true;
  if (segment_) position_ = segment_->head();
}

ChangeFeed::~ChangeFeed() {
  view_.keepsLeft_ = false;
  view_.left_.clear();
}

// Goes along with the view to another segment.
void ChangeFeed::follow() {
  const std::shared_ptr<Segment>& current = view_.segment();
  if (current == segment_ && view_.left_.empty()) return;
  bool sameTable = current && segment_;
  for (auto& left : std::exchange(view_.left_, {})) {
    sameTable = sameTable && left->fixed().epoch == current->fixed().epoch;
    before_.push_back(std::move(left));
  }
  segment_ = current;
  if (!sameTable) {
    reread(true);
  } else if (position_ >= segment_->fixed().bornAt) {
    before_.clear();
  }
}

// Begins a re-read of what is not reported yet; the ring is followed from the present head on.
void ChangeFeed::reread(bool everything) {
  reread_ = std::make_unique<Reread>();
  reread_->old = std::exchange(before_, {});
  reread_->now = segment_;
  reread_->everything = everything;
  reread_->from = position_;
  position_ = reread_->to = segment_ ? segment_->head() : 0;
}

bool ChangeFeed::isNews(const std::uint32_t* slot, std::uint32_t state) const {
  const Reread& reread = *reread_;
  if (reread.everything) return true;
  if (reread.old.empty()) return changedWithin(state, reread.from, reread.to);
  if (!isLive(state)) return changedWithin(state, reread.from, reread.old.back()->head());
  const std::uint64_t hash = hashOf(view_.shape(), slot + 1, reread.now->seed());
  const Probe at = probe(*reread.now, view_.shape(), slot + 1, hash);
  return !at.found || !isLive(at.state);
}

// True once the re-read is over.
bool ChangeFeed::rereadStep(std::size_t& room, const KeyCallback& callback) {
  Reread& reread = *reread_;
  for (std::uint64_t budget = kSlotsASlice; budget != 0 && room != 0; --budget) {
    const Segment* const source = reread.old.empty() ? reread.now.get() : reread.old.back().get();
    if (!source || reread.slot >= source->slots()) {
      if (reread.old.empty()) return true;
      reread.old.pop_back();
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

bool ChangeFeed::isCurrent() {
  if (reread_ || view_.segment() != segment_ || !view_.left_.empty()) return false;
  return !segment_ || position_ == segment_->head();
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
      before_.clear();
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
      reread(false);
      return true;
    }
    ++position_;
    if (position_ == segment_->fixed().bornAt) before_.clear();
    --room;
    callback(key.data());
  }
}

}  // namespace Memtab
