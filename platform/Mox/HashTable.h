#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Mox/Hash.h"

namespace Mox {

// Elements in ascending order of their 32-bit hash, and of their key where hashes are equal: the collection
// behind MOX_HASH and MOX_HASH_CHILDREN, for tables of a million entries that are scanned in slices.
//
// Two levels. A directory indexed by the top bits of the hash points to segments of at most kSegmentMax slots
// (extendible hashing: a full segment splits in two), so that no insertion moves more than one segment. A
// segment whose hashes are too much alike to be split by a directory of reasonable size grows instead.
// Inside a segment, linear probing that keeps the slots sorted by hash; an insertion shifts the few slots
// behind it up, an erasure closes the gap. A full segment (seven eighths) becomes a fifth larger, so that a
// large table is four fifths full in the mean, whatever its size. A segment that is hardly used any more shrinks, so that a scan
// passes over a few free slots an element at most, whatever the table held before.
//
// Iterators and pointers to elements die with any insertion or erasure. A scan keeps the key of its next
// element and resumes with lowerBound: that element, or, when it has gone, the first one behind the key's
// place in the order. An element that is there throughout is never passed over nor met twice, whatever is
// inserted or erased between slices.
//
// Element is what is stored; KeyOf takes its key. Both must be default constructible and movable, and keys
// comparable with == and <.
template <class Key, class Element, class KeyOf>
class HashSlots {
  struct Slot {
    Element element{};
    std::uint32_t hash = 0;  // 0: free
  };
  struct Segment {
    explicit Segment(std::size_t home)
        : home(home), slots(std::make_unique<Slot[]>(home + tail(home))), end(home + tail(home)) {}
    static std::size_t tail(std::size_t home) { return 8 + home / 64; }
    std::size_t home;               // slots that hashes map to
    std::unique_ptr<Slot[]> slots;  // `home` and a tail that probing may run into
    std::size_t end;
    std::size_t count = 0;
    unsigned bits = 0;  // how many top bits of the hash all of its elements share
  };

 public:
  static constexpr std::size_t kSegmentMin = 8;
  static constexpr std::size_t kSegmentMax = 1024;        // one of so many splits rather than grows
  static constexpr std::size_t kDirectoryMin = 16;        // the directory may always be doubled from here
  static constexpr std::size_t kPerDirectoryEntry = 256;  // and above for so many elements an entry

  class const_iterator {
   public:
    using value_type = Element;
    using reference = const Element&;
    using pointer = const Element*;
    using difference_type = std::ptrdiff_t;
    using iterator_category = std::forward_iterator_tag;

    const_iterator() = default;
    const Element& operator*() const { return slot().element; }
    const Element* operator->() const { return &slot().element; }
    const_iterator& operator++() {
      ++index_;
      settle();
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const const_iterator& other) const {
      return position_ == other.position_ && index_ == other.index_;
    }

   private:
    friend class HashSlots;
    const_iterator(const HashSlots* table, std::size_t position, std::size_t index)
        : table_(table), position_(position), index_(index) {
      settle();
    }
    const Slot& slot() const { return table_->directory_[position_]->slots[index_]; }
    void settle() {
      while (position_ < table_->directory_.size()) {
        const Segment& segment = *table_->directory_[position_];
        while (index_ < segment.end && segment.slots[index_].hash == 0) ++index_;
        if (index_ < segment.end) return;
        index_ = 0;
        position_ = table_->nextSegment(position_);
      }
    }
    const HashSlots* table_ = nullptr;
    std::size_t position_ = 0;  // first directory entry of the segment
    std::size_t index_ = 0;
  };

  HashSlots() = default;
  HashSlots(const HashSlots&) = delete;
  HashSlots& operator=(const HashSlots&) = delete;
  ~HashSlots() { clear(); }

  Element* find(const Key& key) {
    if (size_ == 0) return nullptr;
    const std::uint32_t hash = hashOfKey(key);
    Segment& segment = segmentOf(hash);
    const std::size_t at = findIn(segment, hash, key);
    return at == segment.end ? nullptr : &segment.slots[at].element;
  }
  const Element* find(const Key& key) const { return const_cast<HashSlots*>(this)->find(key); }

  // Brings the place where the element is, or would be, into the processor's cache, and changes nothing.
  void prefetch(const Key& key) const {
    if (size_ == 0) return;
    const std::uint32_t hash = hashOfKey(key);
    const Segment& segment = segmentOf(hash);
    prefetchTwoLines(&segment.slots[homeOf(segment, hash)]);  // an element is not far from its place
  }

  // The element must not be there yet.
  Element& insert(const Key& key, Element element) {
    const std::uint32_t hash = hashOfKey(key);
    if (directory_.empty()) directory_.push_back(new Segment(kSegmentMin));
    for (;;) {
      Segment& segment = segmentOf(hash);
      if (segment.count < segment.home - segment.home / 8) {
        if (Element* placed = place(segment, hash, key, element)) {
          ++size_;
          return *placed;
        }
      }
      grow(segment);
    }
  }

  // The element must be there.
  Element take(const Key& key) {
    const std::uint32_t hash = hashOfKey(key);
    Segment& segment = segmentOf(hash);
    std::size_t at = findIn(segment, hash, key);
    Element taken = std::move(segment.slots[at].element);
    for (std::size_t next = at + 1; next < segment.end; at = next++) {
      Slot& slot = segment.slots[next];
      if (slot.hash == 0 || homeOf(segment, slot.hash) == next) break;
      segment.slots[at] = std::move(slot);
    }
    segment.slots[at] = Slot{};
    --segment.count;
    --size_;
    shrink(segment);
    return taken;
  }

  const_iterator begin() const { return const_iterator(this, 0, 0); }
  const_iterator end() const { return const_iterator(this, directory_.size(), 0); }
  const_iterator lowerBound(const Key& key) const {
    if (size_ == 0) return end();
    const std::uint32_t hash = hashOfKey(key);
    const std::size_t position = firstPosition(hash);
    const Segment& segment = *directory_[position];
    std::size_t at = homeOf(segment, hash);
    while (at < segment.end && precedes(segment.slots[at], hash, key)) ++at;  // free slots (0) are passed too
    return const_iterator(this, position, at);
  }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  void swap(HashSlots& other) {
    directory_.swap(other.directory_);
    std::swap(size_, other.size_);
    std::swap(bits_, other.bits_);
  }
  // How many slots, used and free, a whole scan passes.
  std::size_t slots() const {
    std::size_t slots = 0;
    for (std::size_t at = 0; at < directory_.size(); at = nextSegment(at)) slots += directory_[at]->end;
    return slots;
  }

 protected:
  static void prefetchTwoLines(const void* memory) {
    __builtin_prefetch(memory);
    __builtin_prefetch(static_cast<const char*>(memory) + 64);
  }
  // An element whose hash is the key's, without a look at the element; null when there is none.
  const Element* sameHash(const Key& key) const {
    if (size_ == 0) return nullptr;
    const std::uint32_t hash = hashOfKey(key);
    const Segment& segment = segmentOf(hash);
    std::size_t at = homeOf(segment, hash);
    while (at < segment.end && segment.slots[at].hash != 0 && segment.slots[at].hash < hash) ++at;
    return at < segment.end && segment.slots[at].hash == hash ? &segment.slots[at].element : nullptr;
  }

 private:
  static std::uint32_t hashOfKey(const Key& key) {
    const std::uint32_t hash = static_cast<std::uint32_t>(hashFinish(hashOf(key)) >> 32);
    return hash == 0 ? 1 : hash;
  }
  std::size_t firstPosition(std::uint32_t hash) const {
    if (bits_ == 0) return 0;
    const std::size_t position = hash >> (32 - bits_);
    const unsigned spare = bits_ - directory_[position]->bits;
    return position >> spare << spare;
  }
  std::size_t nextSegment(std::size_t position) const {
    return position + (std::size_t{1} << (bits_ - directory_[position]->bits));
  }
  Segment& segmentOf(std::uint32_t hash) const { return *directory_[bits_ == 0 ? 0 : hash >> (32 - bits_)]; }

  static std::size_t homeOf(const Segment& segment, std::uint32_t hash) {
    const std::uint32_t rest = segment.bits == 0 ? hash : hash << segment.bits;
    return static_cast<std::size_t>((static_cast<std::uint64_t>(rest) * segment.home) >> 32);
  }
  static bool precedes(const Slot& slot, std::uint32_t hash, const Key& key) {
    return slot.hash < hash || (slot.hash == hash && KeyOf()(slot.element) < key);
  }
  // The element's slot, or the segment's end.
  static std::size_t findIn(const Segment& segment, std::uint32_t hash, const Key& key) {
    for (std::size_t at = homeOf(segment, hash); at < segment.end; ++at) {
      const Slot& slot = segment.slots[at];
      if (slot.hash == 0 || slot.hash > hash) break;
      if (slot.hash == hash && KeyOf()(slot.element) == key) return at;
    }
    return segment.end;
  }
  // Null, and `element` untouched, when the tail of the segment is full.
  static Element* place(Segment& segment, std::uint32_t hash, const Key& key, Element& element) {
    std::size_t at = homeOf(segment, hash);
    while (at < segment.end && segment.slots[at].hash != 0 && precedes(segment.slots[at], hash, key)) ++at;
    std::size_t free = at;
    while (free < segment.end && segment.slots[free].hash != 0) ++free;
    if (free == segment.end) return nullptr;
    for (; free > at; --free) segment.slots[free] = std::move(segment.slots[free - 1]);
    segment.slots[at].element = std::move(element);
    segment.slots[at].hash = hash;
    ++segment.count;
    return &segment.slots[at].element;
  }

  // How many slots `count` elements get, that more may come.
  static std::size_t homeFor(std::size_t count) { return count + count * 3 / 8 + kSegmentMin; }

  // A larger segment, or two in its place. Elements keep their order.
  void grow(Segment& full) {
    const bool splits = full.bits < bits_ || directory_.size() <= kDirectoryMin + size_ / kPerDirectoryEntry;
    if (full.home < kSegmentMax || !splits) {
      std::unique_ptr<Segment> larger =
          refill(full, full.home + full.home / 8 + kSegmentMin, full.bits, 0, UINT32_MAX);
      replace(full, larger.get(), larger.get());
      larger.release();
      return;
    }
    if (full.bits == bits_) {
      std::vector<Segment*> wider(directory_.size() * 2);
      for (std::size_t i = 0; i < wider.size(); ++i) wider[i] = directory_[i / 2];
      directory_.swap(wider);
      ++bits_;
    }
    std::uint32_t first = 0;
    for (std::size_t i = 0; i < full.end; ++i) {
      if (full.slots[i].hash != 0) {
        first = full.slots[i].hash;
        break;
      }
    }
    const std::uint32_t prefix = full.bits == 0 ? 0 : first >> (32 - full.bits) << (32 - full.bits);
    const std::uint32_t middle = prefix | (1u << (31 - full.bits));
    std::unique_ptr<Segment> low = refill(full, kSegmentMin, full.bits + 1, 0, middle - 1);
    std::unique_ptr<Segment> high = refill(full, kSegmentMin, full.bits + 1, middle, UINT32_MAX);
    replace(full, low.get(), high.get());
    low.release();
    high.release();
  }
  // A smaller segment, far enough from where it would grow again.
  void shrink(Segment& emptied) {
    if (emptied.home == kSegmentMin || emptied.count >= emptied.home / 8) return;
    std::unique_ptr<Segment> smaller = refill(emptied, kSegmentMin, emptied.bits, 0, UINT32_MAX);
    replace(emptied, smaller.get(), smaller.get());
    smaller.release();
  }
  // Moves the elements of a hash range into a new segment of at least `home` slots, wide enough for however they
  // cluster.
  static std::unique_ptr<Segment> refill(Segment& from, std::size_t home, unsigned bits, std::uint32_t low,
                                         std::uint32_t high) {
    std::size_t needed = 0;
    for (std::size_t i = 0; i < from.end; ++i)
      needed += from.slots[i].hash != 0 && from.slots[i].hash >= low && from.slots[i].hash <= high;
    home = std::max(home, homeFor(needed));
    for (;; home *= 2) {
      auto to = std::make_unique<Segment>(home);
      to->bits = bits;
      std::size_t next = 0;  // in ascending order every element goes behind the last one
      bool fits = true;
      for (std::size_t i = 0; i < from.end && fits; ++i) {
        const std::uint32_t hash = from.slots[i].hash;
        if (hash == 0 || hash < low || hash > high) continue;
        next = std::max(next, homeOf(*to, hash));
        fits = next < to->end;
        if (fits) to->slots[next++].hash = hash;
      }
      if (!fits) continue;
      next = 0;
      for (std::size_t i = 0; i < from.end; ++i) {
        const std::uint32_t hash = from.slots[i].hash;
        if (hash == 0 || hash < low || hash > high) continue;
        next = std::max(next, homeOf(*to, hash));
        to->slots[next++].element = std::move(from.slots[i].element);
        ++to->count;
      }
      return to;
    }
  }
  void replace(Segment& old, Segment* low, Segment* high) {
    const std::size_t first =
        static_cast<std::size_t>(std::find(directory_.begin(), directory_.end(), &old) - directory_.begin());
    const std::size_t span = std::size_t{1} << (bits_ - old.bits);
    for (std::size_t i = 0; i < span; ++i) directory_[first + i] = i < span / 2 || low == high ? low : high;
    delete &old;
  }
  void clear() {
    for (std::size_t position = 0; position < directory_.size();) {
      const std::size_t next = nextSegment(position);
      delete directory_[position];
      position = next;
    }
    directory_.clear();
  }

  std::vector<Segment*> directory_;
  std::size_t size_ = 0;
  unsigned bits_ = 0;
};

template <class Key, class Value>
struct HashItem {
  Key key{};
  Value value{};
};

template <class Key, class Value>
struct HashItemKey {
  const Key& operator()(const HashItem<Key, Value>& item) const { return item.key; }
};

// Key → value, with the interface of Mox::Map.
template <class Key, class Value>
class HashMap : public HashSlots<Key, HashItem<Key, Value>, HashItemKey<Key, Value>> {
  using Base = HashSlots<Key, HashItem<Key, Value>, HashItemKey<Key, Value>>;

 public:
  static const Key& keyOf(const HashItem<Key, Value>& item) { return item.key; }
  static const Value& valueOf(const HashItem<Key, Value>& item) { return item.value; }
  Value* find(const Key& key) {
    auto* item = Base::find(key);
    return item ? &item->value : nullptr;
  }
  const Value* find(const Key& key) const { return const_cast<HashMap*>(this)->find(key); }
  Value& insert(const Key& key, Value value) { return Base::insert(key, {key, std::move(value)}).value; }
  Value take(const Key& key) { return Base::take(key).value; }
};

// Children that carry their own key: one pointer an element. KeyOf is a function object on the child.
template <class Key, class Child, class KeyOf>
class HashChildren : public HashSlots<Key, Child, KeyOf> {
  using Base = HashSlots<Key, Child, KeyOf>;

 public:
  // Once the place is there (`prefetch`): brings the child's own memory into the cache, if there is one.
  void prefetchChild(const Key& key) const {
    if (const Child* const child = Base::sameHash(key)) Base::prefetchTwoLines(child->get());
  }
  static const Key& keyOf(const Child& child) { return KeyOf()(child); }
  static const Child& valueOf(const Child& child) { return child; }
};

}  // namespace Mox
