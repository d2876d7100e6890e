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
  return intfId.hash(ipAddress.hash(Mox::hashOf(vrfInfo, seed)));
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

std::optional<VlanIdMacAddress> VlanIdMacAddress::fromStrep(std::string_view text) {
  constexpr std::string_view kVlan = "<vlanId=";
  constexpr std::string_view kMac = " macAddress=";
  const std::size_t middle = text.find(kMac);
  if (!text.starts_with(kVlan) || !text.ends_with('>') || middle == std::string_view::npos)
    return std::nullopt;
  text.remove_suffix(1);
  const auto vlanId = Bridging::VlanId::fromStrep(text.substr(kVlan.size(), middle - kVlan.size()));
  const auto macAddress = Lanix::EthAddr::fromStrep(text.substr(middle + kMac.size()));
  if (!vlanId || !macAddress) return std::nullopt;
  return VlanIdMacAddress{*vlanId, *macAddress};
}

Mox::String VlanIdMacAddress::valueToStrep() const {
  return "Value('ArpSuppression::VlanIdMacAddress', ** {'vlanId': " + vlanId.toStrep() +
         ", 'macAddress': " + macAddress.toStrep() + "})";
}

}  // namespace ArpSuppression
