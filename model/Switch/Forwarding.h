#pragma once

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
  MOX_MEMBERS(ready, reason)

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
