#include "host/Bindings.h"

#include <algorithm>
#include <cctype>

#include "Statedb/Json.h"
#include "Suppression/RemoteAddress.h"

namespace Host {

namespace {

using ArpSuppression::isLoopback;
using ArpSuppression::isOneHost;
using Lanix::EthAddr;
using Lanix::IpGenAddr;

constexpr std::pair<std::string_view, bool BindingFlags::*> kFlags[] = {
    {"localMultihomed", &BindingFlags::localMultihomed}, {"router", &BindingFlags::router}};

bool BindingFlags::*flagOf(std::string_view name) {
  for (const auto& [known, flag] : kFlags)
    if (known == name) return flag;
  return nullptr;
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

Mox::Result<> notOwn(const Ip::OwnAddresses& own, const ArpSuppression::RemoteBindingKey& key) {
  const auto interface = own.interfaceOf(key.vlanId, key.ipAddress);
  if (!interface) return {};
  return Mox::Failure{"IP " + Statedb::describe(key.ipAddress.toStrep()) + " on VLAN " +
                      key.vlanId.toStrep() + " is the address of " + interface->toStrep() +
                      " of this switch, which no other switch has"};
}

std::optional<EthAddr> parseMac(std::string_view text) {
  constexpr std::size_t kDigits = 12;
  const std::size_t group = std::min(text.find_first_of(":-."), text.size());  // digits up to a separator
  const char separator = group < text.size() ? text[group] : '\0';
  const bool known = separator == '\0' ? group == kDigits : group == (separator == '.' ? 4U : 2U);
  if (!known || text.size() != kDigits + kDigits / group - 1) return std::nullopt;
  std::string colons;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i % (group + 1) == group) {
      if (text[i] != separator) return std::nullopt;
      continue;
    }
    if (!std::isxdigit(static_cast<unsigned char>(text[i]))) return std::nullopt;
    if (colons.size() % 3 == 2) colons += ':';
    colons += static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
  }
  return EthAddr::fromStrep(colons);
}

Mox::Result<Binding> parseBinding(std::string_view vlan, std::string_view ip, std::string_view mac,
                                  BindingFlags flags) {
  const auto key = parseBindingKey(vlan, ip);
  if (!key) return key.failure();
  if (isLoopback(key->ipAddress))
    return Mox::Failure{"IP " + quoted(ip) + " is a loopback address, which no other switch has"};
  const auto address = parseMac(mac);
  if (!address || address->isZero() || address->isMulticast()) {
    return Mox::Failure{"MAC " + quoted(mac) +
                        " is not the MAC address of one station, like 02:00:00:00:00:01"};
  }
  return Binding{*key,
                 {.macAddress = *address, .localMultihomed = flags.localMultihomed, .router = flags.router}};
}

Mox::Result<Binding> parseBinding(const nlohmann::json& object) {
  if (!object.is_object()) return Mox::Failure{"it is not a JSON object"};
  std::string vlan;
  std::string ip;
  std::string mac;
  BindingFlags flags;
  for (auto item = object.begin(); item != object.end(); ++item) {
    const nlohmann::json& value = item.value();
    bool good = false;
    if (item.key() == "vlan") {
      good = value.is_number_integer() || value.is_string();
      if (good) vlan = value.is_string() ? value.get<std::string>() : value.dump();
    } else if (const auto flag = flagOf(item.key())) {
      good = value.is_boolean();
      if (good) flags.*flag = value.get<bool>();
    } else if (item.key() == "ip" || item.key() == "mac") {
      good = value.is_string();
      if (good) (item.key() == "ip" ? ip : mac) = value.get<std::string>();
    } else {
      return Mox::Failure{"unknown key " + Statedb::describe(item.key()) +
                          "; allowed: vlan, ip, mac, localMultihomed, router"};
    }
    if (good) continue;
    return Mox::Failure{item.key() + " " + Statedb::describe(value) + " is not " +
                        (item.key() == "vlan" ? Bridging::VlanId::allowed()
                         : flagOf(item.key()) ? "true or false"
                                              : "a string")};
  }
  return parseBinding(vlan, ip, mac, flags);
}

std::string bindingLine(const Binding& binding) {
  std::string line = Mox::toStrep(binding.key);
  line += ' ';
  line += binding.value.macAddress.toStrep();
  const BindingFlags flags{binding.value.localMultihomed, binding.value.router};
  for (const auto& [name, flag] : kFlags)
    if (flags.*flag) (line += ' ') += name;
  return line;
}

Mox::Result<Binding> parseBindingLine(std::string_view line) {
  const std::string_view vlan = nextPart(line);
  const std::string_view ip = nextPart(line);
  const std::string_view mac = nextPart(line);
  BindingFlags flags;
  while (!line.empty()) {
    const std::string_view name = nextPart(line);
    const auto flag = flagOf(name);
    if (!flag) return Mox::Failure{quoted(name) + " is not \"localMultihomed\", \"router\" or nothing"};
    flags.*flag = true;
  }
  return parseBinding(vlan, ip, mac, flags);
}

Mox::Result<ArpSuppression::RemoteBindingKey> parseBindingKeyLine(std::string_view line) {
  const std::string_view vlan = nextPart(line);
  return parseBindingKey(vlan, line);
}

}  // namespace Host
