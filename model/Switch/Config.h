#pragma once

#include <cstdint>
#include <vector>

#include "Bridging/VlanId.h"
#include "Lanix/NamespaceName.h"
#include "Mox/Attribute.h"
#include "Vrf/VrfId.h"

// What the operator says about this switch in the configuration file, for the plug-ins that turn a Linux
// machine into one. The host fills it before it makes the first plug-in, from then on it does not change;
// nobody can set it at run time.

namespace Switch {

// A VRF: a kernel network namespace, or a VRF device of the host's own namespace with what is below it.
class VrfConfig final : public Mox::Entity {
 public:
  explicit VrfConfig(Mox::String vrfName) : vrfName_(std::move(vrfName)) {}
  const Mox::String& vrfName() const { return vrfName_; }

  MOX_ATTRIBUTE(Vrf::VrfIdMap::VrfId, id, 0)
  MOX_ATTRIBUTE(Lanix::NamespaceName, networkNamespace)
  // The VRF device's kernel name, with the namespace "default"; "": the VRF is the namespace.
  MOX_ATTRIBUTE(Mox::String, device)
  MOX_MEMBERS(id, networkNamespace, device)

 private:
  Mox::String vrfName_;
};

// A VLAN and the kernel bridge that it is, or that it is a VLAN of where that filters VLANs.
class VlanConfig final : public Mox::Entity {
 public:
  explicit VlanConfig(Bridging::VlanId vlanId) : vlanId_(vlanId) {}
  Bridging::VlanId vlanId() const { return vlanId_; }

  // The bridge's kernel name.
  MOX_ATTRIBUTE(Mox::String, bridge)
  // Kernel names of the bridge's ports that lead to other switches; every other port is an access port.
  MOX_ATTRIBUTE(std::vector<Mox::String>, tunnelPorts)
  // The VRF that its interface must be in to have layer 3; "": whichever it is in.
  MOX_ATTRIBUTE(Mox::String, vrf)
  MOX_MEMBERS(bridge, tunnelPorts, vrf)

 private:
  Bridging::VlanId vlanId_;
};

// At "switch/config".
class Config final : public Mox::Entity {
 public:
  // By name. "default" is always there, with id 0 and the host's own namespace ("default").
  MOX_CHILDREN(Mox::String, VrfConfig, vrf)
  MOX_CHILDREN(Bridging::VlanId, VlanConfig, vlan)
  // The plug-ins of this host, in the order of their start.
  MOX_ATTRIBUTE(std::vector<Mox::String>, agents)
  // How old the last proof of a kernel neighbour's address may become before the kernel is asked to probe it.
  MOX_ATTRIBUTE(std::uint32_t, neighborRefreshSeconds, 240)
  MOX_MEMBERS(vrf, vlan, agents, neighborRefreshSeconds)
};

inline constexpr const char* kConfigPath = "switch/config";
inline constexpr const char* kConfigType = "Switch::Config";

}  // namespace Switch
