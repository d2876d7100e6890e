#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "Memtab/Segment.h"

namespace Memtab {

// A place in a table's order: entries are ordered by the hash of their key, and by the key where hashes are
// equal. The order is the same in every generation of a table, so a cursor stays good while the table grows,
// shrinks and changes: an entry that is there throughout is visited exactly once, one that comes or goes may
// or may not be. If the table is replaced by one that was started empty, a cursor that has been used starts
// over.
//
// Value type; may be kept between slices and outlive every table object.
class Cursor {
 public:
  // Before the first entry.
  Cursor() = default;
  // At the first entry whose key is not before `key`, which need not exist. `key` in words, zero-padded.
  static Cursor from(const std::uint32_t* key, std::uint32_t keyWords);

  bool atEnd() const { return position_ == Position::kEnd; }

 private:
  enum class Position {
    kHash,   // at the first entry with this hash or a greater one
    kKey,    // at the first entry not before this key
    kAfter,  // at the first entry after this key
    kEnd,
  };
  friend struct SegmentWalk;

  Position position_ = Position::kHash;
  bool bound_ = false;  // has been used with `seed_`
  std::uint64_t seed_ = 0;
  std::uint64_t hash_ = 0;
  std::array<std::uint32_t, kMaxKeyWords> key_{};
};

struct VisitResult {
  std::size_t visited = 0;
  // Entries that were left out because their writer died while it wrote them. The next writer deletes and
  // reports them.
  std::size_t unreadable = 0;
  // The walk has not reached the end. May be true with nothing visited: a slice also ends after a bounded
  // number of slots.
  bool more = false;
};

// Key and value words; valid during the call. The callback may write to the table and may look up in it.
using EntryCallback = std::function<void(const std::uint32_t* key, const std::uint32_t* value)>;

// Visits up to `maxEntries` (at least one) entries from the cursor on and moves it past them. All of the
// slice is copied before the first call, so a call sees each entry as it was when the slice began.
VisitResult visitSegment(const Segment& segment, Cursor& cursor, std::size_t maxEntries,
                         const EntryCallback& callback);

}  // namespace Memtab
