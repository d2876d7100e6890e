#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Bridging/VlanId.h"
#include "Netlink/Route.h"
#include "Switch/Config.h"

namespace KernelEvpn {

using Netlink::IfIndex;

// Which device of the host's own namespace has the neighbours that other switches advertise for a configured
// VLAN (Netlink::isFeedDevice). A bridge that filters no VLANs is that of the lowest VLAN that names it.
class FeedDevices {
 public:
  // `changed` is called with the device that a VLAN had, and the one that it has now; 0: none.
  explicit FeedDevices(std::function<void(IfIndex before, IfIndex now)> changed)
      : changed_(std::move(changed)) {}

  void linkIs(const Netlink::Link& link);
  void linkDel(IfIndex ifIndex);
  // What the configuration says now of VLANs and their bridges.
  void configIs(const Switch::Config& config);

  // 0: there is none.
  IfIndex deviceOf(std::uint16_t vlanId) const;
  std::uint16_t vlanOf(IfIndex ifIndex) const;
  // Of a VLAN whose bridge filters VLANs, and that has no device on it: the bridge; "" otherwise.
  std::string bridgeWithout(std::uint16_t vlanId) const;
  // The configured VLANs.
  const std::map<std::uint16_t, std::string>& vlans() const { return bridges_; }

 private:
  void refresh(const Netlink::Link& link);
  void refresh(std::uint16_t vlanId);
  const Netlink::Link* named(const std::string& name) const;

  const std::function<void(IfIndex, IfIndex)> changed_;
  std::map<std::uint16_t, std::string> bridges_;          // by VLAN
  std::map<std::string, std::set<std::uint16_t>> vlans_;  // by the bridge's name
  std::unordered_map<IfIndex, Netlink::Link> links_;
  std::unordered_map<std::string, IfIndex> names_;
  std::map<std::pair<IfIndex, std::uint16_t>, IfIndex> interfaces_;  // 802.1Q devices, by bridge and VLAN
  std::map<std::uint16_t, IfIndex> devices_;
  std::unordered_map<IfIndex, std::uint16_t> vlanOf_;
};

}  // namespace KernelEvpn
