#pragma once

#include <cstdint>

#include "ArpSuppression/BindingKeys.h"

namespace ArpSuppression {

// Through it other reactors ask that one key's kernel neighbour be decided again at once.
class ArpInputConfigTrigger final : public Mox::Entity {
 public:
  // Counts the events, modulo 2^32. Whoever watches it reads the pair below.
  MOX_ATTRIBUTE(std::uint32_t, trigger, 0)

  const VrfIpAddress& vrfIpAddress() const { return vrfIpAddress_; }
  // The request came from a suppressed ARP request of the switch itself.
  bool suppressionEvent() const { return suppressionEvent_; }

  void event(const VrfIpAddress& vrfIpAddress, bool suppressionEvent) {
    vrfIpAddress_ = vrfIpAddress;
    suppressionEvent_ = suppressionEvent;
    triggerInc();
  }

  Mox::String toStrep() const {
    return "<trigger=" + std::to_string(trigger()) + " vrfIpAddress=" + vrfIpAddress_.toStrep() +
           " suppressionEvent=" + (suppressionEvent_ ? "yes" : "no") + ">";
  }
  void dumpState(Orb::DumpContext& context, int indent) const {
    context.line(indent, "ArpInputConfigTrigger " + toStrep());
  }

 private:
  void triggerInc() { triggerIs(trigger() + 1); }

  VrfIpAddress vrfIpAddress_;
  bool suppressionEvent_ = false;
};

}  // namespace ArpSuppression
