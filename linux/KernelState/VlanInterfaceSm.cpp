#include "KernelState/VlanInterfaceSm.h"

#include "L3/VrfName.h"

namespace KernelState {
namespace {

constexpr unsigned kResolveLevel = 3;

}  // namespace

VlanInterfaceSm::VlanInterfaceSm(Ptr<const NamespaceStates> states, Ptr<const NamespaceVrfs> vrfs,
                                 Ptr<VlanOwners> owners, Ptr<Ip::Status> ipStatus,
                                 const Ptr<Orb::TaskScheduler>& scheduler)
    : started_(states),
      vrfs_(std::move(vrfs)),
      owners_(std::move(owners)),
      ipStatus_(std::move(ipStatus)),
      resolveTask_(scheduler, "KernelState VLAN interfaces", kResolveLevel, [this] { resolveNext(); }),
      states_(states, [this](StateWatch::Notifiee& state) { attach(state); }) {
  ipStatus_->ipIntfStatusDelAll();  // an earlier agent of this process
  started_.on(NamespaceStates::startedChanged, [this] { resolveOf(Lanix::kDefaultNamespace); });
  vrfs_.on(NamespaceVrfs::vrfChanged, [this](const Lanix::NamespaceName& netNs) { resolveOf(netNs); });
}

void VlanInterfaceSm::attach(StateWatch::Notifiee& state) {
  const NamespaceState* const of = state.get();
  state.on(NamespaceState::linkChanged, [this, of](IfIndex ifIndex) { handleLink(*of, ifIndex); });
  state.on(NamespaceState::addressesChanged, [this, of](IfIndex ifIndex) { handleAddresses(*of, ifIndex); });
}

void VlanInterfaceSm::handleLink(const NamespaceState& state, IfIndex ifIndex) {
  const std::pair<Lanix::NamespaceName, IfIndex> device{state.name(), ifIndex};
  if (const auto before = intfOf_.find(device); before != intfOf_.end() && !state.linkHas(ifIndex)) {
    const Lanix::IntfId intf = before->second;
    intfOf_.erase(before);
    auto& holders = candidates_[intf];
    if (const auto holder = holders.find(state.name()); holder != holders.end() && holder->second == ifIndex)
      holders.erase(holder);
    if (holders.empty()) candidates_.erase(intf);
    resolve(intf);
  }
  const auto intf = vlanInterfaceOf(state.link(ifIndex).name);
  if (!intf) return;
  intfOf_[device] = *intf;
  candidates_[*intf][state.name()] = ifIndex;
  resolve(*intf);
}

void VlanInterfaceSm::handleAddresses(const NamespaceState& state, IfIndex ifIndex) {
  const auto intf = intfOf_.find({state.name(), ifIndex});
  if (intf == intfOf_.end()) return;
  const VlanOwner owner = owners_->owner(intf->second);
  // The owner of one that is to be resolved anew may have lost its VRF.
  if (owner.netNs == state.name() && owner.ifIndex == ifIndex && vrfs_->vrfHas(owner.netNs))
    publish(intf->second, owner);
}

void VlanInterfaceSm::resolveOf(const Lanix::NamespaceName& netNs) {
  for (auto at = intfOf_.lower_bound({netNs, 0}); at != intfOf_.end() && at->first.first == netNs; ++at)
    unresolved_.insert(at->second);
  resolveTask_.schedule();
}

void VlanInterfaceSm::resolveNext() {
  while (!unresolved_.empty()) {
    const Lanix::IntfId intf = *unresolved_.begin();
    unresolved_.erase(unresolved_.begin());
    resolve(intf);
    if (resolveTask_.scheduler()->root().mustYield()) return resolveTask_.schedule();
  }
}

VlanOwner VlanInterfaceSm::ownerOf(const Lanix::IntfId& intf) const {
  VlanOwner owner;
  Mox::String ownerVrf;
  const auto holders = candidates_.find(intf);
  if (holders == candidates_.end()) return owner;
  for (const auto& [netNs, ifIndex] : holders->second) {
    if (!vrfs_->vrfHas(netNs)) continue;
    const Mox::String& vrf = vrfs_->vrf(netNs).name;
    const bool isDefault = netNs == Lanix::kDefaultNamespace;
    if (isDefault && !(states_->started() && owner.ifIndex == 0)) continue;
    if (owner.ifIndex != 0 && owner.netNs != Lanix::kDefaultNamespace && ownerVrf <= vrf) continue;
    ownerVrf = vrf;
    owner = {netNs, ifIndex, states_->state(netNs)->link(ifIndex).mac};
  }
  return owner;
}

void VlanInterfaceSm::resolve(const Lanix::IntfId& intf) {
  const VlanOwner owner = ownerOf(intf);
  const VlanOwner before = owners_->owner(intf);
  // Another device, or one in another VRF, is another interface: it is seen to go first.
  if (before.ifIndex != 0 && (owner.ifIndex != before.ifIndex || owner.netNs != before.netNs)) {
    ipStatus_->ipIntfStatusDel(intf);
    owners_->ownerDel(intf);
  }
  if (owner.ifIndex == 0) return;
  owners_->ownerIs(intf, owner);
  publish(intf, owner);
}

void VlanInterfaceSm::publish(const Lanix::IntfId& intf, const VlanOwner& owner) {
  Addresses addresses = states_->state(owner.netNs)->addresses(owner.ifIndex);
  const Ptr<Ip::IpIntfStatus> status = ipStatus_->ipIntfStatusIs(intf);
  status->vrfNameIs(vrfs_->vrf(owner.netNs).name);
  status->activeAddrIs(addresses.empty() ? Lanix::IpGenPrefix() : addresses.front());
  if (!addresses.empty()) addresses.erase(addresses.begin());
  status->activeSecondaryAddrIs(std::move(addresses));
}

}  // namespace KernelState
