#pragma once

#include <cstdint>

#include "Mox/Attribute.h"

namespace ArpSuppression {

// How much the switch keeps at most, so that its memory has a bound. What is there already stays when a limit
// is reached or lowered, and is still brought up to date; what would be new is refused. At
// "arpSuppression/limits"; written by the host, from the configuration's `limits` and by operators.
class Limits final : public Mox::Entity {
 public:
  // Addresses of local hosts: those behind one port, and all of them.
  MOX_ATTRIBUTE(std::uint32_t, localBindingsPerPort, 4096)
  MOX_ATTRIBUTE(std::uint32_t, localBindings, 131072)
  // Addresses that were asked for lately.
  MOX_ATTRIBUTE(std::uint32_t, requestRecords, 1048576)
  // Addresses of hosts on other switches.
  MOX_ATTRIBUTE(std::uint32_t, remoteBindings, 1048576)
  // Entries that a bridge has learned on one port that is no tunnel port: kept by KernelState.
  MOX_ATTRIBUTE(std::uint32_t, macTablePerPort, 16384)
  MOX_MEMBERS(localBindingsPerPort, localBindings, requestRecords, remoteBindings, macTablePerPort)
};

inline constexpr const char* kLimitsPath = "arpSuppression/limits";
inline constexpr const char* kLimitsType = "ArpSuppression::Limits";

}  // namespace ArpSuppression
