#pragma once

#include <map>

#include "ArpSuppression/EnabledVlans.h"
#include "ArpSuppression/VlanL3Info.h"
#include "Interface/NetNsIntfStatusManager.h"
#include "Ip/Status.h"
#include "KernelNetInfo/Status.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"
#include "Statedb/EntityManager.h"
#include "Suppression/Status.h"
#include "Vrf/VrfIdMap.h"

namespace ArpSuppression {

// Serves one VRF: while its local status is active and its id known, records the VRF's namespace, holds a
// netlink socket in it and resolves the kernel index of every interface that is watched in the VRF. Its end
// undoes all of that at once.
class VrfInfoSm final : public Orb::WalkSmBase {
 public:
  VrfInfoSm(Ptr<Orb::TaskScheduler> scheduler, Ptr<VrfInfo> vrfInfo,
            Ptr<const Ip::VrfStatusLocal> vrfStatusLocal, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
            Ptr<Interface::NetNsIntfStatusManagerRoot> netNsIntfStatusManagerRoot,
            Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
            Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir,
            Ptr<Interface::DeviceIntfStatusDir> deviceIntfStatusDir, Ptr<Statedb::EntityManager> entityMgr);
  ~VrfInfoSm() override;

  const Ptr<const Ip::VrfStatusLocal>& vrfStatusLocal() const { return vrfStatusLocal_.notifier(); }

  Mox::String toStrep() const;
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  Orb::WalkRet walk() override;
  bool allowWalkRestarts() const override { return true; }
  bool walkStartedNotification() override;

  void handleInitialized();
  void handleDestroy();
  void handleVrfStatusLocal();
  void handleInterfaceWatch(const Mox::String& intfName);
  void handleInterfaceByDeviceName(const Mox::String& deviceName);

  void updateVrfInfo(bool forceCleanup);
  void becomeActive();
  void becomeInactive(bool forceCleanup);
  void scheduleInterfaceWatchUpdate();
  void updateInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch);
  // The first watch whose name is not less than `intfName`; null at the end.
  Ptr<VrfInterfaceWatch> watchFrom(const Mox::String& intfName) const;
  Mox::String kniPath(const Lanix::NamespaceName& netNs) const;

  Mox::Notifiee<VrfInfo> vrfInfo_;
  Mox::Notifiee<const Ip::VrfStatusLocal> vrfStatusLocal_;
  Ptr<VlanL3InfoStatus> vlanL3InfoStatus_;
  Ptr<Interface::NetNsIntfStatusManagerRoot> netNsIntfStatusManagerRoot_;
  Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir_;
  Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir_;
  Ptr<Interface::DeviceIntfStatusDir> deviceIntfStatusDir_;
  Ptr<Statedb::EntityManager> entityMgr_;
  Mox::Notifiee<const KernelNetInfo::Status>
      kniInterfaceInfo_;  // of the mounted namespace; none while not mounted
  Mox::String interfaceWatchBookmark_;
};

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
