#include "ArpService/Devices.h"

#include <linux/rtnetlink.h>

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

Lanix::IntfId Devices::handleMessage(const Netlink::Received& message) {
  const auto link = Netlink::readLink(message);
  if (!link || link->ofBridge) return {};
  const Lanix::IntfId now = message.type() == RTM_NEWLINK ? vlanInterfaceOf(link->name) : Lanix::IntfId();
  if (intf(link->index) != now) linkDel(link->index);
  if (!now) return {};
  told_.insert(link->index);
  intfs_[link->index] = now;
  return std::exchange(indices_[now], link->index) != link->index ? now : Lanix::IntfId();
}

void Devices::readEnd() {
  std::vector<IfIndex> gone;
  for (const auto& [ifIndex, intf] : intfs_) {
    if (!told_.contains(ifIndex)) gone.push_back(ifIndex);
  }
  for (const IfIndex ifIndex : gone) linkDel(ifIndex);
}

void Devices::clear() {
  indices_.clear();
  intfs_.clear();
}

// Another device may have the interface's name by now.
void Devices::linkDel(IfIndex ifIndex) {
  const auto known = intfs_.extract(ifIndex);
  if (!known) return;
  told_.erase(ifIndex);
  if (const auto at = indices_.find(known.mapped()); at != indices_.end() && at->second == ifIndex)
    indices_.erase(at);
}

IfIndex Devices::ifIndex(const Lanix::IntfId& intf) const {
  const auto at = indices_.find(intf);
  return at == indices_.end() ? 0 : at->second;
}

Lanix::IntfId Devices::intf(IfIndex ifIndex) const {
  const auto at = intfs_.find(ifIndex);
  return at == intfs_.end() ? Lanix::IntfId() : at->second;
}

}  // namespace ArpService
