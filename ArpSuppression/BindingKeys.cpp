#include "ArpSuppression/BindingKeys.h"

#include <functional>

namespace ArpSuppression {

VrfIpAddress VrfIpAddress::fromVlanL3Info(const VlanL3Info& vlanL3Info, const Lanix::IpGenAddr& ipAddress) {
  const bool scoped = ipAddress.af() == Lanix::AddressFamily::ipv6_ && ipAddress.isLinkLocal();
  return {vlanL3Info.vrfInfo(), ipAddress, scoped ? vlanL3Info.vlanIntfId() : Lanix::IntfId()};
}

VrfIpAddress VrfIpAddress::fromArpKey(const VlanL3InfoStatus& vlanL3InfoStatus,
                                      const Arp::Table::ArpKey& arpKey) {
  if (!arpKey.intfId.isVlan()) return {};
  const Bridging::VlanId vlanId(arpKey.intfId.vlanNumber());
  const Ptr<VlanL3Info> info = vlanL3InfoStatus.vlanL3Info(vlanId);
  return info ? fromVlanL3Info(*info, arpKey.addr) : VrfIpAddress();
}

bool VrfIpAddress::operator<(const VrfIpAddress& other) const {
  if (vrfInfo != other.vrfInfo) return vrfInfo < other.vrfInfo;
  if (ipAddress != other.ipAddress) return ipAddress < other.ipAddress;
  return intfId < other.intfId;
}

std::uint64_t VrfIpAddress::hash(std::uint64_t seed) const {
  const std::uint64_t hash = ipAddress.hash(Mox::hashOf(vrfInfo, seed));
  return intfId ? intfId.hash(hash) : hash;
}

Mox::String VrfIpAddress::toStrep() const {
  return "<" + (vrfInfo ? vrfInfo->toStrep() : Mox::String("NULL")) + ";" + ipAddress.toStrep() + ";" +
         intfId.shortName() + ">";
}

Mox::String VrfIpAddress::valueToStrep() const {
  return "Value('ArpSuppression::VrfIpAddress', ** {'vrfInfo': " +
         (vrfInfo ? vrfInfo->toStrep() : Mox::String("NULL")) + ", 'ipAddress': " + ipAddress.toStrep() +
         ", 'intfId': " + intfId.toStrep() + "})";
}

std::uint64_t VlanIdMacAddress::hash(std::uint64_t seed) const { return macAddress.hash(vlanId.hash(seed)); }

Mox::String VlanIdMacAddress::toStrep() const {
  return "<vlanId=" + vlanId.toStrep() + " macAddress=" + macAddress.toStrep() + ">";
}

Mox::String VlanIdMacAddress::valueToStrep() const {
  return "Value('ArpSuppression::VlanIdMacAddress', ** {'vlanId': " + vlanId.toStrep() +
         ", 'macAddress': " + macAddress.toStrep() + "})";
}

}  // namespace ArpSuppression
