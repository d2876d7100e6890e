#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Memtab/Cursor.h"
#include "Memtab/Directory.h"
#include "Memtab/Error.h"
#include "Memtab/Segment.h"

namespace Memtab {

class ChangeFeed;
class Watcher;

// A reader's view of one table, which another process (or this one) writes. Maps the segment read-only;
// look-ups take no lock and make no system call. The view follows the table: when the table moves to another
// segment, the next call of any kind goes to the new one.
//
// A table that does not exist is an empty view. It attaches when refresh() finds the table; a Watcher calls
// that when the table appears, and without one it is the owner's to call. A file that is not a table of this
// shape is treated like no table, except that look-ups raise CorruptionError, until a writer has put a sound
// one in its place.
//
// Not thread-safe; any number of views of a table may exist.
class TableView {
 public:
  // Attaches if it can. With a watcher (which must outlive the view), news about the table marks the view
  // there.
  TableView(const Directory& directory, std::string_view table, const Shape& shape,
            Watcher* watcher = nullptr);
  ~TableView();
  TableView(const TableView&) = delete;
  TableView& operator=(const TableView&) = delete;

  // Copies the entry's value to `value`; false if there is no such entry. Never a mixture of two values.
  // Throws CorruptionError if the value stays half written for a bounded wait, which means that its writer
  // died or is stopped in the middle of a write, or if the table's file is damaged.
  template <class S>
  bool lookup(const S& shape, const std::uint32_t* key, std::uint32_t* value);
  bool lookup(const std::uint32_t* key, std::uint32_t* value) { return lookup(shape_, key, value); }
  // The same for callers that only look ahead: what cannot be had at once counts as no entry.
  template <class S>
  bool peek(const S& shape, const std::uint32_t* key, std::uint32_t* value) const;

  // For callers that know several keys ahead: bring what a look-up of the key touches into the processor's
  // cache, first the tags of its bucket, and once they are there the entry itself. No effect that can be
  // observed.
  template <class S>
  void prefetchTags(const S& shape, const std::uint32_t* key) const;
  template <class S>
  void prefetch(const S& shape, const std::uint32_t* key) const;

  // Entries; 0 while the view is empty.
  std::uint64_t size();
  bool attached() const { return current_ != nullptr; }
  // Why the view is empty though there is a file: empty string if there is none, or all is well.
  const std::string& problem() const { return problem_; }
  // Whether that is because the system refused, so that refresh() may have more luck: with the table as it is now,
  // while look-ups go to what it was before, if there was anything.
  bool refused() const { return refused_; }

  // One slice of a walk in the table's order. No entry that is there throughout the walk is skipped, whatever
  // happens to the table between slices. Nothing, and the end, while the view is empty.
  VisitResult visit(Cursor& cursor, std::size_t maxEntries, const EntryCallback& callback);

  // Looks at the table's name again, and attaches to what it now means.
  void refresh();

  // The segment that look-ups use, after following the table; null while the view is empty.
  const std::shared_ptr<Segment>& segment();

  const std::string& file() const { return file_; }
  const Shape& shape() const { return shape_; }

 private:
  friend class ChangeFeed;

  const Segment* followed();
  [[noreturn]] void raiseDamaged() const;
  template <class S>
  static bool settledValue(const S& shape, const Probe& at, std::uint32_t* value);
  bool slowValue(const std::uint32_t* slot, const std::uint32_t* key, std::uint32_t* value) const;

  std::shared_ptr<Segment> current_;
  Shape shape_;
  std::string file_;
  std::string problem_;
  bool damaged_ = false;
  bool refused_ = false;
  Watcher* watcher_;
  // For the feed: the segments that look-ups have gone to and left since the feed last asked, oldest first.
  bool keepsLeft_ = false;
  std::vector<std::shared_ptr<Segment>> left_;
};

inline const Segment* TableView::followed() {
  if (current_ && current_->retired()) [[unlikely]]
    refresh();
  return current_.get();
}

template <class S>
bool TableView::lookup(const S& shape, const std::uint32_t* key, std::uint32_t* value) {
  const Segment* const segment = followed();
  if (!segment) [[unlikely]] {
    if (damaged_) raiseDamaged();
    return false;
  }
  const Probe at = probe(*segment, shape, key, hashOf(shape, key, segment->seed()));
  return at.found && (settledValue(shape, at, value) || slowValue(at.slot, key, value));
}

template <class S>
bool TableView::peek(const S& shape, const std::uint32_t* key, std::uint32_t* value) const {
  if (!current_) return false;
  const Probe at = probe(*current_, shape, key, hashOf(shape, key, current_->seed()));
  return at.found && settledValue(shape, at, value);
}

template <class S>
bool TableView::settledValue(const S& shape, const Probe& at, std::uint32_t* value) {
  if (!isSettled(at.state)) return false;
  const std::uint32_t* const from = at.slot + 1 + shape.keyWords();
  for (std::uint32_t i = 0; i < shape.valueWords(); ++i) {
    value[i] = loadWord(from + i, std::memory_order_acquire);
  }
  return loadWord(at.slot, std::memory_order_relaxed) == at.state;
}

template <class S>
void TableView::prefetchTags(const S& shape, const std::uint32_t* key) const {
  if (current_) current_->prefetchTags(current_->home(hashOf(shape, key, current_->seed())));
}

template <class S>
void TableView::prefetch(const S& shape, const std::uint32_t* key) const {
  if (!current_) return;
  const std::uint64_t hash = hashOf(shape, key, current_->seed());
  const std::uint64_t bucket = current_->home(hash);
  const std::uint64_t equal = equalTags(current_->tags(bucket), hash);
  if (equal != 0) {
    const std::uint32_t* const slot = current_->slot(0) + (bucket + tagIndex(equal)) * shape.slotWords();
    __builtin_prefetch(slot);
    __builtin_prefetch(slot + shape.slotWords() - 1);
  }
}

}  // namespace Memtab
