#pragma once

#include <map>
#include <set>

#include "Ip/Status.h"
#include "KernelState/StateWatch.h"
#include "KernelState/Tables.h"
#include "Orb/TaskScheduler.h"
#include "Switch/ConfigWatch.h"
#include "Switch/VlanInterfaces.h"

namespace KernelState {

// Decides which device is a VLAN's interface and which VRF it is in, and publishes it with its addresses.
//
// A device is in the VRF that its namespace is, or, in the default namespace, in that of the VRF device that
// it is below. A VLAN that the configuration puts into a VRF has no interface elsewhere. When a VRF device is
// deleted the kernel leaves what was below it in the VRF "default", where nobody put it: such a device is in
// no VRF until the VRF device is back, or it is put somewhere. The kernel tells that a device left its VRF
// device before it tells that this one is going, so that a device that left is in no VRF for a moment.
//
// Of several devices that have the name, in several namespaces, that one is the interface whose VRF is the
// first by name, and one in the VRF "default" only if there is no other: there it is the bridge of a VLAN
// whose interface is, or will be, elsewhere, so that has to wait until every namespace has been read once.
class VlanInterfaceSm final : public Mox::Entity {
 public:
  VlanInterfaceSm(Ptr<const Switch::Config> config, Ptr<const NamespaceStates> states,
                  Ptr<const VrfPlaces> vrfs, Ptr<VlanOwners> owners, Ptr<Ip::Status> ipStatus,
                  Ptr<Switch::VlanInterfaces> vlanInterfaces, const Ptr<Orb::TaskScheduler>& scheduler);

  // Some are yet to be decided anew.
  bool busy() const { return !unresolved_.empty(); }

 private:
  using Device = std::pair<Lanix::NamespaceName, IfIndex>;
  // A VLAN interface that is, or was, below a VRF device.
  struct Placement {
    Mox::String vrfDevice;
    double leftUntil = 0;  // it left, and is in no VRF before this time; 0: it is there
  };

  void attach(StateWatch::Notifiee& state);
  void handleLink(const NamespaceState& state, IfIndex ifIndex);
  void handleAddresses(const NamespaceState& state, IfIndex ifIndex);
  void handleDevice(const Mox::String& name);
  void place(const NamespaceState& state, IfIndex ifIndex);
  void judgeLeft();
  void resolveOf(const Lanix::NamespaceName& netNs);
  void resolveAll();
  void resolveNext();
  void resolve(const Lanix::IntfId& intf);
  VrfIdentity vrfOf(const NamespaceState& state, IfIndex ifIndex) const;
  VlanOwner ownerOf(const Lanix::IntfId& intf) const;
  void publish(const Lanix::IntfId& intf, const VlanOwner& owner);

  Switch::ConfigWatch config_;
  Mox::Notifiee<const NamespaceStates> started_;
  Mox::Notifiee<const VrfPlaces> vrfs_;
  Ptr<VlanOwners> owners_;
  Ptr<Ip::Status> ipStatus_;
  Ptr<Switch::VlanInterfaces> vlanInterfaces_;
  // Who has a device of the VLAN interface's name.
  std::map<Lanix::IntfId, std::map<Lanix::NamespaceName, IfIndex>> candidates_;
  std::map<Device, Lanix::IntfId> intfOf_;
  std::map<IfIndex, Placement> placements_;  // in the default namespace
  std::set<Lanix::IntfId> unresolved_;
  Orb::Task resolveTask_;
  Orb::Task leftTask_;
  StateWatch states_;
};

}  // namespace KernelState
