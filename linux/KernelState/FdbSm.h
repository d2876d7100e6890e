#pragma once

#include <map>
#include <optional>
#include <set>
#include <unordered_map>

#include "Bridging/Config.h"
#include "Bridging/Status.h"
#include "KernelState/ConfigWatch.h"
#include "KernelState/Messages.h"
#include "KernelState/Mirror.h"
#include "KernelState/Tables.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"
#include "Switch/ProblemReporter.h"

namespace KernelState {

// Keeps the MAC tables of the bridges of the default namespace, and publishes those of the bridges that are
// VLANs: one bridge a VLAN; a bridge that several VLANs name serves the lowest. The entries of all bridges
// are kept, since the kernel tells of them once, and a bridge may come to be a VLAN's later.
//
// Where an entry is published follows from the configuration, the forwarding database map and the devices'
// names; when these change, a walk brings what is published in step. A device that comes or goes costs work
// for what the configuration says of it, and a walk only if entries are on it.
class FdbSm final : public Orb::WalkSmBase {
 public:
  // `bridgingConfig` and `bridgingStatus` may be null.
  FdbSm(Ptr<const NamespaceState> state, Ptr<const Switch::Config> config,
        Ptr<const Bridging::Config> bridgingConfig, Ptr<Memtab::Bridging::Status> bridgingStatus,
        Switch::ProblemReporter& problems, const Ptr<Orb::TaskScheduler>& scheduler);

  void bridgingConfigIs(Ptr<const Bridging::Config> bridgingConfig);
  // `gone`: the kernel has the entry no longer.
  void handleEntry(const Netlink::Neighbour& entry, bool gone, Word word);
  void reconcileBegin() { mirror_.reconcileBegin(); }
  bool sweep();

 private:
  static constexpr Bridging::Fid kNoFid = 0;
  struct Key {
    IfIndex bridge = 0;
    Lanix::EthAddr mac;
    friend auto operator<=>(const Key&, const Key&) = default;
    std::uint64_t hash(std::uint64_t seed) const { return Mox::hashMix(bridge, mac.hash(seed)); }
  };
  struct Record {
    IfIndex port = 0;  // 0: a new record
    MacEntry::Kind kind = MacEntry::Kind::learned;
    Bridging::Fid fid = kNoFid;  // published under this; none: not published
  };
  // A bridge as the configuration has it, whether it is there or not.
  struct Bridge {
    Bridging::VlanId vlanId;
    Bridging::Fid fid = kNoFid;
    std::set<IfIndex> tunnelPorts;  // those that are there
  };

  Orb::WalkRet walk() override;
  bool walkStartedNotification() override;
  bool allowWalkRestarts() const override { return true; }
  void handleConfig();
  void handleLink(IfIndex ifIndex);
  void derive();
  void deviceIs(IfIndex ifIndex, const Mox::String& name);
  void deviceDel(IfIndex ifIndex);
  void forget(const Key& key, const Record& record);
  void publish(const Key& key, Record& record);
  void withdraw(const Bridging::HostKey& key);
  Lanix::IntfId intfOf(IfIndex port);

  ConfigWatch config_;
  Mox::Notifiee<const Bridging::Config> bridgingConfig_;
  Mox::Notifiee<const NamespaceState> state_;
  Ptr<Memtab::Bridging::Status> bridgingStatus_;
  Switch::ProblemReporter& problems_;
  Mirror<Key, Record> mirror_;
  Tally onDevice_;  // as bridge and as port
  // What the configuration says: the bridges by name, and the bridges that a device is a tunnel port of.
  std::map<Mox::String, Bridge> configured_;
  std::multimap<Mox::String, Bridge*> tunnels_;
  std::set<Bridging::VlanId> refused_;  // VLANs whose bridge is another's
  bool derive_ = true;                  // the configuration has changed since
  // Which of it is there.
  std::unordered_map<IfIndex, Mox::String> devices_;
  std::unordered_map<IfIndex, Bridge*> bridges_;
  std::multimap<Bridging::Fid, IfIndex> bridgesOfFid_;
  // Ports that entries are on; invalid: not known to be there.
  std::unordered_map<IfIndex, Lanix::IntfId> ports_;
  std::optional<Key> bookmark_;
};

}  // namespace KernelState
