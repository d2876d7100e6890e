#pragma once

#include "Bridging/VlanId.h"
#include "Mox/Attribute.h"

namespace ArpSuppression {

// At "arpSuppression/status"; outlives the agent.
class ArpSuppressionStatus final : public Mox::Entity {
 public:
  // Suppression runs. Left set by a run that ended without stopping: the next one cleans up.
  MOX_ATTRIBUTE(bool, runnable, false)
  // The VLANs on which suppression is in force.
  MOX_MAP(Bridging::VlanId, bool, vlanId)
  MOX_MEMBERS(runnable, vlanId)
};

}  // namespace ArpSuppression
