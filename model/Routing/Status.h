#pragma once

#include "Lanix/EthAddr.h"
#include "Mox/Attribute.h"

namespace Routing::Fhrp {

// At "routing/fhrp/vrMacStatus".
class VirtualRouterMacStatus final : public Mox::Entity {
 public:
  // The gateway MAC that this switch shares with its peers; zero: none.
  MOX_ATTRIBUTE(Lanix::EthAddr, vgwVirtualMac)
  MOX_MEMBERS(vgwVirtualMac)
};

}  // namespace Routing::Fhrp

namespace Routing::L2Vpn {

// At "routing/l2vpn/config".
class Config final : public Mox::Entity {
 public:
  // Remote bindings only refresh kernel neighbours that exist; they do not create any.
  MOX_ATTRIBUTE(bool, selectiveArpInstall, false)
  MOX_MEMBERS(selectiveArpInstall)
};

}  // namespace Routing::L2Vpn
