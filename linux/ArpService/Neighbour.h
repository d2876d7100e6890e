#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Arp/InputConfig.h"
#include "Lanix/EthAddr.h"
#include "Lanix/IntfId.h"
#include "Lanix/IpGenAddr.h"
#include "Netlink/Socket.h"

// The route netlink messages that this plug-in reads and writes (rtnetlink(7); linux/if_link.h,
// linux/neighbour.h), and what becomes of a neighbour. Readers return nothing for a message that is malformed
// or of no concern.

namespace ArpService {

using IfIndex = std::uint32_t;  // the kernel's, unique within one namespace only; 0: none

struct Device {
  IfIndex ifIndex = 0;
  // The VLAN interface that the device is; invalid: none.
  Lanix::IntfId intf;
};
// RTM_NEWLINK and RTM_DELLINK of a device itself.
std::optional<Device> readDevice(const Netlink::Received& message);

// A kernel neighbour; by default one that is not there.
struct Neighbour {
  IfIndex ifIndex = 0;
  Lanix::IpGenAddr address;
  Lanix::EthAddr mac;       // zero: not resolved
  std::uint16_t state = 0;  // NUD_*
  std::uint8_t flags = 0;   // NTF_*
  std::uint8_t protocol = 0;
  double confirmedAgo = 0;  // seconds since the kernel last had proof of the address

  bool isStatic() const;
  bool isOwnStatic() const;  // permanent, and written by this system
  bool isStale() const;      // the kernel resolved it once, and does nothing about it
};
// RTM_NEWNEIGH and RTM_DELNEIGH of IPv4 and IPv6.
std::optional<Neighbour> readNeighbour(const Netlink::Received& message);

// What is to be done about a neighbour, given what the configuration wants there (null: nothing) and what the
// kernel has.
enum class Verdict : std::uint8_t { leave, write, remove };
Verdict judge(const Arp::ArpEntryInput* wanted, const Neighbour& actual);

Netlink::Message deviceDump();
Netlink::Message neighbourDump();
Netlink::Message lookRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address);
Netlink::Message removeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address);
// `flags` of NLM_F_EXCL (refused when there is one) and NLM_F_REPLACE.
Netlink::Message writeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address,
                              const Arp::ArpEntryInput& wanted, std::uint16_t flags);
// Has the kernel look for proof of a stale neighbour, as if it were used; nothing else of it changes.
Netlink::Message probeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address);

}  // namespace ArpService
