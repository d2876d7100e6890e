#pragma once

#include <cstdint>

#include "Lanix/EthAddr.h"
#include "Lanix/Ip6Addr.h"
#include "Lanix/IpAddr.h"
#include "Lanix/NetlinkSocket.h"

// Neighbours written straight into the kernel, past the ARP service, for those that must be there at once.

namespace Arp {

// A neighbour's state is a NUD_ value of linux/neighbour.h: reachable, which the kernel ages by itself.
inline constexpr std::uint16_t kNudReachable = 2;

// Adds to the batch: create or replace the neighbour of an address on an interface; a permanent entry becomes
// one of `state`. The batch must not be full. `ifIndex` is the kernel's index in the network namespace of the
// batch's socket; `protocol` marks whose entry it is (NDA_PROTOCOL).
void ipNeighAdd(Lanix::NetlinkBatch& batch, std::uint32_t ifIndex, const Lanix::IpAddr& address,
                const Lanix::EthAddr& mac, std::uint16_t state, std::uint8_t protocol);
void ip6NeighAdd(Lanix::NetlinkBatch& batch, std::uint32_t ifIndex, const Lanix::Ip6Addr& address,
                 const Lanix::EthAddr& mac, std::uint16_t state, std::uint8_t protocol);

}  // namespace Arp
