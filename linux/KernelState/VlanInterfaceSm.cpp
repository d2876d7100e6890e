#include "KernelState/VlanInterfaceSm.h"

#include <algorithm>

#include "L3/VrfName.h"

namespace KernelState {
namespace {

constexpr unsigned kResolveLevel = 3;
// From when a VRF device gives up what is below it until it has gone, the kernel waits for the CPUs.
constexpr double kGoing = 1;  // seconds

}  // namespace

VlanInterfaceSm::VlanInterfaceSm(Ptr<const Switch::Config> config, Ptr<const NamespaceStates> states,
                                 Ptr<const VrfPlaces> vrfs, Ptr<VlanOwners> owners, Ptr<Ip::Status> ipStatus,
                                 Ptr<Switch::VlanInterfaces> vlanInterfaces,
                                 const Ptr<Orb::TaskScheduler>& scheduler)
    : config_(std::move(config), [this] { resolveAll(); }),
      started_(states),
      vrfs_(std::move(vrfs)),
      owners_(std::move(owners)),
      ipStatus_(std::move(ipStatus)),
      vlanInterfaces_(std::move(vlanInterfaces)),
      resolveTask_(scheduler, "KernelState VLAN interfaces", kResolveLevel, [this] { resolveNext(); }),
      leftTask_(scheduler, "KernelState VLAN interfaces that left", kResolveLevel, [this] { judgeLeft(); }),
      states_(states, [this](StateWatch::Notifiee& state) { attach(state); }) {
  ipStatus_->ipIntfStatusDelAll();  // an earlier agent of this process
  vlanInterfaces_->vlanDelAll();
  started_.on(NamespaceStates::startedChanged, [this] { resolveOf(Lanix::kDefaultNamespace); });
  vrfs_.on(VrfPlaces::vrfChanged, [this](const Lanix::NamespaceName& netNs) { resolveOf(netNs); });
  vrfs_.on(VrfPlaces::deviceVrfChanged, [this] { resolveOf(Lanix::kDefaultNamespace); });
}

void VlanInterfaceSm::attach(StateWatch::Notifiee& state) {
  const NamespaceState* const of = state.get();
  state.on(NamespaceState::linkChanged, [this, of](IfIndex ifIndex) { handleLink(*of, ifIndex); });
  state.on(NamespaceState::addressesChanged, [this, of](IfIndex ifIndex) { handleAddresses(*of, ifIndex); });
  if (of->name() == Lanix::kDefaultNamespace)
    state.on(NamespaceState::deviceChanged, [this](const Mox::String& name) { handleDevice(name); });
}

void VlanInterfaceSm::handleLink(const NamespaceState& state, IfIndex ifIndex) {
  const Device device{state.name(), ifIndex};
  if (const auto before = intfOf_.find(device); before != intfOf_.end() && !state.linkHas(ifIndex)) {
    const Lanix::IntfId intf = before->second;
    intfOf_.erase(before);
    if (state.name() == Lanix::kDefaultNamespace) placements_.erase(ifIndex);
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
  if (state.name() == Lanix::kDefaultNamespace) place(state, ifIndex);
  resolve(*intf);
}

void VlanInterfaceSm::place(const NamespaceState& state, IfIndex ifIndex) {
  const auto placement = placements_.find(ifIndex);
  if (const IfIndex above = state.link(ifIndex).vrfDevice; above != 0) {
    placements_[ifIndex] = {state.link(above).name};
  } else if (placement != placements_.end() && placement->second.leftUntil == 0) {
    placement->second.leftUntil = leftTask_.scheduler()->loop().clock().now() + kGoing;
    leftTask_.schedule(kGoing);
  }
}

// A VRF device may come to be known after what is below it, and is renamed without a word about that.
void VlanInterfaceSm::handleDevice(const Mox::String& name) {
  const auto state = states_->state(Lanix::kDefaultNamespace);
  const IfIndex ifIndex = state->device(name);
  if (ifIndex == 0 || !state->link(ifIndex).isVrf) return;
  for (auto& [device, placement] : placements_) {
    if (state->link(device).vrfDevice == ifIndex) placement.vrfDevice = name;
  }
  resolveOf(Lanix::kDefaultNamespace);
  leftTask_.schedule();
}

void VlanInterfaceSm::judgeLeft() {
  const auto state = states_->state(Lanix::kDefaultNamespace);
  const double now = leftTask_.scheduler()->loop().clock().now();
  double next = 0;
  for (auto at = placements_.begin(); at != placements_.end();) {
    const auto& [ifIndex, placement] = *at;
    const double left = placement.leftUntil;
    if (left > now) next = next == 0 ? left : std::min(next, left);
    if (left == 0 || left > now || !state->deviceHas(placement.vrfDevice)) {
      ++at;
      continue;
    }
    unresolved_.insert(intfOf_.at({state->name(), ifIndex}));
    at = placements_.erase(at);
  }
  if (next != 0) leftTask_.schedule(next - now);
  resolveTask_.schedule();
}

void VlanInterfaceSm::handleAddresses(const NamespaceState& state, IfIndex ifIndex) {
  const auto intf = intfOf_.find({state.name(), ifIndex});
  if (intf == intfOf_.end()) return;
  const VlanOwner owner = owners_->owner(intf->second);
  if (owner.netNs == state.name() && owner.ifIndex == ifIndex) publish(intf->second, owner);
}

void VlanInterfaceSm::resolveOf(const Lanix::NamespaceName& netNs) {
  for (auto at = intfOf_.lower_bound({netNs, 0}); at != intfOf_.end() && at->first.first == netNs; ++at)
    unresolved_.insert(at->second);
  resolveTask_.schedule();
}

void VlanInterfaceSm::resolveAll() {
  for (const auto& [intf, holders] : candidates_) unresolved_.insert(intf);
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

VrfIdentity VlanInterfaceSm::vrfOf(const NamespaceState& state, IfIndex ifIndex) const {
  const bool isHome = state.name() == Lanix::kDefaultNamespace;
  const IfIndex vrfDevice = isHome ? state.link(ifIndex).vrfDevice : 0;
  return vrfDevice != 0 ? vrfs_->deviceVrf(state.link(vrfDevice).name) : vrfs_->vrf(state.name());
}

VlanOwner VlanInterfaceSm::ownerOf(const Lanix::IntfId& intf) const {
  VlanOwner owner;
  const auto holders = candidates_.find(intf);
  if (holders == candidates_.end()) return owner;
  const auto vlan = config_ ? config_->vlan(Bridging::VlanId(intf.vlanNumber())) : nullptr;
  const Mox::String& configured = vlan ? vlan->vrf() : Mox::String();
  for (const auto& [netNs, ifIndex] : holders->second) {
    const auto state = states_->state(netNs);
    const VrfIdentity vrf = vrfOf(*state, ifIndex);
    if (!vrf || (!configured.empty() && vrf.name != configured)) continue;
    if (vrf.name == L3::VrfName::kDefault) {
      if (!states_->started() || owner.ifIndex != 0) continue;
      const auto placement = placements_.find(ifIndex);
      if (configured.empty() && placement != placements_.end() && placement->second.leftUntil != 0) continue;
    } else if (owner.ifIndex != 0 && owner.vrf.name != L3::VrfName::kDefault && owner.vrf.name <= vrf.name) {
      continue;
    }
    owner = {netNs, ifIndex, state->link(ifIndex).mac, vrf};
  }
  return owner;
}

void VlanInterfaceSm::resolve(const Lanix::IntfId& intf) {
  const VlanOwner owner = ownerOf(intf);
  const VlanOwner before = owners_->owner(intf);
  // Another device, or one in another VRF, is another interface: it is seen to go first.
  if (before.ifIndex != 0 &&
      (owner.ifIndex != before.ifIndex || owner.netNs != before.netNs || owner.vrf.name != before.vrf.name)) {
    ipStatus_->ipIntfStatusDel(intf);
    vlanInterfaces_->vlanDel(Bridging::VlanId(intf.vlanNumber()));
    owners_->ownerDel(intf);
  }
  if (owner.ifIndex == 0) return;
  owners_->ownerIs(intf, owner);
  publish(intf, owner);
}

void VlanInterfaceSm::publish(const Lanix::IntfId& intf, const VlanOwner& owner) {
  Addresses addresses = states_->state(owner.netNs)->addresses(owner.ifIndex);
  const Ptr<Ip::IpIntfStatus> status = ipStatus_->ipIntfStatusIs(intf);
  status->vrfNameIs(owner.vrf.name);
  status->activeAddrIs(addresses.empty() ? Lanix::IpGenPrefix() : addresses.front());
  if (!addresses.empty()) addresses.erase(addresses.begin());
  status->activeSecondaryAddrIs(std::move(addresses));
  const Bridging::VlanId vlanId(intf.vlanNumber());
  const IfIndex otherEnd = states_->state(owner.netNs)->link(owner.ifIndex).otherEnd;
  if (otherEnd == 0 || owner.netNs == Lanix::kDefaultNamespace) {
    vlanInterfaces_->vlanDel(vlanId);
  } else {
    vlanInterfaces_->vlanIs(vlanId, {owner.ifIndex, otherEnd});
  }
}

}  // namespace KernelState
