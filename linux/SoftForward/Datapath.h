#pragma once

// Software forwarding of ARP for a switch whose VLANs are Linux bridges.
//
//   access port --ingress--> copy behind the trap header -> "arpsnoop" -> agent
//        |                                                                 |
//     bridge <- way in <- tag off <- "fabric" <- reply  <------------------+
//        |                                                                 |
//   tunnel port (drops what was copied)   <- header off <- "arpinject" <- flood
//
// The agent opens the outer ends ("arpsnoop", "arpinject", "fabric") with packet sockets; the inner ends (the
// name and
// "-sw") carry the programs. Each VLAN has a pair "fabin<VLAN>" and "fabin<VLAN>-br", the latter a port of
// its bridge. All of it is in the network namespace of the thread that made the Datapath, with ARP and IPv6
// off.
//
// What is trapped: a complete, untagged, broadcast Ethernet/IPv4 ARP request or reply of at most 9216 bytes
// that an access port receives while its VLAN is active. It is copied to the agent and goes on into the
// bridge, marked, so that hosts of this switch hear it. Likewise what the bridge device sends, if asked for.
// All else passes untouched, and so does a frame whose copy fails. What comes out of the overlay is never
// trapped.
//
// Everything here may be done again: what is already as it should be stays. A failure leaves what could be
// done in place and says what could not; calling again tries that again. No method blocks but for netlink
// requests, each of which waits for the kernel at most a second.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Netlink/Socket.h"
#include "SoftForward/Failure.h"
#include "SoftForward/Filters.h"
#include "SoftForward/Links.h"
#include "SoftForward/Programs.h"

namespace SoftForward {

// A VLAN's bridge and its ports, by interface index. Ports that are in neither list are left alone.
struct VlanPorts {
  std::uint32_t bridgeIfIndex = 0;
  std::vector<std::uint32_t> accessPorts;  // those of our own pairs among them are passed over
  std::vector<std::uint32_t> tunnelPorts;  // at most 32
  // What the bridge device itself sends is trapped like what an access port receives.
  bool ownTrapped = false;
};

class Datapath {
 public:
  Datapath();
  // Without close() everything stays attached, as after a crash: the next Datapath takes it over.
  ~Datapath() = default;
  Datapath(const Datapath&) = delete;
  Datapath& operator=(const Datapath&) = delete;

  // Makes or takes over the three pairs, loads the programs and attaches those of the pairs. What an earlier
  // run left on ports goes on working until vlanIs() replaces it or staleDel() removes it. Nothing else but
  // close() may be called before this succeeded.
  [[nodiscard]] Failure open();

  // Detaches the programs from all ports and removes the pairs, the ways into the bridges included.
  [[nodiscard]] Failure close();

  // The bridge and all ports of a VLAN, 1 to 4094; replaces what was given before. A port that another VLAN
  // has is taken from that one.
  [[nodiscard]] Failure vlanIs(std::uint16_t vlan, const VlanPorts& ports);
  [[nodiscard]] Failure vlanDel(std::uint16_t vlan);

  // A port's device is gone, or has left this namespace. Needed before vlanIs() names the same index again,
  // because the kernel took the programs off with the device.
  [[nodiscard]] Failure portDel(std::uint32_t ifIndex);

  // Frames from this address are trapped nowhere: that of the switch itself, when nobody would act on what it
  // asks.
  [[nodiscard]] Failure passedAddressIs(const std::optional<MacAddress>& address) {
    return programs_.passedAddressIs(address);
  }

  // Whether frames of the VLAN are trapped. Independent of vlanIs() and of the order of the two.
  [[nodiscard]] Failure activeVlanIs(std::uint16_t vlan, bool active);

  // Removes what earlier runs left and nobody asked for since open(): programs on ports that belong to no
  // VLAN, and ways into bridges of VLANs that are gone. To be called once all VLANs were given.
  [[nodiscard]] Failure staleDel();

  Statistics statistics() const { return programs_.statistics(); }

  // Whether a device of that name is one of the pairs' ends, and so no port of any VLAN for other purposes.
  static bool ownsDevice(std::string_view name);

 private:
  struct Port {
    std::uint16_t vlan;
    PortRole role;
  };
  struct Vlan {
    Pair wayIn;
    std::vector<std::uint32_t> tunnelPorts;
    std::uint32_t bridge = 0;
  };

  [[nodiscard]] Failure pairIs(const PairNames& names, std::uint32_t mtu,
                               const std::optional<MacAddress>& innerAddress, Pair& pair);
  [[nodiscard]] Failure wayInIs(std::uint16_t vlan, std::uint32_t bridge, Pair& pair);
  [[nodiscard]] Failure attach(std::uint32_t ifIndex, Direction direction, Program program);
  [[nodiscard]] Failure portIs(std::uint32_t ifIndex, std::uint16_t vlan, PortRole role);
  [[nodiscard]] Failure tunnelPortsIs(std::uint16_t vlan, std::vector<std::uint32_t> tunnelPorts);
  [[nodiscard]] Failure portsDel(std::uint16_t vlan, PortRole role, const std::vector<std::uint32_t>& keep);
  bool isWayIn(std::uint32_t ifIndex) const;

  Netlink::Socket socket_;
  Links links_;
  Filters filters_;
  Programs programs_;
  std::map<std::string, Pair> pairs_;    // by the outer end's name
  std::map<std::uint32_t, Port> ports_;  // with their program attached
  std::map<std::uint16_t, Vlan> vlans_;
};

}  // namespace SoftForward
