#pragma once

// Which VLANs the bridges that filter VLANs carry, and each of their ports: read when first asked for, and
// again after the kernel told of a change. What a notification says is not used, since it is not the whole
// change: that a port's PVID is now VLAN 40 does not say that VLAN 10 has lost it.

#include <functional>
#include <map>

#include "Netlink/Route.h"

namespace SoftForward {

class VlanTables {
 public:
  VlanTables();

  // Follows the kernel from now on. A kernel without such bridges has nothing to tell.
  Mox::Result<> open();
  int descriptor() const { return notifications_.fd(); }  // readable: receive() has work

  // Takes some notifications; `changed` gets each device that one is about, and 0 when some were lost, so
  // that any may have changed. Whether there may be more.
  bool receive(const std::function<void(Netlink::IfIndex)>& changed);

  // Of a bridge or its port; empty for a device that is neither (any more). Valid until the next call for
  // that device.
  Mox::Result<const Netlink::BridgeVlans*> of(Netlink::IfIndex ifIndex);

  // To be read again when it is asked for.
  void forget(Netlink::IfIndex ifIndex) { tables_.erase(ifIndex); }

 private:
  Netlink::Socket dumps_;
  Netlink::Socket notifications_;
  std::map<Netlink::IfIndex, Netlink::BridgeVlans> tables_;
};

}  // namespace SoftForward
