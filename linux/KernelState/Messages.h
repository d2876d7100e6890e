#pragma once

#include <cstdint>
#include <optional>

#include "Arp/Table.h"
#include "KernelState/Tables.h"
#include "Netlink/Route.h"

// What this plug-in makes of the kernel's neighbours and MAC entries (Netlink/Route.h). Every function returns
// nothing for what is of no concern.

namespace KernelState {

// The entry of a neighbour; nothing when it is not resolved or not ours to publish (externally learned,
// proxy, multicast), which is the same as its absence.
std::optional<Arp::Table::ArpEntry> entryOf(const Netlink::Neighbour& neighbour);

struct MacEntry {
  enum class Kind : std::uint8_t {
    own,  // an address of the switch itself
    learned,
    configured,  // set by hand, for a station
    externally,  // learned by somebody else: an EVPN route
  };
  IfIndex bridge = 0;
  IfIndex port = 0;
  std::uint16_t vlan = 0;  // inside the bridge; 0: none
  Lanix::EthAddr mac;
  Kind kind = Kind::own;
};
// Of an entry of a bridge's MAC table. Entries without a bridge above them and group addresses are of
// no concern.
std::optional<MacEntry> macEntryOf(const Netlink::Neighbour& entry);

}  // namespace KernelState
