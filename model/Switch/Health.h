#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "Bridging/VlanId.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"

// How this switch is, as the host judges it from what the plug-ins publish and report. At "switch/health".

namespace Switch {

// "failed": a loaded plug-in does not work, or requests are flooded because the agent does not answer.
// "degraded": anything else is wrong.
enum class Verdict : std::uint8_t { good, degraded, failed };

constexpr std::array<const char*, 3> moxEnumNames(Verdict) { return {"good", "degraded", "failed"}; }

// "active": requests are answered. "waiting": something that the VLAN needs is not there yet, and nothing is
// wrong. "degraded": something is wrong. "off": the configuration says so.
enum class VlanState : std::uint8_t { waiting, active, degraded, off };

constexpr std::array<const char*, 4> moxEnumNames(VlanState) {
  return {"waiting", "active", "degraded", "off"};
}

class VlanHealth final : public Mox::Entity {
 public:
  explicit VlanHealth(Bridging::VlanId vlanId) : vlanId_(vlanId) {}
  Bridging::VlanId vlanId() const { return vlanId_; }

  MOX_ATTRIBUTE(VlanState, state, VlanState::waiting)
  // Kernel names of its bridge and of the bridge's ports; `missing` are those of the tunnel ports that are
  // not there.
  MOX_ATTRIBUTE(Mox::String, bridge)
  MOX_ATTRIBUTE(std::vector<Mox::String>, accessPorts)
  MOX_ATTRIBUTE(std::vector<Mox::String>, tunnelPorts)
  MOX_ATTRIBUTE(std::vector<Mox::String>, missing)
  // Where its interface is, or else has to be; "": nowhere.
  MOX_ATTRIBUTE(Mox::String, vrf)
  // Why it is not active; "" when it is.
  MOX_ATTRIBUTE(Mox::String, reason)
  MOX_MEMBERS(state, bridge, accessPorts, tunnelPorts, missing, vrf, reason)

 private:
  Bridging::VlanId vlanId_;
};

class Health final : public Mox::Entity {
 public:
  MOX_ATTRIBUTE(Verdict, health, Verdict::good)
  // The host has just begun, and what is not there yet is no problem.
  MOX_ATTRIBUTE(bool, starting, true)
  // The configured VLANs.
  MOX_CHILDREN(Bridging::VlanId, VlanHealth, vlan)
  MOX_MEMBERS(health, starting, vlan)
};

inline constexpr const char* kHealthPath = "switch/health";
inline constexpr const char* kHealthType = "Switch::Health";

}  // namespace Switch
