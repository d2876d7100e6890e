#pragma once

#include <cstdint>

#include "Lanix/EthAddr.h"
#include "Lanix/IpAddr.h"

// Neighbours written straight into the kernel, past the ARP service, for those that must be there at once.

namespace Arp {

// A neighbour's state is a NUD_ value of linux/neighbour.h: reachable, which the kernel ages by itself.
inline constexpr std::uint16_t kNudReachable = 2;

// Creates or replaces the neighbour of an address on an interface, marked as this system's (NDA_PROTOCOL
// 110); a permanent entry becomes one of `state`.
//
// `netlinkSocket` is of Lanix::openNetlinkSocket, in the interface's network namespace; `ifIndex` is the
// kernel's index there. Returns 0, or the errno of the kernel or of Lanix::netlinkRequest, which bounds the
// wait for the kernel's answer.
int ipNeighAdd(std::uint32_t netlinkSocket, std::uint32_t ifIndex, const Lanix::IpAddr& address,
               const Lanix::EthAddr& mac, std::uint16_t state);
int ip6NeighAdd(std::uint32_t netlinkSocket, std::uint32_t ifIndex, const Lanix::Ip6Addr& address,
                const Lanix::EthAddr& mac, std::uint16_t state);

}  // namespace Arp
