#pragma once

#include <map>

#include "ArpSuppression/EnabledVlans.h"
#include "ArpSuppression/VrfInfoSm.h"
#include "Ip/Status.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"
#include "Suppression/Status.h"
#include "Vrf/VrfIdMap.h"

namespace ArpSuppression {

// Keeps VlanL3InfoStatus true: for each VLAN that is published or enabled and has an IP interface, an entry
// in the VRF of that interface, with the interface's addresses; for each VRF, its id, and a VrfInfoSm while
// it has a local status.
class VlanL3InfoSm final : public Orb::WalkSmBase {
 public:
  VlanL3InfoSm(Ptr<Orb::TaskScheduler> scheduler, Ptr<const ArpSuppressionStatus> arpSuppressionStatus,
               Ptr<const EnabledVlans> enabledVlans, Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal,
               Ptr<const Ip::Status> ipStatus, Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameToIdMap,
               Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
               Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir,
               Ptr<Interface::DeviceIntfStatusDir> deviceIntfStatusDir,
               Ptr<VlanL3InfoStatus> vlanL3InfoStatus, Ptr<Statedb::EntityManager> entityMgr);
  ~VlanL3InfoSm() override;

  Mox::String toStrep() const { return "<VlanL3InfoSm>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  // Copies the addresses in use on one VLAN's interface into its entry.
  class VlanL3AddrSm final : public Mox::Referenced {
   public:
    VlanL3AddrSm(Ptr<const Ip::Status> ipStatus, Ptr<VlanL3Info> vlanL3Info);
    // Follows another interface status, or none.
    void ipIntfStatusIs(const Ptr<const Ip::IpIntfStatus>& ipIntfStatus);
    Mox::String toStrep() const { return "<VlanL3AddrSm " + vlanL3Info_->toStrep() + ">"; }

   private:
    void handleActiveAddr();
    void doCleanup() { vlanL3Info_->ipAddressDelAll(); }

    Mox::Notifiee<const Ip::IpIntfStatus> ipIntfStatus_;
    Ptr<VlanL3Info> vlanL3Info_;
  };

  Orb::WalkRet walk() override;
  void walkFinishedNotification() override;

  void handleInitialized();
  void handleArpSuppressionStatus(Bridging::VlanId vlanId);
  void handleEnabledfVlan(Bridging::VlanId vlanId);
  void handleIpIntfStatus(const Lanix::IntfId& intfId);
  void handleVrfStatusLocal(const Mox::String& vrfName);
  void handleVrfInfo(const Mox::String& vrfName);
  void handleVrfNameToId(const Mox::String& vrfName);

  void updateVlanId(Bridging::VlanId vlanId);
  void updateVrfId(const Ptr<VrfInfo>& vrfInfo);
  void updateVrfInfoSm(const Mox::String& vrfName);
  void watchVrfName(const Lanix::IntfId& intfId);

  Mox::Notifiee<const ArpSuppressionStatus> arpSuppressionStatus_;
  Mox::Notifiee<const EnabledVlans> enabledVlans_;
  Mox::Notifiee<const Ip::AllVrfStatusLocal> allVrfStatusLocal_;
  Mox::Notifiee<const Ip::Status> ipStatus_;
  Mox::Notifiee<const Vrf::VrfIdMap::NameToIdMap> vrfNameToIdMap_;
  Mox::Notifiee<VlanL3InfoStatus> vlanL3InfoStatus_;
  Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir_;
  Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir_;
  Ptr<Interface::DeviceIntfStatusDir> deviceIntfStatusDir_;
  Ptr<Statedb::EntityManager> entityMgr_;

  Bridging::VlanIdOrNone vlanIdBookmark_;
  Ptr<Interface::NetNsIntfStatusManagerRoot> netNsIntfStatusManagerRoot_;
  std::map<Lanix::IntfId, Mox::Notifiee<const Ip::IpIntfStatus>> vrfNameOf_;  // of VLAN interfaces
  std::map<Lanix::IntfId, Ptr<VlanL3AddrSm>> vlanL3AddrSm_;
  std::map<Mox::String, Ptr<VrfInfoSm>> vrfInfoSm_;
  const Ptr<Ip::VrfStatusLocal> madeUpDefaultVrf_;  // for the VRF "default" while it has no local status
};

}  // namespace ArpSuppression
