#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "Ip/OwnAddresses.h"
#include "Lanix/EthAddr.h"
#include "Mox/Result.h"
#include "Suppression/RemoteBindingConfig.h"

// Remote bindings as people and the control socket write them.

namespace Host {

struct Binding {
  ArpSuppression::RemoteBindingKey key;
  ArpSuppression::RemoteBinding value;
};

// What may be said of the host beside its addresses.
struct BindingFlags {
  bool localMultihomed = false;
  bool router = false;  // which only IPv6 tells
};

// A refusal says which part is wrong and what is allowed: a VLAN id, an IPv4 or IPv6 address of one host, a
// MAC address of one station. A binding is for an address that another switch can have: not a loopback one.
Mox::Result<ArpSuppression::RemoteBindingKey> parseBindingKey(std::string_view vlan, std::string_view ip);
Mox::Result<Binding> parseBinding(std::string_view vlan, std::string_view ip, std::string_view mac,
                                  BindingFlags flags = {});
// Of {"vlan": 10, "ip": "10.0.0.1", "mac": "02:00:00:00:00:01", "localMultihomed": false, "router": false}; the
// last two keys may be left out.
Mox::Result<Binding> parseBinding(const nlohmann::json& object);

// Refused when an interface of this switch has the address in the VRF of that VLAN's interface.
Mox::Result<> notOwn(const Ip::OwnAddresses& own, const ArpSuppression::RemoteBindingKey& key);

// A MAC address as people paste it: 02:00:00:00:00:01, 02-00-..., 0200.0000.0001 or 020000000001, in upper or
// lower case.
std::optional<Lanix::EthAddr> parseMac(std::string_view text);

// The control socket's line of one binding: "10 10.0.0.1 02:00:00:00:00:01", and " localMultihomed" and " router"
// behind it where they hold. Only the first two parts name it.
std::string bindingLine(const Binding& binding);
Mox::Result<Binding> parseBindingLine(std::string_view line);
Mox::Result<ArpSuppression::RemoteBindingKey> parseBindingKeyLine(std::string_view line);

}  // namespace Host
