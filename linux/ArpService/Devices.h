#pragma once

#include <map>
#include <set>
#include <unordered_map>

#include "Lanix/IntfId.h"
#include "Netlink/Route.h"

namespace ArpService {

using Netlink::IfIndex;

// The VLAN interfaces of one namespace, as the kernel's messages tell of them.
class Devices {
 public:
  // RTM_NEWLINK and RTM_DELLINK; malformed ones are passed over. Returns the VLAN interface that is there now
  // and was not, or is another device than before; otherwise an invalid one.
  Lanix::IntfId handleMessage(const Netlink::Received& message);

  // All devices are about to be read; what is not told of until `readEnd` has gone.
  void readBegin() { told_.clear(); }
  void readEnd();
  void clear();

  // 0: the interface is not there.
  IfIndex ifIndex(const Lanix::IntfId& intf) const;
  // Invalid: the device is no VLAN interface.
  Lanix::IntfId intf(IfIndex ifIndex) const;

 private:
  void linkDel(IfIndex ifIndex);

  std::map<Lanix::IntfId, IfIndex> indices_;
  std::unordered_map<IfIndex, Lanix::IntfId> intfs_;
  std::set<IfIndex> told_;
};

}  // namespace ArpService
