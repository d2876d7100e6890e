#pragma once

#include <cstdint>
#include <optional>

#include "Arp/Table.h"
#include "KernelState/Tables.h"
#include "Netlink/Socket.h"

// The route netlink messages that this plug-in reads (rtnetlink(7); linux/if_link.h, linux/if_addr.h,
// linux/neighbour.h). Every function returns nothing for a message that is malformed or of no concern;
// nothing of a message is used before its length, kind and range were checked.

namespace KernelState {

struct LinkMessage {
  IfIndex ifIndex = 0;
  Link link;
};
// RTM_NEWLINK and RTM_DELLINK of the device itself; those that a bridge sends about its port are of no
// concern.
std::optional<LinkMessage> readLink(const Netlink::Received& message);

struct AddressMessage {
  IfIndex ifIndex = 0;
  Lanix::IpAddr address;
  std::uint8_t prefixLength = 0;  // at most 32
  bool secondary = false;
};
// RTM_NEWADDR and RTM_DELADDR of IPv4.
std::optional<AddressMessage> readAddress(const Netlink::Received& message);

struct NeighbourMessage {
  IfIndex ifIndex = 0;
  Lanix::IpGenAddr address;
  // The entry; nothing when the neighbour is not resolved or not ours to publish (externally learned, proxy,
  // multicast), which is the same as its absence.
  std::optional<Arp::Table::ArpEntry> entry;
};
// RTM_NEWNEIGH and RTM_DELNEIGH of IPv4 and IPv6.
std::optional<NeighbourMessage> readNeighbour(const Netlink::Received& message);

struct MacMessage {
  enum class Kind : std::uint8_t {
    own,  // an address of the switch itself
    learned,
    configured,  // set by hand, for a station
    externally,  // learned by somebody else: an EVPN route
  };
  IfIndex bridge = 0;
  IfIndex port = 0;
  Lanix::EthAddr mac;
  Kind kind = Kind::own;
};
// RTM_NEWNEIGH and RTM_DELNEIGH of bridges. Entries without a bridge above them, entries of a VLAN inside a
// bridge and group addresses are of no concern.
std::optional<MacMessage> readMac(const Netlink::Received& message);

// Whether a neighbour message is about a bridge's MAC table.
bool isMacMessage(const Netlink::Received& message);

enum class Table : std::uint8_t { links, addresses, neighbours, macs };
const char* nameOf(Table table);
// The request that dumps it.
Netlink::Message dumpRequest(Table table);

}  // namespace KernelState
