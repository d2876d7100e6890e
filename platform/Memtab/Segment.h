#pragma once

#include <sys/types.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "Memtab/Layout.h"
#include "Mox/Hash.h"

namespace Memtab {

// The home of a hash among `homes` buckets, and the least hash whose home is `home` (< homes) or a later one.
inline std::uint64_t homeOf(std::uint64_t hash, std::uint64_t homes) {
  return static_cast<std::uint64_t>((static_cast<Mox::UInt128>(hash) * homes) >> 64);
}
inline std::uint64_t leastHashAt(std::uint64_t home, std::uint64_t homes) {
  return static_cast<std::uint64_t>(((static_cast<Mox::UInt128>(home) << 64) + homes - 1) / homes);
}

// What a new segment is to be.
struct SegmentPlan {
  Shape shape;
  std::uint64_t capacity = 0;
  std::uint32_t ringEntries = 0;
  std::uint64_t hashSeed = 0;
  std::uint64_t epoch = 0;
  std::uint64_t generation = 0;
  std::uint64_t head = 0;
  std::uint64_t ringFirst = 0;
};

// One mapped segment. Everything that decides an address comes from a copy of the fixed header that was
// checked against the file when the segment was opened, so nothing that another process writes later leads
// outside the mapping. Not copyable; held by shared pointer by whoever still reads it. The mapping survives
// renaming and unlinking.
class Segment {
 public:
  enum class Access { kRead, kWrite };
  enum class Outcome {
    kOpened,
    kAbsent,   // no file of this name
    kDamaged,  // a file that is not a table of this shape, or is inconsistent
    kFailed,   // the system refused (descriptors, memory, permission); worth another try
  };
  struct Opened {
    Outcome outcome = Outcome::kAbsent;
    std::shared_ptr<Segment> segment;  // set if kOpened
    std::string message;               // set if kDamaged or kFailed: file, field, value and what is allowed
  };

  // Opens an existing segment. Damaged is also a file that is not a regular one, or belongs to another user
  // than this process's or root: whoever owns it may change it.
  static Opened open(const std::string& file, const Shape& shape, Access access);

  // Creates a segment under `file`, replacing whatever has that name, empty and without memory for its slots:
  // `allocate` before using them. kOpened or kFailed.
  static Opened create(const std::string& file, const SegmentPlan& plan);

  ~Segment();
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  // The checked copy of the fixed part of the header.
  const Header& fixed() const { return fixed_; }
  const Shape& shape() const { return shape_; }
  const std::string& file() const { return file_; }
  std::size_t bytes() const { return mappedBytes_; }
  bool isFile(dev_t device, ino_t inode) const { return device == device_ && inode == inode_; }

  bool retired() const { return loadWord(&header_->retired, std::memory_order_acquire) != 0; }
  std::uint64_t head() const { return loadWord(&header_->head, std::memory_order_acquire); }
  std::uint64_t live() const { return loadWord(&header_->live, std::memory_order_relaxed); }
  std::uint64_t deleted() const { return loadWord(&header_->deleted, std::memory_order_relaxed); }
  std::uint32_t writerPid() const { return loadWord(&header_->writerPid, std::memory_order_relaxed); }

  const Mox::HashSeed& seed() const { return seed_; }
  std::uint64_t capacity() const { return capacity_; }
  std::uint64_t slots() const { return slots_; }
  // First slot of a hash's home bucket.
  std::uint64_t home(std::uint64_t hash) const { return homeOf(hash, homes_) * kBucketSlots; }
  // The least hash whose home bucket begins at `index` (a multiple of 8 below capacity()) or later.
  std::uint64_t leastHash(std::uint64_t index) const { return leastHashAt(index / kBucketSlots, homes_); }

  // Words of slot `index` (< slots()): state, key, value.
  const std::uint32_t* slot(std::uint64_t index) const { return slotWords_ + index * shape_.slotWords(); }
  std::uint32_t* writableSlot(std::uint64_t index) { return slotWords_ + index * shape_.slotWords(); }

  // The tags of the bucket that begins at slot `index`, that of `index` in the low byte.
  std::uint64_t tags(std::uint64_t index) const {
    return loadWord(tagWords_ + index / kBucketSlots, std::memory_order_acquire);
  }
  void prefetchTags(std::uint64_t index) const { __builtin_prefetch(tagWords_ + index / kBucketSlots); }
  std::uint64_t tag(std::uint64_t index) const { return tags(index) >> (index % kBucketSlots * 8) & 0xff; }
  // Writer only.
  void tagIs(std::uint64_t index, std::uint64_t tag) {
    std::uint64_t* const word = tagWords_ + index / kBucketSlots;
    const std::uint64_t shift = index % kBucketSlots * 8;
    storeWord(word, (*word & ~(std::uint64_t{0xff} << shift)) | tag << shift, std::memory_order_release);
  }

  // The key words of ring position `position`.
  const std::uint32_t* ring(std::uint64_t position) const {
    return ringWords_ + (position & (fixed_.ringEntries - 1)) * shape_.keyWords();
  }
  std::uint32_t* writableRing(std::uint64_t position) {
    return ringWords_ + (position & (fixed_.ringEntries - 1)) * shape_.keyWords();
  }

  // Whether the ring held the entry of `position` while its head was `head`, unharmed by the entry being
  // written there.
  bool ringHolds(std::uint64_t position, std::uint64_t head) const {
    return position >= fixed_.ringFirst && position < head && head - position < fixed_.ringEntries;
  }

  // Writer only: the changing part of the header.
  Header* header() { return header_; }

  // Writer only: gives memory to the file up to slot `index` and everything before it, at least 256 KiB at a
  // time, so that no store into the mapping can meet a full file system. False: the system has none left.
  bool allocate(std::uint64_t index);
  // Writer only: whether everything before the slots has its memory.
  bool allocatedBeforeSlots() const;
  // Writer only: the same in one bounded step; `more` tells whether the file still lacks memory afterwards.
  bool allocateStep(bool& more);
  // Writer only: publishes the position from which this segment has the name, before it gets it.
  void bornAtIs(std::uint64_t position);
  void ringFirstIs(std::uint64_t position);
  // Writer only: the file has been renamed.
  void fileIs(const std::string& file) { file_ = file; }

  // Writer only: gives back at most 1 MiB of a retired segment; false once nothing is left. Freeing all of a
  // large table at once would hold the writer up for milliseconds.
  bool releaseStep();

 private:
  Segment(std::string file, int fd, void* mapping, const Header& fixed, const Shape& shape);

  Header* header_;
  std::uint32_t* slotWords_;
  std::uint64_t* tagWords_;
  Mox::HashSeed seed_;
  std::uint64_t homes_;
  std::uint64_t slots_;
  std::uint64_t capacity_;
  std::uint32_t* ringWords_;
  Shape shape_;
  Header fixed_;
  std::string file_;
  int fd_;  // holds the shared lock that tells the writer that somebody still reads this file
  std::size_t mappedBytes_;
  std::uint64_t allocated_ = 0;  // file bytes that have memory, known to the creator only
  bool releasing_ = false;
  bool alone_ = false;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

template <class S>
std::uint64_t hashOf(const S& shape, const std::uint32_t* key, const Mox::HashSeed& seed) {
  return Mox::hashWords(key, shape.keyWords(), seed);
}

// Whether the slot holds this key. Only for slots whose tag or state was seen to be other than 0 (with
// acquire): from then on the key does not change.
template <class S>
bool keyIs(const S& shape, const std::uint32_t* slot, const std::uint32_t* key) {
  std::uint32_t difference = 0;
  for (std::uint32_t i = 0; i < shape.keyWords(); ++i) {
    difference |= loadWord(slot + 1 + i, std::memory_order_relaxed) ^ key[i];
  }
  return difference == 0;
}

// Of a bucket's tags those of this hash: the high bit of each that is equal; rarely one too many, never one
// too few.
inline std::uint64_t equalTags(std::uint64_t tags, std::uint64_t hash) {
  const std::uint64_t difference = tags ^ tagOf(hash) * kTagLowBits;
  return (difference - kTagLowBits) & ~difference & kTagHighBits;
}
// The first of them: its place in the bucket.
inline std::uint64_t tagIndex(std::uint64_t equal) {
  return static_cast<std::uint64_t>(std::countr_zero(equal)) / 8;
}

// A probe: the key's slot (found), else the free slot where the probe ended, else null at the end of the
// segment.
struct Probe {
  const std::uint32_t* slot = nullptr;
  std::uint64_t index = 0;
  std::uint32_t state = 0;
  bool found = false;
};

template <class S>
Probe probe(const Segment& segment, const S& shape, const std::uint32_t* key, std::uint64_t hash) {
  const std::uint32_t* const slots = segment.slot(0);
  for (std::uint64_t bucket = segment.home(hash); bucket < segment.slots(); bucket += kBucketSlots) {
    const std::uint64_t tags = segment.tags(bucket);
    for (std::uint64_t equal = equalTags(tags, hash); equal != 0; equal &= equal - 1) {
      const std::uint64_t at = bucket + tagIndex(equal);
      const std::uint32_t* const slot = slots + at * shape.slotWords();
      const std::uint32_t state = loadWord(slot, std::memory_order_acquire);
      if (keyIs(shape, slot, key)) [[likely]]
        return {slot, at, state, true};
    }
    const std::uint64_t free = ~tags & kTagHighBits;
    if (free != 0) {
      const std::uint64_t at = bucket + tagIndex(free);
      return {slots + at * shape.slotWords(), at, 0, false};
    }
  }
  return {};
}

// Copies the value of a slot of a live writer's table: true with the state it belongs to, false if the slot
// stayed busy for the whole bounded wait (spinning first, then letting other processes run; well under a
// millisecond of CPU). A slot found deleted is a success without a value.
bool readValue(const Shape& shape, const std::uint32_t* slot, std::uint32_t* value, std::uint32_t& state);

inline constexpr int kSpins = 64;
inline constexpr int kYields = 256;
// One turn of the bounded wait: false when the wait is over.
bool waitTurn(int turn);

}  // namespace Memtab
