#pragma once

#include <cstdint>
#include <cstring>

#include "Lanix/EthAddr.h"
#include "Lanix/Wire.h"
#include "support/FakePacketSockets.h"

// The bindings that the benchmarks of the agent load: 65,536 addresses a VLAN, from VLAN 10 on.

namespace ArpSuppression {

struct Target {
  std::uint32_t vlan;
  std::uint32_t address;
};

inline Target targetOf(std::uint32_t i) { return {10 + i / 65536, 0x0a010000 + i % 65536}; }

inline Lanix::EthAddr macOf(std::uint32_t i) {
  return Lanix::EthAddr({0x02, 0x10, static_cast<std::uint8_t>(i >> 24), static_cast<std::uint8_t>(i >> 16),
                         static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)});
}

// Makes a trapped request one for another target.
inline void setTarget(TestSupport::Frame& frame, const Target& target) {
  const Lanix::Be32 vlan(target.vlan), address(target.address);
  std::memcpy(frame.data() + 16, &vlan, 4);
  std::memcpy(frame.data() + 54, &address, 4);
}

}  // namespace ArpSuppression
