#pragma once

#include <cstdint>

#include "Arp/Table.h"
#include "ArpSuppression/VlanL3Info.h"

namespace ArpSuppression {

// The layer-3 side of a binding: an address in a VRF, and the VLAN interface when the address is IPv6
// link-local, which is only unique there. The VRF counts by identity: the order of keys holds within one run
// only and is never shown or stored. A key keeps its VrfInfo alive; one that has left the status is never
// found again by a key made anew.
struct VrfIpAddress {
  Ptr<VrfInfo> vrfInfo;
  Lanix::IpGenAddr ipAddress;
  Lanix::IntfId intfId;

  static VrfIpAddress fromVlanL3Info(const VlanL3Info& vlanL3Info, const Lanix::IpGenAddr& ipAddress);
  // The default key when the entry's interface is no VLAN interface, or one of a VLAN without an entry in the
  // status. Throws Mox::RangeError for a VLAN interface whose number is no VLAN id.
  static VrfIpAddress fromArpKey(const VlanL3InfoStatus& vlanL3InfoStatus, const Arp::Table::ArpKey& arpKey);

  // It differs from the default key.
  explicit operator bool() const { return !(*this == VrfIpAddress()); }
  friend bool operator==(const VrfIpAddress&, const VrfIpAddress&) = default;
  bool operator<(const VrfIpAddress& other) const;
  std::uint64_t hash(std::uint64_t seed) const;

  // "<<vrfName=red vrfId=5>;10.0.0.1;>"
  Mox::String toStrep() const;
  // "Value('ArpSuppression::VrfIpAddress', ** {...})"
  Mox::String valueToStrep() const;
};

// The layer-2 side of a binding: a station in a VLAN.
struct VlanIdMacAddress {
  Bridging::VlanId vlanId;
  Lanix::EthAddr macAddress;

  friend auto operator<=>(const VlanIdMacAddress&, const VlanIdMacAddress&) = default;
  std::uint64_t hash(std::uint64_t seed) const;

  // "<vlanId=10 macAddress=02:00:00:00:00:01>"
  Mox::String toStrep() const;
  // "Value('ArpSuppression::VlanIdMacAddress', ** {...})"
  Mox::String valueToStrep() const;
};

}  // namespace ArpSuppression
