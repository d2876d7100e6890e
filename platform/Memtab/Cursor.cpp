#include "Memtab/Cursor.h"

#include <algorithm>
#include <vector>

namespace Memtab {
namespace {

constexpr std::uint64_t kSlotsASlice = 1024;
constexpr std::uint64_t kSlotsAnEntry = 16;

}  // namespace

Cursor Cursor::from(const std::uint32_t* key, std::uint32_t keyWords) {
  Cursor cursor;
  cursor.position_ = Position::kKey;
  std::copy_n(key, keyWords, cursor.key_.begin());
  return cursor;
}

// One slice. Slots are read a run at a time, a run being what lies between two free slots: an entry cannot be
// displaced across a free slot, so a run holds all entries whose homes are in it, and sorting each run yields
// the table's order.
struct SegmentWalk {
  struct Found {
    std::uint64_t hash;
    std::size_t words;  // offset in `copies`
  };

  const Segment& segment;
  Cursor& cursor;
  const Shape shape = segment.shape();
  std::vector<Found> found;
  std::vector<std::uint32_t> copies;  // key and value of each found entry
  VisitResult result;

  void bind() {
    if (cursor.bound_ && cursor.seed_ != segment.seed().first) cursor = Cursor();
    if (!cursor.bound_ && cursor.position_ == Cursor::Position::kKey) {
      cursor.hash_ = hashOf(shape, cursor.key_.data(), segment.seed());
    }
    cursor.bound_ = true;
    cursor.seed_ = segment.seed().first;
  }

  bool keyBefore(const std::uint32_t* a, const std::uint32_t* b) const {
    return std::lexicographical_compare(a, a + shape.keyWords(), b, b + shape.keyWords());
  }

  bool isDue(std::uint64_t hash, const std::uint32_t* key) const {
    if (hash != cursor.hash_ || cursor.position_ == Cursor::Position::kHash) return hash >= cursor.hash_;
    if (cursor.position_ == Cursor::Position::kKey) return !keyBefore(key, cursor.key_.data());
    return keyBefore(cursor.key_.data(), key);
  }

  void take(const std::uint32_t* slot) {
    const std::size_t start = copies.size();
    copies.resize(start + shape.keyWords() + shape.valueWords());
    for (std::uint32_t i = 0; i < shape.keyWords(); ++i) {
      copies[start + i] = loadWord(slot + 1 + i, std::memory_order_relaxed);
    }
    const std::uint64_t hash = hashOf(shape, &copies[start], segment.seed());
    std::uint32_t state = 0;
    if (isDue(hash, &copies[start])) {
      const bool readable = readValue(shape, slot, &copies[start] + shape.keyWords(), state);
      if (!readable) ++result.unreadable;
      if (readable && isLive(state)) {
        found.push_back({hash, start});
        return;
      }
    }
    copies.resize(start);
  }

  // Reads the run at `index`, the first slot of a home bucket, and returns the first slot of the bucket after
  // the one in which it ends: a bucket fills from the front, so nothing follows a free slot.
  std::uint64_t readRun(std::uint64_t index) {
    for (; index < segment.slots(); ++index) {
      const std::uint32_t* const slot = segment.slot(index);
      const std::uint32_t state = loadWord(slot, std::memory_order_acquire);
      if (state == 0) return index / kBucketSlots * kBucketSlots + kBucketSlots;
      if (isLive(state)) take(slot);
    }
    return index;
  }

  // Visits what was found, in order, without touching the segment again: the callback may make the writer
  // drop it. False if the slice is full first.
  bool deliver(std::size_t maxEntries, const EntryCallback& callback) {
    std::sort(found.begin(), found.end(), [this](const Found& a, const Found& b) {
      return a.hash != b.hash ? a.hash < b.hash : keyBefore(&copies[a.words], &copies[b.words]);
    });
    for (const Found& entry : found) {
      if (result.visited == maxEntries) return false;
      const std::uint32_t* const key = &copies[entry.words];
      cursor.position_ = Cursor::Position::kAfter;
      cursor.hash_ = entry.hash;
      std::copy_n(key, shape.keyWords(), cursor.key_.begin());
      ++result.visited;
      callback(key, key + shape.keyWords());
    }
    return true;
  }

  void run(std::size_t maxEntries, const EntryCallback& callback) {
    bind();
    std::uint64_t index = segment.home(cursor.hash_);
    const std::uint64_t limit =
        index + kSlotsASlice + kSlotsAnEntry * std::min<std::uint64_t>(maxEntries, kMaxCapacity);
    while (index < limit && index < segment.capacity() && found.size() < maxEntries) index = readRun(index);
    const bool end = index >= segment.capacity();
    const std::uint64_t nextHash = end ? 0 : segment.leastHash(index);
    result.more = true;
    if (!deliver(maxEntries, callback)) return;
    result.more = !end;
    cursor.position_ = end ? Cursor::Position::kEnd : Cursor::Position::kHash;
    cursor.hash_ = nextHash;
  }
};

VisitResult visitSegment(const Segment& segment, Cursor& cursor, std::size_t maxEntries,
                         const EntryCallback& callback) {
  SegmentWalk walk{segment, cursor, segment.shape(), {}, {}, {}};
  if (cursor.atEnd()) return walk.result;
  walk.run(std::max<std::size_t>(maxEntries, 1), callback);
  return walk.result;
}

}  // namespace Memtab
