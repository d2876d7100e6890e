#include "host/Bindings.h"

#include "Statedb/Json.h"

namespace Host {

namespace {

using Lanix::EthAddr;
using Lanix::IpGenAddr;

constexpr std::string_view kLocalMultihomed = "localMultihomed";

bool isOneHost(const IpGenAddr& ip) {
  return ip && !ip.isUnspecified() && !ip.isMulticast() && !(ip.isIpv4() && ip.ipv4().value() == 0xffffffff);
}

std::string_view nextPart(std::string_view& line) {
  const std::size_t end = line.find(' ');
  const std::string_view part = line.substr(0, end);
  line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
  return part;
}

std::string quoted(std::string_view text) { return Statedb::describe(std::string(text)); }

}  // namespace

Mox::Result<ArpSuppression::RemoteBindingKey> parseBindingKey(std::string_view vlan, std::string_view ip) {
  const auto vlanId = Bridging::VlanId::fromStrep(vlan);
  if (!vlanId) return Mox::Failure{"VLAN " + quoted(vlan) + " is not " + Bridging::VlanId::allowed()};
  const auto address = IpGenAddr::fromStrep(ip);
  if (!address || !isOneHost(*address))
    return Mox::Failure{"IP " + quoted(ip) + " is not the IPv4 or IPv6 address of one host"};
  return ArpSuppression::RemoteBindingKey{*vlanId, *address};
}

Mox::Result<Binding> parseBinding(std::string_view vlan, std::string_view ip, std::string_view mac,
                                  bool localMultihomed) {
  const auto key = parseBindingKey(vlan, ip);
  if (!key) return key.failure();
  const auto address = EthAddr::fromStrep(mac);
  if (!address || address->isZero() || address->isMulticast()) {
    return Mox::Failure{"MAC " + quoted(mac) +
                        " is not the MAC address of one station, like 02:00:00:00:00:01"};
  }
  return Binding{*key, {*address, localMultihomed}};
}

std::string bindingLine(const Binding& binding) {
  std::string line = Mox::toStrep(binding.key);
  line += ' ';
  line += binding.value.macAddress.toStrep();
  if (binding.value.localMultihomed) (line += ' ') += kLocalMultihomed;
  return line;
}

Mox::Result<Binding> parseBindingLine(std::string_view line) {
  const std::string_view vlan = nextPart(line);
  const std::string_view ip = nextPart(line);
  const std::string_view mac = nextPart(line);
  if (!line.empty() && line != kLocalMultihomed)
    return Mox::Failure{quoted(line) + " is not \"localMultihomed\" or nothing"};
  return parseBinding(vlan, ip, mac, !line.empty());
}

Mox::Result<ArpSuppression::RemoteBindingKey> parseBindingKeyLine(std::string_view line) {
  const std::string_view vlan = nextPart(line);
  return parseBindingKey(vlan, line);
}

}  // namespace Host
