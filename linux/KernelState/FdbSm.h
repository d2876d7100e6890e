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

namespace KernelState {

// Keeps the MAC tables of the bridges of the default namespace, and publishes those of the bridges that are
// VLANs: one bridge a VLAN; a bridge that several VLANs name serves the lowest. The entries of all bridges
// are kept, since the kernel tells of them once, and a bridge may come to be a VLAN's later.
//
// Where an entry is published follows from the configuration, the forwarding database map and the devices'
// names; when these change, a walk brings what is published in step.
class FdbSm final : public Orb::WalkSmBase {
 public:
  // `bridgingConfig` and `bridgingStatus` may be null.
  FdbSm(Ptr<const NamespaceState> state, Ptr<const Switch::Config> config,
        Ptr<const Bridging::Config> bridgingConfig, Ptr<Memtab::Bridging::Status> bridgingStatus,
        const Ptr<Orb::TaskScheduler>& scheduler);
  ~FdbSm() override;

  void bridgingConfigIs(Ptr<const Bridging::Config> bridgingConfig);
  void handleMessage(const Netlink::Received& message, Word word);
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
    IfIndex port = 0;
    MacMessage::Kind kind = MacMessage::Kind::learned;
    Bridging::Fid fid = kNoFid;  // published under this; none: not published
  };
  // A configured bridge that the kernel has.
  struct Bridge {
    Bridging::Fid fid = kNoFid;
    std::set<IfIndex> tunnelPorts;
  };

  Orb::WalkRet walk() override;
  bool walkStartedNotification() override;
  bool allowWalkRestarts() const override { return true; }
  void handleLink(IfIndex ifIndex);
  void derive();
  void publish(const Key& key, Record& record);
  void withdraw(const Bridging::HostKey& key);
  Lanix::IntfId intfOf(IfIndex port);

  ConfigWatch config_;
  Mox::Notifiee<const Bridging::Config> bridgingConfig_;
  Mox::Notifiee<const NamespaceState> state_;
  Ptr<Memtab::Bridging::Status> bridgingStatus_;
  Mirror<Key, Record> mirror_;
  std::unordered_map<IfIndex, Bridge> bridges_;
  std::multimap<Bridging::Fid, IfIndex> bridgesOfFid_;
  std::set<Mox::String> configured_;  // names of bridges and tunnel ports
  std::set<IfIndex> devices_;         // those that have these names
  std::unordered_map<IfIndex, Lanix::IntfId>
      ports_;                           // ports that entries are on; invalid: not known to be there
  std::set<Bridging::VlanId> refused_;  // VLANs whose bridge is another's, as reported
  std::optional<Key> bookmark_;
};

}  // namespace KernelState
