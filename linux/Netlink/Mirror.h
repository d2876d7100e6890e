#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Mox/HashTable.h"

namespace Netlink {

// Seconds after which a table of shared memory that had no room for an entry is written again as a whole.
inline constexpr double kRoomRetry = 30;

// Where a message comes from: a change as it happens, or the reading of a whole table.
enum class Word : std::uint8_t { notification, dump };

// The key of what devices have: a neighbour's address, or the prefix of one of their own.
template <class Address>
struct OnDevice {
  std::uint32_t ifIndex = 0;
  Address address;
  friend auto operator<=>(const OnDevice&, const OnDevice&) = default;
  std::uint64_t hash(std::uint64_t seed) const { return Mox::hashMix(ifIndex, address.hash(seed)); }
};

// How many of a table's entries are on each device.
class Tally {
 public:
  void add(std::uint32_t ifIndex) { ++counts_[ifIndex]; }
  void remove(std::uint32_t ifIndex) {
    if (const auto at = counts_.find(ifIndex); at != counts_.end() && --at->second == 0) counts_.erase(at);
  }
  bool has(std::uint32_t ifIndex) const { return counts_.contains(ifIndex); }

 private:
  std::unordered_map<std::uint32_t, std::size_t> counts_;
};

// A copy of one of the kernel's tables, kept by notifications and reconciled with dumps.
//
// A dump's datagram is made by the kernel when the one before it is read, so it may be older than a
// notification that was handled in the meantime. Therefore, from reconcileBegin to the end of the sweep, what
// a notification said of a key stands, its deletion included, and the dump's word on it is passed over. The
// sweep then removes what neither spoke of.
//
// Key has hash(seed) and is ordered; Record is default constructible. Pointers to records die with any
// insertion or removal.
template <class Key, class Record>
class Mirror {
 public:
  // Begins again when a reconciliation is in progress already. Without `everything`, what the dump does not
  // mention stays.
  void reconcileBegin(bool everything = true) {
    if (everything) ++generation_;
    reconciling_ = true;
    sweepFrom_.reset();
  }

  // The record to be filled, a new one when there is none; null when the dump's word is out of date.
  Record* said(const Key& key, Word word) {
    Slot* slot = slots_.find(key);
    const bool told = slot && slot->told && slot->generation == generation_;
    if (word == Word::dump && told) return nullptr;
    if (!slot) slot = &slots_.insert(key, Slot{});
    if (!std::exchange(slot->present, true)) ++present_;
    slot->generation = generation_;
    slot->told = word == Word::notification;
    return &slot->record;
  }

  Record* find(const Key& key) {
    Slot* slot = slots_.find(key);
    return slot && slot->present ? &slot->record : nullptr;
  }
  const Record* find(const Key& key) const { return const_cast<Mirror*>(this)->find(key); }

  // A notification says that the entry has gone. Returns its record, if there was one, which is no longer found.
  std::optional<Record> gone(const Key& key) {
    Slot* slot = slots_.find(key);
    std::optional<Record> before;
    if (slot && slot->present) {
      before = std::move(slot->record);
      --present_;
    }
    if (!reconciling_) {
      if (slot) slots_.take(key);
      return before;
    }
    if (!slot) slot = &slots_.insert(key, Slot{});
    *slot = Slot{};
    slot->generation = generation_;
    slot->told = true;
    return before;
  }

  // Looks at up to `max` entries and removes those that nobody spoke of, telling gone(key, record) of each
  // when it is no longer found; true while there are more. The last call ends the reconciliation. `gone` may
  // find, but neither add nor remove. Those for which stays(key, record) is true are left as they are.
  template <class Gone, class Stays>
  bool sweep(std::size_t max, Gone gone, Stays stays) {
    std::vector<Key> doomed;
    const bool more = scan(sweepFrom_, max, [&](const Key& key, const Slot& slot) {
      if (!slot.present || slot.generation != generation_) doomed.push_back(key);
    });
    for (const Key& key : doomed) {
      if (Slot* slot = slots_.find(key); slot->present && stays(key, slot->record)) {
        slot->generation = generation_;
        continue;
      }
      Slot slot = slots_.take(key);
      if (!slot.present) continue;
      --present_;
      gone(key, slot.record);
    }
    if (!more) reconciling_ = false;
    return more;
  }
  template <class Gone>
  bool sweep(std::size_t max, Gone gone) {
    return sweep(max, gone, [](const Key&, const Record&) { return false; });
  }

  // Calls visitor(key, record) for up to `max` entries from the bookmark on (nothing: the beginning) and
  // moves it; true while there are more. The visitor may neither add nor remove.
  template <class Visitor>
  bool visit(std::optional<Key>& bookmark, std::size_t max, Visitor visitor) {
    return scan(bookmark, max, [&](const Key& key, const Slot& slot) {
      if (slot.present) visitor(key, const_cast<Slot&>(slot).record);
    });
  }

  std::size_t size() const { return present_; }

 private:
  struct Slot {
    Record record{};
    std::uint32_t generation = 0;
    bool present = false;  // false: gone, and kept so that a dump does not bring it back
    bool told = false;     // by a notification, in this generation
  };

  template <class Look>
  bool scan(std::optional<Key>& bookmark, std::size_t max, Look look) {
    auto at = bookmark ? slots_.lowerBound(*bookmark) : slots_.begin();
    for (std::size_t i = 0; i < max && at != slots_.end(); ++i, ++at) look(at->key, at->value);
    if (at == slots_.end()) {
      bookmark.reset();
      return false;
    }
    bookmark = at->key;
    return true;
  }

  Mox::HashMap<Key, Slot> slots_;
  std::optional<Key> sweepFrom_;
  std::uint32_t generation_ = 0;
  bool reconciling_ = false;
  std::size_t present_ = 0;
};

}  // namespace Netlink
