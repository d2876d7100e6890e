#pragma once

#include <map>
#include <set>

#include "Ip/Status.h"
#include "KernelState/StateWatch.h"
#include "KernelState/Tables.h"
#include "Orb/TaskScheduler.h"

namespace KernelState {

// Decides which device is a VLAN's interface, and publishes it with its VRF and its addresses. A name that
// several namespaces have belongs to the one that is a configured VRF's (the first VRF by name, if several
// are), otherwise to the default one: there it is the bridge of a VLAN whose interface is, or will be,
// elsewhere, so the default namespace has to wait until every namespace has been read once.
class VlanInterfaceSm final : public Mox::Entity {
 public:
  VlanInterfaceSm(Ptr<const NamespaceStates> states, Ptr<const NamespaceVrfs> vrfs, Ptr<VlanOwners> owners,
                  Ptr<Ip::Status> ipStatus, const Ptr<Orb::TaskScheduler>& scheduler);

  // Some are yet to be decided anew.
  bool busy() const { return !unresolved_.empty(); }

 private:
  void attach(StateWatch::Notifiee& state);
  void handleLink(const NamespaceState& state, IfIndex ifIndex);
  void handleAddresses(const NamespaceState& state, IfIndex ifIndex);
  // All that have a device in the namespace, in slices.
  void resolveOf(const Lanix::NamespaceName& netNs);
  void resolveNext();
  void resolve(const Lanix::IntfId& intf);
  VlanOwner ownerOf(const Lanix::IntfId& intf) const;
  void publish(const Lanix::IntfId& intf, const VlanOwner& owner);

  Mox::Notifiee<const NamespaceStates> started_;
  Mox::Notifiee<const NamespaceVrfs> vrfs_;
  Ptr<VlanOwners> owners_;
  Ptr<Ip::Status> ipStatus_;
  // Who has a device of the VLAN interface's name.
  std::map<Lanix::IntfId, std::map<Lanix::NamespaceName, IfIndex>> candidates_;
  std::map<std::pair<Lanix::NamespaceName, IfIndex>, Lanix::IntfId> intfOf_;
  std::set<Lanix::IntfId> unresolved_;
  Orb::Task resolveTask_;
  StateWatch states_;
};

}  // namespace KernelState
