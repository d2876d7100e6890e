#pragma once

#include "Bridging/VlanId.h"
#include "Lanix/EthAddr.h"
#include "Mox/Attribute.h"

namespace Bridging {

// At "bridging/config".
class Config final : public Mox::Entity {
 public:
  // The switch's own MAC address on every VLAN interface; zero while it is not known.
  MOX_ATTRIBUTE(Lanix::EthAddr, bridgeMacAddr)
  // The forwarding database of a VLAN; absent or 0: the VLAN's own number.
  MOX_MAP(VlanId, Fid, vidToFidMap)
  MOX_MEMBERS(bridgeMacAddr, vidToFidMap)
};

}  // namespace Bridging
