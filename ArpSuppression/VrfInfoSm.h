#pragma once

#include <set>

#include "ArpSuppression/VlanL3Info.h"
#include "Interface/NetNsIntfStatusManager.h"
#include "Ip/Status.h"
#include "KernelNetInfo/Status.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"
#include "Statedb/EntityManager.h"

namespace ArpSuppression {

// Serves one VRF. While the VRF's local status is active and its id known, it records the VRF's network
// namespace, holds a netlink socket there, and finds the kernel index of each interface that is watched in
// the VRF. When the VRF becomes inactive the namespace and the socket go at once and the indices in slices;
// it becomes active again only when they have gone, since another namespace's indices are other devices'. A
// socket that is refused is tried again, less and less often. The reactor's own end takes back everything,
// whatever the VRF is by then.
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
  void walkFinishedNotification() override;

  void handleInitialized();
  void handleDestroy();
  void handleVrfStatusLocal();
  void handleInterfaceWatch(const Mox::String& intfName);
  void handleInterfaceByDeviceName(const Mox::String& deviceName);

  void updateVrfInfo(bool forceCleanup);
  void becomeActive();
  void becomeInactive();
  void openSocket();
  void scheduleInterfaceWatchUpdate();
  void updateInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch);
  // The first watch whose name is not less than `intfName`; null at the end.
  Ptr<VrfInterfaceWatch> watchFrom(const Mox::String& intfName) const;

  // The names of watched interfaces, those that differ in upper and lower case only side by side: a kernel
  // device's name is the lower case of its interface's.
  struct CaseInsensitiveLess {
    bool operator()(const Mox::String& a, const Mox::String& b) const;
  };
  std::multiset<Mox::String, CaseInsensitiveLess> watched_;

  Mox::Notifiee<VrfInfo> vrfInfo_;
  Mox::Notifiee<const Ip::VrfStatusLocal> vrfStatusLocal_;
  Ptr<VlanL3InfoStatus> vlanL3InfoStatus_;
  Ptr<Interface::NetNsIntfStatusManagerRoot> netNsIntfStatusManagerRoot_;
  Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir_;
  Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir_;
  Ptr<Interface::DeviceIntfStatusDir> deviceIntfStatusDir_;
  Ptr<Statedb::EntityManager> entityMgr_;
  Mox::Notifiee<const KernelNetInfo::Status> kniInterfaceInfo_;  // of the namespace; none while not mounted
  Mox::String interfaceWatchBookmark_;
  bool clearing_ = false;  // the VRF became inactive, and the indices have not all gone
  double retryDelay_;      // of the socket, in seconds
  Orb::Task retryTask_;
};

}  // namespace ArpSuppression
