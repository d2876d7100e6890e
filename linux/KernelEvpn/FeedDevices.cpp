#include "KernelEvpn/FeedDevices.h"

namespace KernelEvpn {

void FeedDevices::linkIs(const Netlink::Link& link) {
  const auto known = links_.find(link.index);
  if (known != links_.end()) {
    const Netlink::Link& before = known->second;
    if (before.name == link.name && before.kind == link.kind && before.filtersVlans == link.filtersVlans &&
        before.vlanId == link.vlanId && before.peer == link.peer)
      return;
    linkDel(link.index);
  }
  // A name and an index belong to one device each: whichever the kernel gives away anew ends what had it.
  if (const auto holder = names_.find(link.name); holder != names_.end()) linkDel(holder->second);
  links_[link.index] = link;
  names_[link.name] = link.index;
  if (link.kind == "vlan" && link.peer != 0) interfaces_[{link.peer, link.vlanId}] = link.index;
  refresh(link);
}

void FeedDevices::linkDel(IfIndex ifIndex) {
  const auto gone = links_.extract(ifIndex);
  if (!gone) return;
  const Netlink::Link& link = gone.mapped();
  names_.erase(link.name);
  if (const auto at = interfaces_.find({link.peer, link.vlanId});
      at != interfaces_.end() && at->second == ifIndex)
    interfaces_.erase(at);
  refresh(link);
}

void FeedDevices::configIs(const Switch::Config& config) {
  std::set<std::uint16_t> all;
  for (const auto& [vlanId, bridge] : bridges_) all.insert(vlanId);
  bridges_.clear();
  vlans_.clear();
  for (const auto& [vlanId, vlan] : config.vlanCollection()) {
    bridges_[vlanId.value()] = vlan->bridge();
    vlans_[vlan->bridge()].insert(vlanId.value());
    all.insert(vlanId.value());
  }
  for (const std::uint16_t vlanId : all) refresh(vlanId);
}

// What hangs on this device, which has come or gone.
void FeedDevices::refresh(const Netlink::Link& link) {
  if (const auto at = vlans_.find(link.name); at != vlans_.end()) {
    for (const std::uint16_t vlanId : at->second) refresh(vlanId);
  }
  if (link.kind == "vlan") refresh(link.vlanId);
}

void FeedDevices::refresh(std::uint16_t vlanId) {
  IfIndex now = 0;
  const auto configured = bridges_.find(vlanId);
  const Netlink::Link* const bridge = configured == bridges_.end() ? nullptr : named(configured->second);
  if (bridge && (bridge->filtersVlans || *vlans_.at(bridge->name).begin() == vlanId)) {
    const auto interface = interfaces_.find({bridge->index, vlanId});
    const IfIndex candidate = !bridge->filtersVlans            ? bridge->index
                              : interface == interfaces_.end() ? 0
                                                               : interface->second;
    const auto device = links_.find(candidate);
    if (device != links_.end() && Netlink::isFeedDevice(device->second, *bridge, vlanId)) now = candidate;
  }
  const IfIndex before = deviceOf(vlanId);
  if (before == now) return;
  if (before != 0 && vlanOf(before) == vlanId) vlanOf_.erase(before);
  devices_.erase(vlanId);
  if (now != 0) devices_[vlanId] = now, vlanOf_[now] = vlanId;
  changed_(before, now);
}

const Netlink::Link* FeedDevices::named(const std::string& name) const {
  const auto at = names_.find(name);
  return at == names_.end() ? nullptr : &links_.at(at->second);
}

IfIndex FeedDevices::deviceOf(std::uint16_t vlanId) const {
  const auto at = devices_.find(vlanId);
  return at == devices_.end() ? 0 : at->second;
}

std::uint16_t FeedDevices::vlanOf(IfIndex ifIndex) const {
  const auto at = vlanOf_.find(ifIndex);
  return at == vlanOf_.end() ? std::uint16_t{0} : at->second;
}

std::string FeedDevices::bridgeWithout(std::uint16_t vlanId) const {
  const auto configured = bridges_.find(vlanId);
  const Netlink::Link* const bridge = configured == bridges_.end() ? nullptr : named(configured->second);
  return bridge && bridge->kind == "bridge" && bridge->filtersVlans && deviceOf(vlanId) == 0 ? bridge->name
                                                                                             : "";
}

}  // namespace KernelEvpn
