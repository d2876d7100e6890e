#pragma once

#include <array>
#include <vector>

#include "Lanix/IntfId.h"
#include "Lanix/IpGenPrefix.h"
#include "Lanix/NamespaceName.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"

namespace Ip {

// One IP interface.
class IpIntfStatus final : public Mox::Entity {
 public:
  explicit IpIntfStatus(Lanix::IntfId intfId) : intfId_(intfId) {}
  const Lanix::IntfId& intfId() const { return intfId_; }

  MOX_ATTRIBUTE(Mox::String, vrfName)
  // The primary IPv4 address in use; the default prefix: none.
  MOX_ATTRIBUTE(Lanix::IpGenPrefix, activeAddr)
  MOX_ATTRIBUTE(std::vector<Lanix::IpGenPrefix>, activeSecondaryAddr)
  MOX_MEMBERS(vrfName, activeAddr, activeSecondaryAddr)

 private:
  Lanix::IntfId intfId_;
};

// At "ip/status".
class Status final : public Mox::Entity {
 public:
  MOX_CHILDREN(Lanix::IntfId, IpIntfStatus, ipIntfStatus)
  MOX_MEMBERS(ipIntfStatus)
};

enum class VrfState : std::uint8_t { inactive, active };

constexpr std::array<const char*, 2> moxEnumNames(VrfState) { return {"inactive", "active"}; }

// A VRF on this switch.
class VrfStatusLocal final : public Mox::Entity {
 public:
  explicit VrfStatusLocal(Mox::String vrfName) : vrfName_(std::move(vrfName)) {}
  const Mox::String& vrfName() const { return vrfName_; }

  // Active only after its namespace was entered once.
  MOX_ATTRIBUTE(VrfState, state, VrfState::inactive)
  MOX_ATTRIBUTE(Lanix::NamespaceName, networkNamespace)
  MOX_MEMBERS(state, networkNamespace)

 private:
  Mox::String vrfName_;
};

// At "ip/vrf/status/local".
class AllVrfStatusLocal final : public Mox::Entity {
 public:
  MOX_CHILDREN(Mox::String, VrfStatusLocal, vrf)
  MOX_MEMBERS(vrf)
};

}  // namespace Ip
