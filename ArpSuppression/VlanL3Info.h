#pragma once

#include <cstdint>

#include "Bridging/VlanId.h"
#include "Lanix/IntfId.h"
#include "Lanix/IpGenAddr.h"
#include "Lanix/NamespaceName.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"
#include "Orb/DumpContext.h"
#include "Vrf/VrfId.h"

// The layer-3 model: VRFs, the interfaces that are watched in them, and VLAN interfaces.

namespace ArpSuppression {

using Mox::Ptr;

class VrfInterfaceWatch;
class VrfUser;

// One VRF. It lives in VlanL3InfoStatus while something uses it.
class VrfInfo final : public Mox::Entity {
 public:
  explicit VrfInfo(Mox::String vrfName) : vrfName_(std::move(vrfName)) {}
  const Mox::String& vrfName() const { return vrfName_; }

  MOX_ATTRIBUTE(Vrf::VrfIdMap::VrfId, vrfId, Vrf::VrfIdMap::kNoVrfId)
  // The kernel's network namespace of the VRF; empty while it is not known.
  MOX_ATTRIBUTE(Lanix::NamespaceName, netNs)
  // A descriptor of a netlink socket in that namespace; 0 for none. Without meaning while netNs is empty.
  MOX_ATTRIBUTE(std::uint32_t, netlinkSocket, 0)
  // The users of the VRF, and the interfaces that are watched in it by name. Both are plain pointers that
  // keep nothing alive. When the whole status goes, users may have gone before: never follow a `user`'s
  // pointer.
  using UserIdentity = const VrfUser*;
  MOX_MAP(UserIdentity, bool, user)
  MOX_MAP(Mox::String, VrfInterfaceWatch*, interfaceWatch)
  // Under the watch's own name. Throws Mox::NullError.
  void interfaceWatchIs(VrfInterfaceWatch* watch);

  // It has a namespace and a netlink socket there.
  bool usable() const;

  // "<vrfName=red vrfId=5>"
  Mox::String toStrep() const;
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  Mox::String vrfName_;
};

// Something that uses a VRF, and so keeps it in the status.
class VrfUser : public Mox::Entity {
 public:
  explicit VrfUser(Ptr<VrfInfo> vrfInfo) : vrfInfo_(std::move(vrfInfo)) {}
  const Ptr<VrfInfo>& vrfInfo() const { return vrfInfo_; }

 private:
  Ptr<VrfInfo> vrfInfo_;
};

// An interface in a VRF whose kernel index is wanted.
class VrfInterfaceWatch : public VrfUser {
 public:
  VrfInterfaceWatch(Ptr<VrfInfo> vrfInfo, Mox::String intfName);
  const Mox::String& intfName() const { return intfName_; }
  // The device's name in the kernel: the lower case of intfName.
  const Mox::String& kniIntfName() const { return kniIntfName_; }

  // 0 while it is not known.
  MOX_ATTRIBUTE(std::uint32_t, kniIntfIfIndex, 0)

  // The VRF is usable and the index known.
  bool usable() const;
  virtual Mox::String toStrep() const;

 private:
  Mox::String intfName_;
  Mox::String kniIntfName_;
};

// One VLAN interface.
class VlanL3Info final : public VrfInterfaceWatch {
 public:
  VlanL3Info(Bridging::VlanId vlanId, Ptr<VrfInfo> vrfInfo);
  Bridging::VlanId vlanId() const { return vlanId_; }
  const Lanix::IntfId& vlanIntfId() const { return vlanIntfId_; }
  bool madeWith(const Ptr<VrfInfo>& vrfInfo) const { return this->vrfInfo() == vrfInfo; }

  // The IPv4 addresses in use on the interface.
  MOX_MAP(Lanix::IpGenAddr, bool, ipAddress)

  static Mox::String constructIntfNameFromVlanId(Bridging::VlanId vlanId);
  Mox::String toStrep() const override;

 private:
  Bridging::VlanId vlanId_;
  Lanix::IntfId vlanIntfId_;
};

// The layer-3 side of every VLAN that the agent serves, and of the VRFs that they are in. It owns its
// members; a VRF leaves with its last user.
class VlanL3InfoStatus final : public Mox::Entity {
 public:
  MOX_CHILDREN(Mox::String, VrfInfo, vrfInfo)
  MOX_CHILDREN(Bridging::VlanId, VlanL3Info, vlanL3Info)
  // Finds or makes. Throws Mox::ReinstantiationError when the VLAN's entry is in another VRF.
  Ptr<VlanL3Info> vlanL3InfoIs(const Ptr<VrfInfo>& vrfInfo, Bridging::VlanId vlanId) {
    return vlanL3InfoIs(vlanId, vrfInfo);
  }
  // Every watch by interface name, those of VLANs and others.
  MOX_MAP(Mox::String, Ptr<VrfInterfaceWatch>, vrfInterfaceWatch)

  // The VLANs that were configured at start have been looked at once.
  MOX_ATTRIBUTE(bool, initialArpSuppressionStatusSync, false)
  // Announces a change of one VLAN. It is none again right after its watchers were told: read the
  // notification's value.
  MOX_ATTRIBUTE(Bridging::VlanIdOrNone, updatedVlanId)
  void vlanUpdated(const VlanL3Info& vlanL3Info);
  void vlanUpdated(Bridging::VlanId vlanId);

  // The VLAN's info when kernel work on it is possible now, otherwise null.
  Ptr<const VlanL3Info> usableVlanL3Info(Bridging::VlanId vlanId) const {
    return usableVlanL3InfoNonConst(vlanId);
  }
  Ptr<VlanL3Info> usableVlanL3InfoNonConst(Bridging::VlanId vlanId) const;

  // A VRF stays while it has users; the last delVrfUser removes it.
  void addVrfUser(const Ptr<VrfUser>& user);
  void delVrfUser(const Ptr<VrfUser>& user);
  void addVrfInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch);
  void delVrfInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch);
  // A watch of an interface that is no VLAN's; shared by all who ask, it stays as long as the status.
  Ptr<VrfInterfaceWatch> findOrCreateVrfInterfaceWatch(const Mox::String& vrfName,
                                                       const Mox::String& intfName);

  Mox::String toStrep() const { return "<VlanL3InfoStatus>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;
};

}  // namespace ArpSuppression
