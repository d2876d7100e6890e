#pragma once

// Bridges that filter VLANs: several VLANs are one bridge, and what a port is depends on the VLAN.
//
// A port's VLANs are those of the bridge's own table. It is a tunnel port of the VLANs that name it so and an
// access port of all others. Each port, and the bridge itself as far as it sends, has one entry in the
// programs' map and at most one program a direction. One way in serves all VLANs of the bridge: a port that
// carries them with their tags and nothing else.
//
// step() looks at one bridge or one port and writes what differs. Whatever follows from it for VLANs is told
// to `vlanChanged`.

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "SoftForward/Filters.h"
#include "SoftForward/LinkTable.h"
#include "SoftForward/Pairs.h"
#include "SoftForward/Programs.h"
#include "SoftForward/Standing.h"
#include "SoftForward/VlanTables.h"

namespace SoftForward {

class Trunks {
 public:
  // What is configured, and who is told.
  struct Configuration {
    std::function<Netlink::VlanIds(const std::string& bridge)> vlansOf;
    std::function<Netlink::VlanIds(const std::string& device)> tunnelVlansOf;
    std::function<PortTerms(const std::string& device)> termsOf;
    std::function<void(std::uint16_t vlan)> vlanChanged;
  };

  Trunks(const LinkTable& links, Filters& filters, Pairs& pairs, Programs& programs,
         Configuration configuration);

  Mox::Result<> open() { return tables_.open(); }
  int descriptor() const { return tables_.descriptor(); }  // readable: receive() has work

  // Whether it is a bridge whose VLANs are served here: it filters, by 802.1Q tags.
  static bool isServed(const Netlink::Link& bridge);

  void ownTrappedIs(bool trapped);
  void sharedAddressIs(const Lanix::EthAddr& address);

  // A device was or has become so; its configuration, or its filters may have changed.
  void linkChanged(const Netlink::Link& link);
  void linkGone(const Netlink::Link& link);
  void filterChanged(Netlink::IfIndex ifIndex);
  void sharedAddressLost(Netlink::IfIndex bridge);  // the bridge was made not to take it
  void allChanged();

  // Takes some notifications; whether there may be more.
  bool receive();
  // Looks at one port that has changed; whether there was one.
  bool lookPort();
  // Looks at one bridge or port that has changed; whether there was one.
  bool step();
  bool againWanted() const { return !again_.empty(); }
  void againIs();

  // Whether programs of ours are on the port; whether the bridge, by index, has a way in.
  bool hasPort(Netlink::IfIndex ifIndex) const;
  bool hasBridge(Netlink::IfIndex ifIndex) const { return bridges_.contains(ifIndex); }

  // Each port's VLANs, and what it is in them; of the bridge itself PortRole::own.
  void forEachPort(const std::function<void(Netlink::IfIndex, std::uint16_t vlan, PortRole)>& visit) const;

  // The paths of a VLAN of such a bridge, and what keeps them from standing.
  VlanPaths pathsOf(std::uint16_t vlan, const std::vector<std::string>& tunnelPorts,
                    const Netlink::Link& bridge, Standing& standing) const;

  // Removes the way in, and has the bridge not take the shared address any more. No failure if there is none.
  Mox::Result<> wayInDel(Netlink::IfIndex bridge);

 private:
  struct Bridge {
    Netlink::VlanIds vlans;      // that are configured
    Netlink::IfIndex wayIn = 0;  // where frames are sent to; 0: there is none yet
    Netlink::VlanIds wayInVlans;
    Standing standing;                   // of the way in
    Netlink::VlanIds taking;             // the shared address, since this run
    Mox::Result<> taken;                 // how that went
    std::set<Netlink::IfIndex> failing;  // access ports, and the bridge itself, without their program
  };
  struct Port {
    Netlink::IfIndex bridge = 0;
    Netlink::BridgeVlans vlans;
    std::optional<Trunk> trunk;  // in the programs' map
    Netlink::VlanIds tunnel;     // VLANs that name it so, carried or not
    Mox::Result<> read;
    Mox::Result<> ingress;  // how attaching what belongs there went
    Mox::Result<> egress;
  };

  void lookBridge(Netlink::IfIndex index);
  void lookPort(Netlink::IfIndex index);
  void bridgeDel(Netlink::IfIndex index);
  void portDel(Netlink::IfIndex index);
  void wayInIs(const Netlink::Link& link, Bridge& bridge);
  bool wayInVlansAre(const Netlink::Link& port, Bridge& bridge);
  Mox::Result<> sharedAddressBack(Netlink::IfIndex bridge);
  void sharedAddressIn(const Netlink::Link& link, Bridge& bridge);
  Trunk trunkOf(const Port& port, const Bridge& bridge, const Netlink::Link& link) const;
  void answersOff(Netlink::IfIndex index);
  Mox::Result<> hookIs(const Hook& hook, std::optional<Program> program);
  void portChanged(const Port& before, const Port& now, Bridge& bridge, Netlink::IfIndex index);
  static Netlink::VlanIds trappedOf(const Port& port);
  static std::uint16_t spokesman(const Port& port, const Bridge& bridge);
  void changed(const Netlink::VlanIds& vlans);
  void refused(const Mox::Result<>& result, Netlink::IfIndex index);
  std::vector<std::string> accessPortsOf(std::uint16_t vlan, Netlink::IfIndex bridge) const;

  const LinkTable& links_;
  Filters& filters_;
  Pairs& pairs_;
  Programs& programs_;
  Configuration configuration_;
  VlanTables tables_;
  bool ownTrapped_ = false;
  Lanix::EthAddr sharedAddress_;

  std::map<Netlink::IfIndex, Bridge> bridges_;
  std::map<Netlink::IfIndex, Port> ports_;  // of these, and they themselves
  std::set<Netlink::IfIndex> dirtyBridges_;
  std::set<Netlink::IfIndex> dirtyPorts_;
  std::set<Netlink::IfIndex> again_;  // bridges and ports of which the kernel refused something
};

}  // namespace SoftForward
