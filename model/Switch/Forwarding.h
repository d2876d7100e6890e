#pragma once

#include <vector>

#include "Bridging/VlanId.h"
#include "Mox/Attribute.h"

// Which VLANs the software data plane traps. At "switch/forwarding", written by SoftForward.

namespace Switch {

class VlanForwarding final : public Mox::Entity {
 public:
  explicit VlanForwarding(Bridging::VlanId vlanId) : vlanId_(vlanId) {}
  Bridging::VlanId vlanId() const { return vlanId_; }

  // Whether the way from the ports to the agent and back stands. Requests are trapped while it does and
  // suppression is active on the VLAN; otherwise they are flooded as if there were no suppression.
  MOX_ATTRIBUTE(bool, ready, false)
  // Why it does not stand; "" when it does.
  MOX_ATTRIBUTE(Mox::String, reason)
  // Kernel names of the ports whose requests are trapped while it stands; and of the configured tunnel ports
  // that are no ports of the bridge, or do not carry the VLAN.
  MOX_ATTRIBUTE(std::vector<Mox::String>, accessPorts)
  MOX_ATTRIBUTE(std::vector<Mox::String>, missing)
  MOX_MEMBERS(ready, reason, accessPorts, missing)

 private:
  Bridging::VlanId vlanId_;
};

// Has the configured VLANs.
class Forwarding final : public Mox::Entity {
 public:
  MOX_CHILDREN(Bridging::VlanId, VlanForwarding, vlan)
  // Nobody tells the programs that the agent is there, though suppression is active on some VLAN: everything
  // is flooded as if there were none.
  MOX_ATTRIBUTE(bool, failingOpen, false)
  MOX_MEMBERS(vlan, failingOpen)
};

inline constexpr const char* kForwardingPath = "switch/forwarding";
inline constexpr const char* kForwardingType = "Switch::Forwarding";

}  // namespace Switch
