#pragma once

#include <cstdint>

#include "Mox/Attribute.h"
#include "Mox/Strep.h"

namespace Arp {

// How the configured neighbours of one VRF fare in the kernel.
class VrfServiceStatus final : public Mox::Entity {
 public:
  explicit VrfServiceStatus(Mox::String vrfName) : vrfName_(std::move(vrfName)) {}
  const Mox::String& vrfName() const { return vrfName_; }

  // Configured entries that the kernel has, or for which an operator's own stands there.
  MOX_ATTRIBUTE(std::uint64_t, programmed, 0)
  // The others: refused, or their interface or namespace is not there.
  MOX_ATTRIBUTE(std::uint64_t, pending, 0)
  // Requests that the kernel refused, and stale neighbours that it was asked to probe, since the start.
  MOX_ATTRIBUTE(std::uint64_t, refusals, 0)
  MOX_ATTRIBUTE(std::uint64_t, probes, 0)
  // Why entries are refused; "" when none is.
  MOX_ATTRIBUTE(Mox::String, problem)
  MOX_MEMBERS(programmed, pending, refusals, probes, problem)

 private:
  Mox::String vrfName_;
};

// At "arp/service/status". Has the VRFs that the ARP service serves.
class ServiceStatus final : public Mox::Entity {
 public:
  MOX_CHILDREN(Mox::String, VrfServiceStatus, vrf)
  MOX_MEMBERS(vrf)
};

}  // namespace Arp
