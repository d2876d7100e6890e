#pragma once

// What the ways into bridges have in common, whether one leads to one VLAN or to all of a bridge.

#include <linux/if_bridge.h>
#include <net/if.h>

#include <cstdint>
#include <string>

#include "Lanix/EthAddr.h"
#include "SoftForward/Pairs.h"
#include "SoftForward/Standing.h"

namespace SoftForward::WayIn {

// A bridge takes the least MTU of its ports: with the greatest there is, ours never decides.
inline constexpr std::uint32_t kMtu = 65535;

// A bridge takes the least of its ports' addresses: ours is greater than any that a device comes with, and
// differs from way to way.
inline Lanix::EthAddr address(std::uint8_t kind, std::uint32_t number) {
  const auto byte = [&](unsigned shift) { return static_cast<std::uint8_t>(number >> shift & 0xFF); };
  return Lanix::EthAddr({0xFE, 0xFF, kind, byte(16), byte(8), byte(0)});
}
inline Lanix::EthAddr addressOfVlan(std::uint16_t vlan) { return address(0xFF, 0xFF0000U | vlan); }
inline Lanix::EthAddr addressOfBridge(Netlink::IfIndex bridge) { return address(0xFE, bridge); }

inline std::string name(const Netlink::Link& bridge, const std::string& device) {
  return "the way into bridge " + bridge.name + " (" + device + ")";
}

// Whether its bridge forwards from it; `passes`: both of its ends do.
inline void judge(const Netlink::Link& bridge, const Pair& pair, bool passes, Standing& standing) {
  const std::uint8_t state = pair.inner.port ? pair.inner.port->state : std::uint8_t{BR_STATE_DISABLED};
  if (passes && state == BR_STATE_FORWARDING) return;
  const std::string port = name(bridge, pair.inner.name);
  if ((bridge.flags & IFF_UP) == 0) {
    standing.because("bridge " + bridge.name + " is down");
  } else if (state == BR_STATE_LISTENING || state == BR_STATE_LEARNING) {
    standing.because("spanning tree has " + port + " wait before it forwards");
  } else if (state == BR_STATE_BLOCKING) {
    standing.because("spanning tree blocks " + port);
  } else {
    standing.because(name(bridge, pair.outer.name) + " does not come up", true);
  }
}

}  // namespace SoftForward::WayIn
