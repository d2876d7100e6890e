#include "Memtab/TableView.h"

#include <sys/stat.h>

#include "Memtab/Watcher.h"

namespace Memtab {

TableView::TableView(const Directory& directory, std::string_view table, const Shape& shape, Watcher* watcher)
    : shape_(shape), file_(directory.segmentFile(table)), watcher_(watcher) {
  // The watch comes first: what happens after it is noticed, what happened before it is found by refresh().
  if (watcher_) watcher_->add(*this);
  refresh();
}

TableView::~TableView() {
  if (watcher_) watcher_->remove(*this);
}

void TableView::refresh() {
  struct stat named {};
  refused_ = false;
  if (current_ && stat(file_.c_str(), &named) == 0 && current_->isFile(named.st_dev, named.st_ino)) return;
  Segment::Opened opened = Segment::open(file_, shape_, Segment::Access::kRead);
  problem_ = std::move(opened.message);
  // What the system refuses now it may grant later; until then the old segment, if there is one, is the best
  // there is.
  refused_ = opened.outcome == Segment::Outcome::kFailed;
  if (refused_) return;
  damaged_ = opened.outcome == Segment::Outcome::kDamaged;
  if (keepsLeft_ && current_) left_.push_back(std::move(current_));
  current_ = std::move(opened.segment);
}

const std::shared_ptr<Segment>& TableView::segment() {
  followed();
  return current_;
}

std::uint64_t TableView::size() {
  const Segment* const segment = followed();
  return segment ? segment->live() : 0;
}

VisitResult TableView::visit(Cursor& cursor, std::size_t maxEntries, const EntryCallback& callback) {
  const std::shared_ptr<Segment> held = segment();
  return held ? visitSegment(*held, cursor, maxEntries, callback) : VisitResult{};
}

void TableView::raiseDamaged() const { throw CorruptionError(problem_); }

bool TableView::slowValue(const std::uint32_t* slot, const std::uint32_t* key, std::uint32_t* value) const {
  std::uint32_t state = 0;
  if (readValue(shape_, slot, value, state)) return isLive(state);
  std::string text = file_ + ": the value of key ";
  const auto* const bytes = reinterpret_cast<const unsigned char*>(key);
  for (std::uint32_t i = 0; i < shape_.keyBytes; ++i) {
    text += "0123456789abcdef"[bytes[i] >> 4];
    text += "0123456789abcdef"[bytes[i] & 15];
  }
  throw CorruptionError(text + " stays half written by process " + std::to_string(current_->writerPid()));
}

}  // namespace Memtab
