#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>

#include "ArpService/Feed.h"
#include "Lanix/IntfId.h"
#include "Netlink/Route.h"

namespace ArpService {

using Netlink::IfIndex;

// The VLAN interfaces of one namespace, and the VRF devices that they are below, as the kernel's messages
// tell of them.
class Devices {
 public:
  // `come` is called with a VLAN interface that is there now and was not, is another device than before, or
  // is below another VRF device.
  explicit Devices(std::function<void(const Lanix::IntfId&)> come) : come_(std::move(come)) {}

  // RTM_NEWLINK and RTM_DELLINK; malformed ones are passed over.
  void handleMessage(const Netlink::Received& message);

  // All devices are about to be read; what is not told of until `readEnd` has gone.
  void readBegin() { told_.clear(); }
  void readEnd();
  void clear();

  // 0: the interface is not there.
  IfIndex ifIndex(const Lanix::IntfId& intf) const;
  // Invalid: the device is no VLAN interface.
  Lanix::IntfId intf(IfIndex ifIndex) const;
  // The VRF device that a VLAN interface is below, and the last other one that it was below: "" for none.
  std::string vrfDevice(IfIndex ifIndex) const;
  std::string vrfDeviceBefore(IfIndex ifIndex) const;
  void forEach(const std::function<void(const Lanix::IntfId&)>& visit) const;

  // Finds out which VLAN interfaces are feed devices; nothing: that cannot have changed since the last time.
  // True: one that was known then is what it was not.
  std::optional<bool> findFeedDevices(const Feed& feed);
  // As it was found out last.
  bool isFeedDevice(IfIndex ifIndex) const;

 private:
  struct Device {
    Lanix::IntfId intf;
    Netlink::Link link;
    std::optional<bool> isFeedDevice;  // nothing: not found out yet
    IfIndex vrfDevice = 0;
    IfIndex vrfDeviceBefore = 0;
  };
  void bridgeIs(const Netlink::Link& link);
  void vrfDeviceIs(IfIndex ifIndex, const std::string& name);
  void linkDel(IfIndex ifIndex);
  const Device* find(IfIndex ifIndex) const;
  std::string nameOf(IfIndex vrfDevice) const;

  const std::function<void(const Lanix::IntfId&)> come_;
  std::map<Lanix::IntfId, IfIndex> indices_;
  std::unordered_map<IfIndex, Device> devices_;
  std::unordered_map<IfIndex, std::string> vrfDevices_;  // names
  std::unordered_map<IfIndex, Netlink::Link> bridges_;
  bool feedDevicesKnown_ = false;
  std::set<IfIndex> told_;
};

}  // namespace ArpService
