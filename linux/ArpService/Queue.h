#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>

#include "Arp/Confirmation.h"
#include "Arp/InputConfig.h"
#include "Lanix/IntfId.h"
#include "Lanix/IpGenAddr.h"
#include "Mox/HashTable.h"

namespace ArpService {

// A neighbour's address on one VLAN interface.
struct Key {
  Lanix::IpGenAddr address;
  Lanix::IntfId intf;
  Arp::HostAddress host() const { return {Bridging::VlanId(intf.vlanNumber()), address}; }
  // Those of one address lie together.
  std::uint64_t hash(std::uint64_t state) const { return address.hash(state); }
  friend auto operator<=>(const Key&, const Key&) = default;
};

// What the configuration holds for one VRF, or held until now: which of it is to be looked at next, each key
// once, and which of it is settled, that is, the kernel has what it is to have.
//
// Rounds count: what was not dealt with in a round although everything was compared is found by `rescan`.
class Queue {
 public:
  bool empty() const { return waiting_.empty(); }
  void add(const Key& key);
  // The kernel was found to have something else for it.
  void addFound(const Key& key);
  // But not if it is settled.
  void addUnsettled(const Key& key);
  // No key of that address sorts before it.
  static Key firstOf(const Lanix::IpGenAddr& address);
  // Every known key of that address: it may have moved to another interface.
  void addAddress(const Lanix::IpGenAddr& address);
  struct Taken {
    Key key;
    bool given;  // as it was settled last
    bool found;  // see addFound
  };
  // The one that has waited longest, which counts as dealt with in this round. Only when not empty.
  Taken take();

  // Nothing is left to be done for a key that the configuration holds. What is `given` needs not be in the
  // kernel from then on. Does nothing when it is to be looked at again.
  void settle(const Key& key, bool given);
  // Likewise for one that the configuration does not hold.
  void forget(const Key& key);
  std::size_t settled() const { return settled_; }
  // Nothing can be done for it before its interface is there.
  void park(const Key& key) { parked_[key.intf].insert(key); }
  // The interface is there: what waits for it goes back into the queue, with the next calls of unparkStep.
  void unpark(const Lanix::IntfId& intf);
  // A batch of it; false when there was none.
  bool unparkStep();
  // The kernel may have anything: its namespace is another one now.
  void unsettleAll();

  void roundBegins() { ++round_; }
  // Looks at up to `max` keys from the bookmark on (nothing: the beginning) and moves it; true while there
  // are more. Adds those that the round has not come across, except what was given to the kernel once, and
  // those for which `gone` says that the configuration does not hold them.
  bool rescan(std::optional<Key>& bookmark, std::size_t max, const std::function<bool(const Key&)>& gone);

 private:
  struct Record {
    bool waiting = false;
    bool settled = false;     // see isSettled
    bool given = false;       // as it was settled
    bool found = false;       // see addFound
    std::uint32_t round = 0;  // in which it was last dealt with
  };
  // And that for the namespace that is served now.
  bool isSettled(const Record& record) const { return record.settled && record.round >= firstRound_; }

  Record& record(const Key& key);

  Mox::HashMap<Key, Record> records_;
  std::deque<Key> waiting_;
  std::map<Lanix::IntfId, std::set<Key>> parked_;
  std::deque<std::set<Key>> returning_;  // parked until now, no set empty
  std::size_t settled_ = 0;
  std::uint32_t round_ = 0;
  std::uint32_t firstRound_ = 1;  // of the namespace that is served now
};

}  // namespace ArpService
