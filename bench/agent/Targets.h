#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "ArpSuppression/Rig.h"
#include "Lanix/EthAddr.h"
#include "Lanix/Wire.h"
#include "support/FakePacketSockets.h"

// The bindings that the benchmarks of the agent load: 65,536 a VLAN, from VLAN 10 on. All VLANs are in one
// VRF and usable, so that each binding becomes a kernel neighbour in the output.

namespace ArpSuppression {

struct Target {
  std::uint32_t vlan;
  std::uint32_t address;
};

inline Target targetOf(std::uint32_t i) { return {10 + i / 65536, 0x0a010000 + i}; }

inline Lanix::EthAddr macOf(std::uint32_t i) {
  return Lanix::EthAddr({0x02, 0x10, static_cast<std::uint8_t>(i >> 24), static_cast<std::uint8_t>(i >> 16),
                         static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)});
}

// The VLANs of so many bindings, beside the rig's own.
inline void makeVlans(Rig& rig, std::uint32_t bindings) {
  for (std::uint32_t vlan = 11; vlan <= targetOf(bindings - 1).vlan; ++vlan) {
    rig.vlanInterface(vlan, "red", 1000 + vlan, "10.0.0.1/8");
    rig.evpn()->vlanToDot1qIs(Vlan(vlan), static_cast<std::uint16_t>(vlan));
  }
}

// Makes a trapped request one for another target.
inline void setTarget(TestSupport::Frame& frame, const Target& target) {
  const Lanix::Be32 vlan(target.vlan), address(target.address);
  std::memcpy(frame.data() + 16, &vlan, 4);
  std::memcpy(frame.data() + 54, &address, 4);
}

constexpr std::uint32_t kHosts = 256;  // that ask, in each VLAN

// The same, of a host in the target's VLAN: one that asked in several would be a station that moves.
inline void setRequest(TestSupport::Frame& frame, const Target& target, std::uint32_t host) {
  setTarget(frame, target);
  const std::uint32_t number = 256 + (target.vlan - 10) * kHosts + host;
  const Lanix::Be32 address(0x0a000000 + number);
  const std::array<std::byte, 2> mac = {std::byte(number >> 8 & 255), std::byte(number & 255)};
  for (const std::size_t at : {10u, 42u}) std::memcpy(frame.data() + at, mac.data(), mac.size());
  std::memcpy(frame.data() + 44, &address, 4);
}

}  // namespace ArpSuppression
