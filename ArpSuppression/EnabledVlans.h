#pragma once

#include "Bridging/VlanId.h"
#include "Mox/Attribute.h"
#include "Orb/DumpContext.h"

namespace ArpSuppression {

// The VLANs whose layer-3 state is to be followed, whether or not suppression is in force on them yet.
class EnabledVlans final : public Mox::Entity {
 public:
  MOX_SET(Bridging::VlanId, vlanId)
  void dumpState(Orb::DumpContext& context, int indent) const;
};

}  // namespace ArpSuppression
