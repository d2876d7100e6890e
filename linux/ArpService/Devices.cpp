#include "ArpService/Devices.h"

#include <linux/rtnetlink.h>

#include <tuple>
#include <utility>
#include <vector>

#include "Bridging/VlanId.h"

namespace ArpService {
namespace {

// "vlan10" is Vlan10; "Vlan10" and "vlan4095" are none.
Lanix::IntfId vlanInterfaceOf(const std::string& device) {
  const auto intf = Lanix::IntfId::fromName(device);
  return Bridging::VlanId::valid(intf.vlanNumber()) && intf.kernelName() == device ? intf : Lanix::IntfId();
}

}  // namespace

void Devices::handleMessage(const Netlink::Received& message) {
  const auto link = Netlink::readLink(message);
  if (!link || link->ofBridge) return;
  const bool isThere = message.type() == RTM_NEWLINK;
  const Lanix::IntfId now = isThere ? vlanInterfaceOf(link->name) : Lanix::IntfId();
  if (intf(link->index) != now || !isThere) linkDel(link->index);
  if (!isThere) return;
  told_.insert(link->index);
  if (link->kind == "vrf") vrfDeviceIs(link->index, link->name);
  if (link->kind == "bridge") bridgeIs(*link);
  if (!now) return;
  Device& device = devices_[link->index];
  device.intf = now;
  const auto what = [](const Netlink::Link& a) { return std::tie(a.kind, a.vlanId, a.peer); };
  if (!device.isFeedDevice || what(device.link) != what(*link)) feedDevicesKnown_ = false;
  device.link = *link;
  const IfIndex above = link->masterKind == "vrf" ? link->master : 0;
  const bool moved = above != device.vrfDevice;
  if (moved) device.vrfDeviceBefore = std::exchange(device.vrfDevice, above);
  if (std::exchange(indices_[now], link->index) != link->index || moved) come_(now);
}

void Devices::bridgeIs(const Netlink::Link& link) {
  Netlink::Link& known = bridges_[link.index];
  if (known.name == link.name && known.filtersVlans == link.filtersVlans) return;
  known = link;
  feedDevicesKnown_ = false;
}

std::optional<bool> Devices::findFeedDevices(const Feed& feed) {
  if (std::exchange(feedDevicesKnown_, true)) return std::nullopt;
  std::map<std::string, const Netlink::Link*> bridges;
  for (const auto& [ifIndex, link] : bridges_) bridges[link.name] = &link;
  bool isOther = false;
  for (auto& [ifIndex, device] : devices_) {
    const Bridging::VlanId vlanId(device.intf.vlanNumber());
    const auto vlan = feed.bridges.find(vlanId);
    const auto bridge = vlan == feed.bridges.end() ? bridges.end() : bridges.find(vlan->second);
    const bool is =
        bridge != bridges.end() &&
        Netlink::isFeedDevice(device.link, *bridge->second, static_cast<std::uint16_t>(vlanId.value()));
    isOther = isOther || (device.isFeedDevice && *device.isFeedDevice != is);
    device.isFeedDevice = is;
  }
  return isOther;
}

bool Devices::isFeedDevice(IfIndex ifIndex) const {
  const Device* const device = find(ifIndex);
  return device && device->isFeedDevice.value_or(false);
}

// It may come to be known after what is below it, and its name may change.
void Devices::vrfDeviceIs(IfIndex ifIndex, const std::string& name) {
  if (std::exchange(vrfDevices_[ifIndex], name) == name) return;
  for (const auto& [below, device] : devices_) {
    if (device.vrfDevice == ifIndex) come_(device.intf);
  }
}

void Devices::readEnd() {
  std::vector<IfIndex> gone;
  for (const auto& [ifIndex, device] : devices_) {
    if (!told_.contains(ifIndex)) gone.push_back(ifIndex);
  }
  for (const auto& [ifIndex, name] : vrfDevices_) {
    if (!told_.contains(ifIndex)) gone.push_back(ifIndex);
  }
  for (const auto& [ifIndex, link] : bridges_) {
    if (!told_.contains(ifIndex)) gone.push_back(ifIndex);
  }
  for (const IfIndex ifIndex : gone) linkDel(ifIndex);
}

void Devices::clear() {
  indices_.clear();
  devices_.clear();
  vrfDevices_.clear();
  bridges_.clear();
  feedDevicesKnown_ = false;
}

// Another device may have the interface's name by now.
void Devices::linkDel(IfIndex ifIndex) {
  told_.erase(ifIndex);
  vrfDevices_.erase(ifIndex);
  if (bridges_.erase(ifIndex) != 0) feedDevicesKnown_ = false;
  const auto known = devices_.extract(ifIndex);
  if (!known) return;
  if (known.mapped().isFeedDevice.value_or(false)) feedDevicesKnown_ = false;
  if (const auto at = indices_.find(known.mapped().intf); at != indices_.end() && at->second == ifIndex)
    indices_.erase(at);
}

IfIndex Devices::ifIndex(const Lanix::IntfId& intf) const {
  const auto at = indices_.find(intf);
  return at == indices_.end() ? 0 : at->second;
}

const Devices::Device* Devices::find(IfIndex ifIndex) const {
  const auto at = devices_.find(ifIndex);
  return at == devices_.end() ? nullptr : &at->second;
}

Lanix::IntfId Devices::intf(IfIndex ifIndex) const {
  const Device* const device = find(ifIndex);
  return device ? device->intf : Lanix::IntfId();
}

std::string Devices::nameOf(IfIndex vrfDevice) const {
  if (vrfDevice == 0) return "";
  const auto at = vrfDevices_.find(vrfDevice);
  return at == vrfDevices_.end() ? "?" : at->second;  // no device has that name
}

std::string Devices::vrfDevice(IfIndex ifIndex) const {
  const Device* const device = find(ifIndex);
  return device ? nameOf(device->vrfDevice) : "";
}

std::string Devices::vrfDeviceBefore(IfIndex ifIndex) const {
  const Device* const device = find(ifIndex);
  return device ? nameOf(device->vrfDeviceBefore) : "";
}

void Devices::forEach(const std::function<void(const Lanix::IntfId&)>& visit) const {
  for (const auto& [intf, ifIndex] : indices_) visit(intf);
}

}  // namespace ArpService
