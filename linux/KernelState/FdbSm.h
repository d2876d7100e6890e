#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "Bridging/Config.h"
#include "Bridging/Status.h"
#include "KernelState/FdbReading.h"
#include "KernelState/Messages.h"
#include "KernelState/PortRoom.h"
#include "KernelState/Tables.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"
#include "Switch/ConfigWatch.h"

namespace KernelState {

// Keeps the MAC tables of the bridges of the default namespace, and publishes what of them is the configured
// VLANs': on a bridge that filters VLANs the entries of each VLAN, on another one those of no VLAN, for the
// VLAN that it is (the lowest of those that name it). The entries of all bridges are kept, since the kernel
// tells of them once, and a bridge may come to be a VLAN's, or to filter, later.
//
// The forwarding database (FID) of a VLAN has the VLAN's id, unless "bridging/config" maps it. Where an entry
// is published follows from the configuration, that map, the devices' names and whether the bridge filters;
// when these change, a walk brings what is published in step. A device that comes or goes costs work for what
// the configuration says of it, and a walk only if entries are on it.
class FdbSm final : public Orb::WalkSmBase {
 public:
  // `limits`, `bridgingConfig` and `bridgingStatus` may be null.
  FdbSm(Ptr<const NamespaceState> state, Ptr<const Switch::Config> config,
        Ptr<const ArpSuppression::Limits> limits, Ptr<const Bridging::Config> bridgingConfig,
        Ptr<Memtab::Bridging::Status> bridgingStatus, Switch::ProblemReporter& problems,
        const Ptr<Orb::TaskScheduler>& scheduler);

  void bridgingConfigIs(Ptr<const Bridging::Config> bridgingConfig);
  // `read` is to have the tables read once more; called from tasks of this object's.
  void readerIs(std::function<void()> read) { read_ = std::move(read); }

  // `gone`: the kernel has the entry no longer.
  void handleEntry(const Netlink::Neighbour& entry, bool gone, Word word);
  // A reading of everything, or of what there was no room for.
  void reconcileBegin(bool everything);
  FdbReading& reading() { return reading_; }
  const Netlink::MacFilter& filter() const { return filter_; }
  // `ask` gets something of the kernel.
  using Ask = std::function<Mox::Result<>(Netlink::Message, const Netlink::Handler&)>;
  bool sweep(const Ask& ask);

 private:
  static constexpr Bridging::Fid kNoFid = 0;
  struct Key {
    IfIndex bridge = 0;
    std::uint16_t vlan = 0;  // inside the bridge; 0: none
    Lanix::EthAddr mac;
    friend auto operator<=>(const Key&, const Key&) = default;
    std::uint64_t hash(std::uint64_t seed) const {
      return Mox::hashMix(std::uint64_t{vlan} << 32 | bridge, mac.hash(seed));
    }
  };
  struct Record {
    IfIndex port = 0;  // 0: a new record
    MacEntry::Kind kind = MacEntry::Kind::learned;
    bool counted = false;        // takes room of its port
    Bridging::Fid fid = kNoFid;  // published under this; none: not published
  };
  // A VLAN as the configuration has it, whether its bridge is there or not.
  struct Vlan {
    std::uint16_t id = 0;
    Bridging::Fid fid = kNoFid;
    std::set<IfIndex> tunnelPorts;  // those that are there
  };
  // A device that the configuration speaks of.
  struct Device {
    Mox::String name;
    bool filtersVlans = false;
    friend bool operator==(const Device&, const Device&) = default;
  };

  Orb::WalkRet walk() override;
  bool walkStartedNotification() override;
  bool allowWalkRestarts() const override { return true; }
  void handleConfig();
  void handleLink(IfIndex ifIndex);
  void derive();
  void deviceIs(IfIndex ifIndex, const Device& device);
  void deviceDel(IfIndex ifIndex);
  // Calls visit(VLAN inside the bridge, VLAN) for each VLAN that the bridge, being such a device, serves.
  template <class Visit>
  void eachVlan(const Device& bridge, Visit visit);
  Vlan* vlanOf(const Key& key) const;
  static bool isTunnelPort(const Vlan* vlan, IfIndex port) {
    return vlan && vlan->tunnelPorts.contains(port);
  }
  static bool isBounded(const Vlan* vlan, MacEntry::Kind kind, IfIndex port);
  void count(const Vlan* vlan, Record& record);
  void update(const Key& key, Record& record, const MacEntry& entry);
  bool isThere(const Key& key, Record& record, const Ask& ask);
  void forget(const Key& key, const Record& record);
  void publish(const Key& key, Record& record);
  void withdraw(const Bridging::HostKey& key);
  Lanix::IntfId intfOf(IfIndex port);

  Switch::ConfigWatch config_;
  Mox::Notifiee<const Bridging::Config> bridgingConfig_;
  Mox::Notifiee<const NamespaceState> state_;
  Ptr<Memtab::Bridging::Status> bridgingStatus_;
  Mirror<Key, Record> mirror_;
  Tally onDevice_;  // as bridge and as port
  std::function<void()> read_;
  Netlink::MacFilter filter_;
  PortRoom room_;
  FdbReading reading_;
  // What the configuration says: the VLANs, in order, by their bridge's name, and those that a device is a
  // tunnel port of.
  std::map<Mox::String, std::vector<Vlan>> configured_;
  std::multimap<Mox::String, Vlan*> tunnels_;
  bool derive_ = true;  // the configuration has changed since
  // Which of it is there: devices, VLANs by bridge and VLAN inside it, and the same by forwarding database.
  using Place = std::pair<IfIndex, std::uint16_t>;
  std::unordered_map<IfIndex, Device> devices_;
  std::map<Place, Vlan*> vlans_;
  std::multimap<Bridging::Fid, Place> placesOfFid_;
  // Ports that entries are on; invalid: not known to be there.
  std::unordered_map<IfIndex, Lanix::IntfId> ports_;
  std::optional<Key> bookmark_;
  Orb::Task retryTask_;  // an entry had no room
};

}  // namespace KernelState
