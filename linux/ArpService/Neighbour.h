#pragma once

#include <cstdint>

#include "Arp/InputConfig.h"
#include "Netlink/Route.h"

// The kernel's neighbours, as this plug-in judges and writes them (Netlink/Route.h; linux/neighbour.h).

namespace ArpService {

using Netlink::IfIndex;

// What this plug-in wants of one neighbour.
struct Wish {
  enum class Kind : std::uint8_t {
    nothing,
    permanent,
    reachable,  // given to the kernel once, which ages it
    answered,   // the kernel is to ask for the address, and to have what is answered
  };
  Kind kind = Kind::nothing;
  Lanix::EthAddr mac;
  // What the kernel resolved by itself serves as well, whatever it is.
  bool yields = false;

  // It takes of the room that the kernel has for neighbours that are not permanent.
  bool isAged() const { return kind == Kind::reachable || kind == Kind::answered; }
  // It needs not be there once it was dealt with.
  bool isGiven() const { return kind == Kind::nothing || kind == Kind::reachable; }
};

// The kernel refused a neighbour for want of room.
bool isFull(const Mox::Failure& failure);
// Permanent, and written by this system.
bool isOwnStatic(const Netlink::Neighbour& neighbour);
// The kernel resolved it once, and does nothing about it.
bool isStale(const Netlink::Neighbour& neighbour);

// What is to be done about a neighbour, given what is wanted there and what the kernel has.
enum class Verdict : std::uint8_t { leave, write, remove };
Verdict judge(const Wish& wish, const Netlink::Neighbour& actual);

Netlink::Message removeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address);
// `flags` of NLM_F_EXCL (refused when there is one) and NLM_F_REPLACE.
Netlink::Message writeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address, const Wish& wish,
                              std::uint16_t flags);
// Has the kernel look for proof of a stale neighbour, as if it were used; nothing else of it changes.
Netlink::Message probeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address);

}  // namespace ArpService
