#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <unordered_map>

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

 private:
  struct Device {
    Lanix::IntfId intf;
    IfIndex vrfDevice = 0;
    IfIndex vrfDeviceBefore = 0;
  };
  void vrfDeviceIs(IfIndex ifIndex, const std::string& name);
  void linkDel(IfIndex ifIndex);
  const Device* find(IfIndex ifIndex) const;
  std::string nameOf(IfIndex vrfDevice) const;

  const std::function<void(const Lanix::IntfId&)> come_;
  std::map<Lanix::IntfId, IfIndex> indices_;
  std::unordered_map<IfIndex, Device> devices_;
  std::unordered_map<IfIndex, std::string> vrfDevices_;  // names
  std::set<IfIndex> told_;
};

}  // namespace ArpService
