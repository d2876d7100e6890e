#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

// The bytes of a table's segment. Every process of one machine that maps a segment agrees on this header;
// integers are in the machine's byte order, because a segment never leaves it.
//
// Segment file, in order; every part begins at a multiple of 64. slots = capacity + tailSlots:
//
//   | size                      | content                                                             |
//   |---------------------------|---------------------------------------------------------------------|
//   | 256                       | Header                                                              |
//   | ringEntries * keyBytes'   | change ring: the key of position p is entry p mod ringEntries       |
//   | slots                     | tags: one byte a slot                                               |
//   | slots * slot              | slots, in buckets of 8: `capacity` slots in home buckets, then the  |
//   |                           | `tailSlots`                                                         |
//
// keyBytes' and valueBytes' are the sizes rounded up to 4; the padding is zero. One slot:
//
//   | offset        | size        | content                                                         |
//   |---------------|-------------|-----------------------------------------------------------------|
//   | 0             | 4           | state word, see below; 0 = never used                           |
//   | 4             | keyBytes'   | key: fixed once the state is not 0, also in a deleted entry     |
//   | 4 + keyBytes' | valueBytes' | value                                                           |
//
// State word (a sequence lock whose sequence is the change's position in the ring):
//
//   | bits  | meaning                                                                               |
//   |-------|---------------------------------------------------------------------------------------|
//   | 0     | busy: the value is being overwritten; only readers of this key wait                   |
//   | 1     | deleted: the key stays, so that a reader can tell what went; only it may come back    |
//   | 2     | used: always set once the slot holds a key                                            |
//   | 3..31 | stamp: low 29 bits of the ring position of the slot's last change                     |
//
// Tag of a slot: 0 while it was never used, else 0x80 | the low 7 bits of the key's hash. A look-up compares
// the tags of a bucket at once, as one word whose lowest byte is the first slot's, and goes to a slot only
// where the tag is equal; the tags of a large table fit into a processor's cache, its slots do not.
//
// An entry's home is a bucket: the high half of hash * number of home buckets, so that slot order is hash
// order but for displacement. It lives in the first slot from its home on that was free, never before it and
// never wrapped around: the tail takes what overflows at the end. Slots never become free again inside a
// segment and entries never move; a segment that fills up with entries and deleted ones is replaced by
// another (same epoch, next generation) under the same name.
//
// Memory order. Ring and slots are read and written as 32-bit atomic words, tags as 64-bit ones. Value words
// are stored with release and loaded with acquire, so a reader that saw one new word also sees the busy (or
// deleted) state that came before it and discards what it copied. A key is complete before its state leaves
// 0, and that before its tag does. A ring entry is complete before `head` passes it, and `head` reaches p +
// ringEntries before entry p is overwritten.
namespace Memtab {

inline constexpr std::uint64_t kMagic = 0x31424154'4d454d00ULL;  // "\0MEMTAB1" in memory
inline constexpr std::uint32_t kLayoutVersion = 1;
inline constexpr std::uint32_t kMaxKeyBytes = 64;
inline constexpr std::uint32_t kMaxValueBytes = 256;
inline constexpr std::uint64_t kMaxCapacity = 1ULL << 32;
inline constexpr std::uint64_t kMaxRingEntries = 1ULL << 20;
inline constexpr std::uint64_t kMaxTailSlots = 1024;

inline constexpr std::uint64_t kBucketSlots = 8;
inline constexpr std::uint64_t kTagUsed = 0x80;
inline constexpr std::uint64_t kTagLowBits = 0x0101010101010101ULL;
inline constexpr std::uint64_t kTagHighBits = kTagLowBits << 7;
inline constexpr std::uint64_t tagOf(std::uint64_t hash) { return kTagUsed | (hash & 0x7f); }

inline constexpr std::uint32_t kBusy = 1;
inline constexpr std::uint32_t kDeleted = 2;
inline constexpr std::uint32_t kUsed = 4;
inline constexpr std::uint32_t kStampShift = 3;
inline constexpr std::uint32_t kStampMask = (1U << 29) - 1;

// Fixed part: written before the segment gets its name, constant afterwards. A reader works from its own
// checked copy. Changing part: one line that readers poll on every look-up and that changes once, and one
// that the writer changes with every write; apart, so that writing does not slow look-ups down.
struct Header {
  std::uint64_t magic;
  std::uint32_t layoutVersion;
  std::uint32_t keyBytes;
  std::uint32_t valueBytes;
  std::uint32_t ringEntries;  // power of two
  std::uint64_t typeTag;      // what keys and values mean: differs when a type changes at the same size
  std::uint64_t capacity;     // slots in home buckets; a multiple of 8, as is the tail
  std::uint64_t tailSlots;    // slots after the last home bucket
  std::uint64_t hashSeed;     // the same in all generations of an epoch
  std::uint64_t epoch;        // random; a table that was started empty has a new one
  std::uint64_t generation;   // counts the segments of an epoch
  std::uint64_t bornAt;       // ring position at which this segment took the name; what was deleted before is
                              // not in it any more
  std::uint64_t ringFirst;    // oldest position that the ring of this segment ever held
  std::uint64_t reserved[4];

  alignas(64) std::uint32_t retired;  // 1: look at the name again, another segment is taking or has taken it

  alignas(64) std::uint64_t head;  // ring position of the next change
  std::uint64_t live;              // entries
  std::uint64_t deleted;           // slots whose entry was deleted
  std::uint32_t writerPid;         // 0: closed in good order
};
static_assert(sizeof(Header) == 256 && offsetof(Header, retired) == 128 && offsetof(Header, head) == 192);

// Sizes of a table's keys and values, known at run time. `StaticShape` is the same, known at compile time, so
// that the typed layer's look-ups unroll; templates take either.
struct Shape {
  std::uint32_t keyBytes = 0;
  std::uint32_t valueBytes = 0;
  std::uint64_t typeTag = 0;

  constexpr std::uint32_t keyWords() const { return (keyBytes + 3) / 4; }
  constexpr std::uint32_t valueWords() const { return (valueBytes + 3) / 4; }
  constexpr std::uint32_t slotWords() const { return 1 + keyWords() + valueWords(); }
};

template <std::uint32_t KeyBytes, std::uint32_t ValueBytes>
struct StaticShape {
  static constexpr std::uint32_t keyWords() { return (KeyBytes + 3) / 4; }
  static constexpr std::uint32_t valueWords() { return (ValueBytes + 3) / 4; }
  static constexpr std::uint32_t slotWords() { return 1 + keyWords() + valueWords(); }
};

inline constexpr std::uint32_t kMaxKeyWords = kMaxKeyBytes / 4;

inline constexpr std::uint32_t stampOf(std::uint64_t position) {
  return static_cast<std::uint32_t>(position) & kStampMask;
}
inline constexpr std::uint32_t liveState(std::uint64_t position) {
  return stampOf(position) << kStampShift | kUsed;
}
inline constexpr std::uint32_t deletedState(std::uint64_t position) { return liveState(position) | kDeleted; }
// Live, and not being written.
inline constexpr bool isSettled(std::uint32_t state) { return (state & (kUsed | kDeleted | kBusy)) == kUsed; }
inline constexpr bool isLive(std::uint32_t state) { return (state & (kUsed | kDeleted)) == kUsed; }

// Whether a slot with this state changed in [from, to). Exact for the changes in question; a slot that has
// not changed for 2^29 changes may be taken for one of them.
inline constexpr bool changedWithin(std::uint32_t state, std::uint64_t from, std::uint64_t to) {
  return to - from > kStampMask || (((state >> kStampShift) - stampOf(from)) & kStampMask) < to - from;
}

// Atomic access to mapped memory. Loads never write, so they may be used on a read-only mapping.
template <class T>
T loadWord(const T* word, std::memory_order order) {
  static_assert(std::atomic_ref<T>::is_always_lock_free);
  return std::atomic_ref<T>(const_cast<T&>(*word)).load(order);
}
template <class T>
void storeWord(T* word, T value, std::memory_order order) {
  std::atomic_ref<T>(*word).store(value, order);
}

}  // namespace Memtab
