#pragma once

#include <cstdint>

#include "ArpSuppression/VlanL3Info.h"

namespace ArpSuppression {

// The base of a binding table: counts the bindings of each VRF, and is one user of the VRF while there are
// any.
//
// A binding without a VRF is counted like the others, but there is nothing to keep in the status for it.
class VrfUseTracker : public Mox::Entity {
 public:
  explicit VrfUseTracker(Ptr<VlanL3InfoStatus> vlanL3InfoStatus)
      : vlanL3InfoStatus_(std::move(vlanL3InfoStatus)) {}
  const Ptr<VlanL3InfoStatus>& vlanL3InfoStatus() const { return vlanL3InfoStatus_; }

  using VrfIdentity = const VrfInfo*;
  MOX_MAP(VrfIdentity, std::uint32_t, vrfReferenceCount)
  MOX_MAP(VrfIdentity, Ptr<VrfUser>, vrfUser)

  // One call for each binding made, and one for each deleted.
  void referenceVrf(const Ptr<VrfInfo>& vrfInfo);
  void releaseVrf(const Ptr<VrfInfo>& vrfInfo);

  Mox::String toStrep() const { return "<VrfUseTracker>"; }

 protected:
  void dumpVrfReferences(Orb::DumpContext& context, int indent) const;

 private:
  Ptr<VlanL3InfoStatus> vlanL3InfoStatus_;
};

}  // namespace ArpSuppression
