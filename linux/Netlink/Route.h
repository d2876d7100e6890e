#pragma once

// The route netlink messages about devices, addresses, neighbours and VLANs of bridges (rtnetlink(7);
// linux/if_link.h, linux/if_addr.h, linux/if_bridge.h, linux/neighbour.h), read once for every plug-in, and
// the requests that dump them.
//
// A reader returns nothing for a message that is malformed, of another family, or about no device: nothing of
// a message is used before its length, kind and range were checked. The message's type says whether the thing
// is there or has gone; what a reader returns for a message of another type makes no sense.

#include <bitset>
#include <cstdint>
#include <optional>
#include <string>

#include "Lanix/EthAddr.h"
#include "Lanix/IpGenAddr.h"
#include "Netlink/Socket.h"

namespace Netlink {

using IfIndex = std::uint32_t;  // the kernel's, unique within one namespace only; 0: none

// What a bridge keeps for one of its ports.
struct BridgePort {
  std::uint8_t state = 0;  // BR_STATE_*
  bool learning = false;
  bool unicastFlood = false;
  bool multicastFlood = false;
  bool broadcastFlood = false;
  bool neighSuppress = false;  // the bridge itself answers for the hosts behind the port
  bool locked = false;         // frames of stations that the bridge was not told of are dropped
  friend bool operator==(const BridgePort&, const BridgePort&) = default;
};

struct Link {
  IfIndex index = 0;
  IfIndex master = 0;            // the bridge, bond ... above; 0: none
  IfIndex peer = 0;              // veth: the other end, when that is in this namespace; 0: none
  IfIndex peerElsewhere = 0;     // and its index there when it is in another one
  std::uint32_t flags = 0;       // IFF_*
  bool operational = false;      // up, and its carrier noticed: frames pass (IF_OPER_UP)
  std::uint32_t mtu = 0;         // bytes
  std::uint32_t group = 0;       // of devices, 0 by default
  std::uint32_t xdpProgram = 0;  // id of the one that is attached; 0: none
  std::string name;              // 1 to 15 bytes
  std::string kind;              // "veth", "bridge" ...; empty for a physical device
  std::string masterKind;        // of the device above: "bridge", "vrf" ...; empty: none
  std::string alias;             // the note that "ip link set DEVICE alias TEXT" makes; mostly empty
  Lanix::EthAddr mac;            // zero: not an Ethernet device
  // The message is the bridge's, about its port: RTM_DELLINK says that the device left the bridge, not that
  // it has gone. Only index, master, name, MTU, flags, MAC address and port are known then.
  bool ofBridge = false;
  std::optional<BridgePort> port;  // the device is a port of a bridge
  bool filtersVlans = false;       // bridge: a frame's VLAN is that of its tag, or the port's
  std::uint16_t vlanProtocol = 0;  // bridge: which tags these are, 0x8100 or 0x88a8
  std::uint16_t vlanId = 0;        // 802.1Q device ("vlan"): the one that it is an interface of
  IfIndex lower = 0;               // and the device below it, by its index in that one's own namespace
  bool collectsMetadata = false;   // vxlan: one device for all networks; each frame says beside it which
};
// RTM_NEWLINK and RTM_DELLINK.
std::optional<Link> readLink(const Received& message);

// Whether `device` is where a routing daemon keeps the neighbours that other switches advertise for a VLAN,
// `bridge` being the VLAN's: the bridge itself, or, where that filters VLANs, the VLAN's 802.1Q device on it,
// whatever its name. Both are of the daemon's own namespace, and there.
bool isFeedDevice(const Link& device, const Link& bridge, std::uint16_t vlanId);

// An IPv4 address of a device.
struct Address {
  IfIndex ifIndex = 0;
  Lanix::IpAddr address;
  std::uint8_t prefixLength = 0;  // at most 32
  bool secondary = false;
};
// RTM_NEWADDR and RTM_DELADDR of IPv4.
std::optional<Address> readAddress(const Received& message);

// A neighbour, or an entry of a bridge's MAC table; by default one that is not there.
struct Neighbour {
  IfIndex ifIndex = 0;        // the neighbour's device; the port that the MAC address is on
  IfIndex bridge = 0;         // above that port; 0: an entry of the device itself, or a neighbour
  Lanix::IpGenAddr address;   // without a family in an entry of a bridge
  Lanix::EthAddr mac;         // zero: not resolved
  std::uint16_t state = 0;    // NUD_*
  std::uint8_t flags = 0;     // NTF_*
  std::uint8_t protocol = 0;  // who wrote it (NDA_PROTOCOL); 0: not said
  std::uint16_t vlan = 0;     // inside a bridge; 0: the entry is for the whole bridge
  double confirmedAgo = 0;    // seconds since the kernel last had proof of the address
  double usedAgo = 0;         // seconds since anything was sent there

  bool isMacEntry() const { return !address; }
  bool isStatic() const;    // does not age
  bool isResolved() const;  // has been, by the kernel itself, and may age
  // Kept by another program for the kernel, or a proxy's: not resolved here.
  bool isForeign() const;
};
// RTM_NEWNEIGH and RTM_DELNEIGH of IPv4, IPv6 and bridges.
std::optional<Neighbour> readNeighbour(const Received& message);

// How the kernel keeps neighbours of one family: a message tells of the table, which all namespaces share, and
// of devices that are made from now on, or of one device.
struct NeighbourTable {
  bool isIpv4 = false;
  IfIndex ifIndex = 0;             // 0: of the table
  std::uint32_t entries = 0;       // of the table: all neighbours, those that never age included
  std::uint32_t gcThreshold1 = 0;  // of the table: with as many entries, idle ones are dropped
  double gcStaleSeconds = 0;       // after this time without proof and without use
};
// RTM_NEWNEIGHTBL of IPv4 and IPv6.
std::optional<NeighbourTable> readNeighbourTable(const Received& message);

using VlanIds = std::bitset<4096>;

// The VLANs that a bridge's port carries, or the bridge itself.
struct BridgeVlans {
  IfIndex ifIndex = 0;     // the port; the bridge, for what it carries itself
  VlanIds carried{};       // 1 to 4094
  VlanIds untagged{};      // of these, what leaves without a tag
  std::uint16_t pvid = 0;  // whose frames come without a tag; 0: none are taken
  VlanIds blocked{};       // of these, what a spanning tree of their own keeps from being forwarded
  friend bool operator==(const BridgeVlans&, const BridgeVlans&) = default;
};
// RTM_NEWVLAN and RTM_DELVLAN: what the message tells, which is the whole of it only in the messages of a
// dump taken together. Which VLAN lost the PVID to another is not told of.
std::optional<BridgeVlans> readBridgeVlans(const Received& message);

// The tables of one network namespace: its devices, IPv4 addresses, neighbours of IPv4 and IPv6, and the MAC
// tables of its bridges.
enum class Table : std::uint8_t { links, addresses, neighbours, macs };
const char* nameOf(Table table);
// The request that dumps it.
Message dumpRequest(Table table);

// All devices; the VLANs of one bridge or port; all neighbours of IPv4 and IPv6 (AF_UNSPEC) or of one family,
// AF_BRIDGE for the MAC tables; how neighbours are kept.
Message linkDump();
Message bridgeVlansDump(IfIndex ifIndex);
Message neighbourDump(std::uint8_t family);
// One neighbour.
Message neighbourGet(IfIndex ifIndex, const Lanix::IpGenAddr& address);
// The entries of one port in the MAC table of its bridge, and one entry of a bridge's.
Message macDump(IfIndex port);
Message macGet(IfIndex bridge, const Lanix::EthAddr& mac, std::uint16_t vlan);
Message neighbourTableDump();

}  // namespace Netlink
