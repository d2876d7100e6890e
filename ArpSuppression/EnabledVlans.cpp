#include "ArpSuppression/EnabledVlans.h"

namespace ArpSuppression {

void EnabledVlans::dumpState(Orb::DumpContext& context, int indent) const {
  Mox::String text = "EnabledVlans #" + std::to_string(vlanIds()) + ":";
  for (const auto& [vlanId, present] : vlanIdCollection()) text += " " + vlanId.toStrep();
  context.line(indent, text);
}

}  // namespace ArpSuppression
