#pragma once

#include <cstdint>
#include <tuple>

#include "Bridging/VlanId.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"

// The VLAN interfaces that are an end of a veth pair in a namespace of their own, the other end being a port
// of the VLAN's bridge. At "switch/vlanInterfaces", written by KernelState.

namespace Switch {

// The kernel's indices of the two ends: of the interface, in its namespace, and of the one that it is
// connected with, as the interface tells. Whether that is in the host's own namespace is not known here: there
// a device of the second index has the first one for its other end.
struct VlanInterface {
  std::uint32_t ifIndex = 0;
  std::uint32_t otherEnd = 0;  // 0: there is no such interface

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("ifIndex", &VlanInterface::ifIndex),
                      Mox::Field("otherEnd", &VlanInterface::otherEnd));
  }
  friend bool operator==(const VlanInterface&, const VlanInterface&) = default;
};

class VlanInterfaces final : public Mox::Entity {
 public:
  MOX_MAP(Bridging::VlanId, VlanInterface, vlan)
  MOX_MEMBERS(vlan)
};

inline constexpr const char* kVlanInterfacesPath = "switch/vlanInterfaces";
inline constexpr const char* kVlanInterfacesType = "Switch::VlanInterfaces";

}  // namespace Switch
