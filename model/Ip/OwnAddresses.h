#pragma once

#include <map>
#include <optional>
#include <utility>

#include "Bridging/VlanId.h"
#include "Ip/Status.h"
#include "Lanix/IpGenAddr.h"

namespace Ip {

// The addresses of this switch's interfaces, as they are when it is made. Another switch cannot have one of
// them in the same VRF.
class OwnAddresses {
 public:
  // Null: there are none.
  explicit OwnAddresses(const Mox::Ptr<const Status>& status) : status_(status) {
    if (!status_) return;
    for (const auto& [intfId, interface] : status_->ipIntfStatusCollection()) {
      add(*interface, interface->activeAddr());
      for (const Lanix::IpGenPrefix& prefix : interface->activeSecondaryAddr()) add(*interface, prefix);
    }
  }
  // The interface that has the address in the VRF of the VLAN's interface, if there is one.
  std::optional<Lanix::IntfId> interfaceOf(Bridging::VlanId vlanId, const Lanix::IpGenAddr& address) const {
    const auto vlan =
        status_ ? status_->ipIntfStatus(Lanix::IntfId::fromName("Vlan" + vlanId.toStrep())) : nullptr;
    const auto found = vlan ? interfaces_.find({vlan->vrfName(), address}) : interfaces_.end();
    return found == interfaces_.end() ? std::nullopt : std::optional(found->second);
  }

 private:
  void add(const IpIntfStatus& interface, const Lanix::IpGenPrefix& prefix) {
    if (prefix.address())
      interfaces_.emplace(std::pair(interface.vrfName(), prefix.address()), interface.intfId());
  }
  const Mox::Ptr<const Status> status_;
  std::map<std::pair<Mox::String, Lanix::IpGenAddr>, Lanix::IntfId> interfaces_;  // by VRF and address
};

}  // namespace Ip
