#pragma once

#include <string>
#include <string_view>

#include "Mox/Result.h"
#include "Suppression/RemoteBindingConfig.h"

// Remote bindings as people and the control socket write them.

namespace Host {

struct Binding {
  ArpSuppression::RemoteBindingKey key;
  ArpSuppression::RemoteBinding value;
};

// A refusal says which part is wrong and what is allowed: a VLAN id, an IPv4 or IPv6 address of one host, a
// MAC address of one station.
Mox::Result<ArpSuppression::RemoteBindingKey> parseBindingKey(std::string_view vlan, std::string_view ip);
Mox::Result<Binding> parseBinding(std::string_view vlan, std::string_view ip, std::string_view mac,
                                  bool localMultihomed);

// The control socket's line of one binding: "10 10.0.0.1 02:00:00:00:00:01", and " localMultihomed" behind it
// where that holds. Only the first two parts name it.
std::string bindingLine(const Binding& binding);
Mox::Result<Binding> parseBindingLine(std::string_view line);
Mox::Result<ArpSuppression::RemoteBindingKey> parseBindingKeyLine(std::string_view line);

}  // namespace Host
